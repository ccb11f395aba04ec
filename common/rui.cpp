/* Request listeners: their life, their queues, removal and time-outs. Accepting is in rui_accept.cpp.
   The difficulty is that a request ends in its own handler, while the loop may still hold an event for it, and its
   listener may go before it. So a request is listed and removed after the round, the queue is the one place that knows
   them all, and a listener that is dropped takes its requests with it. */
#include "rui.h"

#include "log.h"
#include "process.h"
#include "rqs.h"
#include "rui_internal.h"
#include "strops.h"
#include "syswrap.h"
#include "tmout.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t ACCSET_ROOM = 65536; /* descriptors; a higher one makes the set grow */
constexpr size_t PPRM_ROOM = 8;
constexpr size_t MIN_TRKNUM_DIGITS = 4; /* shorter numbers get leading zeros */
constexpr size_t TRKNUM_DIGITS = 5;

/* Written by rui_set_cb, before the first listener is set up. */
static rui_socket_cb g_cb[RUI_MAX];

static const char* const KIND_NAMES[] = {"user", "admin", "custom"}; /* by rui_kind */

/* By rui_kind; the order is that of the enumerators. */
static rui_socket_ctx* set_of(rui_ctx* ctx, int kind) noexcept
{
    rui_socket_ctx* const sets[] = {ctx->user, ctx->admin, ctx->custom};
    return sets[kind];
}

/* ---- set of descriptors ---- */

/* As many bits as are needed, new ones clear: a descriptor's number has no limit of its own. */
static bool fdset_reserve(rui_fdset* set, size_t nbits) noexcept
{
    const size_t nwords = (nbits + 63) / 64;
    if (nwords <= set->nwords)
        return true;
    void* p = realloc(set->words, nwords * sizeof(uint64_t));
    if (!p)
        return false;
    set->words = static_cast<uint64_t*>(p);
    memset(set->words + set->nwords, 0, (nwords - set->nwords) * sizeof(uint64_t));
    set->nwords = nwords;
    return true;
}

bool rui_fdset_test(const rui_fdset* set, int fd) noexcept
{
    const auto bit = static_cast<size_t>(fd);
    return bit / 64 < set->nwords && (set->words[bit / 64] >> (bit % 64) & 1);
}

bool rui_fdset_mark(rui_fdset* set, int fd) noexcept
{
    const auto bit = static_cast<size_t>(fd);
    if (!fdset_reserve(set, bit + 1))
        return false;
    set->words[bit / 64] |= uint64_t{1} << (bit % 64);
    return true;
}

void rui_fdset_clear(rui_fdset* set, int fd) noexcept
{
    const auto bit = static_cast<size_t>(fd);
    if (fd >= 0 && bit / 64 < set->nwords)
        set->words[bit / 64] &= ~(uint64_t{1} << (bit % 64));
}

/* ---- set-up ---- */

void rui_set_cb(int type, const rui_socket_cb* cb) noexcept
{
    ASSERT(type >= 0 && type < RUI_MAX);
    g_cb[type] = *cb;
}

/* Room for the requests that a round ends is reserved here, so that listing one does not ask for memory on most
   days. */
int rui_setup_listeners(int kind, rui_listener_cfg* cfg, rui_socket_ctx* srv) noexcept
{
    ASSERT(kind >= 0 && kind < RUI_MAX);
    const rui_socket_cb* cb = &g_cb[kind];
    size_t count = 0;
    for (; count < MAX_LISTENERS && cfg[count].is_valid; ++count, ++srv) {
        ASSERT(cb->new_rq && cb->rm_rq);
        int rc = 0;
        srv->requests = dlep_create(&rc);
        if (!srv->requests) {
            LOG_ERR("%s: dlep_create() failed rc=%d\n", __func__, rc);
            return rc;
        }
        rc = slots_reserve(&srv->pprm, PPRM_ROOM);
        if (rc == 0 && !fdset_reserve(&srv->accset, std::min(fd_limit(), ACCSET_ROOM)))
            rc = -1;
        if (rc != 0) {
            LOG_ERR("%s: xvlst_reserve() failed rc=%d\n", __func__, rc);
            dlep_destroy(srv->requests, nullptr);
            slots_reset(&srv->pprm);
            *srv = rui_socket_ctx{};
            return rc;
        }
        srv->tag = TAG_RSC;
        srv->sockfd = -1;
        srv->lc = &cfg[count];
        srv->rqtag = cb->tag;
        srv->cb = cb;
    }
    if (count > 0)
        LOG_DEBUG("%s: %zu [%s] listeners set up\n", __func__, count, cb->tag.sym);
    return 0;
}

int rui_ctx_init(rui_cfg* cfg, rui_ctx* ctx) noexcept
{
    *ctx = rui_ctx{};
    rui_listener_cfg* const cfgs[] = {cfg->user, cfg->admin, cfg->custom};
    for (int kind = RUI_USER; kind < RUI_MAX; ++kind) {
        if (const int rc = rui_setup_listeners(kind, cfgs[kind], set_of(ctx, kind)))
            return rc;
    }
    return 0;
}

/* ---- start and stop ---- */

/* An interface, an address of its own, any address, or a path: what the configuration names decides which. */
int rui_start_listener(rui_listener_cfg* lc, rui_socket_ctx* srv) noexcept
{
    ASSERT(srv->rqtag.num && srv->cb->new_rq && srv->cb->rm_rq);
    ASSERT(srv->sockfd == -1);
    const size_t pending = dlep_count(srv->requests);
    LOG_DEBUG("%s: %s\n", __func__, srv->rqtag.sym);
    srv->lc = lc;
    if (lc->domain_path[0])
        srv->sockfd = open_domain_listener(lc->domain_path);
    else if (lc->proto == IPPROTO_TCP)
        srv->sockfd = lc->ifc ? open_listener(lc->ifc, lc->port, SOCK_NONBLOCK)
                              : open_anyaddr_listener(lc->pref_af, lc->port, SOCK_NONBLOCK);
    else if (lc->proto == IPPROTO_UDP && lc->ifc)
        srv->sockfd = open_udp_listener(lc->ifc, lc->port);
    if (srv->sockfd >= 0 && rqs_add_reader(srv->sockfd, srv) == 0) {
        const char* place = lc->ifc ? lc->ifc->name : "all";
        srv->deferred = false;
        LOG_INFO("STARTED listener fd%d for %s requests on %s:%s; %zu requests pending\n", srv->sockfd, srv->rqtag.sym,
                 lc->domain_path[0] ? lc->domain_path : place, lc->port, pending);
        return 0;
    }
    if (srv->sockfd >= 0)
        W_close(__func__, srv->sockfd);
    srv->sockfd = -1;
    LOG_ERR("%s: failed to start %s listener\n", __func__, srv->rqtag.sym);
    return -1;
}

int rui_enable_listeners(rui_socket_ctx* srv) noexcept
{
    size_t count = 0;
    for (; count < MAX_LISTENERS && srv[count].tag.num && srv[count].lc->is_valid; ++count) {
        if (const int rc = rui_start_listener(srv[count].lc, &srv[count]))
            return rc;
    }
    LOG_DEBUG("%s: %zu [%s] listener(s) started\n", __func__, count, srv[0].rqtag.sym);
    return 0;
}

/* The first listener that cannot be opened stops the start: that an agent listens in half of its places only would be
   noticed late. */
int rui_ctx_start(rui_ctx* ctx) noexcept
{
    for (int kind = RUI_USER; kind < RUI_MAX; ++kind) {
        if (const int rc = rui_enable_listeners(set_of(ctx, kind)))
            return rc;
    }
    return 0;
}

/* The queued requests stay: they are served or timed out without their listener. */
void rui_stop_listener(rui_socket_ctx* srv) noexcept
{
    if (srv->sockfd <= 0)
        return;
    ASSERT(0 == srv->deferred && srv->sockfd >= 0);
    const size_t queued = dlep_count(srv->requests);
    if (queued > 0)
        LOG_WARN("%s listener fd%d wll be closed (%zu requsts queued)\n", srv->rqtag.sym, srv->sockfd, queued);
    rui_resume(srv);
    rqs_rm_fd(srv->sockfd, true, false);
    W_close(__func__, srv->sockfd);
    srv->sockfd = -1;
    srv->deferred = true;
}

/* Its requests go with it. A listener without an interface record stays valid in the configuration. */
static void drop_listener(rui_socket_ctx* srv) noexcept
{
    rui_stop_listener(srv);
    if (srv->requests) {
        while (dlep_elem* e = dlep_tail(srv->requests))
            rui_rm_request(reinterpret_cast<rui_rq_header*>(e)); /* which takes itself out of the queue */
        dlep_destroy(srv->requests, nullptr);
        srv->requests = nullptr;
    }
    if (srv->lc->ifc) {
        free(srv->lc->ifc);
        srv->lc->ifc = nullptr;
        srv->lc->is_valid = false;
    }
    slots_reset(&srv->pprm);
    free(srv->accset.words);
    srv->accset = rui_fdset{};
    srv->tag.num = 0;
}

void stop_listeners(rui_socket_ctx* set, int kind, bool destroy) noexcept
{
    size_t count = 0;
    for (; count < MAX_LISTENERS && set[count].tag.num; ++count) {
        if (destroy)
            drop_listener(&set[count]);
        else
            rui_stop_listener(&set[count]);
    }
    LOG_DEBUG("%s: %zu [%s] listener(s) %s\n", __func__, count, KIND_NAMES[kind], destroy ? "destroyed" : "stopped");
}

void rui_ctx_destroy(rui_ctx* ctx) noexcept
{
    for (int kind = RUI_USER; kind < RUI_MAX; ++kind)
        stop_listeners(set_of(ctx, kind), kind, true);
}

/* ---- removal ---- */

/* The search is short: only the requests that have ended in this round are listed. */
int rui_pprm(rui_rq_header* rq, ssize_t* slot) noexcept
{
    auto& pprm = rq->srv->pprm;
    if (slots_hold(&pprm, rq))
        return EALREADY;
    *slot = slots_put(&pprm, rq);
    return *slot < 0 ? -1 : 0;
}

/* Out of the loop before the close, or a new descriptor of the same number could inherit the registration; out of the
   list of those to be removed, unless that list is being walked. */
static void rm_request(rui_rq_header* rqh, bool from_purge) noexcept
{
    rui_socket_ctx* srv = rqh->srv;
    ASSERT_AS(srv->cb, "rqh->srv->cb");
    rui_fdset_clear(&srv->accset, rqh->fd);
    if (rqs_rm_fd(rqh->fd, true, false) != 0)
        LOG_ERR("%s: failed to remove fd=%d from the monitored set.\n", __func__, rqh->fd);
    if (!from_purge && slots_rm(&srv->pprm, rqh) > 0)
        LOG_DEBUG("%s: removed (%p) from PPRM\n", __func__, static_cast<void*>(rqh));
    dlep_rm(srv->requests, reinterpret_cast<dlep_elem*>(rqh));
    const int fd = rqh->fd;
    if (fd >= 0)
        W_close(__func__, fd);
    rqh->fd = -1;
    srv->cb->rm_rq(rqh);
    LOG_INFO("%s: OK for fd=%d rq=%p\n", __func__, fd, static_cast<void*>(rqh));
}

void rui_rm_request(rui_rq_header* rq) noexcept
{
    rm_request(rq, false);
}

static int purge_elem(rui_rq_header** elem, size_t j) noexcept
{
    rui_rq_header* rq = *elem;
    LOG_DEBUG("rui_pprm_all: %s [%s] (%p) j=%zu\n", rq->tag.sym, rq->trk_tag.sym8, static_cast<void*>(rq), j);
    rm_request(rq, true);
    return 0;
}

/* Slot i of a kind, or null after the last one that was set up. */
static rui_socket_ctx* listener_at(rui_socket_ctx* set, size_t i) noexcept
{
    return i < MAX_LISTENERS && set[i].tag.num && set[i].requests ? &set[i] : nullptr;
}

/* After the removals there are descriptors again: a listener that has run out of them may go on. */
void rui_pprm_all(rui_ctx* ctx) noexcept
{
    for (int kind = RUI_USER; kind < RUI_MAX; ++kind) {
        rui_socket_ctx* set = set_of(ctx, kind);
        for (size_t i = 0; rui_socket_ctx* srv = listener_at(set, i); ++i) {
            LOG_DEBUG("%s: [%s] listener[%s], %zu pprm items\n", __func__, KIND_NAMES[kind], srv->lc->alias,
                      slots_len(srv->pprm));
            slots_purge_all<purge_elem>(&srv->pprm);
            LOG_DEBUG("%s: done for for [%s]\n", __func__, srv->lc->alias);
            rui_wake(srv);
        }
    }
}

/* ---- time-outs ---- */

/* The handler lists what has timed out; the queue does not change under the walk. */
void rui_tmout_all(rui_ctx* ctx, uint32_t tmout_ms) noexcept
{
    for (int kind = RUI_USER; kind < RUI_MAX; ++kind) {
        rui_socket_ctx* set = set_of(ctx, kind);
        if (!set[0].tag.num)
            continue;
        size_t count = 0;
        for (size_t i = 0; const rui_socket_ctx* srv = listener_at(set, i); ++i) {
            for (dlep_elem* e = dlep_tail(srv->requests); e; e = e->next) {
                ASSERT(srv->cb->time_out);
                count += srv->cb->time_out(reinterpret_cast<rui_rq_header*>(e), tmout_ms);
            }
        }
        if (count > 0)
            LOG_WARN("%s: %zu [%s] requests timed out\n", __func__, count, set[0].lc->alias);
        else
            LOG_DEBUG("%s: no time-outs for [%s]\n", __func__, set[0].lc->alias);
    }
}

/* ---- tags and the end ---- */

void rui_put_trknum(n64_tag* tag, char kind, size_t number, size_t min_digits, size_t max_digits) noexcept
{
    std::array<char, 24> text;
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
    const std::string_view digits(text.data(), static_cast<size_t>(end - text.data()));
    ASSERT(digits.size() <= MAX_TRKNUM_DIGITS);
    *tag = n64_tag{.sym8 = {kind}};
    size_t pos = 1;
    while (pos + digits.size() <= min_digits)
        tag->sym8[pos++] = '0';
    cut_text(tag->sym8 + pos, max_digits + 2 - pos, digits);
}

/* Numbers come again after max tasks: tags tell the lines of neighbours apart, not those of a day. */
void rui_mk_trknum(size_t* counter, n64_tag* tag, char kind, size_t max) noexcept
{
    if (*counter >= max) {
        *counter = 0;
        LOG_DEBUG("%s: rolling over %c-requests\n", __func__, kind);
    }
    ++*counter;
    rui_put_trknum(tag, kind, *counter, MIN_TRKNUM_DIGITS, TRKNUM_DIGITS);
}

/* A listener's socket cannot be mended, and one that is not watched any more would be noticed by nobody. */
void rui_crash_on_error(rui_socket_ctx* srv, uint32_t flags) noexcept
{
    const int err = socket_error(srv->sockfd);
    PANIC("%s: %s listener[%s] ERROR(%d): %s\n", __func__, flags ? "HUP" : "",
          srv->lc && srv->lc->alias[0] ? srv->lc->alias : "?", err, strerror(err));
}
