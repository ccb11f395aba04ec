/* URIs, split by pointer and length without copying; bounded copies of the parts; percent-encoding in place. The
   grammar is a loose one on purpose: what stands before "://" is a scheme, what stands before an '@' an authority, and
   the rest up to the last '?' a path whose head is the host. Nothing is checked that is not needed: orders are judged
   where they are understood. */
#include "uri.h"

#include "log.h"
#include "strops.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <string_view>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

/* By uri_kind. */
static const char* const SCHEMES[] = {"file", "tcp", "udp", "rtp", "http", "m3u"};

/* The last '?': a source's path may hold others. A text that ends with '/' is a directory, whose '?' is part of its
   name. */
size_t till_query(const char* s) noexcept
{
    const size_t len = strlen(s);
    if (len > 0 && s[len - 1] == '/')
        return len;
    const char* mark = strrchr(s, '?');
    return mark ? static_cast<size_t>(mark - s) : len;
}

/* A text that begins with '/' is a path alone, as in a request line: then nothing in it is a scheme. Something must
   follow a scheme and an authority. */
int uri_parse(const char* text, uri_layout* out) noexcept
{
    uri_layout u{};
    const char* p = text + strspn(text, " \t");
    if (*p == '/') {
        ++p;
    } else if (const char* colon = strchr(p, ':'); colon && colon - p > 1 && strncmp(colon, "://", 3) == 0) {
        u.scheme = p;
        u.s_len = static_cast<size_t>(colon - p);
        p = colon + 3;
        if (const char* at = strchr(p, '@')) {
            u.authority = p;
            u.a_len = static_cast<size_t>(at - p);
            p = at + 1;
        }
        if (!*p)
            return -1;
    }
    u.path = p;
    u.p_len = till_query(p);
    if (p[u.p_len] == '?' && p[u.p_len + 1]) {
        u.query = p + u.p_len + 1;
        u.q_len = strlen(u.query);
    }
    if (out)
        *out = u;
    return 0;
}

/* An absent part is told from an empty one by the null that comes back. */
char* cpyseg(const char* seg, size_t len, char* buf, size_t cap) noexcept
{
    if (cap > 0)
        buf[0] = '\0';
    return seg && copy_text(buf, cap, {seg, len}) ? buf : nullptr;
}

char* uri_get_scheme(const uri_layout* u, char* buf, size_t cap) noexcept
{
    return cpyseg(u->scheme, u->s_len, buf, cap);
}

char* uri_get_authority(const uri_layout* u, char* buf, size_t cap) noexcept
{
    return cpyseg(u->authority, u->a_len, buf, cap);
}

char* uri_get_path(const uri_layout* u, char* buf, size_t cap) noexcept
{
    return cpyseg(u->path, u->p_len, buf, cap);
}

char* uri_get_query(const uri_layout* u, char* buf, size_t cap) noexcept
{
    return cpyseg(u->query, u->q_len, buf, cap);
}

/* An unknown scheme is a kind, too: what to say about it is the caller's decision. */
int uri_scheme_kind(const char* scheme) noexcept
{
    for (size_t i = 0; i < std::size(SCHEMES); ++i) {
        if (ci_equal(scheme, SCHEMES[i]))
            return static_cast<int>(i);
    }
    return URI_BAD;
}

static int extract_parts(const char* fn, const char* url, char* scheme, char* authority, char* path,
                         char* query) noexcept
{
    uri_layout u{};
    if (uri_parse(url, &u) != 0) {
        LOG_ERR("%s: uri_parse ERROR\n", fn);
        return URI_BAD;
    }
    std::array<char, URI_SCHEME_MAX> own_scheme{};
    if (!uri_get_scheme(&u, own_scheme.data(), own_scheme.size())) {
        LOG_ERR("%s: uri_get_scheme ERROR\n", fn);
        return URI_BAD;
    }
    if (scheme)
        cut_text(scheme, URI_SCHEME_MAX, own_scheme.data());
    /* Optional parts: an absent one gives an empty text. */
    const struct {
        const char* name;
        const char* seg;
        size_t len;
        char* buf;
        size_t cap;
    } parts[] = {{"authority", u.authority, u.a_len, authority, URI_AUTH_MAX},
                 {"path", u.path, u.p_len, path, URI_PATH_MAX},
                 {"query", u.query, u.q_len, query, URI_QUERY_MAX}};
    for (const auto& part : parts) {
        if (part.buf && !cpyseg(part.seg ? part.seg : "", part.len, part.buf, part.cap)) {
            LOG_ERR("%s: uri_get_%s ERROR\n", fn, part.name);
            return URI_BAD;
        }
    }
    return uri_scheme_kind(own_scheme.data());
}

int uri_extract(const char* url, char* scheme, char* authority, char* path, char* query) noexcept
{
    const int kind = extract_parts(__func__, url, scheme, authority, path, query);
    if (kind == URI_BAD)
        LOG_ERR("%s: error parsing URI: [%.256s]\n", __func__, url);
    return kind;
}

/* Host and port at the front of [p, end). Returns what follows them, or null. */
static const char* path_parse(const char* p, const char* end, char* host, size_t hostcap, char* port,
                              size_t portcap) noexcept
{
    const auto find_any = [end](const char* from, std::string_view set) {
        return std::find_first_of(from, end, set.begin(), set.end());
    };
    const std::string_view path(p, static_cast<size_t>(end - p));
    p += std::min(path.find_first_not_of(" \t/"), path.size());
    const char* host_end = nullptr;
    const char* rest = nullptr;
    if (p < end && *p == '[') {
        ++p;
        host_end = find_any(p, "]");
        if (host_end == end)
            return nullptr;
        rest = host_end + 1;
    } else {
        rest = host_end = find_any(p, ":?/");
    }
    if (!cpyseg(p, static_cast<size_t>(host_end - p), host, hostcap))
        return nullptr;
    port[0] = '\0';
    if (rest == end || *rest != ':')
        return rest;
    const char* port_start = rest + 1;
    rest = find_any(port_start, "?/");
    return cpyseg(port_start, static_cast<size_t>(rest - port_start), port, portcap) ? rest : nullptr;
}

const char* uri_path_addrport(const char* path, size_t p_len, char* host, size_t hostcap, char* port,
                              size_t portcap) noexcept
{
    const char* rest = path_parse(path, path + p_len, host, hostcap, port, portcap);
    if (!rest)
        LOG_ERR("%s: ERROR parsing path=[%.*s]\n", __func__, static_cast<int>(p_len), path);
    return rest;
}

/* A first character that stands for a place the sender has a short name for. */
bool uri_is_alias(const char* s) noexcept
{
    return *s == '$' || *s == '~' || *s == '^';
}

/* ---- percent-encoding ---- */

/* -1 for what is no digit: the escape is dropped then. */
static int hex_value(char c) noexcept
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

static bool is_printable(int ch) noexcept
{
    return ch >= 0x20 && ch < 0x7f;
}

/* Decoding only shortens a text, so it is done in place. An escape whose digits are none is dropped. '+' is a blank, as
   forms have it. */
char* uri_decode_opt(char* s, size_t cap, bool safe) noexcept
{
    if (cap == 0)
        return nullptr;
    const size_t len = strnlen(s, cap);
    size_t out = 0;
    for (size_t in = 0; in < len;) {
        const char c = s[in];
        if (c != '%') {
            s[out++] = c == '+' ? ' ' : c;
            ++in;
            continue;
        }
        if (in + 2 >= cap)
            return nullptr;
        if (in + 2 >= len)
            break; /* cut off by the end of the text: nothing follows it */
        const int hi = hex_value(s[in + 1]);
        const int lo = hex_value(s[in + 2]);
        in += 3;
        if (hi < 0 || lo < 0)
            continue;
        const int ch = hi * 16 + lo;
        s[out++] = safe && !is_printable(ch) ? '?' : static_cast<char>(ch);
    }
    s[out < cap ? out : cap - 1] = '\0';
    return s;
}

char* uri_decode(char* s, size_t cap) noexcept
{
    return uri_decode_opt(s, cap, true);
}

bool is_safe(int ch) noexcept
{
    return is_printable(ch) && !strchr(";/?:@&=+$,* ", ch);
}

/* What does not fit any more is left out with its whole escape, never cut within one. */
char* uri_encode(const char* s, size_t cap) noexcept
{
    static const char HEX[] = "0123456789ABCDEF";
    auto* buf = static_cast<char*>(calloc(1, cap));
    if (!buf)
        return nullptr;
    size_t out = 0;
    for (; *s; ++s) {
        const auto ch = static_cast<unsigned char>(*s);
        const size_t need = is_safe(ch) ? 1 : 3;
        if (out + need >= cap)
            break;
        if (need == 1) {
            buf[out++] = *s;
        } else {
            buf[out++] = '%';
            buf[out++] = HEX[ch >> 4];
            buf[out++] = HEX[ch & 15];
        }
    }
    return buf;
}
