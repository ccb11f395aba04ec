/* Syslog behind the log. It stands apart because <syslog.h> and log.h both name their macros LOG_ERR and so on. */
#pragma once

constexpr int SYSLOG_DEFAULT = -1; /* LOG_PID | LOG_CONS, LOG_LOCAL0 */

void syslog_open(const char* ident, int option, int facility) noexcept;
/* level is a log level; its priority is that of the level's kind. */
void syslog_put(int level, int facility, const char* line) noexcept;
void syslog_close() noexcept;
