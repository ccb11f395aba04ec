/* What the files of the log share among themselves. */
#pragma once

#include "log.h"

[[nodiscard]] bool log_is_ready() noexcept;
/* Opens file or command as it stands, appending. 0, or -1 (reported on standard error). */
[[nodiscard]] int log_do_open(log_ctx* log, const char* path, bool is_pipe) noexcept;
/* Closes stream and pipe. 0, or -1 with errno. */
[[nodiscard]] int log_close_stream(log_ctx* log) noexcept;
