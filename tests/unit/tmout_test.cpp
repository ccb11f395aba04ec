#include "tmout.h"

#include <gtest/gtest.h>

struct Registry : testing::Test {
    tmout_registry reg{};
    Registry() { reg_init_timeout(&reg); }
};

TEST_F(Registry, TheFirstHolderSetsTheValue)
{
    EXPECT_EQ(reg_min_timeout(&reg), MIN_TIMER_VAL);
    reg_set_timeout(&reg, 1, 5000);
    reg_set_timeout(&reg, 1, 3000);
    EXPECT_EQ(reg_min_timeout(&reg), 5000);
    EXPECT_EQ(reg.rec[1].nlocks, 2u);
    reg_rm_timeout(&reg, 1);
    EXPECT_EQ(reg_min_timeout(&reg), 5000);
    reg_rm_timeout(&reg, 1);
    EXPECT_EQ(reg_min_timeout(&reg), MIN_TIMER_VAL);
}

TEST_F(Registry, RemovalLeavesTheSmallestValue)
{
    const struct {
        long value[3];
        int rm;
        long min;
    } cases[] = {
        {{200, 5000, 5000}, 0, 5000}, {{200, 5000, 5000}, 1, 200}, {{200, 200, 300}, 0, 200},
        {{0, 700, 900}, 0, 700},      {{0, 0, 900}, 0, 0},         {{900, 40, 700}, 1, 700},
    };
    for (const auto& c : cases) {
        reg_init_timeout(&reg);
        for (int i = 0; i < 3; ++i)
            reg_set_timeout(&reg, 31 - i, c.value[i]);
        reg_rm_timeout(&reg, 31 - c.rm);
        EXPECT_EQ(reg_min_timeout(&reg), c.min) << c.value[0] << ' ' << c.value[1] << " rm " << c.rm;
        EXPECT_EQ(reg.rec[31 - c.rm].value, 0);
    }
}

TEST_F(Registry, StopsAtFaultsOfItsCallers)
{
    EXPECT_DEATH(reg_rm_timeout(&reg, 0), "nlocks");
    EXPECT_DEATH(reg_set_timeout(&reg, 32, 1), "idx");
    EXPECT_DEATH(reg_set_timeout(&reg, -1, 1), "idx");
    EXPECT_DEATH(reg_set_timeout(&reg, 0, MIN_TIMER_VAL - 1), "MIN_TIMER_VAL");
}

TEST(Deadline, IsMissedOnlyStrictlyLater)
{
    const struct {
        timespec start, interval, now;
        int expired;
    } cases[] = {
        {{10, 0}, {5, 0}, {15, 0}, 0},
        {{10, 0}, {5, 0}, {15, 1}, 1},
        {{10, 0}, {5, 0}, {14, 999999999}, 0},
        {{10, 600000000}, {0, 600000000}, {11, 200000000}, 0},
        {{10, 600000000}, {0, 600000000}, {11, 200000001}, 1},
        {{10, 500000000}, {0, 500000000}, {11, 0}, 0},
        {{10, 0}, {__LONG_MAX__, 0}, {__LONG_MAX__, 0}, 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(timed_out_as(c.start, c.interval, 0, &c.now), c.expired) << c.now.tv_sec << '.' << c.now.tv_nsec;
}
