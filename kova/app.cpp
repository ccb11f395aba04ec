/* The task table: how a task is made, found, un-hashed and freed. A task lives in its slot of g_ctx.tasks, which is
   reserved once, so pointers to it hold until free_dw; everything a task owns is released there and nowhere else. The
   difficulty is that free_dw meets tasks at every stage, half-made ones too: what is not there must say so (-1,
   null). */
#include "app.h"

#include "guard.h"
#include "lock.h"
#include "log.h"
#include "rqs.h"
#include "strops.h"
#include "syswrap.h"
#include "unfinished.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t MAX_TASK_NUM = 10000; /* tracking tags start again at T0001 after it */

/* The key of a source in the hash: the scheme does not tell sources apart. Points into url. */
static const char* url2key(const char* url) noexcept
{
    const char* sep = strstr(url, "://");
    return sep ? sep + 3 : url;
}

/* The running task of a source that nobody has listed for reaping, or null. */
static dw_task* get_dw_task(const char* key) noexcept
{
    void* data = nullptr;
    if (skht_get(g_ctx.task_ht, key, &data) != 0) {
        LOG_DEBUG("%s: [%s] not found\n", __func__, key);
        return nullptr;
    }
    dw_task* task = static_cast<dw_task*>(data);
    ASSERT(task->tag.num == TAG_DOW.num);
    return task;
}

void set_dw_state(dw_task* task, n32_tag state) noexcept
{
    LOG_DEBUG("%s: %s %s -> %s\n", __func__, task->trk_tag.sym8, task->state.sym, state.sym);
    ASSERT(task->state.num != DW_DNL.num);
    n32_tag next = DW_DNL;
    if (task->state.num == 0)
        next = DW_INI;
    else if (task->state.num == DW_INI.num)
        next = DW_RSP;
    ASSERT(state.num == next.num);
    task->state = state;
}

/* A quitting task is only waited for: what it still holds depends on where it ended, so nothing more is asked of it. Of
   a live one the fields tell the same story as its state: no file before the head was accepted, no waiting client
   after. */
void check_task(const dw_task* task) noexcept
{
    ASSERT(task->tag.num == TAG_DOW.num);
    ASSERT(task->idx >= 0);
    ASSERT(task->is_hashed != task->is_quitting);
    if (task->is_quitting)
        return;
    ASSERT(task->sfd > 0);
    ASSERT(task->is_watched);
    if (task->state.num == DW_DNL.num) {
        ASSERT(task->cfd == -1);
        ASSERT(task->dfd > 0);
        ASSERT(task->dest == dw_dest::own);
        ASSERT(task->nleft + static_cast<size_t>(task->f_pos) == task->content_length);
        ASSERT(task->buflen == (task->is_mmapped ? task->content_length : 0));
    } else {
        ASSERT(task->dfd == -1);
        ASSERT(task->dest == dw_dest::none);
        ASSERT(!task->is_mmapped);
    }
}

/* One of the two lines that frame a task's life. Tools read its fields by their places. */
static void log_task(const char* what, const dw_task* task) noexcept
{
    LOG_NORM("%s [%s] (%p/idx=%zd) [%s]->[%s] length=%jd, expiry=%jd lid=[%s]\n", what, task->tag.sym,
             static_cast<const void*>(task), task->idx, task->spec.url, task->spec.fpath,
             intmax_t{task->spec.content_length}, intmax_t{task->spec.expiry_tm}, task->spec.lid);
}

/* Fills a free slot and hashes it. Null: no slot, or no memory (logged). */
static dw_task* add_dw(const dw_spec* spec, n64_tag trk_tag) noexcept
{
    /* A table that grew would move the records under the pointers of the loop and of the hash. */
    const ssize_t j = slots_full(g_ctx.tasks) ? -1 : slots_add(&g_ctx.tasks);
    if (j < 0) {
        LOG_ERR("%s: failed for [%s]\n", __func__, spec->url);
        return nullptr;
    }
    dw_task* task = slots_at(&g_ctx.tasks, j);
    memset(static_cast<void*>(task), 0, sizeof(*task));
    task->tag = TAG_DOW;
    task->spec = *spec;
    task->trk_tag = trk_tag;
    task->idx = j;
    task->sfd = task->dfd = task->cfd = -1;

    const char* key = url2key(task->spec.url);
    void* data = task;
    if (const int rc = skht_add(g_ctx.task_ht, key, &data)) {
        LOG_ERR("%s: ERROR(%d) hashing [%s] data=%p\n", __func__, rc, key, static_cast<void*>(task));
        slots_del(&g_ctx.tasks, j);
        return nullptr;
    }
    task->is_hashed = true;
    log_task("TASK-START", task);
    LOG_DEBUG("%s: %s (%p), j=%zd k=[%s] added\n", __func__, task->tag.sym, static_cast<void*>(task), task->idx, key);
    return task;
}

int mk_dw_task(int client_fd, dw_spec* spec) noexcept
{
    LOG_DEBUG("%s: fd%d url=[%s]\n", __func__, client_fd, spec->url);
    scope_guard unlock([spec] {
        if (spec->lid[0])
            lid_unlock(spec->lid, spec->lock_tm);
    });
    if (g_cfg.max_tasks > 0 && slots_len(g_ctx.tasks) >= g_cfg.max_tasks) {
        LOG_ERR("%s: limit on tasks exceeded [%zu]\n", __func__, g_cfg.max_tasks);
        return -1;
    }
    ASSERT(g_ctx.task_ht);
    if (const dw_task* other = get_dw_task(url2key(spec->url))) {
        LOG_ERR("%s: task already present (%p) %s url=%s\n", __func__, static_cast<const void*>(other),
                other->trk_tag.sym8, other->spec.url);
        return EEXIST;
    }
    n64_tag trk_tag{};
    rui_mk_trknum(&g_ctx.last_task_id, &trk_tag, 'T', MAX_TASK_NUM);
    dw_task* task = add_dw(spec, trk_tag);
    if (!task)
        return -1;
    unlock.release(); /* the task's copy of the order owns the lock */

    const log_group_guard group(trk_tag);
    scope_guard undo([task] { free_dw(task); });
    if (client_fd < 0) {
        LOG_DEBUG("%s: no client connection\n", __func__);
    } else {
        /* A duplicate: the request closes its own descriptor long before the task answers. */
        task->cfd = fcntl(client_fd, F_DUPFD_CLOEXEC, 0);
        if (task->cfd < 0) {
            LOG_ERRNO("%s: dup(fd%d)", __func__, client_fd);
            return errno;
        }
        LOG_DEBUG("%s: client cfd%d created\n", __func__, task->cfd);
    }
    task->sfd = connect_to_src(task->spec.url, &task->sctx);
    if (task->sfd < 0)
        return -1;
    if (const int rc = rqs_add_writer(task->sfd, task)) {
        LOG_ERR("%s: rqs_add_writer(fd%d,..) failed for %s\n", __func__, task->sfd, task->trk_tag.sym8);
        return rc;
    }
    task->is_watched = true;
    set_unguarded(task, true);
    set_dw_state(task, DW_INI);
    undo.release();
    return 0;
}

/* The flag goes down whatever the outcome: an entry that could not be removed will not be found a second time
   either. */
int unhash_task(dw_task* task) noexcept
{
    if (!task->is_hashed)
        return 0;
    const char* key = url2key(task->spec.url);
    void* data = nullptr;
    const int rc = skht_rm(g_ctx.task_ht, key, &data);
    task->is_hashed = false;
    if (rc)
        LOG_ERR("%s: failed to un-hash [%s] (%p), rc=%d\n", __func__, key, static_cast<void*>(task), rc);
    else
        LOG_DEBUG("%s: %s (%p) k=[%s] OK\n", __func__, task->trk_tag.sym8, static_cast<void*>(task), key);
    return rc;
}

/* In this order: while dfd is open it proves whose file it is, and the file goes before the lock that guards it. */
void free_dw(dw_task* task) noexcept
{
    LOG_DEBUG("%s: %s (%p) url=[%s], dst=[%s], idx=%zd\n", __func__, task->trk_tag.sym8, static_cast<void*>(task),
              task->spec.url, task->spec.fpath, task->idx);
    if (task->idx >= 0 && task->spec.url[0])
        log_task("TASK-END", task);
    task->tag.sym[0] = '#';
    unhash_task(task);
    const bool is_owed = owes_removal(task);

    set_unguarded(task, false);
    usock_drop(&task->sfd, &task->is_watched, &task->sctx);
    for (int* fd : {&task->cfd, &task->dfd}) {
        if (*fd > 0) {
            W_close(__func__, *fd);
            *fd = -1;
        }
    }
    if (task->is_mmapped) {
        ASSERT(task->buf && task->buflen);
        if (munmap(task->buf, task->buflen) != 0)
            LOG_ERRNO("%s: munmap(fd%d, .., %zu)", __func__, task->dfd, task->buflen);
        task->buf = nullptr;
        task->buflen = 0;
        task->is_mmapped = false;
        LOG_DEBUG("%s: unmapped fd%d, buf=%p, %zu bytes\n", __func__, task->dfd, static_cast<void*>(task->buf),
                  task->buflen); /* after the clearing: the line has always shown an empty buffer */
    }
    if (is_owed) {
        remove_unfinished(__func__, task);
        task->spec.fpath[0] = '\0';
    }
    task->hresp = nullptr;
    if (task->spec.lid[0]) {
        lid_unlock(task->spec.lid, task->spec.lock_tm);
        task->spec.lid[0] = '\0';
    }
    if (task->idx >= 0) {
        slots_del(&g_ctx.tasks, task->idx);
        task->idx = -1;
    }
}

int free_dw_elem(void* data, size_t idx) noexcept
{
    free_dw(static_cast<dw_task**>(data)[idx]);
    return 0;
}
