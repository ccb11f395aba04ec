/* The process log: one line buffer, one stream. A record is built whole, filtered by the level of the module that emits
   it, and handed out with one write, so that lines of several processes do not mix. The log never fails its caller:
   what cannot be written is dropped, and errno stays as it was.
   The difficulty is who may be in here at once. There is one thread, but the handlers of signals log, too: the mask
   keeps them out of a record that is being built. A rotation logs its own records, which must not start another one. */
#include "log.h"

#include "guard.h"
#include "log_out.h"
#include "log_syslog.h"
#include "strops.h"
#include "timeop.h"

#include <algorithm>
#include <array>
#include <assert.h>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <string_view>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t LOG_BUF_CAP = LOG_LINE_MAX + 1;
constexpr size_t TIME_CAP = 64;
constexpr int BTRACE_FRAMES = 16;
constexpr size_t BTRACE_CAP = 512;

/* Written by the frames of signal handlers alone. */
volatile int g_in_signal = 0;

/* Writes to standard error until it is opened; a null stream later on means that lines are dropped. */
static log_ctx g_log_record = [] {
    log_ctx log{};
    log.fp = stderr;
    return log;
}();
log_ctx* const g_log = &g_log_record;

/* The record being built; written by the functions of the record protocol. Its text ends with a NUL. */
static struct {
    char text[LOG_BUF_CAP];
    size_t len;
} g_line;

/* ---- set-up ---- */

/* Sections pass everything until somebody has set them. */
void log_default(log_ctx* log, FILE* stream) noexcept
{
    out_detach(&log->out);
    log->fp = stream;
    log->is_pipe = 0;
    log->is_rotatable = false;
    log->name[0] = '\0';
    if (log == g_log && !log->llst.sec_ll_set)
        std::fill(std::begin(g_sec_ll), std::end(g_sec_ll), SECTION_level);
}

void log_set_group(log_ctx* log, n64_tag tag) noexcept
{
    log->group = tag;
}

n64_tag log_get_group(const log_ctx* log) noexcept
{
    return log->group;
}

void log_set_pid(log_ctx* log, pid_t pid) noexcept
{
    log->pid = pid;
}

pid_t log_get_pid(const log_ctx* log) noexcept
{
    return log->pid;
}

void log_timefmt(log_ctx* log, uint32_t flags) noexcept
{
    log->time_format = flags;
}

FILE* log_fp(const log_ctx* log) noexcept
{
    return log->fp;
}

/* Line by line, since a terminal is what it usually is. */
void log_mirror(log_ctx* log, FILE* stream) noexcept
{
    if (stream)
        (void)setvbuf(stream, nullptr, _IOLBF, 0);
    out_detach(&log->mirror_out);
    log->mirror_fp = stream;
}

FILE* log_mirror_fp(const log_ctx* log) noexcept
{
    return log->mirror_fp;
}

/* Only remembers and names: the connection is made by the first line that goes there. */
void config_syslog(log_ctx* log, const char* ident, int option, int facility) noexcept
{
    syslog_open(ident, option);
    log->syslg = {true, option, facility};
}

void glog_enable_syslog(const char* ident) noexcept
{
    config_syslog(g_log, ident, SYSLOG_DEFAULT, SYSLOG_DEFAULT);
}

void disable_syslog(log_ctx* log) noexcept
{
    if (log->syslg.enabled)
        syslog_close();
    log->syslg.enabled = false;
}

void glog_disable_syslog() noexcept
{
    disable_syslog(g_log);
}

/* ---- records ---- */

/* A record that could not be built leaves nothing behind that the next flush would write. */
void logbuf_reset() noexcept
{
    g_line.len = 0;
    g_line.text[0] = '\0';
}

bool logbuf_empty() noexcept
{
    return g_line.len == 0;
}

/* Appends the text of one field, its own blank and, with two_blanks, another one. */
static bool put_field(const char* what, bool two_blanks, std::string_view text) noexcept
{
    if (text.size() + 3 > LOG_BUF_CAP - g_line.len) {
        log_trouble("%s: %s buffer error (n=%d)", "logbuf_prepare", what, static_cast<int>(text.size()));
        return false;
    }
    memcpy(g_line.text + g_line.len, text.data(), text.size());
    g_line.len += text.size();
    g_line.text[g_line.len++] = ' ';
    if (two_blanks)
        g_line.text[g_line.len++] = ' ';
    g_line.text[g_line.len] = '\0';
    return true;
}

/* The last time text. Within a second of the same format only the six digits of the microseconds change. */
static struct {
    char text[TIME_CAP];
    size_t len;
    size_t usec_at; /* position of the microseconds, 0 = none */
    uint32_t format;
    time_t sec;
} g_time;

/* A clock that cannot be read leaves the record unwritten: a line without its time would be taken for a part of the
   last one. */
static bool put_time(uint32_t format) noexcept
{
    if (format & f_NO_TIME)
        return true;
    const uint32_t timer = format & f_TIMER_ID;
    if (timer > f_MONOTONIC_TIMER) {
        log_trouble("%s: unsupported timer value: %u\n", "logbuf_prepare", timer);
        return false;
    }
    timespec now{};
    if (clock_gettime(timer == f_MONOTONIC_TIMER ? CLOCK_MONOTONIC : CLOCK_REALTIME, &now) != 0) {
        log_trouble("%s: %s\n", "clock_gettime", strerror(errno));
        return false;
    }
    if (g_time.usec_at > 0 && g_time.format == format && g_time.sec == now.tv_sec) {
        long usec = now.tv_nsec / 1000;
        for (size_t i = 6; i > 0; --i, usec /= 10)
            g_time.text[g_time.usec_at + i - 1] = static_cast<char>('0' + usec % 10);
    } else {
        g_time.usec_at = 0;
        const int n = mk_timestr(&now, format, g_time.text, TIME_CAP);
        if (n < 1 || n >= static_cast<int>(TIME_CAP)) {
            log_trouble("%s: time buffer error (n=%d)\n", "logbuf_prepare", n);
            return false;
        }
        const char* dot = format & f_FMT_SECONDS ? nullptr : strchr(g_time.text, '.');
        g_time.len = static_cast<size_t>(n);
        g_time.usec_at = dot ? static_cast<size_t>(dot + 1 - g_time.text) : 0;
        g_time.format = format;
        g_time.sec = now.tv_sec;
    }
    return put_field("time", false, {g_time.text, g_time.len});
}

/* Time, process, level, group: the order is what readers of the log cut at. */
static bool put_head(log_ctx* log, int level) noexcept
{
    if (!put_time(log->time_format))
        return false;
    if (log->pid >= 1) {
        std::array<char, 24> text{};
        const char* end = std::to_chars(text.data(), text.data() + text.size(), log->pid).ptr;
        if (!put_field("pid", true, {text.data(), static_cast<size_t>(end - text.data())}))
            return false;
    }
    if (level >= MIN_level + 1 && !put_field("level", true, get_level_tag(level)))
        return false;
    if (log->group.num64 == 0)
        return true;
    if (log->group.sym8[sizeof(log->group.sym8) - 1] != '\0') [[unlikely]] {
        log->group.num64 = 0; /* the assertion's own record has a group, too */
        ASSERT_AS(false, "0 == log->group.sym8[sizeof(log->group.sym8)-1]");
    }
    return put_field("group", true, log->group.sym8);
}

/* ---- text from outside must not command a terminal ---- */

constexpr uint64_t bytes_of(unsigned char c) noexcept
{
    return 0x0101010101010101ULL * c;
}

static bool is_c1(unsigned char c) noexcept
{
    return c >= 0x80 && c <= 0x9f;
}

/* Length of the character at text, which has a NUL behind it: above 1 only for one of UTF-8 that is no control. */
static size_t char_len(const char* text) noexcept
{
    const auto lead = static_cast<unsigned char>(*text);
    const size_t len = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || (lead == 0xc2 && is_c1(static_cast<unsigned char>(text[1]))))
        return 1;
    for (size_t i = 1; i < len; ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xc0) != 0x80)
            return 1;
    }
    return len;
}

/* Writes "?" over the control bytes of text[len], which has a NUL behind it. Within a character of UTF-8 no byte is
   one; alone, 0x80 to 0x9f command a terminal like those below 0x20. Most records have nothing to hide, and are only
   looked at, eight bytes at a time. */
static void clean_message(char* text, size_t len, bool keeps_line_ends) noexcept
{
    if (len > 0 && text[len - 1] == '\n')
        --len;
    size_t i = 0;
    for (uint64_t w = 0; i + sizeof(w) <= len; i += sizeof(w)) {
        memcpy(&w, text + i, sizeof(w));
        const uint64_t del = w ^ bytes_of(0x7f);
        if (((w - bytes_of(0x20)) | (del - bytes_of(1)) | w) & bytes_of(0x80)) [[unlikely]]
            break; /* one of them is below 0x20, or 0x7f and above */
    }
    for (size_t step = 1; i < len; i += step) {
        const auto c = static_cast<unsigned char>(text[i]);
        step = char_len(text + i);
        const bool is_line_end = keeps_line_ends && (c == '\n' || (c == '\r' && text[i + 1] == '\n'));
        if (step == 1 && !is_line_end && (c < 0x20 || c == 0x7f || c == 0xc2 || is_c1(c)))
            text[i] = '?';
    }
}

/* errno goes through unchanged, for "%m" and for the caller, who logs between a call and the look at its errno. */
[[gnu::format(printf, 4, 0)]] static int prepare(log_ctx* log, int level, bool keeps_line_ends, const char* format,
                                                 va_list ap) noexcept
{
    const int err = errno;
    logbuf_reset();
    if (!put_head(log, level)) {
        logbuf_reset();
        return -1;
    }
    errno = err;
    char* const message = g_line.text + g_line.len;
    const size_t room = LOG_BUF_CAP - g_line.len;
    const int n = vsnprintf(message, room, format, ap);
    if (n < 0 || static_cast<size_t>(n) >= room) {
        log_trouble("%s: %s\n", "fprintf/vfprintf", strerror(errno));
        logbuf_reset();
        errno = err;
        return -1;
    }
    clean_message(message, static_cast<size_t>(n), keeps_line_ends);
    g_line.len += static_cast<size_t>(n);
    errno = err;
    return 0;
}

int logbuf_prepare(log_ctx* log, int level, const char* format, ...) noexcept
{
    va_list ap;
    va_start(ap, format);
    const int rc = prepare(log, level, false, format, ap);
    va_end(ap);
    return rc;
}

int logbuf_prepare_head(log_ctx* log, int level, const char* format, ...) noexcept
{
    va_list ap;
    va_start(ap, format);
    const int rc = prepare(log, level, true, format, ap);
    va_end(ap);
    return rc;
}

/* The records of a rotation itself never start another one. */
static bool g_is_rotating = false;

/* A log that is a terminal is its own mirror: one copy is enough there. */
void log_put_text(log_ctx* log, const char* text, size_t len) noexcept
{
    if (!log->fp)
        return;
    out_line(log->fp, &log->out, {text, len});
    log->total_out += len;
    if (log->mirror_fp && fileno(log->mirror_fp) != fileno(log->fp))
        out_line(log->mirror_fp, &log->mirror_out, {text, len});
}

/* Inside a signal handler the line is written and nothing else happens: syslog and rotation take locks and memory. */
void log_flush(log_ctx* log, int level) noexcept
{
    if (logbuf_empty() || !log->fp)
        return;
    const int err = errno;
    log_put_text(log, g_line.text, g_line.len);
    if (!g_in_signal && level < 0 && log->syslg.enabled)
        syslog_put(level, log->syslg.facility, {g_line.text, g_line.len});
    if (!g_in_signal && log->is_rotatable && !g_is_rotating) {
        bool is_due = log->rota.max_total > 0 && log->total_out >= log->rota.max_total;
        /* Asked for in any case: a file that is due by size at the day's end must have the next day's end set, too. */
        if (log->rota.max_log_tm > 0 && time(nullptr) > log->rota.max_log_tm) {
            log_set_eod(log, time(nullptr));
            is_due = true;
        }
        g_is_rotating = is_due;
        if (is_due)
            (void)log_rotate(log); /* it has reported what went wrong */
        g_is_rotating = false;
    }
    errno = err;
}

/* ---- recorder: none is attached in this program ---- */

static void lard_puts(lard* /*lh*/, const char* /*line*/) noexcept {}
static void lard_set_temp(lard* /*lh*/, int /*temperature*/) noexcept {}

void log_lard(log_ctx* log, int level) noexcept
{
    if (!log->lh || logbuf_empty())
        return;
    lard_puts(log->lh, g_line.text);
    if (level < 0)
        lard_set_temp(log->lh, -level);
}

/* ---- the end ---- */

/* The names need memory, which may be what has run out: then there is no trace, and the panic goes on. */
int btrace_to_buf(char* buf, size_t size) noexcept
{
    std::array<void*, BTRACE_FRAMES> frames{};
    const int n = backtrace(frames.data(), BTRACE_FRAMES);
    if (n <= 0) {
        log_trouble("%s: %s\n", "backtrace", strerror(errno));
        return -1;
    }
    const std::unique_ptr<char*, releaser<free>> names(backtrace_symbols(frames.data(), n));
    if (!names) {
        log_trouble("%s: %s\n", "backtrace_symbols", strerror(errno));
        return -1;
    }
    size_t pos = 0;
    for (int i = 0; i < n && pos + 1 < size; ++i) {
        const int len = snprintf(buf + pos, size - pos, "#%d: %s\n", i, names.get()[i]);
        if (len < 0)
            break;
        pos += std::min(static_cast<size_t>(len), size - pos - 1);
    }
    return 0;
}

/* The back-trace behind the line that says why. */
static void log_btrace(const char* title) noexcept
{
    std::array<char, BTRACE_CAP> trace{};
    if (btrace_to_buf(trace.data(), trace.size() - 1) == 0)
        LOG_HEAD(PANIC_level, "%s at:\n%s==\n", title, trace.data());
    if (g_log->fp)
        (void)fflush(g_log->fp);
}

void panic_abort() noexcept
{
    log_btrace("Aborting");
    abort();
}

/* The C library writes the last line itself, to a standard error that must not hold the end of the process up. */
void assert_failed(const char* text, const char* file, unsigned line, const char* func) noexcept
{
    log_btrace("ASSERT");
    unblock_stderr();
    __assert_fail(text, file, line, func);
}
