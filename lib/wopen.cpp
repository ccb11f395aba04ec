/* Outbound endpoints by URL, and the client side of HTTP: the GET and the head of the response. A source is foreign:
   its head is read until its blank line, at most as far as there is room, and its status line is taken as loosely as
   scanf would.
   The head is read with what follows it: the first bytes of a body may stand behind it in the buffer, and are the
   caller's. */
#include "wopen.h"

#include "fdio.h"
#include "log.h"
#include "rqs.h"
#include "strops.h"
#include "syswrap.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr char FIXED_FIELDS[] = "\r\nAccept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
                                "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n";
constexpr size_t HOST_MAX = 128;
constexpr size_t PORT_MAX = 8;
constexpr size_t HOST_FIELD_MAX = 128;
constexpr size_t REQUEST_MAX = 2048;
constexpr size_t PATH_QUERY_MAX = URI_PATH_MAX + URI_QUERY_MAX;
constexpr size_t RESP_BUF_CAP = 2048;
constexpr char HTTP_PORT[] = "80";

/* Written at start-up, from the configuration. */
usock_flags_t usock_flags{};
/* Written by usock_set_apptag. */
static const char* g_apptag = "#ERR#";

void usock_set_apptag(const char* tag) noexcept
{
    ASSERT(tag);
    g_apptag = tag;
}

/* ---- request ---- */

/* One write: on a fresh connection there is room for the whole of it, so a short one is a failure. Fields are those
   that sources have always been shown. */
int send_http_request(int fd, const http_request* rq) noexcept
{
    if (rq->type != 0) {
        LOG_ERR("%s: only GET requests are currently supported.\n", __func__);
        return -1;
    }
    const char* addr = rq->host_addr && *rq->host_addr ? rq->host_addr : "localhost";
    const bool with_port = rq->host_port && *rq->host_port;
    const bool is_ipv6 = strchr(addr, ':') != nullptr; /* a bare one would read as a name and a port */
    std::array<char, HOST_FIELD_MAX> host;
    const size_t host_len =
        join_text(host.data(), host.size(),
                  {is_ipv6 ? "[" : "", addr, is_ipv6 ? "]" : "", with_port ? ":" : "", with_port ? rq->host_port : ""});
    if (host_len >= host.size()) {
        LOG_ERR("%s: host buffer is too small, %zu bytes needed\n", __func__, host_len);
        return -1;
    }
    std::array<char, REQUEST_MAX> text;
    const size_t size = join_text(text.data(), text.size(),
                                  {"GET ", rq->request[0] == '/' ? "" : "/", rq->request, " HTTP/",
                                   rq->flags & RQFLAG_HTTP10_GET ? "1.0" : "1.1", "\r\nHost: ", host.data(),
                                   "\r\nConnection: ", rq->flags & RQFLAG_KEEPALIVE ? "keep-alive" : "close",
                                   "\r\nUser-Agent: ", rq->server, FIXED_FIELDS});
    if (size >= text.size()) {
        LOG_ERR("%s: buffer is too small, %zu bytes required.\n", __func__, size);
        return -1;
    }
    const ssize_t n = nwrite(fd, text.data(), size);
    if (n < 1) {
        LOG_ERR("%s: error sending HTTP request to fd=%d\n", __func__, fd);
        return -1;
    }
    if (static_cast<size_t>(n) < size) {
        LOG_WARN("%s: only %zd out of %zu bytes sent to fd=%d\n", __func__, n, size, fd);
        return -1;
    }
    LOG_HEAD(DEBUG_level, "%s: sent %zd bytes to fd=%d:\n%.1024s", __func__, n, fd, text.data());
    return 0;
}

/* The tail of the path behind host and port is what the source is asked for. A query that does not fit is cut, with a
   warning: the source decides whether it still makes sense. */
int fwd_http_rq(int fd, const char* url, const char* apptag, uint32_t flags) noexcept
{
    uri_layout u{};
    std::array<char, HOST_MAX> host{};
    std::array<char, PORT_MAX> port{};
    if (uri_parse(url, &u) != 0)
        return -1;
    const char* tail = uri_path_addrport(u.path, u.p_len, host.data(), host.size(), port.data(), port.size());
    if (!tail)
        return -1;
    const size_t tail_len = u.p_len - static_cast<size_t>(tail - u.path);
    if (tail_len == 0) {
        LOG_ERR("%s: URI has no path tail: %s\n", __func__, url);
        return -1;
    }
    if (usock_flags.use_http10_get) {
        LOG_DEBUG("%s: Using HTTP/1.0 request\n", __func__);
        flags |= RQFLAG_HTTP10_GET;
    }
    std::array<char, PATH_QUERY_MAX> request{};
    const std::string_view mark(u.q_len > 0 ? "?" : "");
    const std::string_view query(u.q_len > 0 ? u.query : "", u.q_len);
    size_t n = 0;
    for (const std::string_view part : {std::string_view(tail, tail_len), mark, query})
        n += cut_text(request.data() + n, request.size() - n, part);
    const size_t wanted = tail_len + mark.size() + query.size();
    if (wanted >= request.size())
        LOG_WARN("%s: GET query is too long [%zu bytes], max=%zu bytes.\n", __func__, wanted, request.size() - 1);
    const http_request rq = {.type = 0,
                             .flags = flags,
                             .request = request.data(),
                             .server = apptag,
                             .host_addr = host.data(),
                             .host_port = port.data()};
    return send_http_request(fd, &rq);
}

/* Every request bears the one name that was given at start-up. */
int usock_http_get(int fd, const char* url, usock_ctx* ctx) noexcept
{
    return fwd_http_rq(fd, url, g_apptag, ctx->http_flags);
}

/* ---- response ---- */

/* A blank line ends a head, with or without carriage returns: sources write both. Every line feed is looked at once, by
   way of memchr, since a head is mostly other characters. */
size_t head_eod(const char* buf, size_t len) noexcept
{
    size_t i = 0;
    while (i < len) {
        const void* lf = memchr(buf + i, '\n', len - i);
        if (!lf)
            break;
        i = static_cast<size_t>(static_cast<const char*>(lf) - buf);
        if ((i >= 1 && buf[i - 1] == '\n') || (i >= 3 && memcmp(buf + i - 3, "\r\n\r", 3) == 0))
            return i + 1;
        ++i;
    }
    return 0;
}

/* The end of a head may fall between two reads, so that it is looked for from the start of the buffer. */
ssize_t read_http(int fd, char* buf, size_t cap, size_t pos, ssize_t* eoh) noexcept
{
    const ssize_t n = recv(fd, buf + pos, cap - pos, 0);
    if (n <= 0) {
        const int err = errno;
        LOG_DEBUG("%s: EOD(%zd) for fd%d\n", __func__, n, fd);
        errno = err;
        return n;
    }
    LOG_DEBUG("%s: %zd bytes read from fd%d\n", __func__, n, fd);
    const size_t head = head_eod(buf, pos + static_cast<size_t>(n));
    if (head > 0) {
        *eoh = static_cast<ssize_t>(head);
        LOG_DEBUG("%s: HTTP EOD marker found at pos=%zu\n", __func__, head);
    } else {
        LOG_DEBUG("%s: fd=%d, no HTTP EOD marker found, %zu bytes read.\n", __func__, fd, pos + static_cast<size_t>(n));
    }
    return n;
}

/* Whether the peer has gone without ending the stream. */
static bool is_aborted(int err) noexcept
{
    return err == ECONNRESET || err == ECONNABORTED;
}

/* Reads until the head is complete. 0, EAGAIN, -1. */
static int read_head(const char* fn, int fd, char* buf, size_t cap, http_resp_ctx* resp) noexcept
{
    while (resp->total < static_cast<ssize_t>(cap) - 1) {
        const ssize_t n = read_http(fd, buf, cap - 1, static_cast<size_t>(resp->total), &resp->tail);
        if (n < 0 && is_eagain(errno)) {
            LOG_DEBUG("%s: expecting more data from fd=%d\n", fn, fd);
            return EAGAIN;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0 || (n < 0 && is_aborted(errno))) {
            LOG_ERR("%s: client [fd=%d] connection broken\n", fn, fd);
            return -1;
        }
        if (n < 0) {
            LOG_ERRNO("%s: recv(fd%d)", fn, fd);
            return -1;
        }
        LOG_DEBUG("%s: read %zd bytes from fd=%d\n", fn, n, fd);
        resp->total += n;
        if (resp->tail > 0)
            return 0;
        LOG_DEBUG("%s: reading more from fd%d\n", fn, fd);
    }
    LOG_WARN("%s: buffer already full, yet no HTTP EOD\n", fn);
    return -1;
}

/* Called again for every event until the head is whole; what was read so far is in resp. The status line is taken as
   scanf takes it: its leniency towards blanks, numbers and words is what sources may rely on. */
int recv_http_response(int fd, char* buf, size_t cap, http_resp_ctx* resp) noexcept
{
    if (const int rc = read_head(__func__, fd, buf, cap, resp))
        return rc;
    buf[resp->tail - 1] = '\0'; /* the head's last line end: the body's first byte stays */
    LOG_HEAD(DEBUG_level, "%s: total=%zd, tail=%zd; buf=[%.1024s]\n", __func__, resp->total, resp->tail, buf);

    long major = 0;
    long minor = 0;
    long code = 0;
    std::array<char, 32> reason{};
    text_scan s = {.p = buf, .count = 0, .failed = false};
    scan_literal(&s, "HTTP/");
    scan_num(&s, 1, &major);
    scan_literal(&s, ".");
    scan_num(&s, 1, &minor);
    scan_num(&s, SIZE_MAX, &code);
    scan_word(&s, reason.data(), reason.size());
    if (s.count < 4) {
        LOG_ERR("%s: parsed %d < 4 elements (expected to be parsed)\n", __func__, s.count);
        return -1;
    }
    /* A number of any length comes from outside: one beyond the range must not turn into another status. */
    resp->code = static_cast<int>(std::clamp<long>(code, INT_MIN, INT_MAX));
    LOG_DEBUG("%s: fd=%d received: HTTP/%ld.%ld %d %s\n", __func__, fd, major, minor, resp->code, reason.data());
    return 0;
}

/* ---- opening ---- */

/* A channel may be given as plain "addr:port", which is a datagram endpoint. */
static int classify(const uri_layout& u, const char* url) noexcept
{
    std::array<char, URI_SCHEME_MAX> scheme{};
    if (u.scheme)
        return uri_get_scheme(&u, scheme.data(), scheme.size()) ? uri_scheme_kind(scheme.data()) : URI_BAD;
    std::array<char, HOST_MAX> host{};
    std::array<char, PORT_MAX> port{};
    const bool has_port = *url != '/' &&
                          uri_path_addrport(u.path, u.p_len, host.data(), host.size(), port.data(), port.size()) &&
                          port[0];
    return has_port ? URI_UDP : URI_BAD;
}

/* A datagram's authority is the source of its group; that of an HTTP URL is not used. */
static int open_net_url(const char* fn, usock_ctx* ctx, const uri_layout& u, const char* url) noexcept
{
    std::array<char, HOST_MAX> host{};
    std::array<char, PORT_MAX> port{};
    std::array<char, URI_AUTH_MAX> group_source{}; /* empty = any */
    const char* tail = uri_path_addrport(u.path, u.p_len, host.data(), host.size(), port.data(), port.size());
    if (!tail)
        return -1;
    cut_text(ctx->url_path, sizeof(ctx->url_path), {tail, u.p_len - static_cast<size_t>(tail - u.path)});
    if (u.authority && ctx->url_kind != URI_HTTP && !uri_get_authority(&u, group_source.data(), group_source.size())) {
        LOG_ERR("%s: uri_get_authority ERROR\n", fn);
        return -1;
    }
    if (ctx->url_kind == URI_HTTP && !port[0]) {
        cut_text(port.data(), port.size(), HTTP_PORT);
        LOG_DEBUG("%s: assuming HTTP port %s for [%s]\n", fn, HTTP_PORT, url);
    }
    const bool is_datagram = ctx->url_kind == URI_UDP || ctx->url_kind == URI_RTP;
    ctx->sspec.socktype = is_datagram ? SOCK_DGRAM : SOCK_STREAM;
    ctx->sspec.passive = ctx->inbound;
    ctx->sspec.writer = !ctx->inbound;
    ctx->sspec.non_blocking = ctx->non_blocking;
    const char* source = is_datagram && group_source[0] ? group_source.data() : nullptr;
    if (source)
        LOG_DEBUG("%s: SSM source=[%s]\n", fn, source);
    return open_socket(host.data(), port.data(), source, &ctx->sspec, ctx->ifc_tag, &ctx->mifc);
}

/* Waits for the head of the response, on a blocking connection. */
static int get_http_response(usock_ctx* ctx, int fd) noexcept
{
    ctx->buf = static_cast<char*>(W_calloc(__func__, 1, RESP_BUF_CAP));
    if (!ctx->buf)
        return -1;
    ctx->bufcap = RESP_BUF_CAP;
    http_resp_ctx resp{};
    if (recv_http_response(fd, ctx->buf, ctx->bufcap, &resp) != 0)
        return -1;
    ctx->buflen = static_cast<size_t>(resp.total);
    if (resp.code == 200)
        return 0;
    LOG_ERR("%s: expected HTTP %d, got HTTP %d\n", __func__, 200, resp.code);
    return -1;
}

/* What fails leaves nothing open. */
int usock_open(usock_ctx* ctx, const char* url) noexcept
{
    uri_layout u{};
    ctx->nopoll_idx = -1;
    ctx->url_kind = uri_parse(url, &u) == 0 ? classify(u, url) : URI_BAD;
    if (ctx->url_kind == URI_BAD) {
        LOG_ERR("%s: unsupported type of URI [%s]\n", __func__, url);
        return -1;
    }
    if (ctx->url_kind == URI_HLS) {
        LOG_ERR("%s: unsupported URI type: %d\n", __func__, ctx->url_kind);
        return -1;
    }
    if (ctx->url_kind == URI_FILE) {
        if (!uri_get_path(&u, ctx->url_path, sizeof(ctx->url_path)))
            return -1;
        const int file = W_open(__func__, ctx->url_path, O_RDONLY, 0);
        if (file < 0)
            return -1;
        ctx->non_pollable = true; /* a regular file cannot be watched: the loop serves it in every round */
        LOG_DEBUG("%s: fd%d FILE [%s]\n", __func__, file, ctx->url_path);
        return file;
    }
    const int fd = open_net_url(__func__, ctx, u, url);
    if (fd >= 0 && ctx->url_kind == URI_HTTP && !ctx->skip_http &&
        (usock_http_get(fd, url, ctx) != 0 || get_http_response(ctx, fd) != 0)) {
        usock_close(fd, ctx);
        return -1;
    }
    return fd;
}

/* The slot among the loop's no-poll descriptors goes first, or the loop would serve a closed one. */
void usock_close(int fd, usock_ctx* ctx) noexcept
{
    if (ctx->non_pollable && ctx->nopoll_idx >= 0) {
        rqs_rm_nopoll(ctx->nopoll_idx);
        ctx->nopoll_idx = -1;
    }
    if (fd >= 0)
        W_close(__func__, fd);
    ctx->url_path[0] = '\0';
    free(ctx->mifc);
    ctx->mifc = nullptr;
    free(ctx->buf);
    ctx->buf = nullptr;
    ctx->bufcap = ctx->buflen = 0;
}

void usock_drop(int* fd, bool* is_watched, usock_ctx* ctx) noexcept
{
    if (*fd > 0) {
        if (*is_watched)
            rqs_rm_fd(*fd, false, false);
        usock_close(*fd, ctx);
    }
    *is_watched = false;
    *fd = -1;
}
