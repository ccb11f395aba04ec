/* Reaping: a task is never freed by the handler that ends it. The handler lists it, and post-processing frees the
   listed ones when no event of the round can find them any more. */
#include "app.h"

#include "log.h"
#include "netops.h"
#include "rqs.h"
#include "timeop.h"
#include "tmout.h"

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

/* A source that has vanished is given up two minutes after its last byte. */
constexpr keepalive_pace SRC_KEEPALIVE = {.idle_sec = 60, .interval_sec = 10, .probes = 6};
constexpr unsigned SRC_GONE_MS = 120000; /* the same for a GET that is never acknowledged, which stops the probes */

int pprm_task(dw_task* task) noexcept
{
    /* Only a quitting task can be listed: the search is no part of the ordinary road. */
    if (task->is_quitting && slots_hold(&g_ctx.pprm_tasks, task)) {
        LOG_WARN("%s: task [%s] (%p) is already listed, skipping\n", __func__, task->trk_tag.sym8,
                 static_cast<void*>(task));
        return 0;
    }
    task->is_quitting = true;
    unhash_task(task); /* a new order for this source need not wait for the end of the round */

    const ssize_t j = slots_put(&g_ctx.pprm_tasks, task);
    if (j < 0) {
        LOG_ERR("%s: FAILED on [%s] (%p)\n", __func__, task->trk_tag.sym8, static_cast<void*>(task));
        return -1;
    }
    LOG_DEBUG("%s: [%s] (%p) idx=%zd OK\n", __func__, task->trk_tag.sym8, static_cast<void*>(task), j);
    return 0;
}

void pprm_task_cleanup() noexcept
{
    if (slots_len(g_ctx.pprm_tasks) == 0)
        return;
    LOG_DEBUG("%s: %zu pprm tasks\n", __func__, slots_len(g_ctx.pprm_tasks));
    xvlst_purge_all(&g_ctx.pprm_tasks.raw, free_dw_elem);
}

static int pprm_live_task(dw_task* task, size_t /*idx*/) noexcept
{
    if (!task->is_quitting)
        pprm_task(task);
    return 0;
}

void pprm_all_tasks() noexcept
{
    slots_each<pprm_live_task>(&g_ctx.tasks, nullptr);
}

/* ---- sources that vanish ---- */

void set_unguarded(dw_task* task, bool on) noexcept
{
    if (task->is_unguarded == on)
        return;
    task->is_unguarded = on;
    if (on) {
        if (g_ctx.nunguarded++ == 0)
            rqs_set_now(&g_ctx.unguarded_since);
        set_timeout(SRC_GUARD_TMOUT, SRC_GUARD_TMOUT_MS);
    } else {
        --g_ctx.nunguarded;
        rm_timeout(SRC_GUARD_TMOUT);
    }
}

static int guard_source(dw_task* task, size_t /*idx*/) noexcept
{
    if (!task->is_unguarded)
        return 0;
    set_unguarded(task, false);
    (void)set_keepalive(task->sfd, SRC_KEEPALIVE);
    (void)set_user_timeout(task->sfd, SRC_GONE_MS);
    return 0;
}

/* A source whose host has lost its power sends nothing, not even an end: only a keep-alive tells it from a slow one.
   Most downloads are over before the second is and are spared the calls; nothing is lost by asking late, since the
   kernel counts from the last byte. */
void guard_sources() noexcept
{
    timespec pace{};
    ms2timespec(SRC_GUARD_TMOUT_MS, &pace);
    if (g_ctx.nunguarded == 0 || !timed_out(g_ctx.unguarded_since, pace))
        return;
    slots_each<guard_source>(&g_ctx.tasks, nullptr);
}

/* Shutdown has listed and freed every live task before, so the table is empty here; the callback takes the slots for
   pointers and must never meet a record. */
void rm_all_tasks() noexcept
{
    if (slots_len(g_ctx.tasks) == 0) {
        LOG_DEBUG("%s: no tasks to purge.\n", __func__);
        return;
    }
    LOG_DEBUG("%s: %zu tasks to purge:\n", __func__, slots_len(g_ctx.tasks));
    xvlst_purge_all(&g_ctx.tasks.raw, free_dw_elem);
}
