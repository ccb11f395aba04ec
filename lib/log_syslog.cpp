/* Syslog behind the log: the only file that sees <syslog.h>. */
#include "log_syslog.h"

#include <syslog.h>

/* By log level from -4 (panic) to 2 (debug). */
static const int PRIORITIES[] = {LOG_ALERT, LOG_ERR, LOG_CRIT, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG};

void syslog_open(const char* ident, int option, int facility) noexcept
{
    openlog(ident, option == SYSLOG_DEFAULT ? LOG_PID | LOG_CONS : option,
            facility == SYSLOG_DEFAULT ? LOG_LOCAL0 : facility);
}

void syslog_put(int level, int facility, const char* line) noexcept
{
    const int priority = level >= -4 && level <= 2 ? PRIORITIES[level + 4] : LOG_DEBUG;
    syslog(priority | (facility == SYSLOG_DEFAULT ? LOG_LOCAL0 : facility), "%s", line);
}

void syslog_close() noexcept
{
    closelog();
}
