/* Signals. The one difficulty: a handler writes a log record, so it must never run inside another record. The handled
   signals are blocked all the time and let in only where the program waits anyway, or between two events. */
#include "signals.h"

#include "log.h"

#include <cerrno>
#include <initializer_list>
#include <poll.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr int HANDLED_SIGNALS[] = {SIGTERM, SIGQUIT, SIGINT, SIGUSR2};

/* Written by the handlers below; g_tdbg is also taken back by whoever has acted upon it. */
volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_goodbye = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_tdbg = 0;

/* Written by wait_sigmask, from the mask that the starter has left. */
static sigset_t g_wait_mask;
static bool g_is_masked = false; /* g_wait_mask is set */

/* Without SA_RESTART: a wait that a signal has interrupted is to look at the flags. */
static int install(int signo, sig_fn handler) noexcept
{
    struct sigaction sa {
    };
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    return sigaction(signo, &sa, nullptr);
}

int handle_quit_signals(sig_fn handler) noexcept
{
    for (const int signo : {SIGTERM, SIGQUIT, SIGINT}) {
        if (install(signo, handler) != 0) {
            LOG_ERRNO("%s: sigaction (quit)", __func__);
            return -1;
        }
    }
    return 0;
}

int handle_sig(int signo, sig_fn handler) noexcept
{
    if (install(signo, handler) == 0)
        return 0;
    LOG_ERRNO("%s: sigaction (signo=%d)", __func__, signo);
    return -1;
}

/* A peer that has gone is told by the write's result, where it can be handled. */
int ignore_sigpipe() noexcept
{
    if (install(SIGPIPE, SIG_IGN) == 0)
        return 0;
    LOG_ERRNO("%s: sigaction (SIGPIPE)", __func__);
    return -1;
}

/* Of those signals that have a handler here; others keep what the starter has chosen. */
static sigset_t handled_set() noexcept
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signo : HANDLED_SIGNALS)
        sigaddset(&set, signo);
    return set;
}

/* Frames a handler: no other handler interrupts its record (the kernel restores the mask on return), the log neither
   rotates nor calls syslog meanwhile, and the interrupted code keeps its errno. */
class signal_frame
{
public:
    signal_frame() noexcept : err_(errno)
    {
        const sigset_t set = handled_set();
        sigprocmask(SIG_BLOCK, &set, nullptr);
        g_in_signal = 1;
    }
    ~signal_frame()
    {
        g_in_signal = 0;
        errno = err_;
    }
    signal_frame(const signal_frame&) = delete;
    signal_frame& operator=(const signal_frame&) = delete;

private:
    int err_;
};

/* What else could disturb the way out is ignored from here on. */
void on_sigquit(int signo) noexcept
{
    const signal_frame frame;
    g_quit = 1;
    if (signo != SIGQUIT)
        g_goodbye = 1;
    for (const int other : {SIGCHLD, SIGHUP, SIGUSR1})
        (void)install(other, SIG_IGN);
    LOG_NORM("QUIT-SIG(%d)\n", signo);
}

void on_tdbg(int signo) noexcept
{
    const signal_frame frame;
    g_tdbg = 1;
    LOG_NORM("T-DBG SIG(%d)\n", signo);
}

void on_sighup(int signo) noexcept
{
    const signal_frame frame;
    g_hup = 1;
    LOG_NORM("SIGHUP(%d)\n", signo);
}

void on_sigusr1(int signo) noexcept
{
    const signal_frame frame;
    g_usr1 = 1;
    LOG_NORM("SIGUSR1(%d)\n", signo);
}

/* The mask to wait with is derived from the new one when it is first asked for. */
void block_handled_signals() noexcept
{
    const sigset_t set = handled_set();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    g_is_masked = false;
}

/* Computed once: what whoever started this process had blocked stays blocked. */
const sigset_t* wait_sigmask() noexcept
{
    if (!g_is_masked) {
        sigprocmask(SIG_SETMASK, nullptr, &g_wait_mask);
        for (const int signo : HANDLED_SIGNALS)
            sigdelset(&g_wait_mask, signo);
        g_is_masked = true;
    }
    return &g_wait_mask;
}

/* Asking costs one call; opening and closing the mask, during which the handlers run, two more, and only when there is
   a signal. */
void deliver_pending_signals() noexcept
{
    sigset_t pending;
    if (sigpending(&pending) != 0)
        return;
    for (const int signo : HANDLED_SIGNALS) {
        if (sigismember(&pending, signo) != 1)
            continue;
        const sigset_t set = handled_set();
        sigset_t old;
        sigprocmask(SIG_UNBLOCK, &set, &old);
        sigprocmask(SIG_SETMASK, &old, nullptr);
        return;
    }
}

/* A child begins with the mask, but without what is pending in its parent. */
void pass_on_signals(pid_t child) noexcept
{
    sigset_t pending;
    if (sigpending(&pending) != 0)
        return;
    for (const int signo : HANDLED_SIGNALS) {
        if (sigismember(&pending, signo) == 1)
            (void)kill(child, signo);
    }
}

/* The mask changes with the call itself, so that no signal comes between a test of the flags and the wait. */
int poll_with_signals(int fd, short events, const timespec* limit) noexcept
{
    pollfd p = {fd, events, 0};
    return ppoll(&p, 1, limit, wait_sigmask());
}
