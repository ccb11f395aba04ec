/* Heads of HTTP requests, and what an order's request line or URL says about source and destination. A head is foreign
   text: every scan ends at its NUL. It is parsed in place, so that it is the target's text with a NUL behind it that
   the URI's parts point into.
   Nothing here is meant for browsers: what an order does not need is looked at loosely or not at all, and a sender that
   has always been understood goes on being understood. */
#include "webops.h"

#include "log.h"
#include "strops.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t MIN_METHOD_LEN = 3;
constexpr size_t MAX_METHOD_LEN = 7;
constexpr char HTTP1[] = "HTTP/1.";
constexpr char BLANKS[] = " \t";

/* Ends at the NUL, which is no space. */
static char* skip_space(char* p) noexcept
{
    while (is_space(*p))
        ++p;
    return p;
}

/* ---- fields ---- */

/* Anywhere in the text, a value of another field included: what senders rely on, and nothing that an order depends
   on. */
const char* find_http_header(const char* name, const char* text, size_t* len) noexcept
{
    *len = 0;
    const size_t at = ci_find(text, name);
    if (at == std::string_view::npos)
        return nullptr;
    const char* p = text + at + strlen(name);
    if (*p == ':')
        ++p;
    if (!is_space(*p))
        return nullptr;
    while (is_space(*p))
        ++p;
    const char* end = p;
    while (static_cast<unsigned char>(*end) >= 0x20 && *end != 0x7f)
        ++end;
    if (*end != '\r' && *end != '\n')
        return nullptr;
    *len = static_cast<size_t>(end - p);
    return p;
}

/* The value of the field name that starts a line of head, without the blanks around it; none when there is no such
   line. */
static std::optional<std::string_view> find_field_line(std::string_view name, std::string_view head) noexcept
{
    while (!head.empty()) {
        const size_t eol = head.find('\n');
        std::string_view line = head.substr(0, eol);
        head.remove_prefix(eol == std::string_view::npos ? head.size() : eol + 1);
        if (!ci_starts_with(line, name))
            continue;
        line.remove_prefix(name.size());
        line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
        if (!line.starts_with(':'))
            continue;
        line.remove_prefix(std::min(line.find_first_not_of(BLANKS, 1), line.size()));
        while (!line.empty() && (is_space(line.back()) || line.back() == '\0'))
            line.remove_suffix(1);
        return line;
    }
    return std::nullopt;
}

/* The presence alone is the news: chunked bodies and the like are refused whatever their value. */
bool has_hdr(std::string_view name, std::string_view head) noexcept
{
    return find_field_line(name, head).has_value();
}

/* A length decides where a body ends: it is taken from the start of a line alone, and a sign or anything behind the
   digits makes it none. */
std::optional<int64_t> extract_num_hdr(std::string_view name, std::string_view head) noexcept
{
    const std::string_view value = find_field_line(name, head).value_or("");
    return !value.empty() && value.front() != '-' ? parse_num<int64_t>(value) : std::nullopt;
}

/* The fields that a head may have; one that is too long is left out, or cut where only its beginning counts. */
static void take_fields(const char* fn, const char* fields, http_header* hdr) noexcept
{
    size_t len = 0;
    if (const char* value = find_http_header("Host:", fields, &len)) {
        if (copy_text(hdr->host, sizeof(hdr->host), {value, len}))
            LOG_DEBUG("%s: Host: %s\n", fn, hdr->host);
        else
            LOG_ERR("%s: Host length is too long: %zu\n", fn, len);
    }
    if (const char* value = find_http_header("User-Agent:", fields, &len)) {
        if (copy_text(hdr->user_agent, sizeof(hdr->user_agent), {value, len}))
            LOG_DEBUG("%s: User-Agent: %s\n", fn, hdr->user_agent);
        else
            LOG_WARN("%s: User-Agent length is too long: %zu\n", fn, len);
    }
    if (const char* value = find_http_header("Connection:", fields, &len)) {
        const std::string_view text(value, len);
        LOG_DEBUG("%s: Connection: %.*s\n", fn, static_cast<int>(len), value);
        hdr->is_keep_alive = ci_find(text, "keep-alive") != std::string_view::npos;
        hdr->is_close = !hdr->is_keep_alive && ci_find(text, "close") != std::string_view::npos;
    }
    static constexpr char ENCODING[] = "Accept-Encoding:";
    if (const char* value = find_http_header(ENCODING, fields, &len)) {
        const size_t kept = cut_text(hdr->accept_enc, sizeof(hdr->accept_enc), {value, len});
        if (kept < len)
            LOG_WARN("%s: [%s] text has been trimmed from %zu to %zu chars\n", fn, ENCODING, len, kept);
        LOG_DEBUG("%s: %s %s\n", fn, ENCODING, hdr->accept_enc);
    }
}

/* ---- request line ---- */

/* The method at p; *rest gets the text after it. 0, EINVAL, -1. */
static int parse_method(const char* fn, char* p, http_header* hdr, char** rest) noexcept
{
    char* end = p + strcspn(p, BLANKS);
    const std::string_view method(p, static_cast<size_t>(end - p));
    if (method.size() < MIN_METHOD_LEN || method.size() > MAX_METHOD_LEN) {
        LOG_HEAD(ERR_level, "%s: failed to get HTTP method from %7s\n", fn, p);
        return -1;
    }
    std::array<char, MAX_METHOD_LEN + 1> text{};
    cut_text(text.data(), text.size(), method);
    if (ci_equal(method, "GET")) {
        hdr->type = RQTYPE_GET;
    } else if (ci_equal(method, "HEAD")) {
        hdr->type = RQTYPE_HEAD;
        LOG_DEBUG("%s: identified as HEAD\n", fn);
    } else {
        LOG_ERR("HTTP [%s] is NOT supported\n", text.data());
        return EINVAL;
    }
    LOG_DEBUG("%s: %s request\n", fn, text.data());
    *rest = end;
    return 0;
}

/* Method, target and protocol, each from where the one before it has ended; the fields are optional. The target is
   ended by a NUL in place. */
int parse_http_header(char* buf, size_t len, http_header* hdr, char* full_url, size_t full_url_cap) noexcept
{
    LOG_HEAD(DEBUG_level, "%s: %zu bytes [%.1024s]\n", __func__, len, buf);
    *hdr = http_header{};
    char* p = buf;
    if (const int rc = parse_method(__func__, p, hdr, &p))
        return rc;

    char* target = skip_space(p);
    p = target;
    while (*p && !is_space(*p))
        ++p;
    if (*p)
        *p++ = '\0';
    if (full_url && copy_text(full_url, full_url_cap, target))
        LOG_DEBUG("%s: full URL=[%s]\n", __func__, full_url);
    const int rc = uri_parse(target, &hdr->uri);
    LOG_DEBUG("%s: url=[%.1024s], p_len=%zu, q_len=%zu, rc=%d\n", __func__, target, hdr->uri.p_len, hdr->uri.q_len, rc);
    if (rc != 0) {
        LOG_ERR("%s: failed to parse URL\n", __func__);
        return rc;
    }

    p = skip_space(p);
    if (strncmp(p, HTTP1, sizeof(HTTP1) - 1) != 0) {
        LOG_HEAD(ERR_level, "%s: expected [%s] to follow the URI path, got [%s]\n", __func__, HTTP1, p);
        return -1;
    }
    LOG_DEBUG("%s: request protocol: [%.*s]\n", __func__, 8, p);
    if (p[sizeof(HTTP1) - 1] == '0') {
        hdr->is_http10 = true;
        LOG_DEBUG("%s: HTTP/1.0 detected\n", __func__);
    }
    p += strcspn(p, "\r\n");
    p = skip_space(p);
    if (!*p) {
        LOG_WARN("%s: no header sections found\n", __func__);
        return 0;
    }
    LOG_HEAD(DEBUG_level, "%s: p=[%.1024s]\n", __func__, p);
    take_fields(__func__, p, hdr);
    return 0;
}

/* ---- orders ---- */

/* One '/' at the end makes no difference. */
bool slash_match(const char* s, const char* word) noexcept
{
    std::string_view text(s);
    if (text.size() == strlen(word) + 1 && text.back() == '/')
        text.remove_suffix(1);
    return ci_equal(text, word);
}

/* With and without the '/' at the front, as clients write it. */
bool is_ping_request(const char* path) noexcept
{
    return slash_match(*path == '/' ? path + 1 : path, "ping");
}

/* The path in which an order is looked for. An absolute URL begins with a host, whose name must not be taken for a
   segment; the first '/' behind it is no part of the path, as in a URL without a host. */
static std::string_view order_path(const uri_layout& u) noexcept
{
    const std::string_view path(u.path, u.p_len);
    if (!u.scheme)
        return path;
    const size_t slash = path.find('/');
    return path.substr(slash == std::string_view::npos ? path.size() : slash + 1);
}

/* First the limits, then what is no order, then the grammar, and last the decoding: an escaped '/' must not make a
   segment. */
int web_parse_urq(char* hbuf, size_t hlen, char* src, char* dst, size_t cap, http_header* hdr) noexcept
{
    src[0] = dst[0] = '\0';
    if (const int rc = parse_http_header(hbuf, hlen, hdr, nullptr, 0))
        return rc;
    const uri_layout& u = hdr->uri;
    if (u.q_len > URI_QUERY_MAX - 1) {
        LOG_ERR("%s: URI query length (%zu bytes) is beyond the limit: %zu\n", __func__, u.q_len, URI_QUERY_MAX);
        return RC_LONG_QUERY;
    }
    const std::string_view path = order_path(u);
    if (path.empty()) {
        LOG_WARN("%s: no path in URL [%.256s]\n", __func__, path.data());
        return RC_EMPTY_PATH;
    }
    if (ci_equal(path, "favicon.ico")) {
        LOG_DEBUG("%s: favicon request received.\n", __func__);
        return RC_FAVICON;
    }
    std::array<char, 16> word{};
    if (copy_text(word.data(), word.size(), path) && is_ping_request(word.data())) {
        LOG_INFO("Handling user-side PING request\n");
        return RC_PING;
    }
    if (const int rc = uri_extract_endpts_ext(path.data(), path.size(), src, dst, cap)) {
        LOG_ERR("%s: error(%d) parsing request data [%.1024s]\n", __func__, rc, path.data());
        return -1;
    }
    if (!uri_decode(src, cap) || !uri_decode(dst, cap)) {
        LOG_ERR("%s: error URI-decoding\n", __func__);
        return -1;
    }
    if (u.q_len > 0) {
        const size_t len = strlen(src);
        const size_t room = cap - len;
        if (room <= u.q_len + 1) {
            LOG_ERR("%s: URI query is too long (%zu bytes), max allowed=%zd bytes, discarding request\n", __func__,
                    u.q_len, room - 2);
            return E2BIG;
        }
        src[len] = '?';
        cut_text(src + len + 1, room - 1, {u.query, u.q_len});
        LOG_DEBUG("%s: query [%s] appended to source\n", __func__, src + len + 1);
    }
    LOG_DEBUG("%s: URI=[%.1024s] - src=[%s], dst=[%s]\n", __func__, u.path, src, dst);
    return 0;
}

/* The same grammar for a text that came without a head. Its query is the sender's own and not the source's. */
int web_parse_url(const char* url, char* src, char* dst, size_t cap) noexcept
{
    src[0] = dst[0] = '\0';
    uri_layout u{};
    if (uri_parse(url, &u) != 0) {
        LOG_ERR("%s: failed to parse URL\n", __func__);
        return -1;
    }
    if (u.p_len == 0 || u.p_len >= URI_PATH_MAX) {
        LOG_ERR("%s: invalid path size: %zu\n", __func__, u.p_len);
        return -1;
    }
    const std::string_view order = order_path(u);
    if (const int rc = uri_extract_endpts_ext(order.data(), order.size(), src, dst, cap)) {
        LOG_ERR("%s: error(%d) parsing path [%.*s]\n", __func__, rc, static_cast<int>(u.p_len), u.path);
        return -1;
    }
    if (!uri_decode(src, cap) || !uri_decode(dst, cap)) {
        LOG_ERR("%s: error URI-decoding\n", __func__);
        return -1;
    }
    return 0;
}
