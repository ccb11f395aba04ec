/* What the loop calls: events are routed by the tag at the start of the registered record; requests are timed out and
   debug levels toggled in the idle step; objects are freed only in post-processing, never by the handler of their own
   event. */
#include "main.h"

#include "app.h"
#include "fdio.h"
#include "log.h"
#include "rq.h"
#include "timeop.h"
#include "tmout.h"
#include "udl.h"
#include "util.h"

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr int HUP_PROBE_MS = 10;

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

static const char* event_name(uint32_t flags) noexcept
{
    if (flags & RQS_SOCKHUP)
        return "HUP";
    return flags ? "ERROR" : "data";
}

/* The tag of a registered record: its first member, whatever the record is. */
static n32_tag tag_of(const void* udata) noexcept
{
    return *static_cast<const n32_tag*>(udata);
}

/* After a hang-up alone there may be data that came before it. False: the event is an error. */
static bool is_readable(int fd, uint32_t flags) noexcept
{
    if (flags == 0)
        return true;
    if (flags != RQS_SOCKHUP)
        return false;
    if (wait_to_read(fd, HUP_PROBE_MS) == 1)
        return true;
    LOG_DEBUG("%s: no data pending for fd%d\n", "on_read", fd);
    return false;
}

static int read_urq(dw_urq* urq, uint32_t flags) noexcept
{
    if (is_readable(urq->sockfd, flags))
        return urq_read(urq);
    LOG_ERR("%s: URQ [%s] (%p) err=%d\n", "on_read", urq->trk_tag.sym8, static_cast<void*>(urq),
            static_cast<int>(flags));
    pprm_urq(urq);
    return 0;
}

static int broken_task(const char* fn, dw_task* task, uint32_t flags) noexcept
{
    LOG_ERR("%s: task [%s] (%p) err=%d\n", fn, task->trk_tag.sym8, static_cast<void*>(task), static_cast<int>(flags));
    dw_broken(task);
    return 0;
}

static int read_task(dw_task* task, uint32_t flags) noexcept
{
    const log_group_guard group(task->trk_tag);
    if (is_whole(task) || is_readable(task->sfd, flags))
        return dw_read(task);
    return broken_task("on_read", task, flags);
}

static int on_srv_accept(uint32_t flags, rui_socket_ctx* srv) noexcept
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

static int dismiss_expired(const char* fn, const void* udata) noexcept
{
    const n32_tag tag = tag_of(udata);
    LOG_WARN("%s: got expired [%3.3s] (0x%04x) on (%p), dismissing\n", fn, tag.sym, tag.num, udata);
    return 0;
}

static int read_by_tag(uint32_t flags, void* udata) noexcept
{
    const n32_tag tag = tag_of(udata);
    switch (tag.num) {
    case tag_num("URQ"):
        return read_urq(static_cast<dw_urq*>(udata), flags);
    case tag_num("DOW"):
        return read_task(static_cast<dw_task*>(udata), flags);
    case tag_num("Rsc"):
        return on_srv_accept(flags, static_cast<rui_socket_ctx*>(udata));
    case tag_num("UDL"): {
        const log_group_guard group(mk_tag8("uDl"));
        return udl_accept(static_cast<udl_ctx*>(udata));
    }
    default:
        if (tag.sym[0] == '#')
            return dismiss_expired("on_read", udata);
        LOG_ERR("%s: unknown data type: [%3.3s] (0x%04x) on (%p), data corruption detected\n", "on_read", tag.sym,
                tag.num, udata);
        ASSERT_AS(false, "a registered record begins with a known tag");
    }
}

int on_read(int fd, uint32_t flags, void* udata, void* aux) noexcept
{
    (void)fd;
    (void)aux;
    const log_group_guard group;
    LOG_DEBUG("%s: %s [%.3s] (%p) err=%d\n", __func__, event_name(flags), tag_of(udata).sym, udata,
              static_cast<int>(flags));
    return read_by_tag(flags, udata);
}

int on_write(int fd, uint32_t flags, void* udata, void* aux) noexcept
{
    (void)fd;
    const n32_tag tag = tag_of(udata);
    LOG_DEBUG("%s: %s [%.3s] (%p) err=%d\n", __func__, event_name(flags), tag.sym, udata, static_cast<int>(flags));
    if (tag.num == TAG_DOW.num)
        return dw_write(static_cast<dw_task*>(udata));
    if (tag.sym[0] == '#')
        return dismiss_expired(__func__, udata);
    PANIC("%s: tag=[%.3s] err=%d, udata=%p, aux=%p - why are we here?\n", __func__, tag.sym, static_cast<int>(flags),
          udata, aux);
}

int on_error(int fd, uint32_t flags, void* udata, void* aux) noexcept
{
    (void)fd;
    (void)aux;
    const n32_tag tag = tag_of(udata);
    const bool hangup = (flags & RQS_SOCKHUP) != 0;
    LOG_INFO("%s: %.3s (%p), err=0x%04x %s\n", __func__, tag.sym, udata, flags, hangup ? "HUP" : "-");
    switch (tag.num) {
    case tag_num("URQ"):
        urq_error(static_cast<dw_urq*>(udata), hangup);
        break;
    case tag_num("Rsc"):
        rui_crash_on_error(static_cast<rui_socket_ctx*>(udata), hangup);
    case tag_num("DOW"): {
        dw_task* task = static_cast<dw_task*>(udata);
        const log_group_guard group(task->trk_tag);
        return is_whole(task) ? dw_read(task) : broken_task(__func__, task, flags);
    }
    case tag_num("UDL"): {
        const log_group_guard group(mk_tag8("uDl"));
        udl_error(static_cast<udl_ctx*>(udata));
        break;
    }
    default: /* a record that was released earlier in this round */
        break;
    }
    return 0;
}

void upd_tmout(timespec* ts) noexcept
{
    ms2timespec(get_min_timeout(), ts);
}

static void toggle_debug() noexcept
{
    static bool is_pushed = false;

    if (!is_pushed) {
        log_push_mlevels();
        log_set_modules(g_log, DEBUG_level);
    } else {
        log_pop_mlevels();
    }
    is_pushed = !is_pushed;
    LOG_INFO("Log level %s (DEBUG)\n", is_pushed ? "PUSH" : "POP");
    if (is_pushed)
        LOG_DEBUG("%s: now all DEBUG messages will be recorded\n", "do_idle_tasks");
}

int do_idle_tasks() noexcept
{
    time_out_requests();
    guard_sources();
    if (!g_tdbg)
        return 0;
    toggle_debug();
    g_tdbg = 0;
    return 0;
}

int on_pp() noexcept
{
    pprm_requests();
    pprm_task_cleanup();
    return 0;
}
