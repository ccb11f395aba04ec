/* User requests: one HTTP client from acceptance to reaping. A request reads one head and is either answered at once or
   handed, as an order and a duplicate of its descriptor, to the download engine. It is never freed by its own handler:
   it is listed on its listener and freed after the round, so a handler may use it to its last line. */
#include "rq.h"

#include "app.h"
#include "log.h"
#include "order.h"
#include "register.h"
#include "rqs.h"
#include "strops.h"
#include "syswrap.h"
#include "timeop.h"
#include "tmout.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sys/socket.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr n32_tag URQ_INI = mk_tag("INI");
constexpr n32_tag URQ_RD = mk_tag("RD\0");
constexpr n32_tag URQ_QUI = mk_tag("QUI");
constexpr size_t MAX_URQ_NUM = 10000; /* tracking tags start again at u1 after it */

static dw_urq* as_urq(rui_rq_header* rq) noexcept
{
    return reinterpret_cast<dw_urq*>(rq);
}

static rui_rq_header* as_header(dw_urq* urq) noexcept
{
    return reinterpret_cast<rui_rq_header*>(urq);
}

/* ---- creation and end ---- */

void mk_trk_tag(size_t* counter, n64_tag* tag, char letter, size_t max) noexcept
{
    if (*counter >= max)
        *counter = 0;
    ++*counter;
    rui_put_trknum(tag, letter, *counter, 1, MAX_TRKNUM_DIGITS);
}

/* Each request holds one time-out, so that the loop wakes for it; urq_rm gives it back. */
static rui_rq_header* urq_new(int sockfd, rui_socket_ctx* srv, void* /*udata*/) noexcept
{
    auto* urq = static_cast<dw_urq*>(calloc(1, sizeof(dw_urq)));
    if (!urq) {
        LOG_ERR("%s: ERROR(%d) creating %s request\n", __func__, errno, TAG_URQ.sym);
        return nullptr;
    }
    urq->tag = TAG_URQ;
    urq->state = URQ_INI;
    urq->sockfd = sockfd;
    urq->srv = srv;
    urq->pprm_idx = -1;
    set_timeout(URQ_TMOUT, URQ_TMOUT_MS);
    mk_trk_tag(&srv->rqcount, &urq->trk_tag, 'u', MAX_URQ_NUM);
    LOG_INFO("%s [%s] (%p) created\n", urq->tag.sym, urq->trk_tag.sym8, static_cast<void*>(urq));
    rqs_set_now(&urq->wait_start_tm);
    return as_header(urq);
}

static void urq_rm(rui_rq_header* rq) noexcept
{
    dw_urq* urq = as_urq(rq);
    LOG_INFO("%s: %s [%s] (%p)\n", __func__, urq->tag.sym, urq->trk_tag.sym8, static_cast<void*>(urq));
    if (urq->sockfd >= 0)
        W_close(__func__, urq->sockfd);
    urq->sockfd = -1;
    free(urq->hrq.hbuf);
    urq->hrq.hbuf = nullptr;
    urq->state.num = 0;
    urq->tag.num = 0;
    rm_timeout(URQ_TMOUT);
    LOG_DEBUG("%s: freed (%p)\n", __func__, static_cast<void*>(urq));
    free(urq);
}

static void urq_set_state(dw_urq* urq, n32_tag state) noexcept
{
    ASSERT(state.num == (urq->state.num == URQ_INI.num ? URQ_RD : URQ_QUI).num);
    ASSERT(urq->state.num != state.num);
    LOG_DEBUG("%s [%s] (%p) state: %s -> %s\n", urq->tag.sym, urq->trk_tag.sym8, static_cast<void*>(urq),
              urq->state.sym, state.sym);
    urq->state = state;
}

void pprm_urq(dw_urq* urq) noexcept
{
    const int rc = rui_pprm(as_header(urq), &urq->pprm_idx);
    if (rc == EALREADY) { /* timed out and readable in one round, say */
        LOG_WARN("%s: %s [%s] (%p) is already PPRM-ed\n", __func__, urq->tag.sym, urq->trk_tag.sym8,
                 static_cast<void*>(urq));
        return;
    }
    const ssize_t j = urq->pprm_idx;
    if (rc != 0) {
        LOG_ERR("%s: xvlst_add ERROR\n", __func__);
        ASSERT(j >= 0);
    }
    LOG_DEBUG("%s: added (%p) to pprm[%zi] (%p) for listener fd%d\n", __func__, static_cast<void*>(urq), j,
              static_cast<void*>(&urq->srv->pprm), urq->srv->sockfd);
    LOG_INFO("%s: %s [%s] (%p) is to END j=%zd\n", __func__, urq->tag.sym, urq->trk_tag.sym8, static_cast<void*>(urq),
             j);
}

/* ---- reading the head ---- */

/* Reads what there is of the head. A complete one ends at its blank line; what follows it is dropped.
   0 complete; EAGAIN more is needed; ECONNRESET the client has closed; -ENOMEM; -1 read failure. */
static int read_http_rq(dw_urq* urq) noexcept
{
    http_rq* hrq = &urq->hrq;
    if (!hrq->hbuf) {
        hrq->hbuf = static_cast<char*>(calloc(1, HEAD_MAX));
        if (!hrq->hbuf)
            return -ENOMEM;
        hrq->hlen = HEAD_MAX;
    }
    ASSERT(hrq->hpos < hrq->hlen);
    while (hrq->hpos < hrq->hlen - 1) {
        const bool is_first = hrq->hpos == 0;
        ssize_t eoh = 0;
        const ssize_t n = read_http(urq->sockfd, hrq->hbuf, hrq->hlen - 1, hrq->hpos, &eoh);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
            return EAGAIN;
        if (n < 0 && errno != ECONNRESET)
            return -1;
        if (n <= 0) {
            LOG_INFO("%s: client fd=%d closed connection\n", __func__, urq->sockfd);
            return ECONNRESET;
        }
        hrq->hpos += static_cast<size_t>(n);
        ASSERT(hrq->hpos < hrq->hlen);
        hrq->hbuf[hrq->hpos] = '\0';
        LOG_HEAD(DEBUG_level, "%s: %s HTTP buffer [%zd bytes] received:\n%s\n", __func__,
                 eoh > 0 ? "complete" : "partial", n, hrq->hbuf);
        if (eoh > 0) {
            if (static_cast<size_t>(eoh) < hrq->hpos) {
                LOG_WARN("%s: request has tail data, dismissing the tail\n", __func__);
                hrq->hpos = static_cast<size_t>(eoh);
                hrq->hbuf[hrq->hpos] = '\0';
            }
            return 0;
        }
        if (is_first) { /* the head may lack less than the low-water mark holds back; the mark only saves wake-ups */
            const int one = 1;
            (void)setsockopt(urq->sockfd, SOL_SOCKET, SO_RCVLOWAT, &one, sizeof(one));
        }
    }
    /* Full without an end: nothing more is read, and the client waits for its time-out without waking the loop. */
    (void)rqs_mod(urq->sockfd, urq, 0);
    return EAGAIN;
}

/* ---- the order ---- */

/* A complete head. The result; urq->hresp is the answer to send now, null when there is none or 500 is due. */
static int serve_head(const char* fn, dw_urq* urq) noexcept
{
    dw_spec spec{};
    const int rc = parse_dw_get(urq, &spec);
    if (rc == RC_EMPTY_PATH) {
        LOG_INFO("%s: PONG!\n", fn);
        return rc;
    }
    if (rc != 0) {
        /* The parser has ended the URI in place; the line shows the whole head. */
        std::replace(urq->hrq.hbuf, urq->hrq.hbuf + urq->hrq.hpos, '\0', ' ');
        LOG_HEAD(ERR_level, "%s: malformed HTTP request: %s\n", fn, urq->hrq.hbuf);
        if (!urq->hresp)
            urq->hresp = &g_resp_bad;
        return rc;
    }
    if (urq->hrq.header.type == RQTYPE_HEAD) {
        LOG_INFO("%s: nothing to do for HEAD request\n", fn);
        return 0;
    }
    if (!is_local_url(spec.url))
        return mk_dw_task(urq->sockfd, &spec);
    urq->hresp = &g_resp_ok; /* whatever becomes of the registration: the file is there */
    return register_local(fn, &spec);
}

/* After this call the request is done unless more of its head is to come. A client that has closed is removed at once:
   nobody waits for the end of the round, and a list would only keep its descriptor. */
int urq_read(dw_urq* urq) noexcept
{
    ASSERT(urq->tag.num == TAG_URQ.num);
    const log_group_guard group(urq->trk_tag);
    ASSERT(urq->state.num == URQ_INI.num || urq->state.num == URQ_RD.num);
    LOG_DEBUG("%s: fd%d (%s)\n", __func__, urq->sockfd, urq->state.sym);
    if (urq->state.num == URQ_INI.num) {
        urq->hresp = nullptr;
        urq_set_state(urq, URQ_RD);
    }
    int rc = read_http_rq(urq);
    if (rc == EAGAIN) {
        LOG_DEBUG("%s: need more data on %s [%s] (%p)\n", __func__, urq->tag.sym, urq->trk_tag.sym8,
                  static_cast<void*>(urq));
        return 0;
    }
    if (rc == ECONNRESET) {
        rui_rm_request(as_header(urq));
        return 0;
    }
    if (rc == 0)
        rc = serve_head(__func__, urq);
    if (rc != 0 && !urq->hresp)
        urq->hresp = &g_resp_err;
    if (urq->hresp)
        (void)send_http_response(urq->sockfd, urq->hresp); /* it has logged its failure */
    urq_set_state(urq, URQ_QUI);
    pprm_urq(urq);
    return 0;
}

/* ---- errors and time-outs ---- */

void urq_error(dw_urq* urq, bool hangup) noexcept
{
    const int err = socket_error(urq->sockfd);
    LOG_ERRNUM(err, "%s: %s URQ(%p) [%s]", __func__, hangup ? "HUP" : "", static_cast<void*>(urq), urq->trk_tag.sym8);
    pprm_urq(urq);
}

/* True when timeout_ms have passed since the client was accepted: it is listed for removal, and gets no answer. */
static bool urq_timeout(rui_rq_header* rq, uint32_t timeout_ms) noexcept
{
    dw_urq* urq = as_urq(rq);
    timespec limit{};
    ms2timespec(timeout_ms, &limit);
    if (!timed_out(urq->wait_start_tm, limit))
        return false;
    const timespec* now = rqs_now_ref();
    LOG_WARN("%s: TIME-OUT %s [%s] (%p) start-tm: %jd.%ld, now=%jd.%ld\n", __func__, urq->tag.sym, urq->trk_tag.sym8,
             static_cast<void*>(urq), intmax_t{urq->wait_start_tm.tv_sec}, urq->wait_start_tm.tv_nsec,
             intmax_t{now->tv_sec}, now->tv_nsec);
    pprm_urq(urq);
    return true;
}

/* Has task_tmout_ms passed since it was last true? Despite its name the key paces this look at requests, and nothing
   else. */
static bool is_iocheck_time() noexcept
{
    timespec pace{};
    ms2timespec(static_cast<long>(std::min<size_t>(g_cfg.task_tmout_ms, std::numeric_limits<long>::max())), &pace);
    if (!timed_out(g_ctx.last_tmout_check, pace))
        return false;
    rqs_set_now(&g_ctx.last_tmout_check);
    return true;
}

int time_out_requests() noexcept
{
    if (is_iocheck_time()) {
        const uint64_t ms = static_cast<uint64_t>(g_cfg.urq_tmout_sec) * 1000;
        rui_tmout_all(&g_ctx.rui, static_cast<uint32_t>(std::min<uint64_t>(ms, UINT32_MAX)));
    }
    return 0;
}

/* ---- removal ---- */

void pprm_requests() noexcept
{
    LOG_DEBUG("%s: BEGIN\n", __func__);
    rui_pprm_all(&g_ctx.rui);
    LOG_DEBUG("%s: END\n", __func__);
}

const rui_socket_cb g_urq_cb = {.tag = TAG_URQ, .new_rq = urq_new, .rm_rq = urq_rm, .time_out = urq_timeout};
