/* HTTP request heads and standard responses. */
#pragma once

#include "uri.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

constexpr int RQTYPE_GET = 0;
constexpr int RQTYPE_HEAD = 1;
constexpr size_t MAX_HOST_LEN = 64;
constexpr size_t MAX_UAG_LEN = 128;
constexpr size_t MAX_AENC_LEN = 32;
constexpr int RC_EMPTY_PATH = -3;
constexpr int RC_LONG_QUERY = -7;
constexpr int RC_FAVICON = 1028;
constexpr int RC_PING = 1029;
constexpr int HTTP_OK_CODE = 200;
constexpr int HTTP_OK_END = 299;
constexpr int HTTP_CODE_MAX = 999;
constexpr size_t HTTP_RESP_MAX = 4096; /* the shared output buffer */

[[nodiscard]] constexpr bool is_HTTP_OK(int code) noexcept
{
    return code >= HTTP_OK_CODE && code <= HTTP_OK_END;
}

struct http_header {
    int type;       /* RQTYPE_* */
    uri_layout uri; /* points into the head buffer */
    char host[MAX_HOST_LEN];
    char user_agent[MAX_UAG_LEN];
    char accept_enc[MAX_AENC_LEN];
    bool is_keep_alive;
    bool is_close; /* only looked at when not keep-alive */
    bool is_http10;
};

struct http_response {
    int code;
    const char* content_type; /* null or empty: omitted, as the texts below */
    const char* content_encoding;
    long content_length; /* negative: omitted */
    const char* reason;
    const char* server; /* null: the name given to http_set_server */
    const char* connection;
    const char* ok_suffix; /* extra lines of 200 answers, without the final line end */
    const char* location;
    const char* fpath; /* a file whose content follows the head */
};

/* Shared standard responses. */
extern const http_response g_resp_ok;      /* 200 */
extern const http_response g_resp_nocont;  /* 204 */
extern const http_response g_resp_moved;   /* 302 */
extern const http_response g_resp_bad;     /* 400 */
extern const http_response g_resp_denied;  /* 403 */
extern const http_response g_resp_nfound;  /* 404 */
extern const http_response g_resp_naccept; /* 406 */
extern const http_response g_resp_tmout;   /* 408 */
extern const http_response g_resp_err;     /* 500 */
extern const http_response g_resp_badgw;   /* 502 */
extern const http_response g_resp_unavail; /* 503 */
extern const http_response g_resp_gwtmout; /* 504 */

/* Decimal value of the field name (without colon) that starts a line of head, any case; none when absent or not a plain
   decimal number in range. */
[[nodiscard]] std::optional<int64_t> extract_num_hdr(std::string_view name, std::string_view head) noexcept;

/* True when the field name (without colon) starts a line of head, any case. */
[[nodiscard]] bool has_hdr(std::string_view name, std::string_view head) noexcept;

/* Request head to source and destination, each of cap bytes, decoded; the query is appended to the source. 0;
   RC_EMPTY_PATH; RC_FAVICON; RC_PING; RC_LONG_QUERY, -1, E2BIG and the head's: refused (logged). */
[[nodiscard]] int web_parse_urq(char* hbuf, size_t hlen, char* src, char* dst, size_t cap, http_header* hdr) noexcept;
/* The same for a bare URL, whose host and query are not used. 0 or -1 (logged). */
[[nodiscard]] int web_parse_url(const char* url, char* src, char* dst, size_t cap) noexcept;

/* The Server field of responses without a name of their own; not copied. To be called once, at start-up. */
void http_set_server(const char* name) noexcept;
/* Formats, writes to fd and ends the stream: the end rides with the answer, and both reach a client even when bytes of
   it were not read. 0, or the formatter's -1: it does not fit; a failed or short write is only logged. */
[[nodiscard]] int send_http_response(int fd, const http_response* resp) noexcept;
/* The shared response for a status code; one that has none (WARN) gets that of 200 below 300, else that of 500. */
[[nodiscard]] const http_response* http_code_resp(long code) noexcept;

/* ---- offered, called in this room only ---- */

/* Parses a request head of len bytes, NUL-terminated, in place: the URI is terminated there and hdr->uri points into
   buf. full_url may be null. 0; EINVAL unsupported method; -1 malformed; the URI parser's error. */
[[nodiscard]] int parse_http_header(char* buf, size_t len, http_header* hdr, char* full_url,
                                    size_t full_url_cap) noexcept;
/* Value of a field in a head, found anywhere without case; null when absent. name carries its colon. */
[[nodiscard]] const char* find_http_header(const char* name, const char* text, size_t* len) noexcept;
[[nodiscard]] bool is_ping_request(const char* path) noexcept; /* with or without a '/' at either end, any case */
[[nodiscard]] bool slash_match(const char* s, const char* word) noexcept; /* s is word or word and '/', any case */
/* Formats a response head of HTTP/1.0 (version 10) or 1.1 (11), which mk_http_response always makes. Bytes written, -1
   cut, EINVAL another version. */
[[nodiscard]] int mk_http_xt_resp(const http_response* resp, int version, char* buf, size_t cap) noexcept;
[[nodiscard]] int mk_http_response(const http_response* resp, char* buf, size_t cap) noexcept;
