/* What the files of the event loop share among themselves. */
#pragma once

#include "rqs.h"
#include "slots.h"

#include <sys/epoll.h>

/* One descriptor that epoll cannot watch. */
struct nopoll_ref {
    uint32_t events; /* EPOLLIN or EPOLLOUT */
    int fd;
    void* udata;
    ssize_t* index; /* the owner's variable that follows the slot; may be null */
};

struct rqs_context {
    int loopfd;      /* epoll descriptor, -1 = none */
    xvec events;     /* of epoll_event: slots handed to the kernel */
    xvec changes;    /* of epoll_event: always empty, each change goes to the kernel at once */
    size_t poll_fds; /* descriptors in the epoll set */
    slots<nopoll_ref, 10> nopoll;
    slots<ssize_t, 10> nopoll_rm; /* slots of nopoll queued for removal */
    timespec tmout;               /* wait limit, negative = none */
    timespec itime;               /* CLOCK_MONOTONIC of the last wait */
    int loop_stage;               /* rqs_loop_stage */
};

extern rqs_context g_rqs;
extern rqs_config g_rqs_cfg;

/* Calls the handler of every no-poll descriptor; once a round. 0, or a handler's result (logged). */
[[nodiscard]] int rqs_service_nopoll() noexcept;
/* Takes out what handlers have listed since; behind every walk. */
void rqs_purge_nopoll() noexcept;
