/* The UDP channel: one order a datagram, one datagram a wake-up. Orders are serialised across processes by their lock
   ids; an id is released only by the order that took it. */
#include "udl.h"

#include "app.h"
#include "lock.h"
#include "log.h"
#include "order.h"
#include "register.h"
#include "rqs.h"
#include "wopen.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t RECV_MAX = 1415; /* enough to see that a datagram is too long */
constexpr size_t MSG_CAP = RECV_MAX + 1;

/* ---- life ---- */

int udl_ctx_init(udp_lstn_cfg* cfg, udl_ctx* udl) noexcept
{
    if (!cfg->url[0])
        return 0;
    ASSERT(!udl->is_ready);
    udl->usock = usock_ctx{};
    udl->usock.inbound = true;
    udl->usock.non_blocking = true;
    udl->usock.ifc_tag = cfg->mifc[0] ? cfg->mifc : nullptr;
    udl->sockfd = usock_open(&udl->usock, cfg->url);
    if (udl->sockfd >= 0 && udl->usock.url_kind != URI_UDP && udl->usock.url_kind != URI_RTP) {
        usock_close(udl->sockfd, &udl->usock); /* nothing else gives datagrams */
        udl->sockfd = -1;
    }
    if (udl->sockfd < 0) {
        LOG_ERR("%s: failed to open [%s]\n", __func__, cfg->url);
        return -1;
    }
    udl->tag = TAG_UDL;
    udl->is_ready = true;
    LOG_INFO("%s: fd%d set up to listen on [%s]\n", __func__, udl->sockfd, cfg->url);
    return 0;
}

int udl_ctx_start(udl_ctx* udl) noexcept
{
    ASSERT(udl->is_ready);
    if (const int rc = rqs_add_reader(udl->sockfd, udl)) {
        LOG_ERR("%s: cannot start UDP listener on fd%d\n", __func__, udl->sockfd);
        return rc;
    }
    udl->is_watched = true;
    LOG_DEBUG("%s: listening on fd%d\n", __func__, udl->sockfd);
    return 0;
}

void udl_ctx_destroy(udl_ctx* udl) noexcept
{
    if (!udl->is_ready)
        return;
    const int fd = udl->sockfd;
    usock_drop(&udl->sockfd, &udl->is_watched, &udl->usock);
    udl->is_ready = false;
    LOG_DEBUG("%s: done on fd%d\n", __func__, fd);
}

void udl_error(udl_ctx* udl) noexcept
{
    (void)socket_error(udl->sockfd); /* reading it clears it, and it is logged */
}

/* ---- a datagram ---- */

/* Receives one datagram as text without its line end. 0 or -1 (logged). */
static int receive_msg(const char* fn, const udl_ctx* udl, std::array<char, MSG_CAP>* buf) noexcept
{
    const ssize_t n = recv(udl->sockfd, buf->data(), RECV_MAX, MSG_DONTWAIT);
    if (n < 0) {
        LOG_ERRNO("%s: recv(fd%d, .., %zu,..)", fn, udl->sockfd, RECV_MAX);
        return -1;
    }
    LOG_DEBUG("%s: read %zd bytes from fd%d\n", fn, n, udl->sockfd);
    if (n < MIN_UMSG_LEN || n > MAX_UMSG_LEN) {
        LOG_ERR("%s: invalid message length: %zd (min/max=%d/%d)\n", fn, n, MIN_UMSG_LEN, MAX_UMSG_LEN);
        return -1;
    }
    auto len = static_cast<size_t>(n);
    for (int i = 0; i < 2 && len > 0 && ((*buf)[len - 1] == '\r' || (*buf)[len - 1] == '\n'); ++i)
        (*buf)[--len] = '\0';
    LOG_DEBUG("%s: msg=[%s]\n", fn, buf->data());
    if ((*buf)[0] == '#' && (*buf)[1] == '!')
        return 0;
    LOG_ERR("%s: invalid message prefix\n", fn);
    return -1;
}

/* The lock of the order at hand. */
struct order_lock {
    bool is_held; /* by this order; cleared when a task has taken it over */
    timespec tm;  /* of the lock's file */
};

/* From "lid url expiry" to a task or a registration. Whoever returns with the lock still held leaves it to the caller.
   0; EBUSY another order holds the lock; else refused (logged, but for a failed registration). */
static int take_order(const char* fn, char* msg, char** url, char** lid, order_lock* lock) noexcept
{
    long expiry = 0;
    if (const int rc = parse_msg(msg, url, lid, &expiry))
        return rc;
    const int rc_lock = lid_lock(*lid, &lock->tm);
    if (rc_lock == EBUSY) {
        LOG_INFO("%s: [%s] already engaged, will skip\n", fn, *lid);
        return rc_lock;
    }
    lock->is_held = rc_lock == 0; /* an order that could not take its lock goes on without one */

    dw_spec spec{};
    if (const int rc = parse_url(*url, lock->is_held ? *lid : nullptr, &spec))
        return rc;
    spec.lock_tm = lock->tm;
    spec.expiry_tm = expiry;
    LOG_DEBUG("%s: expiry time: %ld\n", fn, expiry);
    if (is_local_url(spec.url))
        return register_local(fn, &spec); /* the lock of a registered order is left to lapse */
    lock->is_held = false;
    (void)mk_dw_task(-1, &spec); /* the task owns the lock now, and a refused one has released it */
    return 0;
}

/* One datagram an event: the socket stays readable while there are more, and other events come in between. */
int udl_accept(udl_ctx* udl) noexcept
{
    ASSERT(udl->sockfd > 0);
    std::array<char, MSG_CAP> buf{};
    char* url = nullptr;
    char* lid = nullptr;
    order_lock lock{};
    int rc = receive_msg(__func__, udl, &buf);
    if (rc == 0)
        rc = take_order(__func__, buf.data() + 2, &url, &lid, &lock);
    if (rc == 0 || rc == EBUSY)
        return 0;
    LOG_ERR("%s: [%s] request failed; url=[%s], rc=%d\n", __func__, lid ? lid : "", url ? url : "", rc);
    if (lock.is_held)
        lid_unlock(lid, lock.tm);
    return 0;
}
