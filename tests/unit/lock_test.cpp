/* Order locks: to the second how long one counts, and the second look. */
#include "lock.h"

#include "caught_log.h"
#include "data.h"
#include "scratch_dir.h"
#include "strops.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

static std::function<void(long ms)> g_on_sleep; /* what others do while the room sleeps */

/* In place of the library's, so that a test can act within the pause. */
extern "C" int nanosleep(const timespec* time, timespec* left)
{
    if (!g_on_sleep)
        return clock_nanosleep(CLOCK_REALTIME, 0, time, left);
    g_on_sleep(time->tv_sec * 1000 + time->tv_nsec / 1000000);
    return 0;
}

class Lock : public testing::Test
{
protected:
    Lock()
    {
        g_cfg = {};
        cut_text(g_cfg.udp_cha.url, sizeof(g_cfg.udp_cha.url), "127.0.0.1:5000");
        cut_text(g_cfg.udp_cha.lkdir, sizeof(g_cfg.udp_cha.lkdir), dir.path);
        g_cfg.udp_cha.must_lock = true;
    }
    ~Lock() override
    {
        g_cfg = {};
        g_on_sleep = nullptr;
    }

    /* An order for the lock of this age, within one second of the clock. */
    int lock_aged(long age)
    {
        for (;;) {
            const time_t now = time(nullptr);
            set_age(dir.put("job-1.lock"), now, age);
            const int rc = lid_lock("job-1", &taken);
            if (time(nullptr) == now)
                return rc;
        }
    }

    scratch_dir dir;
    caught_log log;
    timespec taken{};
};

TEST_F(Lock, CountsUntilItIsOlderThanTheLimit)
{
    const std::pair<long, int> cases[] = {{-3600, EBUSY}, {0, EBUSY}, {30, EBUSY}, {31, 0}, {86400, 0}};
    const std::string path = dir.at("job-1.lock");
    for (const auto& [age, rc] : cases)
        EXPECT_EQ(lock_aged(age), rc) << age;
    EXPECT_TRUE(log.has("check_and_expire: upstanding lock [" + path + "] (age=30) found\n"));
    EXPECT_TRUE(log.has("check_and_expire: expired stale lock [" + path + "], age=31 sec\n"));
}

TEST_F(Lock, ALinkToNowhereHasAnAgeOfItsOwn)
{
    const std::string path = dir.at("job-1.lock");
    for (const long age : {0L, 100L, 2 * 86400L}) {
        ASSERT_EQ(symlink("/nonexistent", path.c_str()), 0);
        const timespec old[2] = {{time(nullptr) - age, 0}, {time(nullptr) - age, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), old, AT_SYMLINK_NOFOLLOW), 0);
        EXPECT_EQ(lid_lock("job-1", &taken), age == 0 ? EBUSY : 0) << age;
        unlink(path.c_str());
    }
}

TEST_F(Lock, OfAStrangeAgeIsLookedAtTwice)
{
    const struct {
        long age;
        const char* meanwhile; /* what its maker does; null = nothing is waited for */
        int rc;
    } cases[] = {
        {86400 + 10, "touch", EBUSY}, {86400 + 10, "nothing", 0}, {86400 + 10, "unlink", 0}, {100, nullptr, 0}};
    for (const auto& c : cases) {
        const std::string path = dir.put("job-1.lock");
        set_age(path, time(nullptr), c.age);
        long slept = 0;
        g_on_sleep = [&](long ms) {
            slept += ms;
            if (strcmp(c.meanwhile, "touch") == 0)
                set_age(path, time(nullptr), 0);
            else if (strcmp(c.meanwhile, "unlink") == 0)
                unlink(path.c_str());
        };
        EXPECT_EQ(lid_lock("job-1", &taken), c.rc) << c.age << c.meanwhile;
        EXPECT_EQ(slept, c.meanwhile ? 100 : 0);
        EXPECT_TRUE(dir.has("job-1.lock"));
    }
    EXPECT_FALSE(log.has("ERROR")) << log.text();
}

TEST_F(Lock, WhatCannotBeLookedAtIsNoLock)
{
    cut_text(g_cfg.udp_cha.lkdir, sizeof(g_cfg.udp_cha.lkdir), dir.put("file"));
    EXPECT_EQ(lid_lock("job-1", &taken), -1);
    EXPECT_TRUE(log.has("check_and_expire: stat(" + dir.at("file/job-1.lock") + ", ..) ERROR(20): "));
}
