/* The log: how a record is built and filtered, how files are opened, moved aside and rotated; texts of time. */
#include "caught_log.h"
#include "log.h"
#include "scratch_dir.h"
#include "timeop.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

namespace fs = std::filesystem;

TEST(Record, EvaluatesNothingWhenFilteredOut)
{
    caught_log log(0, NORM_level);
    int evaluated = 0;
    LOG_INFO("%d\n", ++evaluated);
    LOG_NORM("%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(log.text(), "(NRM)  1\n");
}

TEST(Record, ThatDoesNotFitIsDroppedWhole)
{
    caught_log log;
    const std::string most(LOG_LINE_MAX - strlen("(ERR)  "), 'x');
    LOG_ERR("%s", most.c_str());
    LOG_ERR("%sy", most.c_str());
    EXPECT_EQ(log.text(), "(ERR)  " + most);
}

TEST(Record, ShowsControlBytesAsQuestionMarks)
{
    const struct {
        const char* text;
        const char* line; /* of an ordinary record */
        const char* head; /* of one that shows a head */
    } cases[] = {
        {"no newline\x1b", "no newline?", "no newline?"},
        {"\x1b]0;title\x07 \x7f\t\x01", "?]0;title? ???", "?]0;title? ???"},
        {"GET / HTTP/1.1\r\nA: b\n\r\n", "GET / HTTP/1.1??A: b??\n", "GET / HTTP/1.1\r\nA: b\n\r\n"},
        {"over\rwritten\r\r\nend\r\n", "over?written???end?\n", "over?written?\r\nend\r\n"},
        {"12345678\x1b[2J 123456789\x1f\n", "12345678?[2J 123456789?\n", "12345678?[2J 123456789?\n"},
        {"csi \xc2\x9b"
         "31m \xc2\xa9 \xc3\x9b \xc2",
         "csi ??31m \xc2\xa9 \xc3\x9b ?", "csi ??31m \xc2\xa9 \xc3\x9b ?"},
        {"alone \x9b"
         "31m \xe9\x9b \xe9\x9b\xb0 \xf0\x9f\x9b\xb0",
         "alone ?31m \xe9? \xe9\x9b\xb0 \xf0\x9f\x9b\xb0", "alone ?31m \xe9? \xe9\x9b\xb0 \xf0\x9f\x9b\xb0"},
    };
    for (const auto& c : cases) {
        caught_log log;
        LOG_ERR("%s", c.text);
        LOG_HEAD(ERR_level, "%s", c.text);
        EXPECT_EQ(log.text(), std::string("(ERR)  ") + c.line + "(ERR)  " + c.head);
    }
}

TEST(Levels, ArePushedOnceAndPopped)
{
    caught_log log;
    g_mod_ll[MOD_SYSWRAP] = INFO_level;
    log_push_mlevels();
    log_set_modules(g_log, DEBUG_level);
    log_push_mlevels(); /* the one slot is taken */
    EXPECT_EQ(g_mod_ll[MOD_SYSWRAP], DEBUG_level);
    log_pop_mlevels();
    EXPECT_EQ(g_mod_ll[MOD_SYSWRAP], INFO_level);
    g_mod_ll[MOD_SYSWRAP] = NORM_level;
}

static void set_zone(const char* zone)
{
    zone ? setenv("TZ", zone, 1) : unsetenv("TZ");
    tzset();
    get_timezone(1);
}

TEST(TimeText, FollowsItsFlags)
{
    set_zone("XYZ-2");
    const timespec ts = {1000000000, 123456789};
    const std::pair<uint32_t, const char*> cases[] = {
        {0, "2001-09-09 03:46:40.123456 XYZ"},
        {f_GMT_TIME, "2001-09-09 01:46:40.123456 XYZ"}, /* the local zone's name stays */
        {f_FMT_SECONDS, "2001-09-09 03:46:40 XYZ"},
        {f_RAW_TIME, "1000000000.123456"}};
    for (const auto& [flags, text] : cases) {
        std::array<char, 64> buf{};
        EXPECT_EQ(mk_timestr(&ts, flags, buf.data(), buf.size()), static_cast<int>(strlen(text)));
        EXPECT_STREQ(buf.data(), text);
    }
    EXPECT_EQ(match_timefmt("Raw_Mono"), f_RAW_TIME | f_MONOTONIC_TIMER);
    set_zone(nullptr);
}

TEST(EndOfDay, IsTheLastSecondOfTheLocalDayAlsoWhenTheClockChanges)
{
    /* Rules written out: no zone files are needed. M3.5.0/2 is the last Sunday of March at 2:00. */
    const std::tuple<const char*, time_t, time_t> cases[] = {
        {"XYZ-2", 1000000000, 1000072799},
        {"CET-1CEST,M3.5.0,M10.5.0/3", 1774742400, 1774821599},          /* spring: from 00:00 */
        {"CET-1CEST,M3.5.0,M10.5.0/3", 1774778400, 1774821599},          /* and from noon */
        {"CET-1CEST,M3.5.0,M10.5.0/3", 1792886400, 1792969199},          /* autumn */
        {"<-03>3<-02>,M10.3.0/0,M2.3.0/0", 1771081200, 1771124399},      /* back at midnight: 23:59:59 twice */
        {"<-03>3<-02>,M10.3.0/0,M2.3.0/0", 1771123600, 1771124399},      /* and when it is 23:46 again */
        {"<-02>2<-01>,M3.5.0/-1,M10.5.0/0", 1774700000, 1774745999},     /* from 23:00 on to the next day */
        {"NST3:30NDT,M3.2.0/0:01,M11.1.0/0:01", 1793460600, 1793503799}, /* back out of the next day's first minute */
    };
    for (const auto& [tz, t, end] : cases) {
        set_zone(tz);
        EXPECT_EQ(get_endofday_utime(t), end) << tz << ' ' << t;
    }
    set_zone(nullptr);
}

class LogFile : public testing::Test
{
protected:
    LogFile()
    {
        glog_init("kov");
        log_timefmt(g_log, f_NO_TIME);
    }
    ~LogFile() override
    {
        g_in_signal = 0;
        log_close(g_log);
        log_default(g_log, stderr);
        g_log->rota = rotation_ctx{};
    }
    size_t files() const { return static_cast<size_t>(std::distance(fs::directory_iterator(dir.path), {})); }
    std::string content() const
    {
        std::ifstream in(path);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    scratch_dir dir;
    std::string path = dir.at("log");
};

TEST_F(LogFile, RotatesNotWithinAHandlerAndKeepsAFileOfTheSameSecond)
{
    ASSERT_EQ(log_open_ex(g_log, path.c_str(), 0), 0);
    log_set_rota(g_log, 1, 1, 0);
    g_in_signal = 1;
    LOG_ERR("from a handler\n");
    EXPECT_EQ(content(), "(ERR)  from a handler\n");
    g_in_signal = 0;
    for (int i = 0; i < 5; ++i)
        LOG_ERR("rotates\n");
    EXPECT_EQ(files(), 2U);
    log_set_rota(g_log, 0, 200, 0);
    EXPECT_EQ(log_rota_maxfiles(g_log), 16U);
}

TEST_F(LogFile, ACommandGetsItsLastLinesAndIsLeftBehindInTime)
{
    ASSERT_EQ(log_popen(g_log, ("cat > " + path + "; sleep 4").c_str()), 0);
    for (int i = 0; i < 50; ++i)
        LOG_ERR("line %d\n", i);
    const time_t start = time(nullptr);
    log_close(g_log);
    EXPECT_LE(time(nullptr) - start, 2);
    EXPECT_TRUE(content().ends_with("line 49\n"));
}

TEST_F(LogFile, ThatTakesNothingLeavesErrnoAsItWas)
{
    ASSERT_EQ(log_open_ex(g_log, "/dev/full", 0), 0);
    errno = ENOTTY;
    LOG_ERR("lost\n");
    EXPECT_EQ(errno, ENOTTY);
}

TEST(Asserts, LogABackTraceAndAbort)
{
    EXPECT_DEATH({ ASSERT(1 + 1 == 3); }, "ASSERT at:\n#0: .*==\n(.|\n)*1 \\+ 1 == 3");
    EXPECT_DEATH({ PANIC("why %s\n", "here"); }, "\\(PNC\\)  .*why here\n(.|\n)*Aborting at:\n#0: ");
}
