/* The download context, built and destroyed. A half-built one is destroyed like a whole one: each step below leaves its
   part empty when it fails. */
#include "ctx.h"

#include "app.h"
#include "log.h"
#include "process.h"
#include "register.h"
#include "rq.h"
#include "rqs.h"
#include "signals.h"
#include "udl.h"

#include <algorithm>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

kova_ctx g_ctx{}; /* written by the rooms whose records it holds; its counters and times by rq and app */

/* The steps of init_kova_ctx. *step names the failing one, "?" where it has logged its own cause. */
static int build_ctx(const char** step) noexcept
{
    *step = "?";
    rui_set_cb(RUI_USER, &g_urq_cb);
    if (const int rc = rui_ctx_init(&g_cfg.rui, &g_ctx.rui))
        return rc;
    if (const int rc = udl_ctx_init(&g_cfg.udp_cha, &g_ctx.udl))
        return rc;

    /* Every task holds at least one descriptor, so the descriptor limit bounds an unlimited table, as far as a table
       can go. */
    const size_t ntasks = g_cfg.max_tasks > 0 ? g_cfg.max_tasks : std::min(fd_limit(), HT_MAX_CAP);
    *step = "init sources";
    slots_reset(&g_ctx.tasks);
    if (const int rc = slots_mmap_fixed(&g_ctx.tasks, ntasks))
        return rc;
    *step = "init pprm-tasks";
    slots_reset(&g_ctx.pprm_tasks);
    if (const int rc = slots_reserve(&g_ctx.pprm_tasks, ntasks))
        return rc;
    *step = "creating task HT";
    if (const int rc = skht_create(&g_ctx.task_ht, ntasks, plHash, nullptr, 0))
        return rc;

    open_body_pipe();
    *step = "?";
    if (const int rc = open_register())
        return rc;

    rqs_set_now(&g_ctx.last_tmout_check);
    g_ctx.last_rq_check = g_ctx.last_tmout_check;
    g_ctx.last_task_id = 0;
    g_ctx.is_ready = true;
    return 0;
}

int init_kova_ctx() noexcept
{
    ASSERT(!g_ctx.is_ready);
    const char* step = "?";
    if (const int rc = build_ctx(&step)) {
        if (!g_quit) /* else the wait for the database was cut short, as it should be */
            LOG_ERR("%s: failed to [%s], rc=%d\n", __func__, step, rc);
        destroy_kova_ctx();
        return rc;
    }
    LOG_DEBUG("%s: OK\n", __func__);
    return 0;
}

int start_kova_ctx() noexcept
{
    if (const int rc = rui_ctx_start(&g_ctx.rui))
        return rc;
    return g_ctx.udl.is_ready ? udl_ctx_start(&g_ctx.udl) : 0;
}

/* Tasks first, which end by their ordinary road: sockets, locks and unfinished files. Then who could bring new ones. */
void destroy_kova_ctx() noexcept
{
    pprm_task_cleanup();
    rm_all_tasks();
    udl_ctx_destroy(&g_ctx.udl);
    rui_ctx_destroy(&g_ctx.rui);
    pprm_requests();
    close_body_pipe();
    slots_reset(&g_ctx.pprm_tasks);
    slots_reset(&g_ctx.tasks);
    if (g_ctx.task_ht)
        skht_destroy(g_ctx.task_ht, nullptr);
    g_ctx.task_ht = nullptr;
    close_register();
    g_ctx.is_ready = false;
    LOG_DEBUG("%s: OK\n", __func__);
}
