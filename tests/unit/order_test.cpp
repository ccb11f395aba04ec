/* The order below its URL: the path that it names, at the limits, and what is there already; names of unfinished files;
   tracking tags. */
#include "caught_log.h"
#include "data.h"
#include "order.h"
#include "rq.h"
#include "scratch_dir.h"
#include "strops.h"
#include "unfinished.h"

#include <cerrno>
#include <ctime>
#include <gtest/gtest.h>

class Order : public testing::Test
{
protected:
    Order() { set_data_dir(dir.path); }
    ~Order() override { g_cfg = {}; }

    static void set_data_dir(const std::string& path)
    {
        g_cfg = {};
        cut_text(g_cfg.data_dir, sizeof(g_cfg.data_dir), path);
    }
    int setup(const std::string& src, const std::string& dst)
    {
        spec = {};
        char buf[ORDER_TEXT_MAX] = "";
        cut_text(buf, sizeof(buf), dst);
        return setup_dw_spec(src.c_str(), buf, sizeof(buf) - 1, &spec);
    }
    scratch_dir dir;
    caught_log log;
    dw_spec spec{};
};

TEST_F(Order, AcceptedOnesNameTheirFile)
{
    const std::string host = "http://h/";
    const std::string long_src = host + std::string(127 - host.size(), 'a');
    const std::string long_dst(126 - dir.path.size() - 1 - 5, 'x');
    const struct {
        const char* src;
        const char* dst;
        const char* expected; /* destination path of the order */
    } cases[] = {
        {"http://h/a/b.ts", "x/y.ts", "x/y.ts"},
        {"http://h:81/a/b.ts", "", "a/b.ts"},
        {"http://h/c//d", "", "c//d"},
        {"http://h/a/../b", "up..ward/..x/y..", "up..ward/..x/y.."},
        {"http://h/a", "x-kova/x-Kovas", "x-kova/x-Kovas"},
        {long_src.c_str(), long_dst.c_str(), long_dst.c_str()},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(setup(c.src, c.dst), 0) << c.src << " " << c.dst << log.text();
        EXPECT_STREQ(spec.url, c.src);
        EXPECT_STREQ(spec.dst_path, c.expected);
        EXPECT_EQ(spec.fpath, dir.path + "/" + c.expected + "-Kova");
    }
    EXPECT_TRUE(dir.has("x") && dir.has("a") && dir.has("c") && dir.has("up..ward/..x"));
    set_data_dir(dir.path + "/");
    EXPECT_EQ(setup("http://h/a", "x"), 0);
    EXPECT_EQ(spec.fpath, dir.path + "/x-Kova");
}

TEST_F(Order, OneUnfinishedFileAtATime)
{
    const std::string path = dir.put("x-Kova");
    EXPECT_EQ(setup("http://h/a", "x"), EEXIST);
    EXPECT_TRUE(log.has("setup_dw_spec: [" + path + "] already exists\n"));
    set_age(path, time(nullptr), 60);
    EXPECT_EQ(setup("http://h/a", "x"), 0);
    EXPECT_FALSE(dir.has("x-Kova"));
}

TEST(UnfinishedName, LosesItsSuffixOnly)
{
    const std::tuple<const char*, int, const char*> cases[] = {
        {"", EINVAL, ""},   {"a", ESRCH, "a"}, {"Kova", ESRCH, "Kova"},      {"a-kova", ESRCH, "a-kova"},
        {"a-Kova", 0, "a"}, {"-Kova", 0, ""},  {"a-Kova-Kova", 0, "a-Kova"}, {"a-Kovab", ESRCH, "a-Kovab"},
    };
    for (const auto& [text, rc, left] : cases) {
        char path[32] = "";
        cut_text(path, sizeof(path), text);
        EXPECT_EQ(is_unfinished_seg(path), rc == 0) << text;
        EXPECT_EQ(cutoff_segext(path), rc) << text;
        EXPECT_STREQ(path, left);
    }
}

TEST(TrackingTags, StartAgainAfterTheirLimit)
{
    const struct {
        decltype(&mk_trk_tag) make;
        size_t before;
        size_t max;
        const char* tag;
    } cases[] = {
        {rui_mk_trknum, 0, 10000, "T0001"},     {rui_mk_trknum, 9998, 10000, "T9999"},
        {rui_mk_trknum, 9999, 10000, "T10000"}, {rui_mk_trknum, 10000, 10000, "T0001"},
        {rui_mk_trknum, 100, 100, "T0001"},     {rui_mk_trknum, 99999, 200000, "T10000"},
        {mk_trk_tag, 0, 10000, "u1"},           {mk_trk_tag, 9999, 10000, "u10000"},
        {mk_trk_tag, 10000, 10000, "u1"},
    };
    n64_tag tag{};
    for (const auto& c : cases) {
        size_t counter = c.before;
        c.make(&counter, &tag, c.tag[0], c.max);
        n64_tag expected{};
        memcpy(expected.sym8, c.tag, strlen(c.tag));
        EXPECT_EQ(tag.num64, expected.num64) << tag.sym8 << ", not " << c.tag << ": nothing is left of a longer one";
    }
    size_t counter = 1000000;
    EXPECT_DEATH(mk_trk_tag(&counter, &tag, 'u', 10000000), "digits.size");
}
