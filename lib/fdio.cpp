/* Reads and writes on descriptors. A call is repeated for one reason only, a signal that has come before any byte:
   every other result, a short count above all, is the caller's to judge, since what it means differs between a file, a
   pipe and a socket. */
#include "fdio.h"

#include "guard.h"
#include "log.h"
#include "syswrap.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(MOD_FDIO);

ssize_t nread(int fd, void* buf, size_t count) noexcept
{
    return TEMP_FAILURE_RETRY(read(fd, buf, count));
}

ssize_t nwrite(int fd, const void* buf, size_t count) noexcept
{
    return TEMP_FAILURE_RETRY(write(fd, buf, count));
}

/* For a descriptor that has reported a hang-up: data may still be behind it, and only a look tells. */
int wait_to_read(int fd, int ms) noexcept
{
    pollfd pfd = {fd, POLLIN, 0};
    const int rc = poll(&pfd, 1, ms);
    if (rc < 0) {
        LOG_ERRNO("%s: poll(fd%d)", __func__, fd);
        return -1;
    }
    return rc > 0 && (pfd.revents & (POLLIN | POLLHUP)) ? 1 : 0; /* a pipe's end is told by POLLHUP alone */
}

/* A file may be shorter than the room for it, and a read shorter than the file: it goes on until the end or the
   room's. */
ssize_t read_file_buf(const char* path, char* buf, size_t cap) noexcept
{
    const int fd = W_open(__func__, path, O_RDONLY, 0);
    if (fd < 0)
        return -1;
    const scope_guard close_fd([fd] { W_close("read_file_buf", fd); });
    size_t pos = 0;
    while (pos < cap) {
        const ssize_t n = nread(fd, buf + pos, cap - pos);
        if (n < 0) {
            LOG_ERRNO("%s: read(%s)", __func__, path);
            return -1;
        }
        if (n == 0)
            break;
        pos += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(pos);
}
