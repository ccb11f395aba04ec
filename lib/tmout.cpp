/* Time-out registry and deadline tests. The loop asks for the smallest value in every round, while holders come and go
   once an order: min is kept ready at every change, and searched for only when the kind that set it goes. */
#include "tmout.h"

#include "log.h"
#include "rqs.h"
#include "timeop.h"

#include <limits>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr long NS_MAX = 999999999;

/* Written by set_timeout and rm_timeout, on behalf of everybody who wants to be woken. */
static tmout_registry g_reg{.rec = {}, .min = MIN_TIMER_VAL};

void init_timeout_registry() noexcept
{
    reg_init_timeout(&g_reg);
}

void set_timeout(int index, long ms) noexcept
{
    reg_set_timeout(&g_reg, index, ms);
}

void rm_timeout(int index) noexcept
{
    reg_rm_timeout(&g_reg, index);
}

long get_min_timeout() noexcept
{
    return reg_min_timeout(&g_reg);
}

void reg_init_timeout(tmout_registry* reg) noexcept
{
    *reg = tmout_registry{.rec = {}, .min = MIN_TIMER_VAL};
}

/* The first holder's value stands until the last one goes: a kind has one pace, and who adds himself to it must not
   change that of the others. */
void reg_set_timeout(tmout_registry* reg, int idx, long value) noexcept
{
    ASSERT(idx >= 0 && idx < MAX_TMOUTS);
    ASSERT(value >= MIN_TIMER_VAL);
    tmo_rec& rec = reg->rec[idx];
    if (++rec.nlocks == 1) {
        rec.value = value;
        if (reg->min < 0 || reg->min > value)
            reg->min = value;
    }
    LOG_DEBUG("%s: timeout[%d] lk=%zu val=%ld, min_val=%ld\n", __func__, idx, rec.nlocks, value, reg->min);
}

/* An unbalanced removal is asserted: it would take a time-out from somebody who still waits for it. */
void reg_rm_timeout(tmout_registry* reg, int idx) noexcept
{
    ASSERT(idx >= 0 && idx < MAX_TMOUTS);
    tmo_rec& rec = reg->rec[idx];
    ASSERT(rec.nlocks > 0);
    if (--rec.nlocks > 0) {
        LOG_DEBUG("%s: timeout[%d] lk=%zu\n", __func__, idx, rec.nlocks);
        return;
    }
    const long old = rec.value;
    rec.value = 0;
    if (reg->min == 0 || reg->min >= old) { /* it may have been the smallest */
        long least = std::numeric_limits<long>::max();
        bool is_picked = false;
        for (size_t i = 0; i < MAX_TMOUTS; ++i) {
            const tmo_rec& other = reg->rec[i];
            if (other.nlocks == 0 || other.value >= least)
                continue;
            least = other.value;
            is_picked = true;
            LOG_DEBUG("%s: picked rec[%zu] val=%ld, lk=%zu\n", __func__, i, other.value, other.nlocks);
        }
        reg->min = is_picked ? least : MIN_TIMER_VAL;
    }
    LOG_DEBUG("%s: removed timeout[%d]: val=%ld, min_val=%ld\n", __func__, idx, old, reg->min);
}

long reg_min_timeout(const tmout_registry* reg) noexcept
{
    return reg->min;
}

int timed_out(timespec start, timespec interval) noexcept
{
    return timed_out_as(start, interval, 0, nullptr);
}

/* Strictly later: a deadline of the same nanosecond is kept. One beyond the range of the clock is never missed. */
int timed_out_as(timespec start, timespec interval, int real_clock, const timespec* ref) noexcept
{
    timespec now{};
    if (ref)
        now = *ref;
    else if (real_clock)
        set_real_now(&now);
    else
        rqs_set_now(&now);

    timespec deadline = {0, start.tv_nsec + interval.tv_nsec};
    if (__builtin_add_overflow(start.tv_sec, interval.tv_sec, &deadline.tv_sec))
        return 0;
    if (deadline.tv_nsec > NS_MAX) {
        deadline.tv_nsec -= NS_MAX + 1;
        ++deadline.tv_sec;
    }
    if (now.tv_sec != deadline.tv_sec)
        return now.tv_sec > deadline.tv_sec;
    return now.tv_nsec > deadline.tv_nsec;
}
