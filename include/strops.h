/* Text helpers. Nothing here logs; a caller that refuses a text says so with the lengths it knows. */
#pragma once

#include <charconv>
#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string_view>

/* Copies s with its NUL into dst[cap]. False, and dst untouched, when it does not fit. */
[[nodiscard]] bool copy_text(char* dst, size_t cap, std::string_view s) noexcept;

/* Copies as much of s as fits with its NUL: a wanted cut. Returns the number of characters copied. */
size_t cut_text(char* dst, size_t cap, std::string_view s) noexcept;

/* Writes the parts one after the other, with a NUL, into dst[cap]. Returns the length of them all; when that is not
   below cap, dst holds nothing of use. */
size_t join_text(char* dst, size_t cap, std::initializer_list<std::string_view> parts) noexcept;

/* As isspace() of the C locale. */
[[nodiscard]] constexpr bool is_space(char c) noexcept
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/* A byte that commands a terminal and that no listing shows. */
[[nodiscard]] constexpr bool is_control(char c) noexcept
{
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

/* Comparisons without regard to ASCII case. */
[[nodiscard]] bool ci_equal(std::string_view a, std::string_view b) noexcept;
[[nodiscard]] bool ci_starts_with(std::string_view s, std::string_view prefix) noexcept;
/* Position of word in s without regard to case, or npos. */
[[nodiscard]] size_t ci_find(std::string_view s, std::string_view word) noexcept;

/* Takes a NUL-terminated text apart from its front as the C library's scanf does, blanks and counts included. Each step
   is made only when all before it succeeded. */
struct text_scan {
    const char* p;
    int count;   /* items taken; -1 when the text ended before the first, as scanf has it */
    bool failed; /* nothing more is taken */
};
void scan_literal(text_scan* s, std::string_view text) noexcept;
/* A number of at most width characters with its sign, after any blanks; too large a one saturates. */
void scan_num(text_scan* s, size_t width, long* value) noexcept;
/* A word, after any blanks, cut at cap - 1 characters. */
void scan_word(text_scan* s, char* word, size_t cap) noexcept;

/* The whole of s as a decimal number of type T; none when empty, out of range or followed by anything. */
template <class T>
[[nodiscard]] std::optional<T> parse_num(std::string_view s) noexcept
{
    T v{};
    const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc{} || end != s.data() + s.size())
        return std::nullopt;
    return v;
}
