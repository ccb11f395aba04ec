/* System calls that log their own failure, under the name of their caller, and leave errno as the call has set it,
   whatever the log does in between. The message shows the arguments: what a number or a path was is the first
   question of whoever reads the line. What is part of a normal day (EINPROGRESS, EAGAIN, a peer that goes) is no
   failure here. */
#include "syswrap.h"

#include "log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(MOD_SYSWRAP);

/* For "%p", which wants a pointer to void. */
static const void* ptr(const void* p) noexcept
{
    return p;
}

bool is_eagain(int err) noexcept
{
    return err == EAGAIN;
}

/* What a peer can cause at any time by going away or by being slow is worth no line, unless the caller knows better. */
bool no_fault(int err, int strict) noexcept
{
    return !strict && (err == EAGAIN || err == EPIPE || err == EINTR || err == ECONNRESET);
}

int W_open(const char* caller, const char* path, int flags, mode_t mode) noexcept
{
    const int fd = open(path, flags | O_CLOEXEC, mode);
    if (fd == -1)
        LOG_ERRNO("%s: open('%s', %d, 0x%x)", caller, path, flags, mode);
    return fd;
}

/* A descriptor is gone whatever close says; the line tells that its last data may be lost. */
int W_close(const char* caller, int fd) noexcept
{
    const int rc = close(fd);
    if (rc != 0)
        LOG_ERRNO("%s: close(fd%d)", caller, fd);
    else
        LOG_DEBUG("%s: CLOSED(fd%d)\n", caller, fd);
    return rc;
}

/* Zeroed, so that a record is empty whatever is added to it later. */
void* W_calloc(const char* caller, size_t count, size_t size) noexcept
{
    void* p = calloc(count, size);
    if (!p)
        LOG_ERRNO("%s: calloc(%zu, %zu)", caller, count, size);
    return p;
}

off_t W_lseek(const char* caller, int fd, off_t offset, int whence) noexcept
{
    const off_t pos = lseek(fd, offset, whence);
    if (pos == -1)
        LOG_ERRNO("%s: lseek(%d, %jd, %d)", caller, fd, offset, whence);
    return pos;
}

int W_unlink(const char* caller, const char* path) noexcept
{
    const int rc = unlink(path);
    if (rc == -1)
        LOG_ERRNO("%s: unlink(%s)", caller, path);
    return rc;
}

int W_ftruncate(const char* caller, int fd, off_t length) noexcept
{
    const int rc = ftruncate(fd, length);
    if (rc == -1)
        LOG_ERRNO("%s: ftruncate(%d, %jd)", caller, fd, length);
    return rc;
}

int W_connect(const char* caller, int fd, const sockaddr* addr, socklen_t addrlen) noexcept
{
    const int rc = connect(fd, addr, addrlen);
    if (rc == 0)
        return 0;
    /* The log may change errno, which the caller asks for. */
    if (errno == EINPROGRESS) {
        LOG_INFO("%s: non-blocking connect in progress for fd%d\n", __func__, fd);
        errno = EINPROGRESS;
    } else {
        LOG_ERRNO("%s: connect(%d, %p, %u)", caller, fd, ptr(addr), addrlen);
    }
    return rc;
}

ssize_t W_write_f(const char* caller, int fd, const void* buf, size_t count, int strict) noexcept
{
    const ssize_t n = write(fd, buf, count);
    if (n == -1 && !no_fault(errno, strict))
        LOG_ERRNO("%s: write(%d, %p, %zu)", caller, fd, buf, count);
    return n;
}

ssize_t W_read_f(const char* caller, int fd, void* buf, size_t count, int strict) noexcept
{
    const ssize_t n = read(fd, buf, count);
    if (n == -1 && !no_fault(errno, strict))
        LOG_ERRNO("%s: read(%d, %p, %zu)", caller, fd, buf, count);
    return n;
}

int W_socket(const char* caller, int domain, int type, int protocol) noexcept
{
    const int fd = socket(domain, type | SOCK_CLOEXEC, protocol);
    if (fd == -1)
        LOG_ERRNO("%s: socket(%d, %d, %d)", caller, domain, type, protocol);
    else
        LOG_DEBUG("%s opened socket fd=%d (%d, %d, %d)\n", caller, fd, domain, type, protocol);
    return fd;
}

int W_setsockopt(const char* caller, int fd, int level, int name, const void* value, socklen_t length) noexcept
{
    const int rc = setsockopt(fd, level, name, value, length);
    if (rc == -1)
        LOG_ERRNO("%s: setsockopt(%d, %d, %d, %p, %u)", caller, fd, level, name, value, length);
    return rc;
}

int W_bind(const char* caller, int fd, const sockaddr* addr, socklen_t addrlen) noexcept
{
    const int rc = bind(fd, addr, addrlen);
    if (rc == -1)
        LOG_ERRNO("%s: bind(%d, %p, %u):", caller, fd, ptr(addr), addrlen);
    return rc;
}

int W_listen(const char* caller, int fd, int backlog) noexcept
{
    const int rc = listen(fd, backlog);
    if (rc == -1)
        LOG_ERRNO("%s: listen(%d, %d)", caller, fd, backlog);
    return rc;
}

/* Its failure is a number of its own kind; errno stands beside it for EAI_SYSTEM. */
int W_getaddrinfo(const char* caller, const char* node, const char* service, const addrinfo* hints,
                  addrinfo** result) noexcept
{
    const int rc = getaddrinfo(node, service, hints, result);
    if (rc != 0) {
        const int err = errno;
        LOG_ERR("%s: getaddrinfo(%s, %s, %p, %p): ERROR(%d:%d): %s\n", caller, node ? node : "(null)",
                service ? service : "(null)", ptr(hints), ptr(result), rc, err, gai_strerror(rc));
        errno = err;
    }
    return rc;
}

/* Close-on-exec and non-blocking with the accept itself: two calls less, and no moment between them. */
int W_accept(const char* caller, int fd, sockaddr* addr, socklen_t* addrlen) noexcept
{
    const int client = accept4(fd, addr, addrlen, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client == -1 && !is_eagain(errno))
        LOG_ERRNO("%s: accept(%d, %p, %u)", caller, fd, ptr(addr), addrlen ? *addrlen : 0);
    return client;
}

/* For a caller who expects an answer in time: a time-out is news, not a failure. */
int W_poll(const char* caller, pollfd* fds, nfds_t count, int timeout_ms) noexcept
{
    const int rc = poll(fds, count, timeout_ms);
    if (rc == -1)
        LOG_ERRNO("%s: poll(%p, %lu, %d)", caller, ptr(fds), count, timeout_ms);
    else if (rc == 0)
        LOG_WARN("%s: poll() has timed out after %d ms\n", caller, timeout_ms);
    return rc;
}

/* Nothing sent is a failure here, since nobody sends empty datagrams. */
ssize_t W_sendto(const char* caller, int fd, const void* buf, size_t length, int flags, const sockaddr* addr,
                 socklen_t addrlen) noexcept
{
    const ssize_t n = sendto(fd, buf, length, flags, addr, addrlen);
    if (n <= 0)
        LOG_ERRNO("%s: sendto(%d, %p, %zu, %d, ...)", caller, fd, buf, length, flags);
    return n;
}

ssize_t W_recvfrom(const char* caller, int fd, void* buf, size_t length, int flags, sockaddr* addr,
                   socklen_t* addrlen) noexcept
{
    const ssize_t n = recvfrom(fd, buf, length, flags, addr, addrlen);
    if (n <= 0)
        LOG_ERRNO("%s: recvfrom(%d, %p, %zu, %d, ...)", caller, fd, buf, length, flags);
    return n;
}
