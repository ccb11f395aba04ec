/* URIs: split by pointer and length, bounded copies, segment walks, percent-encoding. */
#pragma once

#include <cstddef>

constexpr size_t URI_SCHEME_MAX = 8;
constexpr size_t URI_AUTH_MAX = 64;
constexpr size_t URI_PATH_MAX = 128;
constexpr size_t URI_QUERY_MAX = 256;

constexpr int URI_NO_SOURCE = -14;

enum uri_kind { URI_BAD = -1, URI_FILE = 0, URI_TCP = 1, URI_UDP = 2, URI_RTP = 3, URI_HTTP = 4, URI_HLS = 5 };

/* Parts of a parsed text; null with length 0 when absent. The host and port of a URL are the head of its path. */
struct uri_layout {
    const char* scheme;
    const char* authority; /* the user part before an '@' */
    const char* path;      /* without its leading '/' */
    const char* query;
    size_t s_len;
    size_t a_len;
    size_t p_len;
    size_t q_len;
};

/* 0 or -1; out may be null. */
[[nodiscard]] int uri_parse(const char* text, uri_layout* out) noexcept;

/* Copy one part and a NUL into buf; return buf, or null and an empty buf when it is absent or does not fit. */
char* uri_get_scheme(const uri_layout* u, char* buf, size_t cap) noexcept;
char* uri_get_authority(const uri_layout* u, char* buf, size_t cap) noexcept;
char* uri_get_path(const uri_layout* u, char* buf, size_t cap) noexcept;

[[nodiscard]] int uri_scheme_kind(const char* scheme) noexcept; /* uri_kind, any case */
/* Host and port of a path; returns the rest after them, or null (logged). An absent port gives an empty text. */
const char* uri_path_addrport(const char* path, size_t p_len, char* host, size_t hostcap, char* port,
                              size_t portcap) noexcept;
[[nodiscard]] bool uri_is_alias(const char* s) noexcept; /* begins with '$', '~' or '^' */

/* Source and destination from an order's path (".../src/SOURCE/dst/DESTINATION"), each into a buffer of cap bytes. 0;
   URI_NO_SOURCE no "src" segment; ESRCH no '/' at all and no alias; E2BIG a part does not fit; a depth when "src" is
   unmatched. */
[[nodiscard]] int uri_extract_endpts_ext(const char* path, size_t p_len, char* src, char* dst, size_t cap) noexcept;

/* Decodes in place over at most cap bytes; a byte that is not printable becomes '?'. Returns s, or null for an escape
   within the last two bytes of cap. Never reads beyond the text. */
char* uri_decode(char* s, size_t cap) noexcept;

/* ---- offered, called in this room only ---- */

/* Length of s up to its last '?', or the whole length when s ends with '/'. */
[[nodiscard]] size_t till_query(const char* s) noexcept;
/* As the copies above, of any len bytes at seg. */
char* cpyseg(const char* seg, size_t len, char* buf, size_t cap) noexcept;
/* As uri_decode, which is safe: without, bytes that are not printable stay. */
char* uri_decode_opt(char* s, size_t cap, bool safe) noexcept;
/* Whether a character needs no escape. */
[[nodiscard]] bool is_safe(int ch) noexcept;

/* ---- offered, not called here ---- */

char* uri_get_query(const uri_layout* u, char* buf, size_t cap) noexcept;
/* Parses url and copies the parts asked for (null = not wanted; capacities URI_*_MAX). Absent optional parts give an
   empty text. The kind, or -1 (logged). */
[[nodiscard]] int uri_extract(const char* url, char* scheme, char* authority, char* path, char* query) noexcept;
/* The next segment of p, ended by and including its '/': its start and length in *start, *len. Returns the text after
   it, or null at the end of the text. brk names the separators: always "//". */
const char* uri_xseg(const char* p, const char* brk, const char** start, size_t* len) noexcept;
/* 0 when the segment is word, without case, ignoring one leading and one trailing '/'. */
[[nodiscard]] int xseg_scmp(const char* word, const char* start, size_t len, const char* brk) noexcept;
/* Copies a run of segments without its outer slashes. 0, or E2BIG. */
[[nodiscard]] int xseg_cpy(const char* start, size_t len, char* buf, size_t cap, const char* brk) noexcept;
/* A new zeroed buffer of cap bytes with s encoded as far as it fits; free() it. Null: no memory. */
[[nodiscard]] char* uri_encode(const char* s, size_t cap) noexcept;
