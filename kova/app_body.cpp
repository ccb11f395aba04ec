/* The way of a body: from the source's socket straight into the mapping of the file, through one pipe inside the
   kernel, or through one buffer. Pipe and buffer serve all tasks: nothing stays in them between two calls. */
#include "app.h"

#include "fdio.h"
#include "log.h"
#include "rqs.h"
#include "syswrap.h"
#include "tmout.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t DWBUF_LEN = 1048576;   /* one piece of a written body, by either road */
constexpr size_t MIN_MOVE_LEN = 131072; /* a shorter rest costs less through the buffer */
constexpr timespec TOUCH_PACE = {1, 0}; /* no mapped file's time is set more often */

/* Written and emptied within one call, by empty_pipe and receive_written. */
static std::array<char, DWBUF_LEN> g_buf;

/* Both -1: none, every body goes through the buffer. Opened and closed by open_body_pipe and close_body_pipe only. */
static struct {
    int out; /* bytes come out here */
    int in;
} g_pipe = {-1, -1};

/* ---- the pipe ---- */

/* Neither end may block: there is one pipe for all tasks, and a wait on it would be a wait of the whole loop. */
void open_body_pipe() noexcept
{
    std::array<int, 2> fds{};
    if (pipe2(fds.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        LOG_WARN("%s: ERROR(%d): %s: bodies go through the buffer\n", __func__, errno, strerror(errno));
        return;
    }
    g_pipe = {fds[0], fds[1]};
    const int granted = fcntl(g_pipe.in, F_SETPIPE_SZ, static_cast<int>(DWBUF_LEN));
    if (granted < static_cast<int>(DWBUF_LEN)) {
        LOG_WARN("%s: a pipe of %zu bytes is not granted (%d): bodies go through the buffer\n", __func__, DWBUF_LEN,
                 granted);
        close_body_pipe();
    }
}

void close_body_pipe() noexcept
{
    for (int* fd : {&g_pipe.out, &g_pipe.in}) {
        if (*fd >= 0)
            W_close(__func__, *fd);
        *fd = -1;
    }
}

/* ---- written bodies ---- */

/* What is in the pipe goes into the file; the pipe, which the next task uses, is empty afterwards. The bytes that
   reached the file; -1 none did. */
static ssize_t empty_pipe(dw_task* task, size_t len) noexcept
{
    size_t moved = 0;
    ssize_t n = 0;
    while (moved < len && (n = splice(g_pipe.out, nullptr, task->dfd, nullptr, len - moved, SPLICE_F_MOVE)) > 0)
        moved += static_cast<size_t>(n);
    if (moved == len)
        return static_cast<ssize_t>(moved);

    /* What the kernel does not move is written by hand: the plain calls say what is wrong, if anything is. */
    task->is_unmoved = true;
    const size_t rest = len - moved;
    for (size_t have = 0; have < rest; have += static_cast<size_t>(n)) {
        n = nread(g_pipe.out, g_buf.data() + have, rest - have);
        if (n < 1) { /* nobody's bytes may stay for the next task */
            close_body_pipe();
            open_body_pipe();
            return moved > 0 ? static_cast<ssize_t>(moved) : -1;
        }
    }
    n = nwrite(task->dfd, g_buf.data(), rest);
    if (n > 0)
        moved += static_cast<size_t>(n);
    return moved > 0 ? static_cast<ssize_t>(moved) : n;
}

/* Whether errno is the kernel's word on splice itself, and not on the connection. */
static bool is_refused(int err) noexcept
{
    return err == EAGAIN || err == EINVAL || err == ENOSYS || err == EOPNOTSUPP || err == EPERM || err == EIO ||
           err == ENOMEM;
}

/* One piece of a written body. The bytes read, as read(2); *written gets those that reached the file. */
static ssize_t receive_written(dw_task* task, ssize_t* written) noexcept
{
    if (g_pipe.in >= 0 && task->nleft >= MIN_MOVE_LEN && !task->is_unmoved) {
        ssize_t n = 0;
        do {
            n = splice(task->sfd, nullptr, g_pipe.in, nullptr, std::min(task->nleft, DWBUF_LEN),
                       SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
        } while (n < 0 && errno == EINTR);
        if (n > 0)
            *written = empty_pipe(task, static_cast<size_t>(n));
        if (n >= 0 || !is_refused(errno))
            return n;
        task->is_unmoved = true;
        errno = 0;
    }
    const ssize_t n = nread(task->sfd, g_buf.data(), std::min(task->nleft, g_buf.size()));
    if (n > 0)
        *written = nwrite(task->dfd, g_buf.data(), static_cast<size_t>(n));
    return n;
}

/* ---- one event ---- */

/* One read an event, so that no source keeps the others waiting. errno is cleared before it: an end of the stream
   leaves it alone, and an old value must not speak for it. */
int read_fragment(dw_task* task) noexcept
{
    rqs_set_now(&task->last_io_tm);
    if (task->nleft == 0)
        return 0; /* the whole body came with the head: the event only says that the task may complete */
    errno = 0;
    ssize_t written = 0;
    const ssize_t n =
        task->is_mmapped ? nread(task->sfd, task->buf + task->f_pos, task->nleft) : receive_written(task, &written);
    int rc = 0;
    if (n < 1) {
        rc = n == 0 ? ECONNRESET : errno; /* bytes are missing, so an end of the stream is a break */
    } else if (task->is_mmapped) {
        /* The time of the last byte tells a stalled file from one that is being written. Bytes that the kernel puts
           into a mapping leave the file's time as it is. */
        if (timed_out(task->touch_tm, TOUCH_PACE)) {
            rqs_set_now(&task->touch_tm);
            (void)futimens(task->dfd, nullptr); /* never refused on a file of one's own */
        }
    } else if (written != n) {
        LOG_ERR("%s: under-write to fd%d: %zd/%zd\n", __func__, task->dfd, n, written);
        rc = -1;
    }
    if (rc != 0) {
        LOG_ERR("%s: [%s] failed, rc=%d\n", __func__, task->spec.fpath, rc);
        return rc;
    }
    if (static_cast<size_t>(n) > task->nleft)
        PANIC("%s: BAD CONTENT-LEFT: nrecv/left: %zd/%zu bytes\n", __func__, n, task->nleft);
    task->f_pos += n;
    task->nleft -= static_cast<size_t>(n);
    LOG_DEBUG("%s: %zd bytes, total=%jd/%zu, %zu left\n", __func__, n, intmax_t{task->f_pos}, task->content_length,
              task->nleft);
    return 0;
}
