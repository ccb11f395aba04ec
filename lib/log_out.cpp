/* Bounded writes of the log. Every write is a non-blocking one. A reader that is slow is waited for, but all waits
   together are limited; one that has let the time pass is not waited for again before it has taken something. */
#include "log_out.h"

#include "strops.h"
#include "timeop.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

constexpr long WAIT_US = 300000;        /* waited without a pause of WAIT_PAUSE_US, by all outputs together */
constexpr long WAIT_PAUSE_US = 5000000; /* so at most WAIT_US is waited in any 5 s */
constexpr long NAP_US = 5000;           /* an output that is writable and yet takes nothing is tried again so often */
constexpr size_t TROUBLE_MAX = 1024;

/* ---- what is behind a descriptor ---- */

/* A description of our own of what fd refers to. -1 when the system refuses it: another user's terminal, say. */
static int reopen(int fd) noexcept
{
    std::array<char, 32> path{};
    snprintf(path.data(), path.size(), "/proc/self/fd/%d", fd);
    return open(path.data(), O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

void out_attach(log_out* out, int fd) noexcept
{
    *out = {.fd = fd, .kind = OUT_PLAIN, .is_attached = true, .is_own = false, .is_stalled = false, .is_torn = false};
    struct stat st {
    };
    if (fd < 0 || fstat(fd, &st) != 0 || S_ISREG(st.st_mode))
        return;
    if (S_ISSOCK(st.st_mode)) {
        out->kind = OUT_SOCKET;
        return;
    }
    /* The standard descriptors are the starter's, too: he may want to block on them, whatever they do now. */
    const int flags = fcntl(fd, F_GETFL);
    if (fd <= STDERR_FILENO || !(flags & O_NONBLOCK)) {
        const int own = reopen(fd);
        if (own >= 0) {
            out->fd = own;
            out->is_own = true;
        } else {
            out->kind = OUT_SHARED;
        }
    }
    if (out->kind == OUT_PLAIN && isatty(out->fd))
        out->kind = OUT_TERMINAL;
}

/* All zero again: the next text looks at what is behind the stream anew. */
void out_detach(log_out* out) noexcept
{
    if (out->is_own)
        close(out->fd);
    *out = log_out{};
}

/* ---- one write ---- */

/* A background job that writes to a terminal with "tostop" would be stopped. */
static ssize_t write_terminal(int fd, std::string_view text) noexcept
{
    sigset_t stop;
    sigset_t old;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTTOU);
    sigprocmask(SIG_BLOCK, &stop, &old);
    const ssize_t n = write(fd, text.data(), text.size());
    const int err = errno;
    sigprocmask(SIG_SETMASK, &old, nullptr);
    errno = err;
    return n;
}

/* The description is others', too, so that it is non-blocking only for the moment of the write. */
static ssize_t write_shared(int fd, std::string_view text) noexcept
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0)
        return -1;
    const ssize_t n = write_terminal(fd, text);
    const int err = errno;
    (void)fcntl(fd, F_SETFL, flags);
    errno = err;
    return n;
}

/* Each kind has its own way of not waiting. */
static ssize_t write_some(const log_out* out, std::string_view text) noexcept
{
    switch (out->kind) {
    case OUT_SOCKET:
        return send(out->fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    case OUT_SHARED:
        return write_shared(out->fd, text);
    case OUT_TERMINAL:
        return write_terminal(out->fd, text);
    default:
        return write(out->fd, text.data(), text.size());
    }
}

/* ---- the waits ---- */

/* Of all outputs. Spent time comes back only after a pause in which nothing was waited for. */
static struct {
    long spent_us;
    long last_end_us; /* CLOCK_MONOTONIC */
} g_waits;

/* True when another try is worth while. A terminal may be writable and yet lack the room for one character: is_idle
   says that the last try after a wait has brought nothing. */
static bool wait_for_room(log_out* out, bool is_idle) noexcept
{
    if (out->is_stalled)
        return false;
    const long start = mono_us();
    if (start - g_waits.last_end_us >= WAIT_PAUSE_US)
        g_waits.spent_us = 0;
    const long left_us = WAIT_US - g_waits.spent_us;
    if (left_us <= 0)
        return false;
    pollfd p = {out->fd, static_cast<short>(is_idle ? 0 : POLLOUT), 0};
    const long limit_us = is_idle ? std::min(left_us, NAP_US) : left_us;
    const int rc = poll(&p, 1, static_cast<int>((limit_us + 999) / 1000));
    g_waits.last_end_us = mono_us();
    g_waits.spent_us += g_waits.last_end_us - start;
    return rc > 0 || is_idle;
}

/* ---- a text ---- */

/* Writes text as far as it goes; *done is the number of bytes that were taken. 0 when that is all of it, or an errno.
   */
static int put_part(log_out* out, std::string_view text, size_t* done) noexcept
{
    bool has_waited = false;
    while (*done < text.size()) {
        const ssize_t n = write_some(out, text.substr(*done));
        const int err = n < 0 ? errno : ENOSPC;
        if (n > 0) {
            *done += static_cast<size_t>(n);
            out->is_stalled = has_waited = false;
        } else if (err == EAGAIN || err == EWOULDBLOCK) {
            if (!wait_for_room(out, has_waited)) {
                out->is_stalled = true;
                return EAGAIN;
            }
            has_waited = true;
        } else if (err != EINTR) {
            return err;
        }
    }
    return 0;
}

/* A torn line is ended first, so that the next one can be told from it. */
int out_put(log_out* out, std::string_view text) noexcept
{
    size_t done = 0;
    if (out->is_torn) {
        if (const int rc = put_part(out, "\n", &done))
            return rc;
        out->is_torn = false;
        done = 0;
    }
    const int rc = put_part(out, text, &done);
    out->is_torn = rc != 0 && done > 0;
    return rc;
}

void out_line(FILE* fp, log_out* out, std::string_view text) noexcept
{
    if (!out->is_attached) [[unlikely]]
        out_attach(out, fileno(fp));
    if (out->fd >= 0)
        (void)out_put(out, text); /* the log does not fail its caller */
    else
        (void)fwrite(text.data(), 1, text.size(), fp); /* a stream in memory */
}

/* ---- sockets by path ---- */

/* Datagrams first: a line is a message there. A stream is what older daemons listen with. */
int connect_unix(const char* path, bool* is_stream) noexcept
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (!copy_text(addr.sun_path, sizeof(addr.sun_path), path))
        return -1;
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const int fd = socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return -1;
        *is_stream = type == SOCK_STREAM;
        if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0)
            return fd;
        const int err = errno;
        close(fd);
        errno = err;
        if (err != EPROTOTYPE)
            break;
    }
    return -1;
}

/* ---- standard error ---- */

/* The stream of the log may be the same standard error: then its state, stalled or torn, is shared. */
void log_trouble(const char* format, ...) noexcept
{
    const int err = errno;
    std::array<char, TROUBLE_MAX> text{};
    va_list ap;
    va_start(ap, format);
    const int n = vsnprintf(text.data(), text.size(), format, ap);
    va_end(ap);
    const std::string_view line(text.data(), std::min(static_cast<size_t>(std::max(n, 0)), text.size() - 1));
    if (g_log->fp == stderr) {
        out_line(stderr, &g_log->out, line);
    } else if (g_log->mirror_fp == stderr) {
        out_line(stderr, &g_log->mirror_out, line);
    } else { /* nothing is kept open on it: a daemon leaves its terminal */
        log_out out{};
        out_attach(&out, STDERR_FILENO);
        (void)out_put(&out, line);
        out_detach(&out);
    }
    errno = err;
}

/* A description of its own, since the starter's must not change under him. */
void unblock_stderr() noexcept
{
    const int own = reopen(STDERR_FILENO);
    if (own < 0)
        return;
    (void)dup2(own, STDERR_FILENO);
    close(own);
}
