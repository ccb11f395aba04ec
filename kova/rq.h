/* User requests: handlers of the user listeners and of the dispatch. */
#pragma once

#include "data.h"

extern const rui_socket_cb g_urq_cb; /* new_rq, rm_rq, time_out of the user listeners */

[[nodiscard]] dw_urq* urq_new(int sockfd, rui_socket_ctx* srv, void* opaque) noexcept;
void urq_rm(dw_urq* urq) noexcept;
void urq_set_state(dw_urq* urq, n32_tag state) noexcept;
/* Readable. 0 always. */
[[nodiscard]] int urq_read(dw_urq* urq) noexcept;
/* 0 head complete; 11 more is needed; 104 the client closed; -12 no memory; -1 read failure. */
[[nodiscard]] int read_http_rq(dw_urq* urq) noexcept;
/* Error or hang-up alone: the request is listed for removal, nothing is sent. */
void urq_error(dw_urq* urq, bool hangup) noexcept;
/* Lists the request for removal after the round; twice is harmless. */
void pprm_urq(dw_urq* urq) noexcept;
/* 1 when timeout_ms have passed since acceptance: listed for removal. */
[[nodiscard]] int urq_timeout(dw_urq* urq, uint32_t timeout_ms) noexcept;
/* u1 ... uMAX, then u1 again. */
void mk_trk_tag(size_t* counter, n64_tag* tag, char letter, size_t max) noexcept;

/* Removes the listed requests. From post-processing. */
void pprm_requests() noexcept;
/* Has task_tmout_ms passed since it was last true? It paces the look for requests that are due, nothing else. */
[[nodiscard]] bool is_iocheck_time() noexcept;
/* Lists requests older than urq_tmout_sec, when it is time to look. 0 always. From the idle step. */
int time_out_requests() noexcept;
