/* Process utilities of a daemon: detaching, giving up root, working directory, pid file. */
#include "util.h"

#include "guard.h"
#include "log.h"
#include "syswrap.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr mode_t PIDFILE_MODE = 0644;
constexpr size_t PID_TEXT_MAX = 22;
constexpr int PIDF_LONG_MSG = 1; /* create_pidfile_extra */

static int step_failed(const char* fn, const char* step) noexcept
{
    LOG_ERRNO("%s: failed at %s,", fn, step);
    return -1;
}

/* The parent leaves at once; the child goes on with 0. */
static int fork_away(const char* fn) noexcept
{
    const pid_t pid = fork();
    if (pid < 0)
        return step_failed(fn, "fork");
    if (pid > 0)
        _exit(0);
    return 0;
}

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
