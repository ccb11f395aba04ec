/* The epoll loop: one process-wide engine. A descriptor is registered with the record that its events are for; the
   record begins with an n32_tag. Handlers never wait, never free the record whose event they handle, and return 0 to go
   on; anything else ends the loop after the round. Registration is level-triggered and allowed at any stage. */
#pragma once

#include "xvdat.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

/* Flags given to handlers. */
constexpr uint32_t RQS_SOCKERR = 1;      /* the kernel reported an error */
constexpr uint32_t RQS_SOCKHUP = 2;      /* ... a hang-up */
constexpr uint32_t RQS_RMV = 4;          /* never given here */
constexpr uint32_t RQS_FMOVED = 0x10000; /* those of file watches; there are none here */
constexpr uint32_t RQS_FDELETED = 0x20000;
constexpr uint32_t RQS_ATTR = 0x40000;

/* Interest for rqs_mod; 0 parks the descriptor (hang-up only). */
constexpr uint32_t RQS_READ = 1;
constexpr uint32_t RQS_WRITE = 2;

/* The same as the kernel has them. */
constexpr uint32_t RQS_EVENT_READ = 1;  /* EPOLLIN */
constexpr uint32_t RQS_EVENT_WRITE = 4; /* EPOLLOUT */

constexpr size_t INO_WFD_CAP = 1024;
constexpr size_t INOTIFY_BUFLEN = 4096;

enum rqs_fd_counter { GET_TOTALFDS = 0, GET_POLLFDS = 1, GET_NOPOLLFDS = 2 };
enum rqs_ctx_selector { GET_LOOP_STAGE = 1 };
enum rqs_loop_stage { ELOOP_START = 0, ELOOP_EV = 1, ELOOP_POSTEV = 2, ELOOP_ENDPP = 3 };

using rqs_io_fn = int (*)(int fd, uint32_t flags, void* udata, void* reserved) noexcept;

struct rqs_callbacks {
    void (*update_tmout)(timespec* limit) noexcept; /* before each wait; {-1, 0} = no limit; may be null */
    int (*on_idle)() noexcept;                      /* once a round without failed events; may be null */
    rqs_io_fn read;                                 /* fd is the descriptor only where no record was registered */
    rqs_io_fn write;
    rqs_io_fn error;
    int (*post_process)() noexcept; /* twice a round; may be null */
    int (*on_file_modified)(int wd, uint32_t flags, void* udata) noexcept;
    void (*time_out)() noexcept;   /* after each wait; may be null */
    bool (*is_dormant)() noexcept; /* asked when nothing is watched; may be null */
};

struct rqs_config {
    rqs_callbacks cb;
    unsigned quit_on_zero_fds : 1;
};

/* 0; -1 or a table's error (logged). The record is copied. */
[[nodiscard]] int rqs_init(const rqs_config* cfg) noexcept;
/* Runs until the quit flag, a failed handler or a failed wait. 0 after a clean quit. */
[[nodiscard]] int rqs_event_loop() noexcept;
/* Safe after a failed or missing rqs_init. */
void rqs_destroy() noexcept;

/* Watch fd for one direction with the record udata (null: the descriptor number itself). 0, or -1 (logged). */
[[nodiscard]] int rqs_add_reader(int fd, void* udata) noexcept;
[[nodiscard]] int rqs_add_writer(int fd, void* udata) noexcept;
/* Change the interest to RQS_READ | RQS_WRITE bits. 0, or -1 (logged). */
[[nodiscard]] int rqs_mod(int fd, void* udata, uint32_t flags) noexcept;
/* Before fd is closed. 0, or -1 (logged). The two flags are not used. */
int rqs_rm_fd(int fd, bool, bool) noexcept;

/* Takes a descriptor that epoll refuses out at once; see below. */
int rqs_rm_nopoll(ssize_t j) noexcept;

/* The loop's clock (CLOCK_MONOTONIC), read once after each wait. Before rqs_init it comes from the clock itself. */
[[nodiscard]] const timespec* rqs_now_ref() noexcept;
inline void rqs_set_now(timespec* ts) noexcept
{
    *ts = *rqs_now_ref();
}

/* ---- offered, not called here ---- */

[[nodiscard]] int rqs_mod_reader(int fd, void* udata) noexcept;
/* Descriptors that epoll refuses (regular files): treated as always ready. *index follows the slot, -1 once removed. */
[[nodiscard]] int rqs_add_nopoll_reader(int fd, ssize_t* index, void* udata) noexcept;
[[nodiscard]] int rqs_add_nopoll_writer(int fd, ssize_t* index, void* udata) noexcept;
void rqs_pprm_nopoll(ssize_t j) noexcept; /* takes it out after the round; from handlers */

/* What is watched, and where in its round the loop is; an unknown selector is an assertion. */
[[nodiscard]] size_t rqs_fd_count(int which) noexcept;
[[nodiscard]] int rqs_ctx(int which) noexcept;
