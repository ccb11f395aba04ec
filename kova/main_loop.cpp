/* What the loop calls: events are routed by the tag at the start of the registered record; requests are timed out and
   debug levels toggled in the idle step; objects are freed only in post-processing, never by the handler of their own
   event. */
#include "main.h"

#include "app.h"
#include "fdio.h"
#include "log.h"
#include "rq.h"
#include "signals.h"
#include "timeop.h"
#include "tmout.h"
#include "udl.h"

#include <bit>
#include <cstdint>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr int HUP_PROBE_MS = 10; /* the only wait of the dispatch */
constexpr n64_tag UDL_GROUP = mk_tag8("uDl");

static const char* event_name(uint32_t flags) noexcept
{
    if (flags & RQS_SOCKHUP)
        return "HUP";
    return flags ? "ERROR" : "data";
}

/* After a hang-up alone there may be data that came before it. False: the event is an error. */
static bool is_readable(const char* fn, int fd, uint32_t flags) noexcept
{
    if (flags == 0)
        return true;
    if (flags != RQS_SOCKHUP)
        return false;
    if (wait_to_read(fd, HUP_PROBE_MS) == 1)
        return true;
    LOG_DEBUG("%s: no data pending for fd%d\n", fn, fd);
    return false;
}

static int on_srv_accept(rui_socket_ctx* srv, uint32_t flags) noexcept
{
    if (flags) {
        LOG_ERR("%s: [%s] ERR/HUP\n", __func__, srv->lc->alias);
        rui_crash_on_error(srv, flags & RQS_SOCKHUP); /* broken, it would be reported readable for ever */
    }
    if (rui_accept(srv, g_cfg.rui.max_accept, 0, nullptr) != 0)
        LOG_ERR("%s: error accepting requests on [%s]\n", __func__, srv->lc->alias);
    /* A listener that may never accept would stay readable for ever. */
    if (g_cfg.rui.max_accept == 0 && rqs_mod(srv->sockfd, srv, 0) != 0)
        return 1;
    if (g_quit) {
        LOG_NORM("%s: quitting with the app\n", __func__);
        return 1;
    }
    return 0;
}

/* ---- dispatch ---- */

/* The tag of a registered record: its first member, whatever the record is. */
static n32_tag tag_of(const void* udata) noexcept
{
    return *static_cast<const n32_tag*>(udata);
}

/* A tag as a case label. */
static consteval uint32_t label(n32_tag tag) noexcept
{
    return std::bit_cast<uint32_t>(tag.sym);
}

/* A record that was released earlier in this round bears "#". */
static int dismiss_expired(const char* fn, n32_tag tag, const void* udata) noexcept
{
    LOG_WARN("%s: got expired [%3.3s] (0x%04x) on (%p), dismissing\n", fn, tag.sym, tag.num, udata);
    return 0;
}

/* A registered pointer is converted in these callbacks and nowhere else, after its tag has said what it points at. */
static int on_read(int /*fd*/, uint32_t flags, void* udata, void* /*aux*/) noexcept
{
    const log_group_guard group;
    const n32_tag tag = tag_of(udata);
    LOG_DEBUG("%s: %s [%.3s] (%p) err=%d\n", __func__, event_name(flags), tag.sym, udata, static_cast<int>(flags));
    switch (tag.num) {
    case label(TAG_DOW): {
        dw_task* task = static_cast<dw_task*>(udata);
        log_set_group(g_log, task->trk_tag);
        /* A body that is whole completes, whatever became of its source since. */
        if (is_whole(task) || is_readable(__func__, task->sfd, flags))
            return dw_read(task);
        dw_broken(__func__, task, flags);
        return 0;
    }
    case label(TAG_URQ): {
        dw_urq* urq = static_cast<dw_urq*>(udata);
        if (is_readable(__func__, urq->sockfd, flags))
            return urq_read(urq);
        LOG_ERR("%s: URQ [%s] (%p) err=%d\n", __func__, urq->trk_tag.sym8, udata, static_cast<int>(flags));
        pprm_urq(urq);
        return 0;
    }
    case label(TAG_RSC):
        return on_srv_accept(static_cast<rui_socket_ctx*>(udata), flags);
    case label(TAG_UDL):
        log_set_group(g_log, UDL_GROUP);
        return udl_accept(static_cast<udl_ctx*>(udata));
    default:
        break;
    }
    if (tag.sym[0] == '#')
        return dismiss_expired(__func__, tag, udata);
    LOG_ERR("%s: unknown data type: [%3.3s] (0x%04x) on (%p), data corruption detected\n", __func__, tag.sym, tag.num,
            udata);
    NOT_REACHED("a registered record begins with a known tag");
}

/* Only a task that connects is registered for writing. */
static int on_write(int /*fd*/, uint32_t flags, void* udata, void* aux) noexcept
{
    const n32_tag tag = tag_of(udata);
    LOG_DEBUG("%s: %s [%.3s] (%p) err=%d\n", __func__, event_name(flags), tag.sym, udata, static_cast<int>(flags));
    if (tag.num == TAG_DOW.num)
        return dw_write(static_cast<dw_task*>(udata));
    if (tag.sym[0] == '#')
        return dismiss_expired(__func__, tag, udata);
    PANIC("%s: tag=[%.3s] err=%d, udata=%p, aux=%p - why are we here?\n", __func__, tag.sym, static_cast<int>(flags),
          udata, aux);
}

static int on_error(int /*fd*/, uint32_t flags, void* udata, void* /*aux*/) noexcept
{
    const log_group_guard group;
    const n32_tag tag = tag_of(udata);
    LOG_INFO("%s: %.3s (%p), err=0x%04x %s\n", __func__, tag.sym, udata, flags, flags & RQS_SOCKHUP ? "HUP" : "-");
    switch (tag.num) {
    case label(TAG_DOW): {
        dw_task* task = static_cast<dw_task*>(udata);
        log_set_group(g_log, task->trk_tag);
        if (is_whole(task))
            return dw_read(task);
        dw_broken(__func__, task, flags);
        return 0;
    }
    case label(TAG_URQ):
        urq_error(static_cast<dw_urq*>(udata), (flags & RQS_SOCKHUP) != 0);
        return 0;
    case label(TAG_RSC):
        rui_crash_on_error(static_cast<rui_socket_ctx*>(udata), flags & RQS_SOCKHUP);
    case label(TAG_UDL):
        log_set_group(g_log, UDL_GROUP);
        udl_error(static_cast<udl_ctx*>(udata));
        return 0;
    default: /* released earlier in this round */
        return 0;
    }
}

/* ---- idle work and post-processing ---- */

static void upd_tmout(timespec* ts) noexcept
{
    ms2timespec(get_min_timeout(), ts);
}

static int do_idle_tasks() noexcept
{
    static bool is_pushed = false; /* the levels at work are DEBUG, and the former ones are saved */

    time_out_requests();
    guard_sources();
    if (!g_tdbg)
        return 0;
    g_tdbg = 0;
    is_pushed = !is_pushed;
    if (is_pushed) {
        log_push_mlevels();
        log_set_modules(g_log, DEBUG_level);
    } else {
        log_pop_mlevels();
    }
    LOG_INFO("Log level %s (DEBUG)\n", is_pushed ? "PUSH" : "POP");
    if (is_pushed)
        LOG_DEBUG("%s: now all DEBUG messages will be recorded\n", __func__);
    return 0;
}

static int on_pp() noexcept
{
    pprm_requests();
    pprm_task_cleanup();
    return 0;
}

const rqs_config g_rqs_config = {
    .cb = {.update_tmout = upd_tmout,
           .on_idle = do_idle_tasks,
           .read = on_read,
           .write = on_write,
           .error = on_error,
           .post_process = on_pp,
           .on_file_modified = nullptr,
           .time_out = nullptr,
           .is_dormant = nullptr},
    .quit_on_zero_fds = 0,
};
