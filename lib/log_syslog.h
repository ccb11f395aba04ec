/* Syslog behind the log, without libc's syslog(), which blocks while nobody reads the socket. It stands apart because
   <syslog.h> and log.h both name their macros LOG_ERR and so on. */
#pragma once

#include <string_view>

constexpr int SYSLOG_DEFAULT = -1; /* LOG_PID | LOG_CONS, LOG_LOCAL0 */

/* Lines go out under ident, with LOG_PID and LOG_CONS of option. The connection is made by the first line, and again
   when the syslog daemon was restarted. */
void syslog_open(const char* ident, int option) noexcept;
/* level is a log level; its priority is that of the level's kind. A line that the daemon does not take now is dropped.
   */
void syslog_put(int level, int facility, std::string_view line) noexcept;
void syslog_close() noexcept;
