/* User requests, and the grammar of an order. */
#pragma once

#include "data.h"

/* ---- user requests: handlers of the user listeners and of the dispatch ---- */

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

/* ---- the order (rq_order.cpp) ---- */

/* Request head to order. 0, -3 for a ping, else the refusing step's error; may choose the response. */
[[nodiscard]] int parse_dw_get(dw_urq* urq, dw_spec* spec) noexcept;
[[nodiscard]] int validate_request(dw_urq* urq, dw_spec* spec) noexcept;
/* Source and destination (a buffer of dst_cap + 1 bytes, filled from the source when empty) to order. 0; 22; 34; 17;
   the result of a failing step. */
[[nodiscard]] int setup_dw_spec(const char* src, char* dst, size_t dst_cap, dw_spec* spec) noexcept;
/* Paths of the order; creates the missing directories. 0; 34; the error of the creation. */
[[nodiscard]] int init_spec(const char* data_dir, const char* src, const char* dst, dw_spec* spec) noexcept;
