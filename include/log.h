/* The process log: records, levels, outputs, rotation, assertions. No output is ever waited for longer than a moment,
   and all together less than half a second in any five: then lines are dropped until somebody takes them again.

   A source file declares its log context once, near its top:
       static loglevel_ctx g_ll = LOGLEVEL_CTX(0);
   and writes records with LOG_ERR("%s: ...\n", __func__, ...). Arguments are evaluated only when the record is
   written; a filtered-out record costs one comparison. The message carries its own newline. */
#pragma once

#include "log_levels.h"
#include "tags.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/types.h>

constexpr size_t LOG_PATHNAME_MAX = 128;
constexpr size_t LOG_LINE_MAX = 2047; /* characters of one record */
constexpr size_t MAX_CYCLIC_ROTATIONS = 128;
constexpr uint32_t F_APPEND_OLD = 1; /* log_open_ex: keep writing to an existing file */

struct rotation_ctx {
    time_t tm[MAX_CYCLIC_ROTATIONS]; /* time suffix of each rotated file, 0 = slot unused */
    ssize_t next_idx;                /* slot of the next rotation */
    size_t max_idx;                  /* rotated files kept */
    size_t max_total;                /* size limit in bytes, 0 = none */
    time_t max_log_tm;               /* next end of day, 0 or less = no rotation at the day's end */
};

/* How a text gets to what is behind an output without waiting for its reader. */
enum log_out_kind {
    OUT_PLAIN,    /* a regular file, or a non-blocking description of our own */
    OUT_TERMINAL, /* the same of a terminal */
    OUT_SOCKET,
    OUT_SHARED, /* somebody else's description, which could not be opened anew */
};

/* An output. All zero: not looked at yet, which the first text does. */
struct log_out {
    int fd; /* what is written to; -1 = a stream in memory */
    log_out_kind kind;
    bool is_attached;
    bool is_own;     /* fd was opened for this alone */
    bool is_stalled; /* nobody takes what is written: texts are dropped until somebody does */
    bool is_torn;    /* the last text was cut: the next one begins with a line end */
};

struct lard; /* a recorder; none is ever attached in this program */

struct log_ctx {
    char name[LOG_PATHNAME_MAX]; /* file path or pipe command */
    unsigned is_pipe : 1;
    uint32_t time_format; /* f_* of timeop.h */
    FILE* fp;             /* null while the log has no stream: lines are dropped */
    FILE* mirror_fp;      /* not owned; null = none */
    size_t total_out;     /* bytes in the current file */
    struct {
        unsigned mod_ll_set : 1;
        unsigned sec_ll_set : 1;
    } llst; /* levels were set explicitly */
    rotation_ctx rota;
    pid_t pid;     /* written into each line when >= 1 */
    n64_tag group; /* written into each line when non-zero */
    lard* lh;
    struct {
        bool enabled;
        int option;
        int facility;
    } syslg;
    pid_t pipe_pid;     /* process behind a pipe log, 0 = none */
    bool is_rotatable;  /* fp is a regular file, and name is its own */
    log_out out;        /* what is behind fp */
    log_out mirror_out; /* what is behind mirror_fp */
};

/* The one log that every record goes to. */
extern log_ctx* const g_log;

/* Set by signal handlers around their one record: no syslog, no rotation meanwhile. */
extern volatile int g_in_signal;

/* ---- set-up ---- */

/* Names the program; must come before any log is opened. */
void glog_init(const char* app_tag) noexcept;
/* Writes to stream (not owned) from now on, closing nothing. */
void log_default(log_ctx* log, FILE* stream) noexcept;
/* Opens path for appending; without F_APPEND_OLD a non-empty old file is first renamed to path.MTIME (seconds), unless
   there is such a file: then the old one is appended to. What is no regular file (a FIFO, a device, a socket, a link to
   a standard descriptor) is written to and never renamed. A null path means standard error. 0, or -1 (reported on
   standard error). */
[[nodiscard]] int log_open_ex(log_ctx* log, const char* path, uint32_t flags) noexcept;
/* Pipes the log into a shell command, which gets a clean signal mask and defaults for the signals that this process
   ignores or handles. 0, or -1. */
[[nodiscard]] int log_popen(log_ctx* log, const char* command) noexcept;
/* Closes file or pipe (waiting a bounded time for the command) and syslog. */
void log_close(log_ctx* log) noexcept;

/* What each line bears from now on: group (all zero: none), pid (below 1: none), time (f_* of timeop.h). */
void log_set_group(log_ctx* log, n64_tag tag) noexcept;
void log_set_pid(log_ctx* log, pid_t pid) noexcept;
void log_timefmt(log_ctx* log, uint32_t flags) noexcept;
FILE* log_fp(const log_ctx* log) noexcept;            /* the log's stream, still its own; null: none */
void log_mirror(log_ctx* log, FILE* stream) noexcept; /* made line-buffered, not owned */

/* Copies of WARN and worse to syslog, under ident. */
void glog_enable_syslog(const char* ident) noexcept;
void disable_syslog(log_ctx* log) noexcept;

/* ---- rotation ---- */

/* Size limit in bytes (0 = none); files kept when 1..127, else 16; eod_start > 0 turns rotation at the day's end on. */
void log_set_rota(log_ctx* log, size_t max_bytes, size_t max_files, time_t eod_start) noexcept;
void log_set_eod(log_ctx* log, time_t start) noexcept; /* the same of the day of start; 0 turns it off */
time_t log_rota_eod(const log_ctx* log) noexcept;      /* the end of the day that is waited for; 0: none */
/* Renames the file to name.TIME (seconds) and starts a fresh one; where that name is another log's, goes on in the old
   file (ERR). 0, or -1 without a stream or nothing to rotate (reported on standard error). Never from a handler. */
int log_rotate(log_ctx* log) noexcept;

/* ---- the record protocol behind the macros ---- */

void logbuf_reset() noexcept; /* empties it */
/* Builds the record in the one line buffer. Control bytes in the message show as "?": all but its own newline, or, with
   _head, all but line ends. 0, or -1: the record does not fit or has no time, and the buffer is empty. */
[[gnu::format(printf, 3, 4)]] int logbuf_prepare(log_ctx* log, int level, const char* format, ...) noexcept;
[[gnu::format(printf, 3, 4)]] int logbuf_prepare_head(log_ctx* log, int level, const char* format, ...) noexcept;
/* Writes the record out, WARN and worse to syslog, too, and rotates when it is time. errno stays. */
void log_flush(log_ctx* log, int level) noexcept;
/* Writes a ready text of several lines to the log's stream and its mirror. */
void log_put_text(log_ctx* log, const char* text, size_t len) noexcept;
/* Says on standard error what cannot stand in the log: its own troubles. Never waits long, keeps errno. */
[[gnu::format(printf, 1, 2)]] void log_trouble(const char* format, ...) noexcept;
[[nodiscard]] inline bool lard_enabled(const log_ctx* log) noexcept
{
    return log->lh != nullptr;
}
void log_lard(log_ctx* log, int level) noexcept;

#define LOG_WITH(prepare, level, ...)                                                                                  \
    do {                                                                                                               \
        if (log_passes(g_ll, (level)) || lard_enabled(g_log)) [[unlikely]] {                                           \
            logbuf_reset();                                                                                            \
            (void)prepare(g_log, (level), __VA_ARGS__);                                                                \
            if (lard_enabled(g_log))                                                                                   \
                log_lard(g_log, (level));                                                                              \
            if (log_passes(g_ll, (level)))                                                                             \
                log_flush(g_log, (level));                                                                             \
        }                                                                                                              \
    } while (0)

#define LOG_AT(level, ...) LOG_WITH(logbuf_prepare, level, __VA_ARGS__)
/* For a record that shows a head, or another text of several lines, as it stands. */
#define LOG_HEAD(level, ...) LOG_WITH(logbuf_prepare_head, level, __VA_ARGS__)

#define LOG_ERR(...) LOG_AT(ERR_level, __VA_ARGS__)
#define LOG_CRIT(...) LOG_AT(CRIT_level, __VA_ARGS__)
#define LOG_WARN(...) LOG_AT(WARN_level, __VA_ARGS__)
#define LOG_NORM(...) LOG_AT(NORM_level, __VA_ARGS__)
#define LOG_INFO(...) LOG_AT(INFO_level, __VA_ARGS__)
#define LOG_DEBUG(...) LOG_AT(DEBUG_level, __VA_ARGS__)

/* For a call that has failed: the message, at ERR, with errno and its text at its end. errno stays as it was.
     LOG_ERRNO("%s: stat(%s, ..)", __func__, path);    "f: stat(/x, ..) ERROR(2): No such file or directory"
   LOG_ERRNUM takes the number from elsewhere, as from a socket's pending error. */
#define LOG_ERRNO(format, ...) LOG_ERRNUM(errno, format __VA_OPT__(, ) __VA_ARGS__)
#define LOG_ERRNUM(num, format, ...)                                                                                   \
    do {                                                                                                               \
        const int num_ = (num), errno_ = errno;                                                                        \
        LOG_ERR(format " ERROR(%d): %s\n" __VA_OPT__(, ) __VA_ARGS__, num_, strerror(num_));                           \
        errno = errno_;                                                                                                \
    } while (0)

/* Logs the message at PANIC, then a back-trace, flushes and aborts. */
#define PANIC(...)                                                                                                     \
    do {                                                                                                               \
        LOG_AT(PANIC_level, __VA_ARGS__);                                                                              \
        panic_abort();                                                                                                 \
    } while (0)
[[noreturn]] void panic_abort() noexcept;

/* States what only a fault of this program can break. Always on; logs a back-trace, flushes and aborts. */
#define ASSERT_AS(condition, text)                                                                                     \
    do {                                                                                                               \
        if (!(condition)) [[unlikely]]                                                                                 \
            assert_failed((text), __FILE__, __LINE__, __func__);                                                       \
    } while (0)
#define ASSERT(condition) ASSERT_AS(condition, #condition)
/* For the end of a function that is not reached: no return is wanted behind it. */
#define NOT_REACHED(text) assert_failed((text), __FILE__, __LINE__, __func__)
[[noreturn]] void assert_failed(const char* text, const char* file, unsigned line, const char* func) noexcept;

/* Switches the log group for the handling of one record and restores the old one on every return. */
class [[nodiscard]] log_group_guard
{
public:
    log_group_guard() noexcept : old_(g_log->group) {}
    explicit log_group_guard(n64_tag tag) noexcept : log_group_guard() { g_log->group = tag; }
    ~log_group_guard() { g_log->group = old_; }
    log_group_guard(const log_group_guard&) = delete;
    log_group_guard& operator=(const log_group_guard&) = delete;

private:
    n64_tag old_;
};

/* ---- offered, called in this room only ---- */

void config_syslog(log_ctx* log, const char* ident, int option, int facility) noexcept;
[[nodiscard]] bool logbuf_empty() noexcept;
/* Writes "#0: frame\n" lines until buf is full. 0, or -1 (reported on standard error). */
int btrace_to_buf(char* buf, size_t size) noexcept;

/* ---- offered, not called here ---- */

n64_tag log_get_group(const log_ctx* log) noexcept;
pid_t log_get_pid(const log_ctx* log) noexcept;
FILE* log_mirror_fp(const log_ctx* log) noexcept;
void glog_disable_syslog() noexcept;
size_t log_rota_maxfiles(const log_ctx* log) noexcept;
size_t log_rota_maxsize(const log_ctx* log) noexcept;
