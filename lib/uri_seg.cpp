/* Segments of a path, and the grammar that finds an order's source and destination in it. The difficulty: a source is
   itself a URL, whose path may hold "src" and "dst" segments of its own, as when one agent is told to fetch from
   another. They count as brackets, and the pair that encloses all others is this order's. */
#include "uri.h"

#include "strops.h"

#include <cerrno>
#include <cstring>
#include <string_view>

/* A separator at the front belongs to no segment, one at the end to the segment that it ends. */
const char* uri_xseg(const char* p, const char* brk, const char** start, size_t* len) noexcept
{
    if (!p || !*p)
        return nullptr;
    if (*p == brk[0])
        ++p;
    if (!*p)
        return nullptr;
    const char* end = strchr(p, brk[1]);
    end = end ? end + 1 : p + strlen(p);
    *start = p;
    *len = static_cast<size_t>(end - p);
    return end;
}

/* A segment without one leading and one trailing separator. */
static std::string_view trimmed(const char* start, size_t len, const char* brk) noexcept
{
    std::string_view s(start, len);
    if (!s.empty() && s.front() == brk[0])
        s.remove_prefix(1);
    if (!s.empty() && s.back() == brk[1])
        s.remove_suffix(1);
    return s;
}

int xseg_scmp(const char* word, const char* start, size_t len, const char* brk) noexcept
{
    return ci_equal(word, trimmed(start, len, brk)) ? 0 : 1;
}

int xseg_cpy(const char* start, size_t len, char* buf, size_t cap, const char* brk) noexcept
{
    return copy_text(buf, cap, trimmed(start, len, brk)) ? 0 : E2BIG;
}

/* The next '/'-ended segment at pos of path, without its '/'; *next is the position after it. */
static std::string_view segment_at(std::string_view path, size_t pos, size_t* next) noexcept
{
    const size_t slash = path.find('/', pos);
    *next = slash == std::string_view::npos ? path.size() : slash + 1;
    return path.substr(pos, (slash == std::string_view::npos ? path.size() : slash) - pos);
}

/* Copies source and destination; prefix makes the source's scheme where the path named it by a segment. */
static int put_endpts(std::string_view prefix, std::string_view source, std::string_view dest, char* src, char* dst,
                      size_t cap) noexcept
{
    if (!source.empty() && source.back() == '/')
        source.remove_suffix(1);                 /* the one before "dst" */
    const size_t n = cut_text(src, cap, prefix); /* what does not fit is cut: the refusal's line shows it */
    cut_text(src + n, cap - n, source);
    return prefix.size() + source.size() < cap && copy_text(dst, cap, dest) ? 0 : E2BIG;
}

struct scheme_segment {
    const char* name;
    const char* prefix;
};

/* A path may begin with the name of a transport instead of carrying a URL. */
static const scheme_segment SCHEME_SEGMENTS[] = {{"udp", "udp://"}, {"rtp", "rtp://"}, {"hls-fra", "file://"}};

/* The first segment may name a transport, which then makes the source's scheme; else everything up to "src" is skipped,
   since a sender may put any path before it. The source ends before the "dst" that matches it. */
int uri_extract_endpts_ext(const char* path, size_t p_len, char* src, char* dst, size_t cap) noexcept
{
    const std::string_view text(path, p_len);
    src[0] = dst[0] = '\0';
    if (text.find('/') == std::string_view::npos && !uri_is_alias(path))
        return ESRCH;
    size_t next = 0;
    const std::string_view first = segment_at(text, text.starts_with('/') ? 1 : 0, &next);
    for (const scheme_segment& s : SCHEME_SEGMENTS) {
        if (ci_equal(first, s.name))
            return put_endpts(s.prefix, text.substr(next), "", src, dst, cap);
    }
    size_t source = 0;
    int depth = 0; /* of "src" without their "dst"; source is where the first one's text begins */
    for (size_t pos = 0; pos < text.size(); pos = next) {
        const std::string_view seg = segment_at(text, pos, &next);
        if (ci_equal(seg, "src")) {
            if (depth == 0)
                source = next;
            ++depth;
        } else if (depth == 0 && ci_equal(seg, "hls-m3u")) {
            return URI_NO_SOURCE;
        } else if (depth > 0 && ci_equal(seg, "dst") && --depth == 0) {
            return put_endpts("", text.substr(source, pos - source), text.substr(next), src, dst, cap);
        }
    }
    return depth > 0 ? depth : URI_NO_SOURCE;
}
