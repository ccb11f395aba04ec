/* Syslog behind the log: the only file that sees <syslog.h>. Lines look like libc's, and go out like all lines of the
   log. */
#include "log_syslog.h"

#include "log_out.h"
#include "strops.h"
#include "timeop.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <paths.h>
#include <unistd.h>

/* Of log.h this file uses none. */
#undef LOG_ERR
#undef LOG_CRIT
#undef LOG_INFO
#undef LOG_DEBUG
#include <syslog.h>

constexpr size_t IDENT_MAX = 64;
constexpr size_t PREFIX_MAX = 160;
constexpr int64_t RETRY_MS = 1000; /* an absent daemon is looked for so often */

/* By log level from -4 (panic) to 2 (debug). */
static const int PRIORITIES[] = {LOG_ALERT, LOG_ERR, LOG_CRIT, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG};

static struct {
    char ident[IDENT_MAX];
    int option;
    log_out out; /* the connection; attached while there is one */
    bool is_stream;
    int64_t retry_at; /* ms of CLOCK_MONOTONIC; no connection is tried before */
} g_syslog;

void syslog_open(const char* ident, int option) noexcept
{
    out_detach(&g_syslog.out);
    cut_text(g_syslog.ident, sizeof(g_syslog.ident), ident);
    g_syslog.option = option == SYSLOG_DEFAULT ? LOG_PID | LOG_CONS : option;
    g_syslog.retry_at = 0;
}

/* text has a NUL behind it, with which the records of a stream end. False: there is no daemon. */
static bool send_line(const char* text, size_t len) noexcept
{
    for (int i = 0; i < 2; ++i) { /* a connection from before the daemon's restart fails once */
        if (!g_syslog.out.is_attached) {
            const int fd = connect_unix(_PATH_LOG, &g_syslog.is_stream);
            if (fd < 0) {
                g_syslog.retry_at = mono_ms() + RETRY_MS;
                return false;
            }
            out_attach(&g_syslog.out, fd);
            g_syslog.out.is_own = true;
        }
        const int rc = out_put(&g_syslog.out, {text, len + (g_syslog.is_stream ? 1 : 0)});
        if (rc == 0 || (rc == EAGAIN && !g_syslog.out.is_torn))
            return true;
        out_detach(&g_syslog.out); /* also from the middle of a stream's line */
    }
    return false;
}

/* The form of a line is the syslog daemon's: priority, date, name. Between two attempts to reach an absent daemon lines
   are dropped, since a connection attempt a line would cost more than the line. */
void syslog_put(int level, int facility, std::string_view line) noexcept
{
    if (!g_syslog.out.is_attached && mono_ms() < g_syslog.retry_at)
        return;
    const int priority = level >= -4 && level <= 2 ? PRIORITIES[level + 4] : LOG_DEBUG;
    const time_t now = time(nullptr);
    tm parts{};
    std::array<char, 32> date{};
    if (!localtime_r(&now, &parts) || strftime(date.data(), date.size(), "%b %e %T", &parts) == 0)
        return;
    std::array<char, PREFIX_MAX / 2 + IDENT_MAX> tag{};
    if (g_syslog.option & LOG_PID)
        snprintf(tag.data(), tag.size(), "%s[%d]: ", g_syslog.ident, getpid());
    else
        snprintf(tag.data(), tag.size(), "%s: ", g_syslog.ident);
    std::array<char, PREFIX_MAX * 2 + LOG_LINE_MAX> text{};
    int n = snprintf(text.data(), text.size(), "<%d>%s %s%.*s",
                     priority | (facility == SYSLOG_DEFAULT ? LOG_LOCAL0 : facility), date.data(), tag.data(),
                     static_cast<int>(line.size()), line.data());
    if (send_line(text.data(), static_cast<size_t>(n)) || !(g_syslog.option & LOG_CONS))
        return;

    /* The line that has found no daemon. */
    const int fd = open(_PATH_CONSOLE, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return;
    line = line.substr(0, line.find_last_not_of('\n') + 1);
    n = snprintf(text.data(), text.size(), "%s%.*s\r\n", tag.data(), static_cast<int>(line.size()), line.data());
    (void)!write(fd, text.data(), static_cast<size_t>(n));
    close(fd);
}

void syslog_close() noexcept
{
    out_detach(&g_syslog.out);
}
