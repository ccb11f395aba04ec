/* Signals: handlers that set flags, and a mask that lets them in only where the program waits. */
#pragma once

#include <csignal>
#include <ctime>
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

/* The handled signals (SIGTERM, SIGQUIT, SIGINT, SIGUSR2) stay blocked except while the loop waits, so that no handler
   runs inside a half-written record and no signal slips in between the test of a flag and the wait. */
void block_handled_signals() noexcept;
/* The mask to wait with: the process's own without the handled signals. */
[[nodiscard]] const sigset_t* wait_sigmask() noexcept;
/* Lets pending handled signals run their handlers now. One system call when none is pending. */
void deliver_pending_signals() noexcept;
/* Sends pending handled signals on to the child that goes on in this process's place, before this one ends. */
void pass_on_signals(pid_t child) noexcept;
/* poll() of one descriptor with the handled signals let in, for a wait outside the loop. limit null = none. As ppoll:
   -1 with EINTR when a handler has run. */
[[nodiscard]] int poll_with_signals(int fd, short events, const timespec* limit) noexcept;

/* ---- offered, not called here ---- */

void on_sighup(int signo) noexcept;
void on_sigusr1(int signo) noexcept;
