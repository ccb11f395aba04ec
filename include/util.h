/* Process utilities: signals, daemon, user, pid file, limits, directories. */
#pragma once

#include <csignal>
#include <cstddef>
#include <ctime>
#include <span>
#include <string_view>
#include <sys/types.h>

/* Written by signal handlers, read by the event loop and the idle step. */
extern volatile sig_atomic_t g_quit;    /* stop the loop */
extern volatile sig_atomic_t g_goodbye; /* the stop came from SIGTERM or SIGINT */
extern volatile sig_atomic_t g_hup;
extern volatile sig_atomic_t g_usr1;
extern volatile sig_atomic_t g_tdbg; /* toggle of the debug levels is asked for */

using sig_fn = void (*)(int signo);

/* Install with sigaction (empty mask, no flags). 0, or -1 (logged). */
[[nodiscard]] int handle_quit_signals(sig_fn handler) noexcept; /* SIGTERM, SIGQUIT, SIGINT */
[[nodiscard]] int handle_sig(int signo, sig_fn handler) noexcept;
[[nodiscard]] int ignore_sigpipe() noexcept;

/* Handlers: each sets its flags and writes one record; errno is kept. */
void on_sigquit(int signo) noexcept;
void on_tdbg(int signo) noexcept;
void on_sighup(int signo) noexcept;
void on_sigusr1(int signo) noexcept;

/* The handled signals (SIGTERM, SIGQUIT, SIGINT, SIGUSR2) stay blocked except while the loop waits, so that no handler
   runs inside a half-written record and no signal slips in between the test of a flag and the wait. */
void block_handled_signals() noexcept;
/* The mask to wait with: the process's own without the handled signals. */
[[nodiscard]] const sigset_t* wait_sigmask() noexcept;
/* Lets pending handled signals run their handlers now. One system call when none is pending. */
void deliver_pending_signals() noexcept;
/* poll() of one descriptor with the handled signals let in, for a wait outside the loop. limit null = none. As ppoll:
   -1 with EINTR when a handler has run. */
[[nodiscard]] int poll_with_signals(int fd, short events, const timespec* limit) noexcept;

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
[[nodiscard]] int run_as_user_id(uid_t uid, gid_t gid) noexcept;
/* chdir to path; on EACCES or without a path to alt, or to the user's home. 0, or non-zero (logged). */
[[nodiscard]] int goto_runtime_home(const char* path, const char* alt) noexcept;
/* Writes pid into the file under a write lock that lasts only while writing. 0, or -1 (logged). flags bit 1 chooses the
   longer message for a held lock. *inode, when given, gets the file's inode. */
[[nodiscard]] int create_pidfile_extra(const char* path, pid_t pid, ino_t* inode, int flags) noexcept;
/* Write lock on the whole file without waiting; as fcntl. */
[[nodiscard]] int write_lock(int fd) noexcept;
int set_unlimited_core(int flags) noexcept;
/* Pins the process to one CPU; numbers from 1024 on give an empty set, which the kernel refuses. As sched_setaffinity.
   */
[[nodiscard]] int pin2cpu(int cpu) noexcept;

/* With strip, removes one trailing '/' of path (not of "/" itself); 0 when the directory can be opened, else -1. */
[[nodiscard]] int dir_check(char* path, int strip) noexcept;
/* Creates every missing directory of a file's path. 0, or an errno value (logged). */
[[nodiscard]] int mk_fpath_dirs(const char* fpath) noexcept;
/* The first path that exists, or null. */
[[nodiscard]] const char* pick_first_file(std::span<const char* const> paths) noexcept;
void reset_getopt_state() noexcept;
