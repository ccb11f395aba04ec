/* Request listeners: their life, their queues, removal and time-outs. Accepting is in rui_accept.cpp. */
#include "rui.h"

#include "log.h"
#include "rqs.h"
#include "rui_internal.h"
#include "strops.h"
#include "syswrap.h"
#include "tmout.h"
#include "util.h"

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
constexpr size_t TRKNUM_DIGITS = 5;
constexpr size_t TRKNUM_PAD = 4; /* shorter numbers get leading zeros */

static rui_socket_cb g_cb[RUI_MAX];

static const char* kind_name(int kind) noexcept
{
    static const char* const NAMES[] = {"user", "admin", "custom"};
    return NAMES[kind];
}

static rui_socket_ctx* set_of(rui_ctx* ctx, int kind) noexcept
{
    rui_socket_ctx* const sets[] = {ctx->user, ctx->admin, ctx->custom};
    return sets[kind];
}

/* ---- set of descriptors ---- */

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

static void fdset_free(rui_fdset* set) noexcept
{
    free(set->words);
    *set = rui_fdset{};
}

/* ---- set-up ---- */

void rui_set_cb(int type, const rui_socket_cb* cb) noexcept
{
    ASSERT(type >= 0 && type < RUI_MAX);
    g_cb[type] = *cb;
}

static int setup_one(rui_listener_cfg* lc, rui_socket_ctx* srv, const rui_socket_cb* cb) noexcept
{
    ASSERT(cb->new_rq && cb->rm_rq);
    int rc = 0;
    srv->requests = dlep_create(&rc);
    if (!srv->requests) {
        LOG_ERR("%s: dlep_create() failed rc=%d\n", "rui_setup_listeners", rc);
        return rc;
    }
    rc = slots_reserve(&srv->pprm, PPRM_ROOM);
    if (rc == 0 && !fdset_reserve(&srv->accset, std::min(fd_limit(), ACCSET_ROOM)))
        rc = -1;
    if (rc != 0) {
        LOG_ERR("%s: xvlst_reserve() failed rc=%d\n", "rui_setup_listeners", rc);
        dlep_destroy(srv->requests, nullptr);
        slots_reset(&srv->pprm);
        *srv = rui_socket_ctx{};
        return rc;
    }
    srv->tag = TAG_RSC;
    srv->sockfd = -1;
    srv->lc = lc;
    srv->rqtag = cb->tag;
    srv->cb = cb;
    return 0;
}

int rui_setup_listeners(int kind, rui_listener_cfg* cfg, rui_socket_ctx* srv) noexcept
{
    ASSERT(kind >= 0 && kind < RUI_MAX);
    size_t count = 0;
    for (; count < MAX_LISTENERS && cfg[count].is_valid; ++count) {
        if (const int rc = setup_one(&cfg[count], &srv[count], &g_cb[kind]))
            return rc;
    }
    if (count > 0)
        LOG_DEBUG("%s: %lu [%s] listeners set up\n", __func__, static_cast<unsigned long>(count), g_cb[kind].tag.sym);
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

static int open_by_cfg(const rui_listener_cfg* lc) noexcept
{
    if (lc->domain_path[0])
        return open_domain_listener(lc->domain_path);
    if (lc->proto == IPPROTO_TCP) {
        return lc->ifc ? open_listener(lc->ifc, lc->port, SOCK_NONBLOCK)
                       : open_anyaddr_listener(lc->pref_af, lc->port, SOCK_NONBLOCK);
    }
    return lc->proto == IPPROTO_UDP && lc->ifc ? open_udp_listener(lc->ifc, lc->port) : -1;
}

static const char* place_of(const rui_listener_cfg* lc) noexcept
{
    if (lc->domain_path[0])
        return lc->domain_path;
    return lc->ifc ? lc->ifc->name : "all";
}

int rui_start_listener(rui_listener_cfg* lc, rui_socket_ctx* srv) noexcept
{
    ASSERT(srv->rqtag.num && srv->cb->new_rq && srv->cb->rm_rq);
    ASSERT(srv->sockfd == -1);
    const size_t pending = dlep_count(srv->requests);
    LOG_DEBUG("%s: %s\n", __func__, srv->rqtag.sym);
    srv->lc = lc;
    srv->sockfd = open_by_cfg(lc);
    if (srv->sockfd >= 0 && rqs_add_reader(srv->sockfd, srv) == 0) {
        srv->deferred = false;
        LOG_INFO("STARTED listener fd%d for %s requests on %s:%s; %lu requests pending\n", srv->sockfd, srv->rqtag.sym,
                 place_of(lc), lc->port, static_cast<unsigned long>(pending));
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
    LOG_DEBUG("%s: %lu [%s] listener(s) started\n", __func__, static_cast<unsigned long>(count), srv[0].rqtag.sym);
    return 0;
}

int rui_ctx_start(rui_ctx* ctx) noexcept
{
    for (int kind = RUI_USER; kind < RUI_MAX; ++kind) {
        if (const int rc = rui_enable_listeners(set_of(ctx, kind)))
            return rc;
    }
    return 0;
}

void rui_stop_listener(rui_socket_ctx* srv) noexcept
{
    if (srv->sockfd <= 0)
        return;
    ASSERT(0 == srv->deferred && srv->sockfd >= 0);
    const size_t queued = dlep_count(srv->requests);
    if (queued > 0)
        LOG_WARN("%s listener fd%d wll be closed (%lu requsts queued)\n", srv->rqtag.sym, srv->sockfd,
                 static_cast<unsigned long>(queued));
    rui_resume(srv);
    rqs_rm_fd(srv->sockfd, true, false);
    W_close(__func__, srv->sockfd);
    srv->sockfd = -1;
    srv->deferred = true;
}

static void drop_listener(rui_socket_ctx* srv) noexcept
{
    rui_stop_listener(srv);
    if (srv->requests) {
        while (dlep_elem* e = dlep_tail(srv->requests))
            rui_rm_request(reinterpret_cast<rui_rq_header*>(e));
        dlep_destroy(srv->requests, nullptr);
        srv->requests = nullptr;
    }
    /* A listener without an interface record stays valid in the configuration. */
    if (srv->lc->ifc) {
        free(srv->lc->ifc);
        srv->lc->ifc = nullptr;
        srv->lc->is_valid = false;
    }
    slots_reset(&srv->pprm);
    fdset_free(&srv->accset);
    srv->tag.num = 0;
}

void rui_ctx_destroy(rui_ctx* ctx) noexcept
{
    for (int kind = RUI_USER; kind < RUI_MAX; ++kind) {
        rui_socket_ctx* set = set_of(ctx, kind);
        size_t count = 0;
        for (; count < MAX_LISTENERS && set[count].tag.num; ++count)
            drop_listener(&set[count]);
        LOG_DEBUG("%s: %lu [%s] listener(s) %s\n", "stop_listeners", static_cast<unsigned long>(count), kind_name(kind),
                  "destroyed");
    }
}

/* ---- removal ---- */

int rui_pprm(rui_rq_header* rq, ssize_t* slot) noexcept
{
    auto& pprm = rq->srv->pprm;
    if (slots_hold(&pprm, rq))
        return EALREADY;
    *slot = slots_put(&pprm, rq);
    return *slot < 0 ? -1 : 0;
}

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
    LOG_DEBUG("%s: %s [%s] (%p) j=%ld\n", "rui_pprm_all", rq->tag.sym, rq->trk_tag.sym8, static_cast<void*>(rq),
              static_cast<long>(j));
    rm_request(rq, true);
    return 0;
}

/* Slot i of a kind, or null after the last one that was set up. */
static rui_socket_ctx* listener_at(rui_socket_ctx* set, size_t i) noexcept
{
    return i < MAX_LISTENERS && set[i].tag.num && set[i].requests ? &set[i] : nullptr;
}

void rui_pprm_all(rui_ctx* ctx) noexcept
{
    for (int kind = RUI_USER; kind < RUI_MAX; ++kind) {
        rui_socket_ctx* set = set_of(ctx, kind);
        for (size_t i = 0; rui_socket_ctx* srv = listener_at(set, i); ++i) {
            LOG_DEBUG("%s: [%s] listener[%s], %zu pprm items\n", __func__, kind_name(kind), srv->lc->alias,
                      slots_len(srv->pprm));
            slots_purge_all<purge_elem>(&srv->pprm);
            LOG_DEBUG("%s: done for for [%s]\n", __func__, srv->lc->alias);
            rui_wake(srv);
        }
    }
}

/* ---- time-outs ---- */

static size_t time_out_queue(rui_socket_ctx* srv, uint32_t ms) noexcept
{
    size_t count = 0;
    for (dlep_elem* e = dlep_tail(srv->requests); e; e = e->next) {
        ASSERT(srv->cb->time_out);
        count += srv->cb->time_out(reinterpret_cast<rui_rq_header*>(e), ms);
    }
    return count;
}

void rui_tmout_all(rui_ctx* ctx, uint32_t tmout_ms) noexcept
{
    for (int kind = RUI_USER; kind < RUI_MAX; ++kind) {
        rui_socket_ctx* set = set_of(ctx, kind);
        if (!set[0].tag.num)
            continue;
        size_t count = 0;
        for (size_t i = 0; rui_socket_ctx* srv = listener_at(set, i); ++i)
            count += time_out_queue(srv, tmout_ms);
        if (count > 0)
            LOG_WARN("%s: %lu [%s] requests timed out\n", __func__, static_cast<unsigned long>(count),
                     set[0].lc->alias);
        else
            LOG_DEBUG("%s: no time-outs for [%s]\n", __func__, set[0].lc->alias);
    }
}

/* ---- tags and the end ---- */

void rui_mk_trknum(size_t* counter, n64_tag* tag, char kind, size_t max) noexcept
{
    if (*counter >= max) {
        *counter = 0;
        LOG_DEBUG("%s: rolling over %c-requests\n", __func__, kind);
    }
    ++*counter;
    tag->num64 = 0;
    tag->sym8[0] = kind;
    std::array<char, 24> text;
    text.fill('0');
    char* digits = text.data() + TRKNUM_PAD - 1;
    const auto n = std::to_chars(digits, text.data() + text.size(), *counter).ptr - digits;
    ASSERT(n > 0 && n <= 6);
    const size_t zeros = static_cast<size_t>(n) < TRKNUM_PAD ? TRKNUM_PAD - static_cast<size_t>(n) : 0;
    cut_text(tag->sym8 + 1, TRKNUM_DIGITS + 1, {digits - zeros, zeros + static_cast<size_t>(n)});
}

void rui_crash_on_error(rui_socket_ctx* srv, uint32_t flags) noexcept
{
    const int err = socket_error(srv->sockfd);
    PANIC("%s: %s listener[%s] ERROR(%d): %s\n", __func__, flags ? "HUP" : "",
          srv->lc && srv->lc->alias[0] ? srv->lc->alias : "?", err, strerror(err));
}
