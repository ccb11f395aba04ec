/* Request listeners: they accept clients, queue one request record for each, time them out and retire them. A request
   is freed only after the round in which it ended: its handler puts it on the listener's pprm list. */
#pragma once

#include "appcfg.h"
#include "dlep.h"
#include "slots.h"
#include "tags.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

enum rui_kind { RUI_USER = 0, RUI_ADMIN = 1, RUI_CUSTOM = 2, RUI_MAX = 3 };

inline constexpr n32_tag TAG_RSC = mk_tag("Rsc"); /* of a rui_socket_ctx */
constexpr size_t MAX_RUI_QUEUED = 1000;           /* requests of one listener */
constexpr int RUI_LOW_WMARK = 32;                 /* bytes that make a client's socket readable */
constexpr uint32_t RUI_TCP_NODELAY = 1;
constexpr size_t MAX_RQNUM = 100000;    /* a rui_mk_trknum limit for siblings' requests */
constexpr size_t MAX_TRKNUM_DIGITS = 6; /* with the kind and a NUL they fill a tag */

/* Registry kind that keeps the loop waking while a listener waits for descriptors to come back. */
constexpr int LSN_PAUSE_TMOUT = 3;
constexpr long LSN_PAUSE_TMOUT_MS = 500;

struct rui_socket_ctx;

/* Every request record begins with these fields, in this order; prev and next belong to the queue (dlep). */
struct rui_rq_header {
    n32_tag tag;
    dlep_elem* prev;
    dlep_elem* next;
    rui_socket_ctx* srv;
    int fd; /* owned; -1 once closed */
    n64_tag trk_tag;
};

using rui_newrq_t = rui_rq_header* (*)(int fd, rui_socket_ctx* srv, void* udata) noexcept;
using rui_rmrq_t = void (*)(rui_rq_header* rq) noexcept;
using rui_tmout_t = bool (*)(rui_rq_header* rq, uint32_t ms) noexcept;

/* Handlers of one kind of listener. */
struct rui_socket_cb {
    n32_tag tag;          /* carried by this kind's request records */
    rui_newrq_t new_rq;   /* a new record, or null (logged); fd stays the caller's then */
    rui_rmrq_t rm_rq;     /* releases the record; its descriptor is closed already */
    rui_tmout_t time_out; /* true when rq has timed out and was put on pprm; must not free it */
};

/* Set of descriptor numbers of any size. */
struct rui_fdset {
    uint64_t* words; /* owned */
    size_t nwords;
};

/* One listener.
     tag 0            empty
     sockfd -1        set up, not started
     sockfd >= 0      started; deferred is false
     deferred         stopped: the socket is closed, the queue kept */
struct rui_socket_ctx {
    n32_tag tag; /* "Rsc" */
    int sockfd;
    rui_fdset accset;              /* client descriptors queued here */
    dlep_list* requests;           /* owned */
    slots<rui_rq_header*, 4> pprm; /* to be removed after the round */
    bool deferred;
    timespec paused_tm; /* loop clock of the pause */
    bool is_paused;     /* not watched until descriptors come back */
    bool is_short;      /* from the first pause until a client is taken: one warning */
    bool has_failed;    /* the last accept failed in a way of its own */
    size_t rqcount;     /* counter of tracking tags; kept by the request code */
    ssize_t nblk_count; /* for siblings, not counted here */
    rui_listener_cfg* lc;
    n32_tag rqtag;
    const rui_socket_cb* cb;
};

struct rui_ctx {
    rui_socket_ctx user[MAX_LISTENERS];
    rui_socket_ctx admin[MAX_LISTENERS];
    rui_socket_ctx custom[MAX_LISTENERS];
    rui_fdset user_fds; /* these three are always empty: each listener knows its own descriptors */
    rui_fdset admin_fds;
    rui_fdset custom_fds;
};

/* The handlers of a kind (rui_kind), copied. Before rui_ctx_init. */
void rui_set_cb(int kind, const rui_socket_cb* cb) noexcept;
/* Sets the listeners of a configuration up, without sockets. 0, or the failing step's error (logged). */
[[nodiscard]] int rui_ctx_init(rui_cfg* cfg, rui_ctx* ctx) noexcept;
/* Opens and watches all of them. 0, or -1 (logged). */
[[nodiscard]] int rui_ctx_start(rui_ctx* ctx) noexcept;
/* Drops listeners and requests. Safe on a zeroed record and after a failed init or start. */
void rui_ctx_destroy(rui_ctx* ctx) noexcept;

/* Takes up to max waiting connections, with RUI_* flags; udata goes to new_rq. When descriptors run out or accepting
   keeps failing, the listener is not watched for a while. The result is the last client's: 0, or it was refused
   (logged). */
[[nodiscard]] int rui_accept(rui_socket_ctx* srv, size_t max, uint32_t flags, void* udata) noexcept;
/* Removes a request now; not from inside its own handler's caller that still uses it. */
void rui_rm_request(rui_rq_header* rq) noexcept;
/* Lists a request for removal after the round. 0 with its slot; EALREADY it is listed; -1 no memory. */
[[nodiscard]] int rui_pprm(rui_rq_header* rq, ssize_t* slot) noexcept;
/* Removes what is on the pprm lists and wakes paused listeners. From post-processing. */
void rui_pprm_all(rui_ctx* ctx) noexcept;
/* Asks the handlers of all queued requests whether they have waited for more than tmout_ms. From the idle step. */
void rui_tmout_all(rui_ctx* ctx, uint32_t tmout_ms) noexcept;
/* A tracking tag of kind and number: leading zeros up to min_digits, cut behind max_digits. More than MAX_TRKNUM_DIGITS
   are an assertion. */
void rui_put_trknum(n64_tag* tag, char kind, size_t number, size_t min_digits, size_t max_digits) noexcept;
/* Next tracking tag: kind and the counter with at least four digits; starts again at 1 after max. */
void rui_mk_trknum(size_t* counter, n64_tag* tag, char kind, size_t max) noexcept;
/* Ends the process: an error on a listening socket is fatal. flags non-zero: it was a hang-up. */
[[noreturn]] void rui_crash_on_error(rui_socket_ctx* srv, uint32_t flags) noexcept;

/* ---- offered, called in this room only ---- */

/* Sets the valid slots of cfg up in srv[MAX_LISTENERS], without sockets. 0, or the failing step's error (logged). */
[[nodiscard]] int rui_setup_listeners(int kind, rui_listener_cfg* cfg, rui_socket_ctx* srv) noexcept;
/* Opens and watches one that was set up. 0 or -1 (logged). */
[[nodiscard]] int rui_start_listener(rui_listener_cfg* lc, rui_socket_ctx* srv) noexcept;
/* All slots of a kind, up to the first that fails. As rui_start_listener. */
[[nodiscard]] int rui_enable_listeners(rui_socket_ctx* srv) noexcept;
void rui_stop_listener(rui_socket_ctx* srv) noexcept; /* its queue stays; nothing when it is not started */
/* All slots of a kind: stopped, or dropped with their requests. */
void stop_listeners(rui_socket_ctx* set, int kind, bool destroy) noexcept;
/* Makes and queues the request of an accepted client. 0, and fd is the request's; EBUSY the queue is full; -1 or the
   loop's error: fd stays the caller's (logged). */
[[nodiscard]] int rui_add_request(int fd, rui_socket_ctx* srv, void* udata) noexcept;
