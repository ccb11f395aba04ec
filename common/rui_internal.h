/* What the files of the request listeners share among themselves. */
#pragma once

#include "rui.h"

[[nodiscard]] bool rui_fdset_test(const rui_fdset* set, int fd) noexcept;
[[nodiscard]] bool rui_fdset_mark(rui_fdset* set, int fd) noexcept; /* false: no memory */
void rui_fdset_clear(rui_fdset* set, int fd) noexcept;

/* Ends a pause of a listener's time-out; the caller changes what its socket is watched for. */
void rui_resume(rui_socket_ctx* srv) noexcept;
/* Watches a paused listener again once LSN_PAUSE_TMOUT_MS have passed. */
void rui_wake(rui_socket_ctx* srv) noexcept;
