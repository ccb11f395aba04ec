/* Process utilities: signals and the standard descriptors; daemon, user and pid file are in util_daemon.cpp. */
#include "util.h"

#include "log.h"
#include "syswrap.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr int HANDLED_SIGNALS[] = {SIGTERM, SIGQUIT, SIGINT, SIGUSR2};
constexpr mode_t DIR_MODE = 0755; /* a daemon has no umask */
constexpr size_t FPATH_MAX = 512;

volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_goodbye = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_tdbg = 0;

static sigset_t g_wait_mask;
static bool g_is_masked = false; /* g_wait_mask is set */

/* ---- signals ---- */

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

int ignore_sigpipe() noexcept
{
    if (install(SIGPIPE, SIG_IGN) == 0)
        return 0;
    LOG_ERRNO("%s: sigaction (SIGPIPE)", __func__);
    return -1;
}

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

void block_handled_signals() noexcept
{
    const sigset_t set = handled_set();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    g_is_masked = false;
}

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

int poll_with_signals(int fd, short events, const timespec* limit) noexcept
{
    pollfd p = {fd, events, 0};
    return ppoll(&p, 1, limit, wait_sigmask());
}

/* ---- descriptors ---- */

void fill_std_fds() noexcept
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF)
            (void)open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY); /* takes fd, the lowest one free */
    }
}

void null_fd(int fd) noexcept
{
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0) {
        LOG_ERRNO("%s: open('/dev/null')", __func__);
        return;
    }
    if (null == fd)
        return; /* it was closed, and open has just taken its place */
    if (dup2(null, fd) < 0)
        LOG_ERRNO("%s: dup2(fd%d)", __func__, fd);
    close(null);
}

size_t fd_limit() noexcept
{
    rlimit lim{};
    if (getrlimit(RLIMIT_NOFILE, &lim) != 0)
        return 1024;
    return lim.rlim_cur;
}

int raise_fd_limit() noexcept
{
    rlimit lim{};
    if (getrlimit(RLIMIT_NOFILE, &lim) != 0) {
        LOG_ERRNO("%s: getrlimit", __func__);
        return -1;
    }
    const rlim_t soft = lim.rlim_cur;
    lim.rlim_cur = lim.rlim_max;
    if (soft != lim.rlim_max && setrlimit(RLIMIT_NOFILE, &lim) != 0) {
        LOG_ERRNO("%s: setrlimit", __func__);
        return -1;
    }
    LOG_INFO("%s: descriptor limit raised from %lu to %lu\n", __func__, soft, lim.rlim_max);
    return 0;
}

int set_unlimited_core(int /*flags*/) noexcept
{
    if (prctl(PR_GET_DUMPABLE) == 0) {
        LOG_INFO("%s: process is currently NOT core-dumpable; will enforce\n", __func__);
        if (prctl(PR_SET_DUMPABLE, 1) != 0) {
            LOG_ERRNO("%s: prctl(PR_SET_DUMPABLE, 1)", __func__);
            return -1;
        }
    }
    rlimit lim{};
    if (getrlimit(RLIMIT_CORE, &lim) != 0) {
        LOG_ERRNO("%s: getrlimit", __func__);
        return -1;
    }
    if (lim.rlim_cur == RLIM_INFINITY) {
        LOG_DEBUG("%s: already set\n", __func__);
        return 0;
    }
    LOG_DEBUG("%s: current=%ld/%ld\n", __func__, lim.rlim_cur, lim.rlim_max);
    lim.rlim_cur = lim.rlim_max = RLIM_INFINITY;
    if (setrlimit(RLIMIT_CORE, &lim) != 0) {
        LOG_ERRNO("%s: setrlimit", __func__);
        return -1;
    }
    LOG_DEBUG("%s: OK\n", __func__);
    return 0;
}

int pin2cpu(int cpu) noexcept
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu >= 0 && cpu < CPU_SETSIZE)
        CPU_SET(cpu, &set);
    return sched_setaffinity(0, sizeof(set), &set);
}

/* ---- files ---- */

int dir_check(char* path, int strip) noexcept
{
    const size_t len = strlen(path);
    if (strip && len > 1 && path[len - 1] == '/')
        path[len - 1] = '\0';
    DIR* dir = opendir(path);
    if (!dir)
        return -1;
    closedir(dir);
    return 0;
}

int mk_fpath_dirs(const char* fpath) noexcept
{
    const char* slash = strrchr(fpath, '/');
    if (!slash || slash == fpath)
        return 0;
    std::array<char, FPATH_MAX> dir{};
    const auto len = static_cast<size_t>(slash - fpath);
    if (len >= dir.size())
        return ENAMETOOLONG;
    memcpy(dir.data(), fpath, len);

    struct stat st {
    };
    if (stat(dir.data(), &st) == 0 && S_ISDIR(st.st_mode))
        return 0;
    for (size_t end = 1; end <= len; ++end) { /* after each part of the path, and at its end */
        if (dir[end] != '/' && end < len)
            continue;
        dir[end] = '\0';
        if (mkdir(dir.data(), DIR_MODE) != 0 && errno != EEXIST) {
            LOG_ERRNO("%s: mkdir(%s)", __func__, dir.data());
            return errno;
        }
        dir[end] = end < len ? '/' : '\0';
    }
    if (stat(dir.data(), &st) == 0 && S_ISDIR(st.st_mode))
        return 0;
    LOG_ERR("%s: [%s] is not a directory\n", __func__, dir.data());
    return ENOTDIR;
}

const char* pick_first_file(std::span<const char* const> paths) noexcept
{
    for (const char* path : paths) {
        if (access(path, F_OK) == 0)
            return path;
    }
    return nullptr;
}

void reset_getopt_state() noexcept
{
    optind = 0;
}
