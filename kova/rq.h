/* User requests: one HTTP client from acceptance to reaping. */
#pragma once

#include "data.h"

extern const rui_socket_cb g_urq_cb; /* what user listeners do with requests: new_rq, rm_rq, time_out */

/* Readable: reads the head and, once it is whole, serves it. 0 always. */
[[nodiscard]] int urq_read(dw_urq* urq) noexcept;
/* Error or hang-up alone: the request is listed for removal, nothing is sent. */
void urq_error(dw_urq* urq, bool hangup) noexcept;
/* Lists the request for removal after the round; twice is harmless. */
void pprm_urq(dw_urq* urq) noexcept;

/* Removes the listed requests. From post-processing. */
void pprm_requests() noexcept;
/* Lists requests older than urq_tmout_sec; looks no more often than task_tmout_ms. 0 always. From the idle step. */
int time_out_requests() noexcept;

/* ---- offered, called in this room only ---- */

/* The next tracking tag: u1 ... uMAX, then u1 again. */
void mk_trk_tag(size_t* counter, n64_tag* tag, char letter, size_t max) noexcept;
