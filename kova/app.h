/* Downloads: the task table (app.cpp), the source (app_fetch.cpp), the destination (app_file.cpp), the
   body (app_body.cpp), reaping (app_reap.cpp). */
#pragma once

#include "data.h"

/* ---- task table ---- */

/* Starts a download. client_fd is duplicated, negative = nobody waits. On 0 the task owns the order and its lock.
   EEXIST the source is being fetched already; -1 or an errno value: refused (logged). In every failure the order's lock
   is released. */
[[nodiscard]] int mk_dw_task(int client_fd, dw_spec* spec) noexcept;
/* Asserts the transition: zero, ini, rsp, dnl, one after the other. */
void set_dw_state(dw_task* task, n32_tag state) noexcept;
/* Asserts what holds of a task between two events, in its state. Every handler begins with it. */
void check_task(const dw_task* task) noexcept;
/* From here on a new order for the source is taken. 0, also for a task not hashed; the table's error (logged). */
int unhash_task(dw_task* task) noexcept;
/* Releases everything a task holds, at whatever stage; an unfinished file is removed. */
void free_dw(dw_task* task) noexcept;
int free_dw_elem(void* data, size_t idx) noexcept; /* the same for a list of pointers to tasks; 0 */

/* ---- source ---- */

/* Begins to connect, without waiting. The socket, which goes with sctx until usock_close; -1 (logged). */
[[nodiscard]] int connect_to_src(const char* url, usock_ctx* sctx) noexcept;
/* Writable, readable: 0 always; a failure lists the task for reaping. */
[[nodiscard]] int dw_write(dw_task* task) noexcept;
[[nodiscard]] int dw_read(dw_task* task) noexcept;
/* Error or hang-up of the source (flags, RQS_SOCK*): it is logged under the name fn, a client that still waits is
   answered 500, and the task is listed for reaping. */
void dw_broken(const char* fn, dw_task* task, uint32_t flags) noexcept;
/* Every byte of the body has come: the task completes with its next event, whatever that says of the source. */
[[nodiscard]] bool is_whole(const dw_task* task) noexcept;

/* ---- destination ---- */

/* fpath is the unfinished name. 0, or -EBUSY the final file exists (logged). */
[[nodiscard]] int check_dest_path(const char* fpath) noexcept;
/* Makes the unfinished file from an accepted head, and puts the body's bytes that came with it there. 0; EINVAL the
   head has no length, or chunks; -1 or an errno value. A failure is logged; what it leaves goes with the task. */
[[nodiscard]] int mk_dest_file(dw_task* task, const char* head, const http_resp_ctx* resp) noexcept;
/* Every byte is there: the file gets its final name and is registered, and the task is listed for reaping. 0, or not:
   nothing was published (logged). */
[[nodiscard]] int complete_download(dw_task* task) noexcept;

/* ---- the body ---- */

/* The pipe that bodies are moved through inside the kernel. Without it (logged) they go through a buffer. */
void open_body_pipe() noexcept;
void close_body_pipe() noexcept; /* safe without one */
/* One piece of the body, when the source is readable. 0; -1 or an errno value: failed (logged). */
[[nodiscard]] int read_fragment(dw_task* task) noexcept;

/* ---- reaping ---- */

/* Lists a task for reaping after the round. 0 also when listed already; -1 no room: the caller frees it at once. */
int pprm_task(dw_task* task) noexcept;
/* Frees the listed tasks. From post-processing. */
void pprm_task_cleanup() noexcept;
/* Lists every live task; shutdown begins with it. */
void pprm_all_tasks() noexcept;
/* The task's source waits for its keep-alive, or does so no more. */
void set_unguarded(dw_task* task, bool on) noexcept;
/* Gives the sources that have lasted until the second's end their keep-alive. From the idle step. */
void guard_sources() noexcept;
/* At the very end, when no task lives any more. */
void rm_all_tasks() noexcept;
