/* Answers to HTTP clients: the shared standard responses and their one formatter. An answer is written once, without a
   look at whether it was taken: it is far smaller than a socket's buffer, and a client that does not read it has lost
   interest. */
#include "webops.h"

#include "fdio.h"
#include "log.h"
#include "strops.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t FIELD_MAX = 128;
constexpr long NO_LENGTH = -1;

static const char* g_server = ""; /* written by http_set_server, once */

static constexpr http_response standard(int code, const char* reason, long length, const char* connection) noexcept
{
    return {.code = code,
            .content_type = nullptr,
            .content_encoding = nullptr,
            .content_length = length,
            .reason = reason,
            .server = nullptr,
            .connection = connection,
            .ok_suffix = nullptr,
            .location = nullptr,
            .fpath = nullptr};
}

const http_response g_resp_ok = standard(200, "OK", NO_LENGTH, nullptr);
const http_response g_resp_nocont = standard(204, "No Content", NO_LENGTH, nullptr);
const http_response g_resp_moved = standard(302, "Moved Temporarily", 0, "close");
const http_response g_resp_bad = standard(400, "Bad request", 0, nullptr);
const http_response g_resp_denied = standard(403, "Forbidden", 0, "close");
const http_response g_resp_nfound = standard(404, "Not Found", 0, "close");
const http_response g_resp_naccept = standard(406, "Not Acceptable", 0, "close");
const http_response g_resp_tmout = standard(408, "Request Timeout", 0, "close");
const http_response g_resp_err = standard(500, "Service error", 0, "close");
const http_response g_resp_badgw = standard(502, "Bad Gateway", 0, "close");
const http_response g_resp_unavail = standard(503, "Service Unavailable", 0, "close");
const http_response g_resp_gwtmout = standard(504, "Gateway Timeout", 0, "close");

const http_response* http_code_resp(long code) noexcept
{
    static const http_response* const ALL[] = {&g_resp_ok,     &g_resp_nocont, &g_resp_moved,   &g_resp_bad,
                                               &g_resp_denied, &g_resp_nfound, &g_resp_naccept, &g_resp_tmout,
                                               &g_resp_err,    &g_resp_badgw,  &g_resp_unavail, &g_resp_gwtmout};
    for (const http_response* r : ALL) {
        if (r->code == code)
            return r;
    }
    LOG_WARN("%s: no response for HTTP%ld defined, please update the lib!\n", __func__, code);
    return code < 300 ? &g_resp_ok : &g_resp_err;
}

/* A text being formatted: pos counts what is in buf; failed means that something was left out. */
struct resp_text {
    char* buf;
    size_t cap;
    size_t pos;
    bool failed;
};

/* One header line by way of a scratch buffer; left out as a whole when it does not fit. */
static void put_line(resp_text* t, const char* name, const char* value) noexcept
{
    if (t->failed || !value || !*value)
        return;
    std::array<char, FIELD_MAX> line;
    const size_t n = join_text(line.data(), line.size(), {name, ": ", value, "\r\n"});
    if (n >= line.size() || t->pos + n >= t->cap) {
        t->failed = true;
        return;
    }
    memcpy(t->buf + t->pos, line.data(), n + 1);
    t->pos += n;
}

void http_set_server(const char* name) noexcept
{
    g_server = name;
}

/* A field that does not fit is left out as a whole, and the answer counts as failed. */
int mk_http_xt_resp(const http_response* resp, int version, char* buf, size_t cap) noexcept
{
    if (version != 10 && version != 11) {
        LOG_ERR("%s: HTTP/%d.%d not supported\n", __func__, version / 10, version % 10);
        return EINVAL;
    }
    resp_text t = {buf, cap, 0, false};
    std::array<char, 16> code{};
    std::array<char, 32> length{};
    std::to_chars(code.data(), code.data() + code.size() - 1, resp->code);
    t.pos = join_text(buf, cap,
                      {version == 10 ? "HTTP/1.0 " : "HTTP/1.1 ", code.data(), " ", resp->reason,
                       "\r\nServer: ", resp->server ? resp->server : g_server, "\r\n"});
    if (t.pos >= cap)
        return -1;
    if (resp->content_length >= 0)
        std::to_chars(length.data(), length.data() + length.size() - 1, resp->content_length);
    put_line(&t, "Content-Type", resp->content_type);
    put_line(&t, "Content-Encoding", resp->content_encoding);
    put_line(&t, "Content-Length", length.data());
    put_line(&t, "Connection", resp->connection);
    put_line(&t, "Location", resp->location);
    if (!t.failed && resp->code == HTTP_OK_CODE && resp->ok_suffix && *resp->ok_suffix) {
        const size_t n = join_text(buf + t.pos, cap - t.pos, {resp->ok_suffix, "\r\n"});
        t.failed = n >= cap - t.pos;
        t.pos += t.failed ? 0 : n;
    }
    if (cap - t.pos >= 3) {
        memcpy(buf + t.pos, "\r\n", 3);
        t.pos += 2;
    } else {
        t.failed = true;
    }
    const size_t head = t.pos;
    if (!t.failed && resp->fpath) {
        const ssize_t n = read_file_buf(resp->fpath, buf + t.pos, cap - t.pos - 1);
        LOG_DEBUG("%s: file [%s] of %zd bytes included in HTTP response\n", __func__, resp->fpath, n);
        if (n > 0)
            t.pos += static_cast<size_t>(n);
        buf[t.pos] = '\0';
    }
    LOG_HEAD(DEBUG_level, "%s: header:%zu/total:%zu bytes\n%.*s\n", __func__, head, t.pos,
             static_cast<int>(std::min<size_t>(head, 1024)), buf);
    return t.failed ? -1 : static_cast<int>(t.pos);
}

int mk_http_response(const http_response* resp, char* buf, size_t cap) noexcept
{
    return mk_http_xt_resp(resp, 11, buf, cap);
}

/* The end of the stream follows at once: a close would answer unread bytes of a client with a reset, which may take the
   answer with it. Without a connection there is nothing to end. */
int send_http_response(int fd, const http_response* resp) noexcept
{
    static std::array<char, HTTP_RESP_MAX> buf; /* one for all callers: nothing is kept after the send */

    const int len = mk_http_response(resp, buf.data(), buf.size());
    if (len < 0) {
        LOG_ERR("%s: error compiling HTTP response for fd=%d\n", __func__, fd);
        return len;
    }
    /* MSG_MORE: the kernel keeps a short text back, so that the answer and the end of its stream share a packet. */
    const ssize_t n = TEMP_FAILURE_RETRY(send(fd, buf.data(), static_cast<size_t>(len), MSG_MORE | MSG_NOSIGNAL));
    if (n < 1)
        LOG_ERR("%s: error sending HTTP response to fd=%d\n", __func__, fd);
    else if (n < len)
        LOG_WARN("%s: only %zd out of %d bytes sent to fd=%d\n", __func__, n, len, fd);
    else
        LOG_HEAD(DEBUG_level, "%s: sent HTTP response (%zd bytes) to fd=%d:\n%.1024s\n", __func__, n, fd, buf.data());
    (void)shutdown(fd, SHUT_WR);
    return 0;
}
