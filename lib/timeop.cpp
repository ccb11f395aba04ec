/* Clocks and the text of time stamps. The calendar conversion is not re-entered: a signal handler that logs while a
   record is being made loses its line rather than the locale's lock. */
#include "timeop.h"

#include "log.h"
#include "strops.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr int ZONE_CAP = 16;
constexpr long NS_PER_US = 1000;
constexpr time_t DAY_SEC = 86400;
constexpr time_t EOD_SEARCH = 10801; /* no clock change is longer than three hours */
constexpr time_t EOD_STEP = 900;

struct timefmt_word {
    const char* word;
    uint32_t flags;
};

static const timefmt_word TIMEFMT_WORDS[] = {
    {"raw_mono", f_RAW_TIME | f_MONOTONIC_TIMER},
    {"raw", f_RAW_TIME},
    {"no_time", f_NO_TIME},
    {"gmt", f_GMT_TIME},
    {"local", 0},
};

uint32_t match_timefmt(const char* word) noexcept
{
    for (const timefmt_word& w : TIMEFMT_WORDS) {
        if (ci_equal(word, w.word))
            return w.flags;
    }
    return f_BAD_TIME;
}

/* The way back, for the dump of a configuration. */
const char* timefmt_str(uint32_t flags) noexcept
{
    for (const timefmt_word& w : TIMEFMT_WORDS) {
        if (flags == w.flags)
            return w.word;
    }
    return "#error#";
}

/* Cached, since it stands in every line of the log: a change to summer time is seen when somebody asks for it anew. */
const char* get_timezone(int refresh) noexcept
{
    static std::array<char, ZONE_CAP> zone{};

    if (zone[0] && !refresh)
        return zone.data();
    const time_t now = time(nullptr);
    tm parts{};
    if (!localtime_r(&now, &parts)) {
        log_trouble("%s: %s\n", "localtime_r", strerror(errno));
        return nullptr;
    }
    const size_t n = strftime(zone.data(), ZONE_CAP - 1, " %Z", &parts);
    if (n >= 1 && n < static_cast<size_t>(ZONE_CAP))
        return zone.data();
    log_trouble("%s: %s\n", "strftime", strerror(errno));
    (void)copy_text(zone.data(), zone.size(), "#ERR#");
    return nullptr;
}

/* A length that is exactly the buffer's is let through with its last character lost: whoever calls has left room. */
int mk_timestr(const timespec* ts, uint32_t flags, char* buf, size_t len) noexcept
{
    if (flags & f_RAW_TIME) {
        const int n = snprintf(buf, len - 1, "%ld.%06ld", ts->tv_sec, ts->tv_nsec / NS_PER_US);
        return n >= 0 && static_cast<size_t>(n) < len ? n : -1;
    }
    /* Set around the two calls that take the C library's lock, in the one thread that there is. */
    static volatile bool is_busy = false;
    if (is_busy)
        return -EDEADLK;
    is_busy = true;
    tm t{};
    const tm* ok = (flags & f_GMT_TIME) ? gmtime_r(&ts->tv_sec, &t) : localtime_r(&ts->tv_sec, &t);
    is_busy = false;
    if (!ok) {
        log_trouble("%s: %s\n", "gmtime_r/localtime_r", strerror(errno));
        return -1;
    }
    const char* zone = get_timezone(0); /* the local one, also beside GMT fields */
    if (!zone)
        zone = "";
    int n = 0;
    if (flags & f_FMT_SECONDS) {
        n = snprintf(buf, len, "%04d-%02d-%02d %02d:%02d:%02d%s", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour,
                     t.tm_min, t.tm_sec, zone);
    } else {
        n = snprintf(buf, len, "%04d-%02d-%02d %02d:%02d:%02d.%06ld%s", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                     t.tm_hour, t.tm_min, t.tm_sec, ts->tv_nsec / NS_PER_US, zone);
    }
    if (n < 0 || static_cast<size_t>(n) > len) {
        log_trouble("%s: timestamp buffer needs %d bytes, only %zu provided\n", __func__, n, len);
        return -1;
    }
    return n;
}

int64_t mono_us() noexcept
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000000} + now.tv_nsec / NS_PER_US;
}

/* A clock that fails leaves the caller's time as it was: an old time is better than none. */
void set_clk_now(timespec* ts, clockid_t id) noexcept
{
    timespec now{};
    if (clock_gettime(id, &now) != 0)
        log_trouble("%s: %s\n", "clock_gettime", strerror(errno));
    else
        *ts = now;
}

void set_real_now(timespec* ts) noexcept
{
    set_clk_now(ts, CLOCK_REALTIME);
}

/* The local date of t as a number that grows from day to day; -1 on failure. */
static long local_date(time_t t) noexcept
{
    tm parts{};
    return localtime_r(&t, &parts) ? (parts.tm_year + 1900L) * 1000 + parts.tm_yday : -1;
}

/* 23:59:59 is an hour off, missing or there twice when the clock changes on that day. So it is only where the search
   begins: back from there to a time that is not in a later day, in steps shorter than any stay in a day that was
   entered twice. */
time_t get_endofday_utime(time_t t) noexcept
{
    tm parts{};
    if (!localtime_r(&t, &parts)) {
        LOG_ERR("%s: localtime_r() FAILED\n", __func__);
        return -1;
    }
    const long date = local_date(t);
    parts.tm_hour = EOD_HOUR;
    parts.tm_min = EOD_MIN;
    parts.tm_sec = 59;
    const time_t usual = mktime(&parts); /* -1 where the day has no such time */
    time_t later = (usual == -1 ? t + DAY_SEC : std::max(usual, t)) + EOD_SEARCH;
    while (later - EOD_STEP > t && local_date(later - EOD_STEP) > date)
        later -= EOD_STEP;
    time_t end = later - EOD_STEP > t ? later - EOD_STEP : t;
    while (later - end > 1) {
        const time_t middle = end + (later - end) / 2;
        (local_date(middle) > date ? later : end) = middle;
    }
    return end;
}
