/* The process: standard descriptors, limits, and the steps by which it becomes a daemon. Their order is the caller's:
   what needs root comes before the user is changed, what needs the terminal before the process leaves it. */
#include "process.h"

#include "guard.h"
#include "log.h"
#include "signals.h"
#include "syswrap.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr mode_t PIDFILE_MODE = 0644;
constexpr size_t PID_TEXT_MAX = 22;
constexpr int PIDF_LONG_MSG = 1; /* create_pidfile_extra */

/* ---- descriptors ---- */

/* A starter may leave them closed; then the next socket would be descriptor 1, and any line on standard output would go
   to its peer. */
void fill_std_fds() noexcept
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF)
            (void)open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY); /* takes fd, the lowest one free */
    }
}

/* The descriptor stays occupied, so that whatever still writes to it writes to nobody. */
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

/* What the kernel has always given when it cannot be asked. */
size_t fd_limit() noexcept
{
    rlimit lim{};
    if (getrlimit(RLIMIT_NOFILE, &lim) != 0)
        return 1024;
    return lim.rlim_cur;
}

/* Each download takes two or three descriptors: the starter's soft limit is an everyday 1024. */
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

/* A change of the user makes the kernel forbid dumps; this comes after it. */
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

/* An empty set is what a number that no set holds comes to; the kernel refuses it and the caller says so. */
int pin2cpu(int cpu) noexcept
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu >= 0 && cpu < CPU_SETSIZE)
        CPU_SET(cpu, &set);
    return sched_setaffinity(0, sizeof(set), &set);
}

/* ---- the way to a daemon ---- */

static int step_failed(const char* fn, const char* step) noexcept
{
    LOG_ERRNO("%s: failed at %s,", fn, step);
    return -1;
}

/* The parent leaves at once; the child goes on with 0, and with a quit signal that came meanwhile. */
static int fork_away(const char* fn) noexcept
{
    const pid_t pid = fork();
    if (pid < 0)
        return step_failed(fn, "fork");
    if (pid > 0) {
        pass_on_signals(pid);
        _exit(0);
    }
    return 0;
}

/* A log on one of the starter's descriptors goes to standard error, which stays open when the others become
   /dev/null. */
int daemonize() noexcept
{
    if (fork_away(__func__) != 0)
        return -1;
    if (setsid() < 0)
        return step_failed(__func__, "setsid");
    if (chdir("/") != 0)
        return step_failed(__func__, "chdir");
    umask(0);
    FILE* fp = log_fp(g_log);
    if (fp && fileno(fp) >= STDIN_FILENO && fileno(fp) <= STDERR_FILENO)
        log_default(g_log, stderr);
    null_fd(STDIN_FILENO);
    null_fd(STDOUT_FILENO);
    return fork_away(__func__); /* not a session leader any more: no terminal can become its own */
}

/* The group first: afterwards there is no right to change it. */
int run_as_user_id(uid_t uid, gid_t gid) noexcept
{
    if (setgid(gid) != 0) {
        LOG_ERRNO("%s: setgid(%u)", __func__, gid);
        return -1;
    }
    if (setuid(uid) != 0) {
        LOG_ERRNO("%s: setuid(%u)", __func__, uid);
        return -1;
    }
    return 0;
}

/* A user that does not exist is told from a look-up that has failed. */
int run_as_user(const char* name) noexcept
{
    errno = 0;
    const passwd* pw = getpwnam(name);
    if (!pw && errno != 0 && errno != ENOENT) {
        LOG_ERR("%s: getpwnam(%s): %s\n", __func__, name, strerror(errno));
        return -1;
    }
    if (!pw) {
        LOG_ERR("%s: getpwnam: user %s not found\n", __func__, name);
        return -1;
    }
    const uid_t uid = pw->pw_uid;
    const gid_t gid = pw->pw_gid;
    /* The user's groups, while there is still the right to set them. */
    if (geteuid() == 0 && initgroups(name, gid) != 0) {
        LOG_ERRNO("%s: initgroups(%s)", __func__, name);
        return -1;
    }
    return run_as_user_id(uid, gid);
}

/* A path that may not be entered is no reason to stop, as long as there is another place for a core dump. */
int goto_runtime_home(const char* path, const char* alt) noexcept
{
    if (path) {
        if (chdir(path) == 0)
            return 0;
        if (errno != EACCES) {
            LOG_ERRNO("chdir(%s) (param)", path);
            return -1;
        }
    }
    if (!alt) {
        errno = 0;
        const passwd* pw = getpwuid(geteuid());
        if (!pw) {
            LOG_ERRNO("getpwuid(%u)", geteuid());
            return -1;
        }
        LOG_DEBUG("%s: EUID(%u) home: %s\n", __func__, geteuid(), pw->pw_dir);
        alt = pw->pw_dir;
    }
    const int rc = chdir(alt);
    if (rc != 0)
        LOG_ERRNO("chdir(%s) (alt)", alt);
    return rc;
}

int write_lock(int fd) noexcept
{
    struct flock lock {
    };
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &lock);
}

/* fn is the name in the log. The file is locked, emptied and written by way of one descriptor, so that nobody sees half
   a number under the lock. */
static int fill_pidfile(const char* fn, const char* path, pid_t pid, ino_t* inode, int flags) noexcept
{
    /* Root writes here, perhaps in a directory of the daemon's user: not through a link, and never waiting for a
       reader. */
    const int fd = W_open(fn, path, O_WRONLY | O_CREAT | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK, PIDFILE_MODE);
    if (fd < 0)
        return -1;
    /* The lock ends with the descriptor: it guards only the moment of writing. */
    const scope_guard close_fd([fn, fd] { W_close(fn, fd); });
    struct stat st {
    };
    if (fstat(fd, &st) != 0) {
        LOG_ERRNO("%s: fstat(fd%d,..)", fn, fd);
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        LOG_ERR("%s: [%s] is not a regular file\n", fn, path);
        return -1;
    }
    if (write_lock(fd) != 0) {
        if (errno != EACCES && errno != EAGAIN)
            LOG_ERRNO("fcntl write-lock");
        else if (flags & PIDF_LONG_MSG)
            LOG_ERR("%s: file [%s] is locked (another instance of daemon must be running)\n", fn, path);
        else
            LOG_ERR("Another instance is already running\n");
        return -1;
    }
    std::array<char, PID_TEXT_MAX> text{};
    const int n = snprintf(text.data(), text.size(), "%d", pid);
    if (W_ftruncate(fn, fd, 0) != 0)
        return -1;
    if (W_write_f(fn, fd, text.data(), static_cast<size_t>(n), 0) != n) {
        LOG_ERR("%s: ERROR(%d) or not enough space for pid\n", fn, errno);
        return -1;
    }
    if (inode)
        *inode = st.st_ino;
    return 0;
}

int create_pidfile_extra(const char* path, pid_t pid, ino_t* inode, int flags) noexcept
{
    ASSERT(path && pid >= 1);
    if (!path[0]) {
        LOG_ERR("%s: no path specified\n", __func__);
        return -1;
    }
    const int rc = fill_pidfile(__func__, path, pid, inode, flags);
    if (rc == 0)
        LOG_NORM("Created pidfile [%s] with pid=%d.\n", path, pid);
    else
        LOG_ERR("%s: failed to create pidfile [%s] with pid=%d.\n", __func__, path, pid);
    return rc;
}

/* 0, not 1: only that makes the C library forget where in a group of letters it was. */
void reset_getopt_state() noexcept
{
    optind = 0;
}
