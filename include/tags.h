/* Tags: short texts that are compared as one number. Every record that is registered with the event loop begins with an
   n32_tag, which tells the dispatch what the record is. */
#pragma once

#include <cstddef>
#include <cstdint>

/* Three characters and a NUL. Compare num, print sym. All zero is "no tag". */
union n32_tag {
    char sym[4];
    uint32_t num;
};

/* Up to seven characters and NULs to the end. All zero is "no tag". */
union n64_tag {
    char sym8[8];
    uint64_t num64;
};

/* The tag of a three-letter text; any other length does not compile. */
consteval n32_tag mk_tag(const char (&s)[4])
{
    return n32_tag{.sym = {s[0], s[1], s[2], s[3]}};
}

/* A log group or tracking tag of one to seven characters. */
template <size_t N>
consteval n64_tag mk_tag8(const char (&s)[N])
{
    static_assert(N >= 2 && N <= 8, "a tag has one to seven characters");
    n64_tag t{.sym8 = {}};
    for (size_t i = 0; i < N; ++i)
        t.sym8[i] = s[i];
    return t;
}
