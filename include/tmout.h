/* Time-out registry, which tells the loop how long it may wait, and deadline tests against the loop's clock. */
#pragma once

#include <cstddef>
#include <ctime>

constexpr int MAX_TMOUTS = 32;
constexpr long MIN_TIMER_VAL = -9999; /* "no time-out", and the lowest value accepted */

struct tmo_rec {
    long value;    /* ms, as given by the first holder */
    size_t nlocks; /* holders */
};

struct tmout_registry {
    tmo_rec rec[MAX_TMOUTS];
    long min; /* smallest value held, or MIN_TIMER_VAL */
};

/* The process's registry. set and rm must balance; an index out of range or an unbalanced rm is an assertion. A set on
   a kind that is already held adds a holder and leaves the value. */
void init_timeout_registry() noexcept;
void set_timeout(int index, long ms) noexcept;
void rm_timeout(int index) noexcept;
[[nodiscard]] long get_min_timeout() noexcept;

/* 1 when the loop's clock is strictly later than start + interval; start has come from rqs_set_now(). */
[[nodiscard]] int timed_out(timespec start, timespec interval) noexcept;

/* ---- offered, called in this room only ---- */

/* The same of another time: *ref, or without one CLOCK_REALTIME where real_clock is set. */
[[nodiscard]] int timed_out_as(timespec start, timespec interval, int real_clock, const timespec* ref) noexcept;

/* A registry of one's own; the same rules. */
void reg_init_timeout(tmout_registry* reg) noexcept;
void reg_set_timeout(tmout_registry* reg, int index, long ms) noexcept;
void reg_rm_timeout(tmout_registry* reg, int index) noexcept;
[[nodiscard]] long reg_min_timeout(const tmout_registry* reg) noexcept;
