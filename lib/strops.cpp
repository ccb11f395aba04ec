/* Text helpers: bounded copies, a scanner and comparisons without regard to ASCII case. None looks at the locale: a
   text means the same wherever the agent runs, and a copy overlaps its source safely where a caller shifts a text
   within its own array. */
#include "strops.h"

#include <algorithm>
#include <cstring>
#include <limits>

/* ASCII only; tolower() would ask the locale. */
static char lower(char c) noexcept
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool copy_text(char* dst, size_t cap, std::string_view s) noexcept
{
    if (s.size() >= cap)
        return false;
    memmove(dst, s.data(), s.size());
    dst[s.size()] = '\0';
    return true;
}

size_t cut_text(char* dst, size_t cap, std::string_view s) noexcept
{
    if (cap == 0)
        return 0;
    const size_t n = std::min(s.size(), cap - 1);
    memmove(dst, s.data(), n);
    dst[n] = '\0';
    return n;
}

/* Parts that do not fit are counted, not copied: the caller's message tells how much room was needed. */
size_t join_text(char* dst, size_t cap, std::initializer_list<std::string_view> parts) noexcept
{
    size_t len = 0;
    for (const std::string_view part : parts) {
        if (len + part.size() < cap)
            memcpy(dst + len, part.data(), part.size());
        len += part.size();
    }
    if (len < cap)
        dst[len] = '\0';
    return len;
}

/* ---- taking apart ---- */

/* An empty text gives -1 as scanf does, where nothing at all was taken before its end. */
static void scan_fail(text_scan* s) noexcept
{
    s->failed = true;
    if (*s->p == '\0' && s->count == 0)
        s->count = -1;
}

void scan_literal(text_scan* s, std::string_view text) noexcept
{
    for (size_t i = 0; i < text.size() && !s->failed; ++i) {
        if (*s->p == text[i])
            ++s->p;
        else
            scan_fail(s);
    }
}

/* Whether there is something behind the blanks. */
static bool begin_item(text_scan* s) noexcept
{
    while (!s->failed && is_space(*s->p))
        ++s->p;
    if (!s->failed && *s->p == '\0')
        scan_fail(s);
    return !s->failed;
}

/* Sign, digits, at most width of both; a sign alone is no number. Saturates where scanf leaves it to chance. */
void scan_num(text_scan* s, size_t width, long* value) noexcept
{
    if (!begin_item(s))
        return;
    const char* end = s->p + strnlen(s->p, width);
    const bool is_negative = *s->p == '-';
    if (is_negative || *s->p == '+')
        ++s->p;
    const char* digits = s->p;
    long v = 0;
    for (; s->p < end && *s->p >= '0' && *s->p <= '9'; ++s->p) {
        const long digit = *s->p - '0';
        if (__builtin_mul_overflow(v, 10, &v) || __builtin_add_overflow(v, is_negative ? -digit : digit, &v))
            v = is_negative ? std::numeric_limits<long>::min() : std::numeric_limits<long>::max();
    }
    s->failed = s->p == digits; /* a sign alone is no number, at the end of the text too */
    if (s->failed)
        return;
    *value = v;
    ++s->count;
}

void scan_word(text_scan* s, char* word, size_t cap) noexcept
{
    if (!begin_item(s))
        return;
    const char* end = s->p;
    while (*end && !is_space(*end))
        ++end;
    s->p += cut_text(word, cap, {s->p, static_cast<size_t>(end - s->p)});
    ++s->count;
}

/* ---- without regard to case ---- */

bool ci_equal(std::string_view a, std::string_view b) noexcept
{
    return a.size() == b.size() && ci_starts_with(a, b);
}

bool ci_starts_with(std::string_view s, std::string_view prefix) noexcept
{
    return s.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), s.begin(), [](char x, char y) { return lower(x) == lower(y); });
}

size_t ci_find(std::string_view s, std::string_view word) noexcept
{
    if (word.empty())
        return 0;
    const char first = lower(word.front());
    for (size_t at = 0; at + word.size() <= s.size(); ++at) {
        if (lower(s[at]) == first && ci_starts_with(s.substr(at), word))
            return at;
    }
    return std::string_view::npos;
}
