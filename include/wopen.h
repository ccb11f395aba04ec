/* Outbound connections by URL and the HTTP client side: GET request, head of the response. */
#pragma once

#include "netops.h"
#include "uri.h"

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

constexpr uint32_t RQFLAG_HTTP10_GET = 1;
constexpr uint32_t RQFLAG_KEEPALIVE = 2;

/* One endpoint opened by URL. Zero it, set the wishes, open; then it belongs with the descriptor until usock_close. */
struct usock_ctx {
    bool inbound;        /* wish: receives (listener or datagram input) */
    bool non_blocking;   /* wish: a connect in progress is no error */
    bool skip_http;      /* wish: open only, no request and no response */
    bool non_pollable;   /* a regular file */
    uint32_t http_flags; /* RQFLAG_* */
    ssize_t nopoll_idx;  /* slot among the loop's no-poll descriptors, -1 = none */
    const char* ifc_tag; /* wish: interface name or address, not owned; null = any */
    int timeout_ms;      /* wish of a blocking open, which waits for the kernel's own time-out whatever it says */
    int url_kind;        /* uri_kind */
    socket_spec sspec;
    char url_path[URI_PATH_MAX]; /* the URL's path part */
    ifc_info* mifc;              /* multicast interface, owned */
    char* buf;                   /* response buffer, owned; null = none */
    size_t bufcap;
    size_t buflen;
};

struct http_request {
    unsigned type : 4;   /* 0 = GET */
    uint32_t flags;      /* RQFLAG_* */
    const char* request; /* path and query */
    const char* server;  /* the User-Agent value */
    const char* host_addr;
    const char* host_port;
};

struct http_resp_ctx {
    int code;
    ssize_t total; /* bytes received */
    ssize_t tail;  /* length of the head with its blank line; 0 until found */
};

struct usock_flags_t {
    bool use_http10_get; /* every request is HTTP/1.0 */
};
extern usock_flags_t usock_flags;

/* The User-Agent of every request; not copied. */
void usock_set_apptag(const char* tag) noexcept;

/* Descriptor or -1 (logged). */
[[nodiscard]] int usock_open(usock_ctx* ctx, const char* url) noexcept;
/* Closes fd, which has left the event loop, and releases what ctx owns. */
void usock_close(int fd, usock_ctx* ctx) noexcept;
/* The same for one that may be watched still: out of the loop, closed, forgotten. 0, which start-up keeps occupied, is
   none, as -1 is. */
void usock_drop(int* fd, bool* is_watched, usock_ctx* ctx) noexcept;
/* Sends the GET for url with the application tag. 0 or -1 (logged). */
[[nodiscard]] int usock_http_get(int fd, const char* url, usock_ctx* ctx) noexcept;

/* One receive into buf + pos, at most cap - pos bytes: bytes read, 0 at the end of the stream, -1 with errno. *eoh gets
   the head's length once it has ended within pos + read bytes. */
[[nodiscard]] ssize_t read_http(int fd, char* buf, size_t cap, size_t pos, ssize_t* eoh) noexcept;
/* 0 head complete and status parsed; EAGAIN call again when readable; -1 (logged). At most cap - 1 bytes are read; the
   head's last character becomes a NUL. */
[[nodiscard]] int recv_http_response(int fd, char* buf, size_t cap, http_resp_ctx* resp) noexcept;

/* ---- offered, called in this room only ---- */

/* As usock_http_get, under any tag and with RQFLAG_* flags; and of any request. */
[[nodiscard]] int fwd_http_rq(int fd, const char* url, const char* apptag, uint32_t flags) noexcept;
[[nodiscard]] int send_http_request(int fd, const http_request* rq) noexcept;
/* Length of a head with its blank line, or 0. */
[[nodiscard]] size_t head_eod(const char* buf, size_t len) noexcept;
