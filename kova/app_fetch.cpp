/* The source side of a task: connect, GET, head of the response. The waiting client is answered here, as soon as the
   head was accepted and the destination exists, not when the body is complete. A failure never travels up to the loop:
   the handlers answer 0 and list the task for reaping. */
#include "app.h"

#include "guard.h"
#include "log.h"
#include "rqs.h"
#include "syswrap.h"

#include <array>
#include <cerrno>
#include <memory>
#include <new>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t SRC_HEAD_CAP = 2048; /* bytes, with the NUL; a longer head is refused */
constexpr int SRC_TMOUT_MS = 3000;    /* asked for as always; this open does not block */

using src_head = std::array<char, SRC_HEAD_CAP>;

int connect_to_src(const char* url, usock_ctx* sctx) noexcept
{
    *sctx = usock_ctx{};
    sctx->inbound = false;
    sctx->non_blocking = true;
    sctx->skip_http = true;
    sctx->timeout_ms = SRC_TMOUT_MS;
    const int fd = usock_open(sctx, url);
    if (fd == -1)
        LOG_ERR("%s: failed to open [%s]\n", __func__, url);
    else
        LOG_DEBUG("%s: opened fd%d [%s]\n", __func__, fd, url);
    return fd;
}

/* The connect has ended, one way or the other: sending the GET tells which. */
static void request_data_stream(dw_task* task) noexcept
{
    errno = 0; /* a GET that cannot even be written must not be judged by another connection's end */
    int rc = usock_http_get(task->sfd, task->spec.url, &task->sctx);
    if (rc == 0) {
        rc = rqs_mod(task->sfd, task, RQS_READ);
        if (rc != 0)
            LOG_ERR("%s: rqs_mod(fd%d,...) FAILED\n", __func__, task->sfd);
    }
    if (rc == 0) {
        set_dw_state(task, DW_RSP);
        LOG_DEBUG("%s: awaiting response from %s\n", __func__, task->spec.url);
        return;
    }
    /* A connection that was made and has broken is the source's fault; one that was not made is the order's. */
    const bool is_broken = errno == ECONNRESET || errno == EPIPE;
    task->hresp = is_broken ? &g_resp_err : &g_resp_bad;
    (void)send_http_response(task->cfd, task->hresp); /* without a client, too: the failed send stands in the log */
    if (pprm_task(task) != 0) {
        LOG_WARN("%s: could not pprm %s\n", __func__, task->trk_tag.sym8);
        free_dw(task);
    }
}

/* A source is registered for writing only while it connects, so any other state is a fault of this program. */
int dw_write(dw_task* task) noexcept
{
    const log_group_guard group(task->trk_tag);
    check_task(task);
    if (task->is_quitting) {
        LOG_WARN("%s: %s already quitting\n", __func__, task->trk_tag.sym8);
        return 0;
    }
    if (task->state.num != DW_INI.num) {
        PANIC("%s: unexpected for %s (%p) in [%s]\n", __func__, task->trk_tag.sym8, static_cast<void*>(task),
              task->state.sym);
    }
    request_data_stream(task);
    return 0;
}

/* Sends the answer chosen for the waiting client and closes its connection, whether the send succeeded or not. Without
   a choice (null) the status of the source is passed on: code, 0 where none was read; rc is the order's result. */
static void answer_client(const char* fn, dw_task* task, const http_response* chosen, int rc, int code) noexcept
{
    if (task->cfd == -1) {
        LOG_DEBUG("%s: no client, skipping response\n", fn);
        return;
    }
    const bool is_final = code >= HTTP_OK_CODE && code <= HTTP_CODE_MAX;
    if (!chosen && rc != 0 && !is_final) {
        /* No status of the source's, or one that would read as success: what failed is never answered 200. */
        chosen = &g_resp_err;
        LOG_DEBUG("%s: defaulting to HTTP%d\n", fn, chosen->code);
    } else if (!chosen) {
        chosen = http_code_resp(code);
        LOG_DEBUG("%s: response picked for HTTP%d\n", fn, code);
    }
    task->hresp = chosen;
    LOG_DEBUG("%s: sending response to client fd%d\n", fn, task->cfd);
    ASSERT(task->cfd > 0);
    if (send_http_response(task->cfd, chosen) == 0)
        LOG_DEBUG("%s: HTTP%d response sent to fd%d\n", fn, chosen->code, task->cfd);
    W_close(fn, task->cfd);
    LOG_DEBUG("%s: fd%d client connection closed\n", fn, task->cfd);
    task->cfd = -1;
}

/* 0 head accepted, file made, client answered; EAGAIN more is awaited; else failed (logged). */
static int read_src_response(dw_task* task) noexcept
{
    const std::unique_ptr<src_head> head(new (std::nothrow) src_head); /* only what is received is looked at */
    if (!head)
        return -ENOMEM;

    LOG_DEBUG("%s: reading HTTP response from fd=%d\n", __func__, task->sfd);
    http_resp_ctx resp{};
    int rc = recv_http_response(task->sfd, head->data(), head->size() - 1, &resp);
    const http_response* chosen = nullptr;
    if (rc == EAGAIN) {
        LOG_DEBUG("%s: expecting more data from fd%d\n", __func__, task->sfd);
        rqs_set_now(&task->last_io_tm);
        return rc;
    }
    if (rc == 0 && is_HTTP_OK(resp.code)) {
        rc = check_dest_path(task->spec.fpath);
        if (rc == -EBUSY) {
            chosen = &g_resp_denied;
        } else {
            rc = mk_dest_file(task, head->data(), &resp);
            if (rc == EAGAIN) /* a file's failure must not read as "the head is not complete" */
                rc = -1;
            chosen = rc == 0 ? &g_resp_ok : &g_resp_err;
        }
    } else if (rc == 0) {
        LOG_ERR("%s: expected HTTP 2xx, got HTTP %d\n", __func__, resp.code);
        rc = -1;
    }
    answer_client(__func__, task, chosen, rc, resp.code);
    if (rc == 0) {
        LOG_INFO("%s: ready to download %zu bytes to [%s]\n", __func__, task->content_length, task->spec.fpath);
        set_dw_state(task, DW_DNL);
    }
    return rc;
}

bool is_whole(const dw_task* task) noexcept
{
    return task->state.num == DW_DNL.num && task->nleft == 0;
}

void dw_broken(const char* fn, dw_task* task, uint32_t flags) noexcept
{
    LOG_ERR("%s: task [%s] (%p) err=%d\n", fn, task->trk_tag.sym8, static_cast<void*>(task), static_cast<int>(flags));
    check_task(task);
    if (!task->is_quitting)
        answer_client("read_src_response", task, nullptr, -1, 0); /* in the words of a head that could not be read */
    pprm_task(task);
}

/* One step of the state at hand. A partial head is not kept: the next event reads on from where the socket stands. */
int dw_read(dw_task* task) noexcept
{
    check_task(task);
    if (task->is_quitting) {
        LOG_WARN("%s: %s already quitting\n", __func__, task->trk_tag.sym8);
        return 0;
    }
    int rc = 0;
    if (task->state.num == DW_RSP.num) {
        rc = read_src_response(task);
        if (rc == EAGAIN)
            return 0;
    } else if (task->state.num == DW_DNL.num) {
        rc = read_fragment(task);
        if (rc == 0 && task->nleft == 0)
            rc = complete_download(task);
    } else {
        PANIC("%s: unexpected for %s (%p) in [%s]\n", __func__, task->trk_tag.sym8, static_cast<void*>(task),
              task->state.sym);
    }
    if (rc != 0) {
        LOG_ERR("%s: removing %s due to error, rc=%d\n", __func__, task->trk_tag.sym8, rc);
        pprm_task(task);
    }
    return 0;
}
