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

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr int HUP_PROBE_MS = 10; /* the only wait of the dispatch */

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

/* ---- user requests ---- */

static int read_urq(const char* fn, dw_urq* urq, uint32_t flags) noexcept
{
    if (is_readable(fn, urq->sockfd, flags))
        return urq_read(urq);
    LOG_ERR("%s: URQ [%s] (%p) err=%d\n", fn, urq->trk_tag.sym8, static_cast<void*>(urq), static_cast<int>(flags));
    pprm_urq(urq);
    return 0;
}

static int fail_urq(const char* /*fn*/, dw_urq* urq, uint32_t flags) noexcept
{
    urq_error(urq, (flags & RQS_SOCKHUP) != 0);
    return 0;
}

/* ---- download tasks ---- */

static int break_task(const char* fn, dw_task* task, uint32_t flags) noexcept
{
    LOG_ERR("%s: task [%s] (%p) err=%d\n", fn, task->trk_tag.sym8, static_cast<void*>(task), static_cast<int>(flags));
    dw_broken(task);
    return 0;
}

/* A body that is whole completes, whatever became of its source since. */
static int read_task(const char* fn, dw_task* task, uint32_t flags) noexcept
{
    const log_group_guard group(task->trk_tag);
    return is_whole(task) || is_readable(fn, task->sfd, flags) ? dw_read(task) : break_task(fn, task, flags);
}

static int write_task(const char* /*fn*/, dw_task* task, uint32_t /*flags*/) noexcept
{
    return dw_write(task);
}

static int fail_task(const char* fn, dw_task* task, uint32_t flags) noexcept
{
    const log_group_guard group(task->trk_tag);
    return is_whole(task) ? dw_read(task) : break_task(fn, task, flags);
}

/* ---- listeners ---- */

static int on_srv_accept(const char* /*fn*/, rui_socket_ctx* srv, uint32_t flags) noexcept
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

static int fail_listener(const char* /*fn*/, rui_socket_ctx* srv, uint32_t flags) noexcept
{
    rui_crash_on_error(srv, flags & RQS_SOCKHUP);
}

/* ---- the UDP channel ---- */

constexpr n64_tag UDL_GROUP = mk_tag8("uDl");

static int read_udl(const char* /*fn*/, udl_ctx* udl, uint32_t /*flags*/) noexcept
{
    const log_group_guard group(UDL_GROUP);
    return udl_accept(udl);
}

static int fail_udl(const char* /*fn*/, udl_ctx* udl, uint32_t /*flags*/) noexcept
{
    const log_group_guard group(UDL_GROUP);
    udl_error(udl);
    return 0;
}

/* ---- dispatch ---- */

/* fn is the loop's callback that has called, for the log. The result is the loop's: not 0 ends it. */
using event_fn = int (*)(const char* fn, void* record, uint32_t flags) noexcept;

/* What the records of one tag do with their events. */
struct tag_handlers {
    n32_tag tag;
    event_fn read;
    event_fn write; /* null: never registered for it */
    event_fn error;
};

/* Makes a handler of one record type an event_fn. A registered pointer is converted here and nowhere else, after its
   tag has said what it points at. */
template <class T, int (*HANDLE)(const char* fn, T* record, uint32_t flags) noexcept>
static int typed(const char* fn, void* record, uint32_t flags) noexcept
{
    return HANDLE(fn, static_cast<T*>(record), flags);
}

/* The most frequent first. */
static constexpr tag_handlers HANDLERS[] = {
    {TAG_DOW, typed<dw_task, read_task>, typed<dw_task, write_task>, typed<dw_task, fail_task>},
    {TAG_URQ, typed<dw_urq, read_urq>, nullptr, typed<dw_urq, fail_urq>},
    {TAG_RSC, typed<rui_socket_ctx, on_srv_accept>, nullptr, typed<rui_socket_ctx, fail_listener>},
    {TAG_UDL, typed<udl_ctx, read_udl>, nullptr, typed<udl_ctx, fail_udl>},
};

/* Null: no record that this program registers, or one that was released in this round. */
static const tag_handlers* handlers_of(n32_tag tag) noexcept
{
    for (const tag_handlers& h : HANDLERS) {
        if (h.tag.num == tag.num)
            return &h;
    }
    return nullptr;
}

/* The tag of a registered record: its first member, whatever the record is. */
static n32_tag tag_of(const void* udata) noexcept
{
    return *static_cast<const n32_tag*>(udata);
}

/* A record that was released earlier in this round bears "#". */
static int dismiss_expired(const char* fn, n32_tag tag, const void* udata) noexcept
{
    LOG_WARN("%s: got expired [%3.3s] (0x%04x) on (%p), dismissing\n", fn, tag.sym, tag.num, udata);
    return 0;
}

static int on_read(int /*fd*/, uint32_t flags, void* udata, void* /*aux*/) noexcept
{
    const log_group_guard group;
    const n32_tag tag = tag_of(udata);
    LOG_DEBUG("%s: %s [%.3s] (%p) err=%d\n", __func__, event_name(flags), tag.sym, udata, static_cast<int>(flags));
    if (const tag_handlers* h = handlers_of(tag))
        return h->read(__func__, udata, flags);
    if (tag.sym[0] == '#')
        return dismiss_expired(__func__, tag, udata);
    LOG_ERR("%s: unknown data type: [%3.3s] (0x%04x) on (%p), data corruption detected\n", __func__, tag.sym, tag.num,
            udata);
    NOT_REACHED("a registered record begins with a known tag");
}

static int on_write(int /*fd*/, uint32_t flags, void* udata, void* aux) noexcept
{
    const n32_tag tag = tag_of(udata);
    LOG_DEBUG("%s: %s [%.3s] (%p) err=%d\n", __func__, event_name(flags), tag.sym, udata, static_cast<int>(flags));
    const tag_handlers* h = handlers_of(tag);
    if (h && h->write)
        return h->write(__func__, udata, flags);
    if (tag.sym[0] == '#')
        return dismiss_expired(__func__, tag, udata);
    PANIC("%s: tag=[%.3s] err=%d, udata=%p, aux=%p - why are we here?\n", __func__, tag.sym, static_cast<int>(flags),
          udata, aux);
}

static int on_error(int /*fd*/, uint32_t flags, void* udata, void* /*aux*/) noexcept
{
    const n32_tag tag = tag_of(udata);
    LOG_INFO("%s: %.3s (%p), err=0x%04x %s\n", __func__, tag.sym, udata, flags, flags & RQS_SOCKHUP ? "HUP" : "-");
    const tag_handlers* h = handlers_of(tag);
    return h ? h->error(__func__, udata, flags) : 0; /* without one it was released earlier in this round */
}

/* ---- idle work and post-processing ---- */

static void upd_tmout(timespec* ts) noexcept
{
    ms2timespec(get_min_timeout(), ts);
}

/* Every module at DEBUG, and back to what it was. */
static void toggle_debug(const char* fn) noexcept
{
    static bool is_pushed = false; /* the levels at work are DEBUG, and the former ones are saved */

    if (!is_pushed) {
        log_push_mlevels();
        log_set_modules(g_log, DEBUG_level);
    } else {
        log_pop_mlevels();
    }
    is_pushed = !is_pushed;
    LOG_INFO("Log level %s (DEBUG)\n", is_pushed ? "PUSH" : "POP");
    if (is_pushed)
        LOG_DEBUG("%s: now all DEBUG messages will be recorded\n", fn);
}

static int do_idle_tasks() noexcept
{
    time_out_requests();
    guard_sources();
    if (g_tdbg) {
        toggle_debug(__func__);
        g_tdbg = 0;
    }
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
