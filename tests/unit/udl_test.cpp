/* The UDP channel: the text of a datagram, its limits, and which order releases which lock. */
#include "udl.h"

#include "caught_log.h"
#include "lock.h"
#include "rqs.h"
#include "scratch_dir.h"
#include "strops.h"

#include <arpa/inet.h>
#include <cerrno>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

const std::string URL = "http://agent/src/http://origin/live/a.ts/dst/cache/a.ts";
const std::string LOCAL = "http://agent/src/http://here/live/a.ts/dst/cache/a.ts";
const std::string REFUSED = "http://agent/src/https://origin/a.ts/dst/cache/a.ts";

TEST(Message, SplitsIntoIdUrlAndExpiry)
{
    const std::string id31(31, 'i');
    const struct {
        std::string msg;
        std::string lid;
        std::string url;
        long expiry;
    } cases[] = {
        {"job1 " + URL + " 600", "job1", URL, 600}, {"job1\t" + URL + "\t 600 tail", "job1", URL, 600},
        {id31 + " " + URL + " -5", id31, URL, -5},  {"job1 0123456789abcdef 1", "job1", "0123456789abcdef", 1},
        {"job1 " + URL + " soon", "job1", URL, 0},
    };
    caught_log log;
    for (auto c : cases) {
        char* url = nullptr;
        char* lid = nullptr;
        long expiry = -1;
        ASSERT_EQ(parse_msg(c.msg.data(), &url, &lid, &expiry), 0) << c.msg;
        EXPECT_EQ(c.lid, lid);
        EXPECT_EQ(c.url, url);
        EXPECT_EQ(c.expiry, expiry) << c.msg;
    }
    EXPECT_EQ(log.count("NO EXPIRY"), 1U);
    EXPECT_TRUE(log.has("parse_msg: NO EXPIRY: sscanf('soon',..) expected 1, got 0\n"));
    std::string msg = "job1 " + URL + " 600";
    EXPECT_EQ(parse_msg(msg.data(), nullptr, nullptr, nullptr), 0);
}

TEST(Message, IsRefusedOutOfItsLimits)
{
    const struct {
        std::string msg;
        const char* text;
    } cases[] = {
        {"", "parse_msg: missing URL part\n"},
        {"job1", "parse_msg: missing URL part\n"},
        {"abc " + URL + " 1", "parse_msg: id length (3) out of bounds: 4/31\n"},
        {std::string(32, 'i') + " " + URL + " 1", "parse_msg: id length (32) out of bounds: 4/31\n"},
        {"abcd http://a/src/x 5", "parse_msg: URL length is too small: 14/16 bytes\n"},
        {"abcd 0123456789abcde 5", "parse_msg: URL length is too small: 15/16 bytes\n"},
        {"abcd  " + URL + " 5", "parse_msg: URL length is too small: 0/16 bytes\n"}, /* one separator only */
    };
    for (auto c : cases) {
        const caught_log log;
        EXPECT_EQ(parse_msg(c.msg.data(), nullptr, nullptr, nullptr), -1) << c.msg;
        EXPECT_TRUE(log.has(c.text)) << log.text();
    }
}

TEST(MessageDeathTest, WithoutExpiryStopsTheAgent)
{
    for (const char* tail : {"", " ", " \t ", " #600"}) {
        std::string msg = "job1 " + URL + tail;
        EXPECT_DEATH((void)parse_msg(msg.data(), nullptr, nullptr, nullptr), "no expiry data passed[^$]*ASSERT at");
    }
}

/* A channel whose sender is the other end of a socket pair. No task is made: the sources are local or refused. */
class Datagram : public testing::Test
{
protected:
    Datagram()
    {
        g_cfg = {};
        cut_text(g_cfg.data_dir, sizeof(g_cfg.data_dir), dir.path);
        cut_text(g_cfg.seg_url_pfx, sizeof(g_cfg.seg_url_pfx), "http://here");
        cut_text(g_cfg.udp_cha.url, sizeof(g_cfg.udp_cha.url), "127.0.0.1:5000");
        cut_text(g_cfg.udp_cha.lkdir, sizeof(g_cfg.udp_cha.lkdir), dir.path);
        g_cfg.udp_cha.must_lock = true;
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fds), 0);
        udl.tag = TAG_UDL;
        udl.sockfd = fds[0];
    }
    ~Datagram() override
    {
        close(fds[0]);
        close(fds[1]);
        g_cfg = {};
    }

    void take(const std::string& msg)
    {
        EXPECT_EQ(send(fds[1], msg.data(), msg.size(), 0), static_cast<ssize_t>(msg.size()));
        EXPECT_EQ(udl_accept(&udl), 0);
    }

    scratch_dir dir;
    caught_log log;
    udl_ctx udl{};
    int fds[2] = {-1, -1};
};

TEST_F(Datagram, HasLengthLimitsAndAPrefix)
{
    const std::string head = "#!job1 http://agent/xyz ";
    const auto padded = [&](size_t len) { return head + std::string(len - head.size() - 1, ' ') + "5"; };
    for (const size_t len : {31U, 1401U, 1420U}) {
        take(padded(len));
        const size_t seen = len > 1415 ? 1415 : len; /* what is received of a longer one */
        EXPECT_TRUE(log.has("udl_accept: invalid message length: " + std::to_string(seen) + " (min/max=32/1400)\n"));
    }
    EXPECT_EQ(log.count("expiry"), 0U);
    EXPECT_EQ(log.count("[] request failed; url=[], rc=-1\n"), 3U);
    for (const size_t len : {32U, 1400U})
        take(padded(len));
    EXPECT_EQ(log.count("udl_accept: [job1] request failed; url=[http://agent/xyz], rc=-1\n"), 2U);
    EXPECT_EQ(log.count("invalid message length"), 3U);
    take("!#job1 " + URL + " 5");
    EXPECT_TRUE(log.has("udl_accept: invalid message prefix\n"));
    EXPECT_EQ(udl_accept(&udl), 0); /* nothing there */
    EXPECT_TRUE(log.has(", .., 1415,..) ERROR(11): "));
    EXPECT_TRUE(dir.is_empty());
}

TEST_F(Datagram, LosesTwoLineEndsAtMost)
{
    take("#!job1 " + LOCAL + " 77\r\n");
    EXPECT_TRUE(log.has("udl_accept: msg=[#!job1 " + LOCAL + " 77]\n"));
    EXPECT_TRUE(log.has("udl_accept: expiry time: 77\n"));
    take("#!job2 " + LOCAL + " 78\n\n\n");
    EXPECT_TRUE(log.has("udl_accept: msg=[#!job2 " + LOCAL + " 78\n]\n"));
}

TEST_F(Datagram, LockOfALocalSourceLapsesByItself)
{
    take("#!job1 " + LOCAL + " 5");
    EXPECT_TRUE(log.has("udl_accept: [http://here/live/a.ts] is local URL, no download required\n"));
    EXPECT_TRUE(dir.has("job1.lock"));
    EXPECT_FALSE(log.has("request failed"));
    take("#!job1 " + LOCAL + " 5");
    EXPECT_TRUE(log.has("udl_accept: [job1] already engaged, will skip\n"));
    EXPECT_FALSE(log.has("request failed"));
    EXPECT_TRUE(dir.has("job1.lock"));
}

TEST_F(Datagram, RefusedOrderReleasesItsOwnLockOnly)
{
    take("#!job1 " + REFUSED + " 5");
    EXPECT_TRUE(log.has("udl_accept: [job1] request failed; url=[" + REFUSED + "], rc=22\n"));
    EXPECT_TRUE(log.has("lid_lock: [job1] locked\n"));
    EXPECT_FALSE(dir.has("job1.lock"));

    dir.put("job2.lock"); /* somebody else's */
    take("#!job2 " + REFUSED + " 5");
    EXPECT_TRUE(dir.has("job2.lock"));
}

TEST_F(Datagram, OrderWithoutItsLockGoesOnAndReleasesNothing)
{
    take("#!a/bcd " + LOCAL + " 5");
    EXPECT_TRUE(log.has("lid_lock: invalid lock path (n="));
    EXPECT_TRUE(log.has("is local URL"));
    take("#!a/bcd " + REFUSED + " 5");
    EXPECT_TRUE(log.has("udl_accept: [a/bcd] request failed; url=[" + REFUSED + "], rc=22\n"));
    EXPECT_FALSE(log.has("lid_unlock"));
}

TEST_F(Datagram, UrlGivesAnOrderWithTheIdItHolds)
{
    dw_spec spec{};
    EXPECT_EQ(parse_url(URL.c_str(), "job1", &spec), 0);
    EXPECT_STREQ(spec.url, "http://origin/live/a.ts");
    EXPECT_EQ(spec.fpath, dir.at("cache/a.ts-Kova"));
    EXPECT_STREQ(spec.lid, "job1");
    spec = {};
    EXPECT_EQ(parse_url(URL.c_str(), nullptr, &spec), 0);
    EXPECT_STREQ(spec.lid, "");
    spec = {};
    EXPECT_EQ(parse_url(REFUSED.c_str(), "job1", &spec), EINVAL);
    EXPECT_STREQ(spec.lid, "");
    EXPECT_EQ(parse_url("http://agent/", nullptr, &spec), -1);
}

/* A port of the loopback that nobody uses. */
std::string free_port()
{
    sockaddr_in sa{};
    socklen_t len = sizeof(sa);
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sa), len), 0);
    getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len);
    close(fd);
    return std::to_string(ntohs(sa.sin_port));
}

TEST(Channel, LeavesTheLoopBeforeItCloses)
{
    const caught_log log;
    const rqs_config loop{};
    ASSERT_EQ(rqs_init(&loop), 0);
    const size_t base = rqs_fd_count(GET_POLLFDS);
    for (const std::string scheme : {"", "udp://"}) {
        udp_lstn_cfg cfg{};
        udl_ctx udl{};
        const std::string url = scheme + "127.0.0.1:" + free_port();
        cut_text(cfg.url, sizeof(cfg.url), url);
        ASSERT_EQ(udl_ctx_init(&cfg, &udl), 0) << log.text();
        const std::string fd = std::to_string(udl.sockfd);
        EXPECT_TRUE(udl.is_ready);
        EXPECT_TRUE(log.has("udl_ctx_init: fd" + fd + " set up to listen on [" + url + "]\n"));
        ASSERT_EQ(udl_ctx_start(&udl), 0);
        EXPECT_EQ(rqs_fd_count(GET_POLLFDS), base + 1);
        udl_ctx_destroy(&udl);
        EXPECT_EQ(rqs_fd_count(GET_POLLFDS), base);
        EXPECT_TRUE(log.has("udl_ctx_destroy: done on fd" + fd + "\n"));
        EXPECT_FALSE(udl.is_ready);
        udl_ctx_destroy(&udl); /* nothing is left to do */
    }
    rqs_destroy();
}

TEST(Channel, IsOptionalAndSaysWhenItFails)
{
    const caught_log log;
    udp_lstn_cfg cfg{};
    udl_ctx udl{};
    EXPECT_EQ(udl_ctx_init(&cfg, &udl), 0);
    EXPECT_FALSE(udl.is_ready);
    cut_text(cfg.url, sizeof(cfg.url), "http://127.0.0.1");
    EXPECT_EQ(udl_ctx_init(&cfg, &udl), -1);
    EXPECT_TRUE(log.has("udl_ctx_init: failed to open [http://127.0.0.1]\n"));
    EXPECT_FALSE(udl.is_ready);
}

TEST(ChannelDeathTest, MustBeReadyToStart)
{
    udl_ctx udl{};
    EXPECT_DEATH((void)udl_ctx_start(&udl), "ASSERT at");
    EXPECT_DEATH((void)udl_accept(&udl), "ASSERT at");
}

} // namespace
