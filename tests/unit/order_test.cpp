/* The order below its URL: source and destination to paths, expiry and refusals; names of unfinished files; tracking
   tags. */
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

namespace
{

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
    /* The request line's target as a whole request. */
    int parse(const std::string& target)
    {
        spec = {};
        urq = {};
        urq.tag = TAG_URQ;
        const std::string text = "GET " + target + " HTTP/1.1\r\nHost: a\r\n\r\n";
        cut_text(hbuf, sizeof(hbuf), text);
        urq.hrq.hbuf = hbuf;
        urq.hrq.hlen = sizeof(hbuf);
        urq.hrq.hpos = text.size();
        return parse_dw_get(&urq, &spec);
    }

    scratch_dir dir;
    caught_log log;
    dw_spec spec{};
    dw_urq urq{};
    char hbuf[HEAD_MAX] = "";
};

TEST_F(Order, AcceptedOnesNameTheirFile)
{
    const struct {
        const char* src;
        const char* dst;
        const char* expected; /* destination path of the order */
    } cases[] = {
        {"http://h/a/b.ts", "x/y.ts", "x/y.ts"},
        {"http://h:81/a/b.ts", "", "a/b.ts"},
        {"http://h/c//d", "", "c//d"},
        {"http://h/a", "/lead", "/lead"},
        {"http://h", "named", "named"},
        {"http://h/a/../b", "up..ward/..x/y..", "up..ward/..x/y.."},
        {"http://h/a", "x-kova/x-Kovas", "x-kova/x-Kovas"},
    };
    for (const char* tail : {"", "/"}) { /* a directory that ends in a slash gets no second one */
        set_data_dir(dir.path + tail);
        for (const auto& c : cases) {
            EXPECT_EQ(setup(c.src, c.dst), 0) << c.src << " " << c.dst << log.text();
            EXPECT_STREQ(spec.url, c.src);
            EXPECT_STREQ(spec.dst_path, c.expected);
            EXPECT_EQ(spec.fpath, dir.path + "/" + c.expected + "-Kova");
            EXPECT_EQ(spec.content_length, 0);
            EXPECT_STREQ(spec.lid, "");
        }
    }
    EXPECT_TRUE(dir.has("x") && dir.has("a") && dir.has("c") && dir.has("up..ward/..x"));
    EXPECT_FALSE(dir.has("x/y.ts-Kova")); /* the directories, not the file */
}

TEST_F(Order, RefusedOnesMakeNothing)
{
    const struct {
        const char* src;
        const char* dst;
        const char* text;
    } cases[] = {
        {"https://h/a", "d/x", "setup_dw_spec: non-HTTP or invalid src=[https://h/a]\n"},
        {"HTTP://h/a", "d/x", "setup_dw_spec: non-HTTP or invalid src=[HTTP://h/a]\n"},
        {"", "d/x", "setup_dw_spec: non-HTTP or invalid src=[]\n"},
        {"http://h", "", "setup_dw_spec: cannot extract path from source URL: http://h\n"},
        {"http://h/", "", "setup_dw_spec: cannot extract path from source URL: http://h/\n"},
        {"http://h/a", "..", "setup_dw_spec: destination leaves the data directory: [..]\n"},
        {"http://h/a", "../d/x", "leaves the data directory: [../d/x]\n"},
        {"http://h/a", "d/../../x", "leaves the data directory: [d/../../x]\n"},
        {"http://h/a", "d/..", "leaves the data directory: [d/..]\n"},
        {"http://h/a/../b", "", "leaves the data directory: [a/../b]\n"},
        {"http://h/a\r\nX: y", "d/x", "setup_dw_spec: control byte 0x0d at 10 of the source\n"},
        {"http://h/d/\x1f", "", "setup_dw_spec: control byte 0x1f at 11 of the source\n"},
        {"http://h/a", "d/x\x7f", "setup_dw_spec: control byte 0x7f at 3 of the destination\n"},
        {"http://h/a", "d/x-Kova", "setup_dw_spec: destination names an unfinished file: [d/x-Kova]\n"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(setup(c.src, c.dst), EINVAL) << c.src << " " << c.dst;
        EXPECT_TRUE(log.has(c.text)) << c.text;
    }
    EXPECT_TRUE(dir.is_empty());
}

TEST_F(Order, LengthsHaveLimits)
{
    const size_t fixed = dir.path.size() + 1 + 5;
    const auto dst_for = [&](size_t len) { return "d/" + std::string(len - fixed - 2, 'x'); };
    EXPECT_EQ(setup("http://h/a", dst_for(128)), ERANGE);
    EXPECT_TRUE(log.has("init_spec: full path is too long: 128/128\n"));
    EXPECT_EQ(setup("http://h/a", std::string(255, 'x')), ERANGE);
    EXPECT_EQ(setup("http://h/a", dst_for(127)), ERANGE); /* cut by one, it would name a finished file */
    EXPECT_TRUE(log.has("init_spec: full path was cut: ["));
    const std::string host = "http://h/";
    EXPECT_EQ(setup(host + std::string(128 - host.size(), 'a'), "d/x"), ERANGE);
    EXPECT_TRUE(log.has("init_spec: source URL is too long: 128/128\n"));
    EXPECT_TRUE(dir.is_empty());

    EXPECT_EQ(setup(host + std::string(127 - host.size(), 'a'), dst_for(126)), 0);
    EXPECT_EQ(strlen(spec.url), 127U);
    EXPECT_EQ(strlen(spec.fpath), 126U);
}

TEST_F(Order, OneUnfinishedFileAtATime)
{
    const std::string path = dir.put("x-Kova");
    EXPECT_EQ(setup("http://h/a", "x"), EEXIST);
    EXPECT_TRUE(log.has("setup_dw_spec: [" + path + "] already exists\n"));
    EXPECT_TRUE(dir.has("x-Kova"));
    set_age(path, time(nullptr), 60);
    EXPECT_EQ(setup("http://h/a", "x"), 0);
    EXPECT_FALSE(dir.has("x-Kova"));
}

TEST_F(Order, AFileInTheWayOfADirectoryRefuses)
{
    dir.put("f");
    EXPECT_NE(setup("http://h/a", "f/x"), 0);
    EXPECT_TRUE(log.has("init_spec: cannot ensure dest path [" + dir.at("f/x-Kova") + "]\n"));
}

TEST_F(Order, RequestGivesSourceDestinationAndExpiry)
{
    const struct {
        const char* query;
        long expiry;
        const char* warning; /* null = none */
    } cases[] = {
        {"", 0, nullptr},
        {"?expiry=600", 600, nullptr},
        {"?a=1&expiry=7&b=2", 7, nullptr},
        {"?noexpiry=8", 8, nullptr},
        {"?expiry=-3", -3, nullptr},
        {"?expiry=1&expiry=2", 1, nullptr},
        {"?expiry=abc", 0, "parse_dw_get: NO EXPIRY: sscanf('expiry=abc',..) expected 1, got 0\n"},
        {"?a=1", 0, "parse_dw_get: NO EXPIRY: sscanf('a=1',..) expected 1, got 0\n"},
        {"?expiry=", 0, "parse_dw_get: NO EXPIRY: sscanf('expiry=',..) expected 1, got "},
    };
    for (const auto& c : cases) {
        const size_t warned = log.count("NO EXPIRY");
        EXPECT_EQ(parse(std::string("/p/src/http://h/a/b.ts/dst/x/y.ts") + c.query), 0) << c.query;
        EXPECT_STREQ(spec.url, "http://h/a/b.ts") << c.query;
        EXPECT_STREQ(spec.dst_path, "x/y.ts") << c.query;
        EXPECT_EQ(spec.expiry_tm, c.expiry) << c.query;
        EXPECT_EQ(log.count("NO EXPIRY") - warned, c.warning ? 1U : 0U) << c.query;
        EXPECT_TRUE(!c.warning || log.has(c.warning)) << c.query;
        EXPECT_EQ(urq.hresp, nullptr);
    }
    EXPECT_TRUE(log.has("parse_dw_get: url=[http://h/a/b.ts], path=[" + dir.at("x/y.ts-Kova") + "], expiry=600\n"));
}

TEST_F(Order, RequestChoosesTheAnswerOfARefusal)
{
    const struct {
        const char* target;
        int rc;
        const http_response* answer; /* null: the request's handler answers 400 */
    } cases[] = {
        {"/", -3, &g_resp_nocont},
        {"/ping", 1029, &g_resp_bad},
        {"/favicon.ico", 1028, &g_resp_bad},
        {"/src/http://h/a", -1, &g_resp_bad},
        {"/src/https://h/a/dst/x", EINVAL, nullptr},
        {"/src/http://h/a/dst/%2e%2e/x", EINVAL, nullptr},
        {"/src/http://h/a/dst/x-Kova/y", EINVAL, nullptr},
        {"/src/http://h/a/dst/x-Kov%61", EINVAL, nullptr},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(parse(c.target), c.rc) << c.target;
        EXPECT_EQ(urq.hresp, c.answer) << c.target;
    }
    EXPECT_TRUE(log.has("parse_dw_get: PING: will send HTTP 204\n"));
    EXPECT_TRUE(log.has("src=[https://h/a], dst=[x], ERROR(22)\n"));
    EXPECT_TRUE(dir.is_empty());
}

TEST(UnfinishedName, LosesItsSuffixOnly)
{
    const struct {
        const char* path;
        int rc;
        const char* left;
    } cases[] = {
        {"", EINVAL, ""},   {"a", ESRCH, "a"}, {"Kova", ESRCH, "Kova"},      {"a-kova", ESRCH, "a-kova"},
        {"a-Kova", 0, "a"}, {"-Kova", 0, ""},  {"a-Kova-Kova", 0, "a-Kova"}, {"a-Kovab", ESRCH, "a-Kovab"},
    };
    for (const auto& c : cases) {
        char path[32] = "";
        cut_text(path, sizeof(path), c.path);
        EXPECT_EQ(is_unfinished_seg(path), c.rc == 0) << c.path;
        EXPECT_EQ(cutoff_segext(path), c.rc) << c.path;
        EXPECT_STREQ(path, c.left);
    }
}

TEST(TrackingTag, StartsAgainAfterItsLimit)
{
    size_t counter = 0;
    n64_tag tag{};
    mk_trk_tag(&counter, &tag, 'u', 10000);
    EXPECT_STREQ(tag.sym8, "u1");
    counter = 9999;
    mk_trk_tag(&counter, &tag, 'u', 10000);
    EXPECT_STREQ(tag.sym8, "u10000");
    mk_trk_tag(&counter, &tag, 'u', 10000);
    n64_tag first{};
    first.sym8[0] = 'u';
    first.sym8[1] = '1';
    EXPECT_EQ(tag.num64, first.num64); /* nothing is left of the longer one */
    counter = 1000000;
    EXPECT_DEATH(mk_trk_tag(&counter, &tag, 'u', 10000000), "ASSERT at");
}

} // namespace
