/* System calls that log their own failure: W_call(caller, arguments of the call). The result and errno are those of the
   call. caller is the name of the calling function. Successes are traced at DEBUG where it helps; the level of this
   module is NORM unless the environment says SYSW_DEBUG=1. */
#pragma once

#include <cstddef>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

[[nodiscard]] bool is_eagain(int err) noexcept;

int W_open(const char* caller, const char* path, int flags, mode_t mode) noexcept;
int W_close(const char* caller, int fd) noexcept;
void* W_calloc(const char* caller, size_t count, size_t size) noexcept;
off_t W_lseek(const char* caller, int fd, off_t offset, int whence) noexcept;
int W_unlink(const char* caller, const char* path) noexcept;
int W_ftruncate(const char* caller, int fd, off_t length) noexcept;
/* EINPROGRESS is an INFO line, not a failure. */
int W_connect(const char* caller, int fd, const sockaddr* addr, socklen_t addrlen) noexcept;
/* With strict 0 the conditions of no_fault() are not logged. */
ssize_t W_write_f(const char* caller, int fd, const void* buf, size_t count, int strict) noexcept;
int W_socket(const char* caller, int domain, int type, int protocol) noexcept;
int W_setsockopt(const char* caller, int fd, int level, int name, const void* value, socklen_t length) noexcept;
int W_bind(const char* caller, int fd, const sockaddr* addr, socklen_t addrlen) noexcept;
int W_listen(const char* caller, int fd, int backlog) noexcept;
int W_getaddrinfo(const char* caller, const char* node, const char* service, const addrinfo* hints,
                  addrinfo** result) noexcept;
/* EAGAIN is not logged. The accepted descriptor is close-on-exec and non-blocking. */
int W_accept(const char* caller, int fd, sockaddr* addr, socklen_t* addrlen) noexcept;

/* ---- offered, called in this room only ---- */

/* EAGAIN, EPIPE, EINTR and ECONNRESET are no fault unless strict. */
[[nodiscard]] bool no_fault(int err, int strict) noexcept;

/* ---- offered, not called here ---- */

ssize_t W_read_f(const char* caller, int fd, void* buf, size_t count, int strict) noexcept;
/* A time-out is a WARN line. */
int W_poll(const char* caller, pollfd* fds, nfds_t count, int timeout_ms) noexcept;
/* A result of 0 counts as a failure too. */
ssize_t W_sendto(const char* caller, int fd, const void* buf, size_t length, int flags, const sockaddr* addr,
                 socklen_t addrlen) noexcept;
ssize_t W_recvfrom(const char* caller, int fd, void* buf, size_t length, int flags, sockaddr* addr,
                   socklen_t* addrlen) noexcept;
