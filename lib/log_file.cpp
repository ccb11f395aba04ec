/* The log's outputs: files, pipes, and the rotation of files. Trouble with the log itself goes to standard error.
   The difficulty is that a path may be anything: a FIFO without a reader, a terminal, a socket, a link to what the
   starter has opened. Nothing may be waited for, and only a regular file that is this log's own is ever renamed. */
#include "log.h"

#include "guard.h"
#include "log_out.h"
#include "log_syslog.h"
#include "strops.h"
#include "timeop.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr mode_t LOG_MODE = 0644;
constexpr int PIPE_CAPACITY = 1 << 20; /* a command may be busy for a while before lines are dropped */
constexpr size_t ROTATED_NAME_MAX = 160;
constexpr size_t DEFAULT_ROTATED = 16;
constexpr int PIPE_WAIT_STEPS = 15; /* of 10 ms: a command that ignores the end of its input is left behind */
constexpr long PIPE_WAIT_STEP_NS = 10000000;

/* Written by glog_init. */
static struct {
    bool is_ready;
    char app_tag[LOG_PATHNAME_MAX];
} g_logmod;

void glog_init(const char* app_tag) noexcept
{
    ASSERT(app_tag);
    cut_text(g_logmod.app_tag, sizeof(g_logmod.app_tag), app_tag);
    g_logmod.is_ready = true;
}

/* ---- opening ---- */

/* Whether st is of what one of the standard descriptors refers to. That one, or -1. */
static int find_std_fd(const struct stat& st) noexcept
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        struct stat other {
        };
        if (fstat(fd, &other) == 0 && other.st_dev == st.st_dev && other.st_ino == st.st_ino)
            return fd;
    }
    return -1;
}

/* The mode is LOG_MODE whatever the umask: other users' tools read the log. Opening a FIFO or a device does not wait
   for its other end, nor does writing; a regular file does not know the difference. */
static FILE* open_file(const char* path) noexcept
{
    const mode_t mask = umask(0);
    int fd = open(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, LOG_MODE);
    umask(mask);
    struct stat st {
    };
    if (fd < 0 && errno == ENXIO && stat(path, &st) == 0 && S_ISSOCK(st.st_mode)) {
        /* A socket cannot be opened: /dev/stdout that is one is duplicated, a bound one connected to. */
        const int std_fd = find_std_fd(st);
        bool is_stream = false;
        fd = std_fd >= 0 ? fcntl(std_fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1) : connect_unix(path, &is_stream);
    }
    if (fd < 0)
        return nullptr;
    FILE* fp = fdopen(fd, "r+");
    if (!fp)
        close(fd);
    else
        (void)setvbuf(fp, nullptr, _IONBF, 0);
    return fp;
}

/* The command gets an empty signal mask and defaults for what this process ignores or handles; what whoever started
   this process ignores (SIGHUP under nohup) stays ignored. It reads the other end of the pipe; this end is closed in
   it, or it would never see the end of its input. */
static FILE* open_pipe(const char* command, pid_t* pid) noexcept
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return nullptr;
    const scope_guard close_in([&fds] { close(fds[0]); });
    scope_guard close_out([&fds] { close(fds[1]); });
    posix_spawnattr_t attr;
    if (posix_spawnattr_init(&attr) != 0)
        return nullptr;
    const scope_guard free_attr([&attr] { posix_spawnattr_destroy(&attr); });
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0)
        return nullptr;
    const scope_guard free_actions([&actions] { posix_spawn_file_actions_destroy(&actions); });

    sigset_t none;
    sigset_t defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (const int signo : {SIGPIPE, SIGXFSZ, SIGTERM, SIGQUIT, SIGINT, SIGUSR2})
        sigaddset(&defaults, signo);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawn_file_actions_adddup2(&actions, fds[0], STDIN_FILENO);

    std::array<char, 3> sh{"sh"};
    std::array<char, 3> opt{"-c"};
    std::array<char, LOG_PATHNAME_MAX + 1> text{};
    cut_text(text.data(), text.size(), command);
    char* const argv[] = {sh.data(), opt.data(), text.data(), nullptr};
    errno = posix_spawn(pid, "/bin/sh", &actions, &attr, argv, environ);
    if (errno != 0)
        return nullptr;

    (void)fcntl(fds[1], F_SETFL, O_NONBLOCK);         /* this end only */
    (void)fcntl(fds[1], F_SETPIPE_SZ, PIPE_CAPACITY); /* refused: the command has to be quicker */
    FILE* fp = fdopen(fds[1], "w");
    if (!fp)
        return nullptr;
    close_out.release();
    (void)setvbuf(fp, nullptr, _IOLBF, 0);
    return fp;
}

/* Whether path, behind which is a file of status st, may be renamed: a regular file, and not one that whoever started
   this process has opened and path is only a link to, like /dev/stdout. */
static bool is_own_file(const char* path, const struct stat& st) noexcept
{
    struct stat link {
    };
    return S_ISREG(st.st_mode) && (lstat(path, &link) != 0 || !S_ISLNK(link.st_mode) || find_std_fd(st) < 0);
}

/* A failure leaves the log with the stream it had. The size that an old file has already counts for the next
   rotation. */
static int do_open(log_ctx* log, const char* path, bool is_pipe) noexcept
{
    ASSERT(g_logmod.is_ready);
    if (!path) {
        log_default(log, stderr);
        return 0;
    }
    if (strlen(path) >= sizeof(log->name)) {
        log_trouble("Log pathname/command is too long, %zu bytes allowed\n", LOG_PATHNAME_MAX);
        return -1;
    }
    pid_t pid = 0;
    FILE* fp = is_pipe ? open_pipe(path, &pid) : open_file(path);
    if (!fp) {
        log_trouble("%s: uid/gig=%u/%u %s(%s) ERROR(%d): %s\n", __func__, geteuid(), getegid(),
                    is_pipe ? "popen" : "fopen", path, errno, strerror(errno));
        return -1;
    }
    cut_text(log->name, sizeof(log->name), path);
    out_detach(&log->out);
    log->fp = fp;
    log->is_pipe = is_pipe ? 1 : 0;
    log->is_rotatable = false;
    log->pipe_pid = pid;
    log->total_out = 0;
    if (is_pipe)
        return 0;
    struct stat st {
    };
    if (fstat(fileno(fp), &st) != 0) {
        log_trouble("%s: fstat(%s) ERROR(%d): %s\n", __func__, path, errno, strerror(errno));
    } else if (S_ISREG(st.st_mode)) {
        log->total_out = static_cast<size_t>(st.st_size);
        log->is_rotatable = is_own_file(path, st);
    }
    return 0;
}

/* What stands under the name of an old log is a log, too, and never replaced. A file system that cannot promise that
   renames as it does. */
static int move_aside(const char* from, const char* to) noexcept
{
    const int rc = renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
    return rc != 0 && (errno == EINVAL || errno == ENOSYS) ? rename(from, to) : rc;
}

/* A non-empty old log is moved aside under its modification time; where that name is taken, it is gone on with. A path
   that is too long is refused by the opening, and nothing is moved for it. */
int log_open_ex(log_ctx* log, const char* path, uint32_t flags) noexcept
{
    struct stat st {
    };
    const bool is_renewed = path && !(flags & F_APPEND_OLD) && strlen(path) < LOG_PATHNAME_MAX;
    if (is_renewed && stat(path, &st) != 0) {
        if (errno != ENOENT)
            log_trouble("stat(%s) ERROR(%d): %s\n", path, errno, strerror(errno));
    } else if (is_renewed && st.st_size > 0 && is_own_file(path, st)) {
        std::array<char, ROTATED_NAME_MAX> aside{};
        snprintf(aside.data(), aside.size(), "%s.%lu", path, st.st_mtime);
        if (move_aside(path, aside.data()) != 0)
            log_trouble("Cannot rename(%s, %s): ERROR(%d): %s\n", path, aside.data(), errno, strerror(errno));
    }
    return do_open(log, path, false);
}

int log_popen(log_ctx* log, const char* command) noexcept
{
    return do_open(log, command, true);
}

/* ---- closing ---- */

/* 0, or -1 with errno. */
static int log_close_stream(log_ctx* log) noexcept
{
    FILE* fp = log->fp;
    const pid_t pid = log->pipe_pid;
    out_detach(&log->out);
    log->fp = nullptr;
    log->pipe_pid = 0;
    const int rc = fclose(fp);
    if (pid <= 0)
        return rc;
    /* Bounded: the last lines are worth a moment, but a command that hangs must not keep the agent from ending. What it
       did not read any more is no fault of the log's. */
    const timespec step = {0, PIPE_WAIT_STEP_NS};
    for (int i = 0; i < PIPE_WAIT_STEPS; ++i) {
        const pid_t ended = waitpid(pid, nullptr, WNOHANG);
        if (ended == pid || (ended < 0 && errno == ECHILD))
            return 0;
        if (ended < 0 && errno != EINTR)
            return -1;
        nanosleep(&step, nullptr);
    }
    return 0;
}

/* Standard output and error are the process's, and stay open. */
void log_close(log_ctx* log) noexcept
{
    if (log->fp && log->fp != stdout && log->fp != stderr) {
        const bool is_pipe = log->is_pipe;
        if (log_close_stream(log) != 0) {
            log_trouble("%s: %s error(%d) for the application log: %s\n", __func__, is_pipe ? "pclose" : "fclose",
                        errno, strerror(errno));
        }
    }
    out_detach(&log->out);
    out_detach(&log->mirror_out);
    log->fp = nullptr;
    log->mirror_fp = nullptr;
    disable_syslog(log);
    log->lh = nullptr;
}

/* ---- rotation ---- */

/* What a configuration may say that makes no sense becomes the default: a log must not fail for it. */
void log_set_rota(log_ctx* log, size_t max_bytes, size_t max_files, time_t eod_start) noexcept
{
    log->rota.max_total = max_bytes;
    log->rota.max_idx = max_files >= 1 && max_files < MAX_CYCLIC_ROTATIONS ? max_files : DEFAULT_ROTATED;
    log_set_eod(log, eod_start);
}

void log_set_eod(log_ctx* log, time_t start) noexcept
{
    log->rota.max_log_tm = start > 0 ? get_endofday_utime(start) : 0;
}

time_t log_rota_eod(const log_ctx* log) noexcept
{
    return log->rota.max_log_tm;
}

size_t log_rota_maxfiles(const log_ctx* log) noexcept
{
    return log->rota.max_idx;
}

size_t log_rota_maxsize(const log_ctx* log) noexcept
{
    return log->rota.max_total;
}

using rotated_name = std::array<char, ROTATED_NAME_MAX>;

static bool mk_rotated_name(const char* fn, const log_ctx* log, time_t tm, rotated_name* name) noexcept
{
    const int n = snprintf(name->data(), name->size(), "%s.%lu", log->name, tm);
    if (n > 0 && static_cast<size_t>(n) < name->size())
        return true;
    log_trouble("%s: log log->name is too long (%d bytes), max=%zu\n", fn, n, name->size() - 1);
    return false;
}

/* Books a rotation and deletes the oldest one when its slot comes round again. A rotation within the same second has
   replaced the file of that name, which is the fresh one and stays. */
static void handle_rotation(log_ctx* log, time_t tm, const char* name) noexcept
{
    rotation_ctx& r = log->rota;
    const ssize_t i = r.next_idx;
    LOG_NORM("[%s]: previous log rotated to [%s] tm=%ld, idx=%zd\n", g_logmod.app_tag, name, tm, i);
    if (r.tm[i] && r.tm[i] != tm) {
        rotated_name oldest{};
        if (!mk_rotated_name(__func__, log, r.tm[i], &oldest))
            return;
        if (unlink(oldest.data()) != 0) {
            LOG_ERR("%s: unlink(%s) ERROR(%d) : %s\n", __func__, oldest.data(), errno, strerror(errno));
        } else {
            LOG_DEBUG("%s: replaced %s with %s.%lu\n", __func__, oldest.data(), log->name, tm);
        }
    }
    for (time_t& other : r.tm) {
        if (other == tm)
            other = 0; /* the same name: one file, one slot */
    }
    r.tm[i] = tm;
    r.next_idx = static_cast<size_t>(i + 1) < r.max_idx ? i + 1 : 0;
    errno = 0;
}

/* Why the log cannot be rotated, or null. */
static const char* no_rotation(const log_ctx* log) noexcept
{
    if (!log->fp || !log->name[0])
        return "nothing to rotate.";
    if (log->fp == stdout || log->fp == stderr)
        return "stdout and stderr cannot be rotated.";
    if (log->is_pipe || log->name[0] == '|')
        return "not supported for pipe-based streams.";
    return log->is_rotatable ? nullptr : "not supported for what is no regular file.";
}

/* The stream is closed before the rename and opened anew after it, so that no line is written into a file under its
   rotated name. A rename that fails is tried again after another max_total bytes. */
int log_rotate(log_ctx* log) noexcept
{
    if (const char* why = no_rotation(log)) {
        log_trouble("%s: %s\n", __func__, why);
        return -1;
    }
    const time_t now = time(nullptr);
    rotated_name name{};
    if (!mk_rotated_name(__func__, log, now, &name))
        return -1;
    int err = 0;
    struct stat own {
    };
    struct stat st {
    };
    if (fstat(fileno(log->fp), &own) != 0 || stat(log->name, &st) != 0)
        err = errno;
    else if (own.st_dev != st.st_dev || own.st_ino != st.st_ino)
        err = ESTALE; /* what somebody has put at the path is not the log's to rename */
    if (log_close_stream(log) != 0) {
        err = errno;
        log_trouble("%s: failed to close [%s], ERROR(%d): %s\n", __func__, log->name, err, strerror(err));
        return -1;
    }
    /* Seconds tell rotations apart: the second one within a second replaces the first one's file, and no other. */
    const bool is_repeated = std::find(std::begin(log->rota.tm), std::end(log->rota.tm), now) != std::end(log->rota.tm);
    if (err == 0 && (is_repeated ? rename(log->name, name.data()) : move_aside(log->name, name.data())) != 0)
        err = errno;
    std::array<char, 512> failure{};
    if (err != 0) {
        snprintf(failure.data(), failure.size(), "%s: failed to rename [%s] to [%s], ERROR(%d): %s", __func__,
                 log->name, name.data(), err, strerror(err));
        log_trouble("%s - rotation is to be stopped\n", failure.data());
    }
    std::array<char, LOG_PATHNAME_MAX> path{};
    cut_text(path.data(), path.size(), log->name);
    if (const int rc = do_open(log, path.data(), false))
        return rc;
    if (failure[0]) {
        log->total_out = 0; /* the next attempt comes after another max_total bytes */
        LOG_ERR("%s: %s - rotation cancelled this time\n", __func__, failure.data());
    } else if (log->rota.max_idx > 0) {
        handle_rotation(log, now, name.data());
    }
    return 0;
}
