/* The UDP channel: one order a datagram, no answer, serialised by order locks. */
#pragma once

#include "data.h"

/* Opens the channel when a URL is configured. 0, or -1 (logged). */
[[nodiscard]] int udl_ctx_init(udp_lstn_cfg* cfg, udl_ctx* udl) noexcept;
/* Registers the open channel with the loop. 0, or the loop's error (logged). */
[[nodiscard]] int udl_ctx_start(udl_ctx* udl) noexcept;
/* Closes the channel; nothing to do when it is not ready. */
void udl_ctx_destroy(udl_ctx* udl) noexcept;
/* Readable: takes one datagram. 0 always. */
[[nodiscard]] int udl_accept(udl_ctx* udl) noexcept;
/* Error or hang-up alone: reads and logs the socket's pending error. */
void udl_error(udl_ctx* udl) noexcept;
