/* The process: standard descriptors and limits, detaching, user, working directory, pid file. */
#pragma once

#include <cstddef>
#include <sys/types.h>

/* Opens /dev/null on each of the descriptors 0, 1, 2 that is closed, so that no socket or data file ever gets them. */
void fill_std_fds() noexcept;
/* Replaces fd by /dev/null. */
void null_fd(int fd) noexcept;
/* Raises the soft descriptor limit to the hard one; INFO line with both. 0, or -1 (logged). */
int raise_fd_limit() noexcept;
/* The soft descriptor limit. */
[[nodiscard]] size_t fd_limit() noexcept;

/* Double fork into a session of its own; both parents exit with 0. 0, or -1 (logged). */
[[nodiscard]] int daemonize() noexcept;
/* Gives up root for the user (groups, gid, uid). 0, or -1 (logged). */
[[nodiscard]] int run_as_user(const char* name) noexcept;
/* chdir to path; on EACCES or without a path to alt, or to the user's home. 0, or non-zero (logged). */
[[nodiscard]] int goto_runtime_home(const char* path, const char* alt) noexcept;
/* Writes pid into the file under a write lock that lasts only while writing. 0, or -1 (logged). flags bit 1 chooses the
   longer message for a held lock. *inode, when given, gets the file's inode. */
[[nodiscard]] int create_pidfile_extra(const char* path, pid_t pid, ino_t* inode, int flags) noexcept;
/* Core dumps of any size, also after a change of user. 0, or -1 (logged). flags are not used. */
int set_unlimited_core(int flags) noexcept;
/* Pins the process to one CPU; numbers from 1024 on give an empty set, which the kernel refuses. As sched_setaffinity.
   */
[[nodiscard]] int pin2cpu(int cpu) noexcept;
/* Before a second getopt() over another argument list. */
void reset_getopt_state() noexcept;

/* ---- offered, called in this room only ---- */

[[nodiscard]] int run_as_user_id(uid_t uid, gid_t gid) noexcept;
/* Write lock on the whole file without waiting; as fcntl. */
[[nodiscard]] int write_lock(int fd) noexcept;
