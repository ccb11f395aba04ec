/* Unfinished files: whose they are. One question, asked by an order, by the rename and by the end of a task: which
   running task writes the file at this path? Several tasks may have been ordered to one destination; only one of them
   writes it. */
#include "unfinished.h"

#include "lock.h"
#include "log.h"
#include "strops.h"
#include "syswrap.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

bool is_unfinished_seg(const char* path) noexcept
{
    return std::string_view(path).ends_with(UNFINISHED_SFX);
}

int cutoff_segext(char* path) noexcept
{
    if (!*path)
        return EINVAL;
    if (!is_unfinished_seg(path))
        return ESRCH;
    path[strlen(path) - (sizeof(UNFINISHED_SFX) - 1)] = '\0';
    return 0;
}

static bool is_same_file(const struct stat& a, const struct stat& b) noexcept
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

/* A match for the walk over the task table. The descriptor keeps the inode's number from going to another file. */
static bool writes_file(const dw_task* task, const struct stat* file) noexcept
{
    struct stat st {
    };
    return task->dfd > 0 && !task->is_quitting && fstat(task->dfd, &st) == 0 && is_same_file(st, *file);
}

/* The running task of this agent that writes the file now at path, by whatever name it was ordered; null: none does. */
static dw_task* unfinished_writer(const char* path) noexcept
{
    struct stat st {
    };
    return stat(path, &st) == 0 ? slots_find<writes_file>(&g_ctx.tasks, &st) : nullptr;
}

int check_own_unfinished(const dw_task* task, struct stat* own) noexcept
{
    struct stat st {
    };
    if (fstat(task->dfd, own) != 0 || stat(task->spec.fpath, &st) != 0)
        return errno;
    return is_same_file(*own, st) ? 0 : ESTALE;
}

int check_unfinished(const char* fn, dw_spec* spec) noexcept
{
    long age = 0;
    const int rc = check_age(spec->fpath, STALE_LOCK_SEC, &age);
    if (rc == EBUSY) {
        LOG_ERR("%s: [%s] already exists\n", fn, spec->fpath);
        return EEXIST;
    }
    if (rc != ESTALE)
        return rc;
    /* The order may yet be a repetition, or be refused, or find no source: the file goes when there is one in its
       place. */
    spec->takes_over = unfinished_writer(spec->fpath) != nullptr;
    return spec->takes_over ? 0 : expire_file(spec->fpath, age);
}

/* Where a stalled file waits while its successor is made: no order can be for that name. */
using aside_path = std::array<char, SPEC_PATH_MAX + sizeof(UNFINISHED_SFX)>;

static aside_path aside_of(const dw_task* task) noexcept
{
    aside_path aside{};
    join_text(aside.data(), aside.size(), {task->spec.fpath, UNFINISHED_SFX});
    return aside;
}

static bool move_file(const char* fn, const char* from, const char* to) noexcept
{
    if (rename(from, to) == 0)
        return true;
    LOG_ERRNO("%s: rename(%s, %s)", fn, from, to);
    return false;
}

bool begin_takeover(const char* fn, const dw_task* task) noexcept
{
    long age = 0;
    if (!task->spec.takes_over || check_age(task->spec.fpath, STALE_LOCK_SEC, &age) != ESTALE)
        return false;
    return move_file(fn, task->spec.fpath, aside_of(task).data()); /* if not, the order finds it in its way */
}

void end_takeover(const char* fn, const dw_task* task, bool is_made) noexcept
{
    const aside_path aside = aside_of(task);
    const dw_task* former = unfinished_writer(aside.data());
    if (!is_made && former) {
        (void)move_file(fn, aside.data(), task->spec.fpath); /* as it was, in place of what could not be made */
        return;
    }
    if (former)
        LOG_WARN("%s: [%s] of %s from [%s] has stalled and is taken over from [%s]\n", fn, task->spec.fpath,
                 former->trk_tag.sym8, former->spec.url, task->spec.url);
    W_unlink(fn, aside.data());
}

bool owes_removal(const dw_task* task) noexcept
{
    const char* path = task->spec.fpath;
    struct stat st {
    };
    if (task->dest == dw_dest::own) {
        const int err = check_own_unfinished(task, &st);
        /* What cannot be looked at is its own as long as nobody else is known to write it. */
        return err == 0 || (err != ESTALE && err != ENOENT && !unfinished_writer(path));
    }
    return task->dest == dw_dest::unproved && lstat(path, &st) == 0 && !unfinished_writer(path);
}

void remove_unfinished(const char* fn, dw_task* task) noexcept
{
    const char* path = task->spec.fpath;
    if (unlink(path) == 0) {
        LOG_WARN("%s: removing unfinished [%s]\n", fn, path);
    } else if (errno != ENOENT) {
        LOG_ERRNO("%s: unlink(%s)", fn, path);
    }
    task->dest = dw_dest::none;
}

/* A match for the walk over the tasks that have ended in this round. */
static bool leaves_file(dw_task* const* task, const char* path) noexcept
{
    return strcmp((*task)->spec.fpath, path) == 0 && owes_removal(*task);
}

void clear_the_way(dw_task* task) noexcept
{
    if (dw_task** ended = slots_find<leaves_file>(&g_ctx.pprm_tasks, task->spec.fpath))
        remove_unfinished("free_dw", *ended); /* in the words of its end, which this is a part of */
}
