/* The epoll loop. One round: wait, clock, no-poll service, events, post-processing, idle step, post-processing. Handled
   signals are blocked except inside the wait, so that neither a flag test nor a log record is ever cut by a handler.
   The difficulty is the life of a record: the kernel has given the addresses of a whole batch of events before the
   first is handled, and a handler may end what a later event of the same batch is for. So nothing is freed before
   post-processing, and a record that has ended says so by its tag or its state. */
#include "rqs.h"

#include "gkh.h"
#include "guard.h"
#include "log.h"
#include "rqs_internal.h"
#include "signals.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr int EPOLL_SIZE_HINT = 128;
constexpr size_t EVENTS_GROWBLK = 10;
constexpr size_t NOPOLL_ROOM = 20;
constexpr int MANY_EVENTS = 15;
constexpr long SIGNAL_CHECK_NS = 10000000; /* pending signals are looked for this often while events are handled */

/* Written by this room alone; loopfd -1 says that there is no loop yet, or none any more. */
rqs_context g_rqs = {.loopfd = -1,
                     .events = {},
                     .changes = {},
                     .poll_fds = 0,
                     .nopoll = {},
                     .nopoll_rm = {},
                     .tmout = {-1, 0},
                     .itime = {},
                     .loop_stage = ELOOP_START};
rqs_config g_rqs_cfg{};

/* File watches: an instance and its table are kept; nothing in this program adds a watch. */
static struct {
    int fd;
    nkht_t wfd_ht;
} g_ino = {-1, nullptr};

/* Coarse clock of the last look for pending signals; written by check_signals. */
static timespec g_last_signal_check{};

/* Once a round: all deadlines of a round are judged by one time, and a busy round does not ask the kernel for each. */
static void refresh_clock() noexcept
{
    clock_gettime(CLOCK_MONOTONIC, &g_rqs.itime);
}

const timespec* rqs_now_ref() noexcept
{
    if (g_rqs.loopfd < 0)
        refresh_clock(); /* no loop refreshes it yet */
    return &g_rqs.itime;
}

/* ---- life ---- */

/* Whatever fails undoes what was made before it. */
int rqs_init(const rqs_config* cfg) noexcept
{
    ASSERT(cfg);
    g_rqs_cfg = *cfg;
    g_rqs = rqs_context{};
    scope_guard undo([] { rqs_destroy(); });
    g_rqs.loopfd = epoll_create(EPOLL_SIZE_HINT);
    if (g_rqs.loopfd < 0) {
        LOG_ERRNO("%s: epoll_create1()", __func__);
        return -1;
    }
    (void)fcntl(g_rqs.loopfd, F_SETFD, FD_CLOEXEC);
    if (slots_reserve(&g_rqs.nopoll, NOPOLL_ROOM) != 0 || slots_reserve(&g_rqs.nopoll_rm, NOPOLL_ROOM) != 0)
        PANIC("%s: cannot reserve memory for g_rqs.nopoll/rm\n", __func__);
    g_rqs.tmout = {-1, 0};
    g_ino.fd = inotify_init1(IN_CLOEXEC);
    if (g_ino.fd < 0) {
        LOG_ERRNO("%s: inotify_init1", __func__);
        return -1;
    }
    if (const int rc = nkht_create(&g_ino.wfd_ht, INO_WFD_CAP, nullptr)) {
        LOG_ERR("%s: failed to create wfd/inotify lookup\n", __func__);
        return rc;
    }
    refresh_clock();
    g_last_signal_check = g_rqs.itime;
    LOG_DEBUG("%s: rqs time: %lu.%09lu\n", __func__, g_rqs.itime.tv_sec, g_rqs.itime.tv_nsec);
    undo.release();
    return 0;
}

/* Copes with every stage of a half-made loop, and with none. */
void rqs_destroy() noexcept
{
    if (g_ino.fd >= 0)
        close(g_ino.fd);
    g_ino.fd = -1;
    if (g_ino.wfd_ht)
        nkht_destroy(g_ino.wfd_ht, nullptr);
    g_ino.wfd_ht = nullptr;
    if (g_rqs.loopfd > 0)
        close(g_rqs.loopfd);
    g_rqs.loopfd = -1;
    slots_reset(&g_rqs.nopoll);
    slots_reset(&g_rqs.nopoll_rm);
    xvec_reset(&g_rqs.events);
    xvec_reset(&g_rqs.changes);
    g_rqs.poll_fds = 0;
}

/* ---- registration ---- */

static const char* op_name(int op) noexcept
{
    switch (op) {
    case EPOLL_CTL_ADD:
        return "EPOLL_CTL_ADD";
    case EPOLL_CTL_MOD:
        return "EPOLL_CTL_MOD";
    default:
        return "EPOLL_CTL_DEL";
    }
}

/* The data word is the record, or the bare descriptor where there is none. Only a new descriptor counts: it may cost an
   event slot. */
static int do_epoll_watch(int op, uint32_t events, int fd, void* udata) noexcept
{
    ASSERT(g_rqs.loopfd >= 0);
    epoll_event ev{};
    ev.events = events;
    if (udata)
        ev.data.ptr = udata;
    else
        ev.data.u64 = static_cast<uint64_t>(fd);
    const int rc = epoll_ctl(g_rqs.loopfd, op, fd, &ev);
    if (rc != 0) {
        LOG_ERRNO("%s: epoll_ctl(%d, %s, %d, {0x%x, %p})", __func__, g_rqs.loopfd, op_name(op), fd, events,
                  ev.data.ptr);
        return rc;
    }
    LOG_DEBUG("%s: OK fd=%d %s to epoll with events=0x%x, data=%p\n", __func__, fd, op_name(op), events, ev.data.ptr);
    if (op == EPOLL_CTL_ADD) {
        ++g_rqs.poll_fds;
        LOG_DEBUG("%s: fd%d, poll_fds count=%zu\n", __func__, fd, g_rqs.poll_fds);
    }
    return 0;
}

int rqs_add_reader(int fd, void* udata) noexcept
{
    return do_epoll_watch(EPOLL_CTL_ADD, EPOLLIN, fd, udata);
}

int rqs_add_writer(int fd, void* udata) noexcept
{
    return do_epoll_watch(EPOLL_CTL_ADD, EPOLLOUT, fd, udata);
}

/* Without a direction the descriptor stays registered for what cannot be switched off, a hang-up or an error. */
int rqs_mod(int fd, void* udata, uint32_t flags) noexcept
{
    char letters[3] = "";
    size_t n = 0;
    uint32_t events = 0;
    if (flags & RQS_READ) {
        events |= EPOLLIN;
        letters[n++] = 'R';
    }
    if (flags & RQS_WRITE) {
        events |= EPOLLOUT;
        letters[n++] = 'W';
    }
    if (flags == 0) {
        events = EPOLLHUP;
        letters[n++] = 'H';
    }
    LOG_DEBUG("%s: fd%d, udata=%p, flags='%s'\n", __func__, fd, udata, letters);
    return do_epoll_watch(EPOLL_CTL_MOD, events, fd, udata);
}

int rqs_mod_reader(int fd, void* udata) noexcept
{
    return do_epoll_watch(EPOLL_CTL_MOD, EPOLLIN, fd, udata);
}

/* Also after the loop has ended, when there is nothing to leave: shutdown closes descriptors in any order. */
int rqs_rm_fd(int fd, bool /*unused*/, bool /*unused*/) noexcept
{
    if (g_rqs.loopfd < 0)
        return 0;
    const int rc = epoll_ctl(g_rqs.loopfd, EPOLL_CTL_DEL, fd, nullptr);
    if (rc != 0) {
        LOG_ERRNO("%s: epoll_ctl(%d, EPOLL_CTL_DEL, %d,..)", __func__, g_rqs.loopfd, fd);
    } else {
        --g_rqs.poll_fds;
        LOG_DEBUG("%s: fd%d, poll_fds count=%zu\n", __func__, fd, g_rqs.poll_fds);
    }
    LOG_DEBUG("%s: REMOVE fd=%d from epoll %s [rc=%d]\n", __func__, fd, rc == 0 ? "OK" : "FAILED", rc);
    return rc;
}

size_t rqs_fd_count(int which) noexcept
{
    switch (which) {
    case GET_TOTALFDS:
        return g_rqs.poll_fds + slots_len(g_rqs.nopoll);
    case GET_POLLFDS:
        return g_rqs.poll_fds;
    case GET_NOPOLLFDS:
        return slots_len(g_rqs.nopoll);
    default:
        LOG_ERR("%s: invalid specifier: %d\n", __func__, which);
        ASSERT_AS(false, "a known counter is asked for");
    }
}

int rqs_ctx(int which) noexcept
{
    ASSERT(which == GET_LOOP_STAGE);
    return g_rqs.loop_stage;
}

/* ---- the wait ---- */

/* Signals get in while the loop waits; a wait that has events at hand lets none in, and one event may take long (the
   look-up of a name, a registration). */
static void check_signals() noexcept
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    const long ns = (now.tv_sec - g_last_signal_check.tv_sec) * 1000000000 + now.tv_nsec - g_last_signal_check.tv_nsec;
    if (ns < SIGNAL_CHECK_NS)
        return;
    g_last_signal_check = now;
    deliver_pending_signals();
}

/* What the kernel fills; another block after every wait that has reserved more. */
static epoll_event* event_slots() noexcept
{
    return static_cast<epoll_event*>(g_rqs.events.data);
}

/* As epoll_wait, with errno; the clock is refreshed in every case. */
static int wait4events() noexcept
{
    /* As many slots as descriptors are watched, and never none: the kernel refuses an empty array. */
    const size_t wanted = g_rqs.poll_fds > 0 ? g_rqs.poll_fds : 1;
    if (wanted > g_rqs.events.max_len &&
        xvec_reserve(&g_rqs.events, wanted, sizeof(epoll_event), EVENTS_GROWBLK) != 0) {
        LOG_ERR("%s: xvec_reserve failed\n", __func__);
        panic_abort();
    }
    int limit = -1; /* ms */
    if (slots_len(g_rqs.nopoll) > 0) {
        LOG_DEBUG("%s: no-poll events present: changing to 0 timeout\n", __func__);
        limit = 0;
    } else if (g_rqs.tmout.tv_sec >= INT_MAX / 1000) {
        limit = INT_MAX;
    } else if (g_rqs.tmout.tv_sec >= 0 && g_rqs.tmout.tv_nsec >= 0) {
        limit = static_cast<int>(g_rqs.tmout.tv_sec * 1000 + g_rqs.tmout.tv_nsec / 1000000);
    }
    LOG_DEBUG("%s: timeout=%f sec\n", __func__, limit < 0 ? -1.0 : limit / 1000.0);
    const int n =
        epoll_pwait(g_rqs.loopfd, event_slots(), static_cast<int>(g_rqs.events.max_len), limit, wait_sigmask());
    const int err = errno;
    if (n < 0 && err == EINTR)
        LOG_INFO("%s interrupted, quit=%d\n", __func__, g_quit);
    else if (n < 0)
        LOG_ERRNO("%s: epoll_wait(%d...)", __func__, g_rqs.loopfd);
    else if (n > MANY_EVENTS && static_cast<size_t>(n) == g_rqs.events.max_len)
        LOG_WARN("%s: all event slots populated, might need more\n", __func__);
    if (n >= 0)
        g_rqs.events.len = static_cast<size_t>(n);
    if (n > 0)
        LOG_DEBUG("%s: got %d events\n", __func__, n);
    refresh_clock();
    LOG_DEBUG("%s: rqs time: %lu.%09lu\n", __func__, g_rqs.itime.tv_sec, g_rqs.itime.tv_nsec);
    if (n >= 0)
        check_signals();
    errno = err;
    return n;
}

/* ---- dispatch ---- */

/* One handler for each event: reading before writing, errors only when they come alone. No watch of a file is ever
   registered, so a data word is never looked behind here; it may be a bare descriptor number. */
static int on_event(const epoll_event& ev) noexcept
{
    ASSERT(g_rqs.events.max_len > 0);
    uint32_t flags = 0;
    if (ev.events & EPOLLERR)
        flags |= RQS_SOCKERR;
    if (ev.events & (EPOLLHUP | EPOLLRDHUP))
        flags |= RQS_SOCKHUP;
    const rqs_callbacks& cb = g_rqs_cfg.cb;
    if (ev.events & EPOLLIN)
        return cb.read(ev.data.fd, flags, ev.data.ptr, nullptr);
    if (ev.events & EPOLLOUT)
        return cb.write(ev.data.fd, flags, ev.data.ptr, nullptr);
    if (flags)
        return cb.error(ev.data.fd, flags, ev.data.ptr, nullptr);
    LOG_ERR("%s: unsupported event mask: 0x%x\n", __func__, ev.events);
    return -1;
}

/* ---- the loop ---- */

/* Waits where there is something to wait for; without a wait, pending signals are let in here. False ends the loop; *rc
   is the wait's errno, *n the events at hand. */
static bool take_events(int* n, int* rc) noexcept
{
    const rqs_callbacks& cb = g_rqs_cfg.cb;
    if (g_rqs.poll_fds == 0 && slots_len(g_rqs.nopoll) > 0) {
        deliver_pending_signals();
        return !g_quit;
    }
    if (cb.update_tmout)
        cb.update_tmout(&g_rqs.tmout);
    *n = wait4events();
    if (*n < 0) {
        *rc = errno;
        if (*rc != EINTR || g_quit)
            return false;
        *n = 0;
    }
    if (g_quit)
        return false;
    if (cb.time_out)
        cb.time_out();
    return true;
}

static int post_process(int stage) noexcept
{
    g_rqs.loop_stage = stage;
    return g_rqs_cfg.cb.post_process ? g_rqs_cfg.cb.post_process() : 0;
}

/* The order of a round's steps is what handlers may rely on. The result tells a clean stop from the others: a wait that
   a quit signal has interrupted is no failure. */
int rqs_event_loop() noexcept
{
    ASSERT(g_rqs.loopfd >= 0);
    const rqs_callbacks& cb = g_rqs_cfg.cb;
    if (cb.update_tmout)
        cb.update_tmout(&g_rqs.tmout);
    LOG_INFO("Entering event loop\n");
    int rc = 0;
    size_t failed = 0;
    while (!g_quit) {
        g_rqs.loop_stage = ELOOP_START;
        bool is_idle = g_rqs.poll_fds == 0 && slots_len(g_rqs.nopoll) == 0;
        if (is_idle && cb.is_dormant)
            is_idle = cb.is_dormant();
        if (is_idle && g_rqs_cfg.quit_on_zero_fds) {
            LOG_CRIT("%s: no fd's, no activity, quitting now.\n", __func__);
            break;
        }
        g_rqs.events.len = 0;
        int n = 0;
        if (!take_events(&n, &rc))
            break;

        if ((rc = rqs_service_nopoll()) != 0)
            break;
        rqs_purge_nopoll();

        if (n > 0)
            LOG_DEBUG("%s: processing %d pollable events\n", __func__, n);
        g_rqs.loop_stage = ELOOP_EV;
        /* Events left over when a quit signal has come are dropped: what they belong to ends anyway. */
        for (int i = 0; i < n && !g_quit; ++i) {
            failed += on_event(event_slots()[i]) != 0;
            check_signals();
        }

        if ((rc = post_process(ELOOP_POSTEV)) != 0)
            break;
        rqs_purge_nopoll();
        if (failed > 0) {
            LOG_DEBUG("%s: failed %zu events\n", __func__, failed);
            break;
        }
        if (cb.on_idle && (rc = cb.on_idle()) != 0)
            break;
        if ((rc = post_process(ELOOP_ENDPP)) != 0)
            break;
    }
    if (rc == EINTR && g_quit)
        rc = 0;
    LOG_INFO("Exiting event loop, %zu failed, rc=%d, quit=%d\n", failed, rc, g_quit);
    return rc ? rc : static_cast<int>(failed);
}
