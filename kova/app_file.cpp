/* The destination side of a task. The body lands in a file whose name ends in "-Kova" (app_body.cpp says how); only a
   complete file gets its final name, so nobody ever reads a partial one. */
#include "app.h"

#include "fdio.h"
#include "log.h"
#include "register.h"
#include "rqs.h"
#include "strops.h"
#include "syswrap.h"
#include "unfinished.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr mode_t DST_MODE = 0666; /* less the umask */

/* Asked when the head has come and not when the order has: what matters is whether the rename would overwrite. */
int check_dest_path(const char* fpath) noexcept
{
    std::array<char, SPEC_PATH_MAX> final_path{};
    ASSERT(copy_text(final_path.data(), final_path.size(), fpath));
    ASSERT(cutoff_segext(final_path.data()) == 0);
    if (access(final_path.data(), F_OK) == 0) {
        LOG_ERR("%s: destination [%s] is BUSY (already there)\n", __func__, final_path.data());
        return -EBUSY;
    }
    return 0;
}

/* At most max_mmap_mb MiB, to the byte; the limit itself may be beyond what a size in bytes can hold. */
static bool can_mmap_dw(const dw_task* task) noexcept
{
    const size_t mib = task->content_length >> 20;
    return mib < g_cfg.max_mmap_mb || (mib == g_cfg.max_mmap_mb && (task->content_length & 0xfffff) == 0);
}

/* Writes the body bytes that came with the head through the descriptor, at its start. */
static int write_tail(const char* fn, const dw_task* task, std::string_view tail) noexcept
{
    const ssize_t n = nwrite(task->dfd, tail.data(), tail.size());
    if (n == static_cast<ssize_t>(tail.size()))
        return 0;
    LOG_ERR("%s: under-write(fd%d) %zd/%zu\n", fn, task->dfd, n, tail.size());
    return -1;
}

/* The mapping is filled by reads of the source, so the body is never copied in user space. 0, or not (logged). */
static int map_dest(const char* fn, dw_task* task, std::string_view tail) noexcept
{
    /* Blocks that exist before the mapping is touched cannot run out: a full disk fails here and not as a fault later.
       A file system without such a call is no failure. */
    int rc = 0;
    do {
        rc = fallocate(task->dfd, 0, 0, static_cast<off_t>(task->content_length));
    } while (rc != 0 && errno == EINTR);
    const bool is_reserved = rc == 0;
    if (!is_reserved && errno != EOPNOTSUPP && errno != ENOSYS) {
        const int err = errno;
        LOG_ERRNO("%s: fallocate(fd%d, %zu)", fn, task->dfd, task->content_length);
        /* What it got before the disk was full is there for the other orders of this round, not only after its end. */
        (void)W_ftruncate(fn, task->dfd, 0);
        return err;
    }

    void* p = mmap(nullptr, task->content_length, PROT_WRITE, MAP_SHARED | MAP_NORESERVE | MAP_POPULATE, task->dfd, 0);
    if (p == MAP_FAILED) {
        LOG_ERRNO("%s: mmap() for %zu bytes failed,", fn, task->content_length);
        return -1;
    }
    task->buf = static_cast<char*>(p);
    task->buflen = task->content_length;
    task->is_mmapped = true;
    if (tail.empty())
        return 0;
    LOG_DEBUG("%s: memcopy tail of %zu bytes\n", fn, tail.size());
    /* Without reserved blocks a copy into the mapping could fault; a write fails with an error. Later bytes are put
       into the mapping by the kernel, whose read fails with an error too. */
    if (!is_reserved)
        return write_tail(fn, task, tail);
    memcpy(task->buf, tail.data(), tail.size());
    return 0;
}

/* The unfinished file at its full length, with the first bytes of its body. */
static int make_dest(const char* fn, dw_task* task, std::string_view tail) noexcept
{
    clear_the_way(task);
    task->dfd = W_open(fn, task->spec.fpath, O_RDWR | O_CREAT | O_EXCL, DST_MODE);
    if (task->dfd == -1) {
        if (errno == EEXIST)
            task->dest = dw_dest::unproved;
        return errno;
    }
    task->dest = dw_dest::own;
    rqs_set_now(&task->touch_tm);
    if (const int rc = W_ftruncate(fn, task->dfd, static_cast<off_t>(task->content_length)))
        return rc;
    LOG_DEBUG("%s: destination fd%d opened [%s], %zu bytes\n", fn, task->dfd, task->spec.fpath, task->content_length);
    if (can_mmap_dw(task))
        return map_dest(fn, task, tail);
    if (W_lseek(fn, task->dfd, 0, SEEK_SET) == -1)
        return errno;
    if (tail.empty())
        return 0;
    LOG_DEBUG("%s: write tail of %zu bytes\n", fn, tail.size());
    return write_tail(fn, task, tail);
}

int mk_dest_file(dw_task* task, const char* head, const http_resp_ctx* resp) noexcept
{
    const auto total = static_cast<size_t>(resp->total);
    const size_t head_len = resp->tail >= 1 ? static_cast<size_t>(resp->tail) : total;
    if (has_hdr("Transfer-Encoding", {head, head_len})) {
        LOG_ERR("%s: transfer encodings are not supported\n", __func__);
        return EINVAL;
    }
    const int64_t length = extract_num_hdr("Content-Length", {head, head_len}).value_or(0);
    if (length <= 0) {
        LOG_ERR("%s: invalid/missing content length: %jd\n", __func__, intmax_t{length});
        return EINVAL;
    }
    LOG_DEBUG("%s: [%s] length=%jd, tail=%zu\n", __func__, task->spec.fpath, intmax_t{length}, total - head_len);
    task->content_length = task->nleft = static_cast<size_t>(length);

    /* What a source sends beyond the announced length is ignored. */
    const std::string_view tail(head + head_len, std::min(total - head_len, task->nleft));
    const bool is_takeover = begin_takeover(__func__, task);
    const int rc = make_dest(__func__, task, tail);
    if (is_takeover)
        end_takeover(__func__, task, rc == 0);
    if (rc != 0)
        return rc;
    task->f_pos = static_cast<off_t>(tail.size());
    task->nleft -= tail.size();
    LOG_DEBUG("%s: created %s for [%s]\n", __func__, task->is_mmapped ? "mmap" : "file", task->spec.fpath);
    return 0;
}

/* The descriptor is closed before the rename, because a network file system may report only then that bytes were lost;
   from the close on no descriptor proves whose the file is. */
int complete_download(dw_task* task) noexcept
{
    if (task->is_mmapped && msync(task->buf, task->buflen, MS_ASYNC) != 0) {
        LOG_ERRNO("%s: msync(%p, %zu) on fd%d", __func__, static_cast<void*>(task->buf), task->buflen, task->dfd);
        return -1;
    }
    std::array<char, SPEC_PATH_MAX> final_path;
    cut_text(final_path.data(), final_path.size(), task->spec.fpath);
    ASSERT(cutoff_segext(final_path.data()) == 0);

    /* Only what this task has written, and all of it, gets the final name: another order may have taken the destination
       over, or somebody may have cut the file. */
    struct stat st {
    };
    int err = check_own_unfinished(task, &st);
    if (err == 0 && static_cast<size_t>(st.st_size) != task->content_length)
        err = EIO;
    if (err != 0) {
        LOG_ERRNUM(err, "%s: rename(%s, %s)", __func__, task->spec.fpath, final_path.data());
        return -1;
    }

    const int rc_close = W_close(__func__, task->dfd);
    task->dfd = -1;
    task->dest = rc_close == 0 ? dw_dest::final : dw_dest::unproved;
    if (rc_close != 0)
        return -1;

    const int rc = rename(task->spec.fpath, final_path.data());
    if (rc != 0)
        LOG_ERRNO("%s: rename(%s, %s)", __func__, task->spec.fpath, final_path.data());
    else
        LOG_DEBUG("%s: rename(%s, %s): OK\n", __func__, task->spec.fpath, final_path.data());
    cut_text(task->spec.fpath, sizeof(task->spec.fpath), final_path.data());
    register_file(&task->spec); /* whatever became of the rename, and its result changes nothing */
    if (rc != 0)
        return -1;
    LOG_NORM("downloaded: %zu bytes, [%s] to [%s]\n", task->content_length, task->spec.url, task->spec.fpath);
    pprm_task(task);
    return 0;
}
