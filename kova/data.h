/* Records that several rooms of the daemon share: order, task, user request, channel, context. */
#pragma once

#include "cfg.h"
#include "gkh.h"
#include "rui.h"
#include "slots.h"
#include "tags.h"
#include "webops.h"
#include "wopen.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/types.h>
#include <type_traits>

constexpr char APP_NAME[] = "kov";
constexpr char UNFINISHED_SFX[] = "-Kova"; /* of a destination file that is being written */
constexpr size_t SPEC_URL_MAX = 128;
constexpr size_t SPEC_PATH_MAX = 128;
constexpr size_t SPEC_DST_MAX = 256;
constexpr size_t ORDER_TEXT_MAX = 256; /* source and destination of a request */
constexpr size_t HEAD_MAX = 1024;      /* head of a user request, with its NUL */

constexpr int MIN_UMSG_LEN = 32; /* datagram, bytes */
constexpr int MAX_UMSG_LEN = 1400;
constexpr int MIN_LID_LEN = 4;
constexpr int MAX_LID_LEN = 31;
constexpr int MIN_URL_LEN = 16;

/* Kinds in the time-out registry. */
enum { IDLE_TASK_TMOUT = 0, URQ_TMOUT = 1, MAX_TMOUT = 2 };
constexpr long URQ_TMOUT_MS = 5000;
/* Registry kind held for each task whose source has no keep-alive yet. */
constexpr int SRC_GUARD_TMOUT = 4;
constexpr long SRC_GUARD_TMOUT_MS = 1000;

/* Object tags, read by the dispatch. */
inline constexpr n32_tag TAG_URQ = mk_tag("URQ");
inline constexpr n32_tag TAG_DOW = mk_tag("DOW");
inline constexpr n32_tag TAG_UDL = mk_tag("UDL");

/* An order. */
struct dw_spec {
    char url[SPEC_URL_MAX];      /* source, without query */
    char fpath[SPEC_PATH_MAX];   /* path of the unfinished file; after completion that of the final one */
    int64_t content_length;      /* announced by the order: 0 = unknown */
    char lid[MAX_LID_LEN + 1];   /* lock that this order holds, empty = none */
    time_t expiry_tm;            /* seconds as ordered, 0 = none */
    char dst_path[SPEC_DST_MAX]; /* relative to the data directory */
    timespec lock_tm;            /* of the lock's file, when it was taken */
    bool takes_over;             /* a stalled task wrote its unfinished file when the order was checked */
};

/* Whose is the file under a task's unfinished name, and what becomes of it when the task ends. */
enum class dw_dest : uint8_t {
    none,     /* not this task's, or gone: it stays */
    own,      /* made by this task, dfd proves it: it goes */
    unproved, /* it stood in the way, or is the task's own after a close that failed: it goes unless a task writes it */
    final,    /* spec.fpath has become the final path, for the rename: whatever stands there stays */
};

/* A transfer of one source into one file. Lives in its slot of g_ctx.tasks from add_dw to free_dw.
     (zero)  slot filled                   accepts nothing
     ini     connecting to the source      accepts writable: send the GET
     rsp     GET sent                      accepts readable: read the head
     dnl     head accepted, file made      accepts readable: read a fragment
   The state keeps its last value once is_quitting is set; events are ignored from then on. check_task says what holds
   of a task between two events. */
struct dw_task {
    n32_tag tag; /* "DOW"; the first byte becomes '#' on release, so that a late event is recognised */
    dw_spec spec;
    n64_tag trk_tag; /* label in log lines */
    ssize_t idx;     /* slot, -1 once released */
    int sfd;         /* source socket, owned, -1 = none */
    usock_ctx sctx;
    int dfd;                    /* destination file, owned, -1 = none */
    int cfd;                    /* duplicate of the waiting client's socket, owned, -1 = none or answered */
    size_t content_length;      /* of the body, from the source's head */
    size_t nleft;               /* body bytes still to come */
    off_t f_pos;                /* next write position */
    size_t buflen;              /* length of the mapping */
    char* buf;                  /* shared mapping of the file (mapped mode) */
    timespec last_io_tm;        /* loop clock of the last read from the source */
    timespec touch_tm;          /* loop clock at which the mapped file's time was last set */
    n32_tag state;              /* changed by set_dw_state only */
    const http_response* hresp; /* chosen for the client; shared */
    bool is_hashed;             /* in g_ctx.task_ht */
    bool is_mmapped;
    bool is_unmoved; /* the kernel has refused to move its body: it goes through the buffer */
    dw_dest dest;
    bool is_quitting;  /* listed for reaping */
    bool is_watched;   /* sfd is registered with the loop */
    bool is_unguarded; /* sfd waits for its keep-alive and holds SRC_GUARD_TMOUT */
};
inline constexpr n32_tag DW_INI = mk_tag("ini");
inline constexpr n32_tag DW_RSP = mk_tag("rsp");
inline constexpr n32_tag DW_DNL = mk_tag("dnl");
static_assert(offsetof(dw_task, tag) == 0, "the dispatch reads the tag before it knows the type");
static_assert(std::is_trivially_copyable_v<dw_task>, "slots are zeroed and reused byte by byte");

/* The head of one user request, being read. */
struct http_rq {
    char* hbuf;  /* owned; hbuf[hpos] is always NUL */
    size_t hlen; /* capacity */
    size_t hpos; /* bytes received */
    http_header header;
    bool is_keep_alive; /* never acted upon: a connection is used once */
};

/* One HTTP client from acceptance to reaping. Begins with the fields of rui_rq_header.
     INI  created            accepts readable
     RD   head being read    accepts readable
     QUI  answered or handed over; listed for removal, accepts nothing */
struct dw_urq {
    n32_tag tag; /* "URQ"; zero just before the record is freed */
    dlep_elem* prev;
    dlep_elem* next;
    rui_socket_ctx* srv;
    int sockfd; /* owned; -1 once closed */
    n64_tag trk_tag;
    char uri_src[ORDER_TEXT_MAX];
    char uri_dst[ORDER_TEXT_MAX];
    http_rq hrq;
    const http_response* hresp; /* chosen answer; shared; null until chosen */
    timespec wait_start_tm;     /* loop clock of the creation; the time-out counts from here */
    n32_tag state;              /* changed by urq_set_state only */
    ssize_t pprm_idx;           /* slot in srv->pprm once listed */
};
static_assert(offsetof(dw_urq, tag) == offsetof(rui_rq_header, tag));
static_assert(offsetof(dw_urq, prev) == offsetof(rui_rq_header, prev) &&
              offsetof(dw_urq, prev) == offsetof(dlep_elem, prev));
static_assert(offsetof(dw_urq, next) == offsetof(rui_rq_header, next) &&
              offsetof(dw_urq, next) == offsetof(dlep_elem, next));
static_assert(offsetof(dw_urq, srv) == offsetof(rui_rq_header, srv));
static_assert(offsetof(dw_urq, sockfd) == offsetof(rui_rq_header, fd));
static_assert(offsetof(dw_urq, trk_tag) == offsetof(rui_rq_header, trk_tag));

/* The UDP channel. */
struct udl_ctx {
    n32_tag tag; /* "UDL" */
    bool is_ready;
    int sockfd; /* owned while ready */
    usock_ctx usock;
    bool is_watched; /* sockfd is registered with the loop */
};

/* The download context. */
struct kova_ctx {
    bool is_ready;
    rui_ctx rui;
    udl_ctx udl;
    slots<dw_task> tasks;       /* mapped once, so records never move */
    skht_t task_ht;             /* url2key(url) -> dw_task* */
    slots<dw_task*> pprm_tasks; /* to be freed after the round */
    size_t last_task_id;
    timespec last_tmout_check;
    timespec last_rq_check;
    size_t nunguarded;        /* tasks whose source has no keep-alive yet */
    timespec unguarded_since; /* loop clock at which the first of them came */
};

extern kova_ctx g_ctx;
