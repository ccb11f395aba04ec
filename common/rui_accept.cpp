/* Request listeners: taking clients in. When descriptors run out, a listener is not watched until some come back, since
   the kernel would report it without end. */
#include "rui.h"

#include "log.h"
#include "rqs.h"
#include "rui_internal.h"
#include "signals.h"
#include "syswrap.h"
#include "timeop.h"
#include "tmout.h"

#include <array>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t ADDR_TEXT_MAX = 64;

/* ---- when accepting fails ---- */

/* One warning for a shortage, however many pauses it takes. */
static void pause_listener(const char* fn, rui_socket_ctx* srv, const char* why, int err) noexcept
{
    if (srv->is_paused || rqs_mod(srv->sockfd, srv, 0) != 0)
        return;
    srv->is_paused = true;
    rqs_set_now(&srv->paused_tm);
    set_timeout(LSN_PAUSE_TMOUT, LSN_PAUSE_TMOUT_MS);
    if (!srv->is_short)
        LOG_WARN("%s(%s): %s, ERROR(%d): waiting clients stay queued until some come back\n", fn, srv->lc->alias, why,
                 err);
    srv->is_short = true;
}

void rui_resume(rui_socket_ctx* srv) noexcept
{
    if (srv->is_paused)
        rm_timeout(LSN_PAUSE_TMOUT);
    srv->is_paused = false;
}

/* Not before a while has passed: what ran out may be the system's, which no probe of this process tells reliably, and a
   listener woken too early would be reported, refused and paused again without end. */
void rui_wake(rui_socket_ctx* srv) noexcept
{
    if (!srv->is_paused)
        return;
    timespec pause{};
    ms2timespec(LSN_PAUSE_TMOUT_MS, &pause);
    if (!timed_out(srv->paused_tm, pause))
        return;
    if (rqs_mod(srv->sockfd, srv, RQS_READ) == 0)
        rui_resume(srv);
}

/* ---- queue ---- */

int rui_add_request(int fd, rui_socket_ctx* srv, void* udata) noexcept
{
    const size_t queued = dlep_count(srv->requests);
    if (queued > MAX_RUI_QUEUED - 1) {
        LOG_ERR("%s: Too many user requests (%zu) queued\n", __func__, queued);
        return EBUSY;
    }
    ASSERT(srv->cb);
    rui_rq_header* rq = srv->cb->new_rq(fd, srv, udata);
    if (!rq)
        return -1;
    dlep_append(srv->requests, reinterpret_cast<dlep_elem*>(rq));
    if (rui_fdset_test(&srv->accset, fd))
        LOG_ERR("%s: socket fd=%d is already marked queued\n", __func__, fd);
    int rc = rui_fdset_mark(&srv->accset, fd) ? 0 : -1;
    if (rc == 0)
        rc = rqs_add_reader(fd, rq);
    if (rc != 0) {
        LOG_ERR("%s: failed to add fd=%d to the monitored set\n", __func__, fd);
        /* Not left behind with a descriptor that the caller closes. */
        rui_fdset_clear(&srv->accset, fd);
        dlep_rm(srv->requests, reinterpret_cast<dlep_elem*>(rq));
        rq->fd = -1;
        srv->cb->rm_rq(rq);
        return rc;
    }
    LOG_INFO("%s: OK for fd=%d, rq=%p\n", __func__, fd, static_cast<void*>(rq));
    return 0;
}

/* ---- accept ---- */

/* Prepares and queues one accepted client. Its descriptor is closed on failure (logged). */
static int take_client(const char* fn, int fd, const sockaddr_storage& peer, socklen_t len, rui_socket_ctx* srv,
                       uint32_t flags, void* udata) noexcept
{
    std::array<char, ADDR_TEXT_MAX> text{};
    LOG_INFO("Accepted %s request [fd=%d] from %s\n", srv->lc->alias, fd,
             saddr_str(&peer, len, text.data(), text.size()));
    LOG_DEBUG("set_nblock: fd%d set as non-blocking\n", fd); /* by the accept itself */
    const bool is_net = peer.ss_family == AF_INET || peer.ss_family == AF_INET6;
    int rc = 0;
    if (is_net) {
        /* Else every byte of a slow head would be an event. */
        rc = W_setsockopt(fn, fd, SOL_SOCKET, SO_RCVLOWAT, &RUI_LOW_WMARK, sizeof(RUI_LOW_WMARK));
        if (rc == 0)
            LOG_DEBUG("%s: low watermark set to %d for fd=%d\n", fn, RUI_LOW_WMARK, fd);
    }
    if (rc == 0 && is_net && (flags & RUI_TCP_NODELAY))
        rc = set_tcp_nodelay(fd, true);
    if (rc == 0)
        rc = rui_add_request(fd, srv, udata);
    if (rc == 0)
        return 0;
    LOG_ERR("Error rc=%d processing connection [%s] fd=%d\n", rc, srv->lc->alias, fd);
    W_close(fn, fd);
    return rc;
}

/* What a failed accept asks for. True: try again at once. */
static bool goes_on(const char* fn, rui_socket_ctx* srv, int err) noexcept
{
    const bool is_datagram = srv->lc->proto == IPPROTO_UDP && !srv->lc->domain_path[0];
    switch (err) {
    case EINTR:
        return !g_quit;
    case ECONNABORTED:
    case ECONNRESET:
        LOG_INFO("%s(%s): connection aborted/reset before accept()\n", fn, srv->lc->alias);
        return true;
    case EAGAIN:
        srv->has_failed = false;
        LOG_DEBUG("%s(%s): end of accept queue reached\n", fn, srv->lc->alias);
        return false;
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
        pause_listener(fn, srv, "out of resources", err);
        return false;
    default:
        /* Left alone once, since it may have been that client's. Twice in a row it is the listener's, which would be
           reported without end. */
        if (is_datagram && (err == EOPNOTSUPP || err == EINVAL))
            (void)rqs_mod(srv->sockfd, srv, 0); /* it accepts nothing, ever */
        else if (srv->has_failed)
            pause_listener(fn, srv, "accepting fails", err);
        srv->has_failed = true;
        return false;
    }
}

/* The result is that of the last client alone: one that was refused is logged, and no reason to stop the loop. */
int rui_accept(rui_socket_ctx* srv, size_t max, uint32_t flags, void* udata) noexcept
{
    LOG_DEBUG("%s: from [%s]\n", __func__, srv->lc->alias);
    size_t accepted = 0;
    size_t refused = 0; /* bounded like the others: a flood of them must not keep the loop from everything else */
    int rc = 0;
    while (!g_quit && max > 0 && accepted < max && refused < max) {
        LOG_DEBUG("%s(%s): accepting on fd=%d\n", __func__, srv->lc->alias, srv->sockfd);
        rc = 0;
        sockaddr_storage peer{};
        socklen_t len = sizeof(peer);
        /* An accept that finds nobody makes a file first, and is the dearest call of a lone order: behind the first
           client the listener is asked whether there is a second one. In a burst the question would be one more call
           for each, so it comes once. A question that fails is no answer. */
        pollfd second = {srv->sockfd, POLLIN, 0};
        if (accepted + refused == 1 && poll(&second, 1, 0) == 0) {
            (void)goes_on(__func__, srv, EAGAIN);
            break;
        }
        const int fd = W_accept(__func__, srv->sockfd, reinterpret_cast<sockaddr*>(&peer), &len);
        if (fd < 0) {
            if (!goes_on(__func__, srv, errno))
                break;
            continue;
        }
        srv->is_short = srv->has_failed = false;
        rc = take_client(__func__, fd, peer, len, srv, flags, udata);
        ++(rc == 0 ? accepted : refused);
    }
    if (accepted >= max)
        LOG_WARN("%s(%s): CANNOT ACCEPT ALL (accepted=%zu), max=%zu\n", __func__, srv->lc->alias, accepted, max);
    LOG_DEBUG("%s: rc=%d\n", __func__, rc);
    return rc;
}
