/* Text helpers: bounded copies and comparisons without regard to ASCII case. */
#include "strops.h"

#include <algorithm>
#include <cstring>

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
    const auto it =
        std::search(s.begin(), s.end(), word.begin(), word.end(), [](char x, char y) { return lower(x) == lower(y); });
    return it == s.end() && !word.empty() ? std::string_view::npos : static_cast<size_t>(it - s.begin());
}
