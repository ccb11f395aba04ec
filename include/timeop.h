/* Clocks and the text of time stamps. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

/* Time-format flags of a log. The two low bits choose the clock. */
constexpr uint32_t f_REALTIME_TIMER = 0;
constexpr uint32_t f_MONOTONIC_TIMER = 1;
constexpr uint32_t f_TIMER_ID = 3;
constexpr uint32_t f_FMT_SECONDS = 16; /* calendar time without microseconds */
constexpr uint32_t f_NO_TIME = 256;
constexpr uint32_t f_GMT_TIME = 512;
constexpr uint32_t f_RAW_TIME = 1024; /* seconds.microseconds */
constexpr uint32_t f_BAD_TIME = 0x40000000;

constexpr int EOD_HOUR = 23;
constexpr int EOD_MIN = 59;

/* Text of *ts into buf[len]. Returns its length; -1 when it cannot be formatted (reported on standard error); -EDEADLK
   when called from inside another call of itself (a signal handler that logs). A length of exactly len means the text
   lost its last character. */
[[nodiscard]] int mk_timestr(const timespec* ts, uint32_t flags, char* buf, size_t len) noexcept;

/* Flags for a configuration word (any case): raw, raw_mono, no_time, gmt, local. Unknown: f_BAD_TIME. */
[[nodiscard]] uint32_t match_timefmt(const char* word) noexcept;
/* The word for flags, or "#error#". */
[[nodiscard]] const char* timefmt_str(uint32_t flags) noexcept;

/* CLOCK_MONOTONIC now, for what is timed within one handler: the loop's clock stands still meanwhile. */
[[nodiscard]] int64_t mono_us() noexcept;
[[nodiscard]] inline int64_t mono_ms() noexcept
{
    return mono_us() / 1000;
}

/* Reads CLOCK_REALTIME. On failure (reported on standard error) *ts stays as it was. */
void set_real_now(timespec* ts) noexcept;

/* Last second of the local day that contains t; -1 on failure (logged). */
[[nodiscard]] time_t get_endofday_utime(time_t t) noexcept;

/* Milliseconds as a wait limit: negative gives {-1, 0} (no limit), 0 gives {0, 0}. */
constexpr void ms2timespec(long ms, timespec* ts) noexcept
{
    if (ms < 0)
        *ts = {-1, 0};
    else
        *ts = {ms / 1000, (ms % 1000) * 1000000};
}

/* ---- offered, called in this room only ---- */

/* " ZONE" of the local time zone with its leading blank, cached after the first call; refresh != 0 computes it anew.
   Null on failure (reported on standard error). */
const char* get_timezone(int refresh) noexcept;
/* As set_real_now, of any clock. */
void set_clk_now(timespec* ts, clockid_t id) noexcept;
