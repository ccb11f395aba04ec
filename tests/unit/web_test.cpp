/* URIs, heads and responses: what foreign bytes become, where a table says it shorter than the wire; groups. */
#include "netops.h"
#include "strops.h"
#include "uri.h"
#include "webops.h"
#include "wopen.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

static std::string part(const char* p, size_t len)
{
    return p ? std::string(p, len) : "-";
}

TEST(Uri, SplitsIntoParts)
{
    const std::pair<const char*, const char*> cases[] = {
        /* scheme|authority|path|query, "-" = absent */
        {"http://h:81/a/b?x=1", "http|-|h:81/a/b|x=1"},
        {"/a?b/", "-|-|a?b/|-"},
        {" \t/a/b", "-|-|a/b|-"},
        {"/a?b?c", "-|-|a?b|c"},
        {"/a?", "-|-|a|-"},
        {"udp://1.2.3.4@232.1.1.1:5000", "udp|1.2.3.4|232.1.1.1:5000|-"},
        {"c:/x", "-|-|c:/x|-"},
        {"", "-|-||-"},
        {"/src/http://h/a@b/dst/c", "-|-|src/http://h/a@b/dst/c|-"},
    };
    for (const auto& [text, parts] : cases) {
        uri_layout u{};
        ASSERT_EQ(uri_parse(text, &u), 0) << text;
        EXPECT_EQ(part(u.scheme, u.s_len) + "|" + part(u.authority, u.a_len) + "|" + part(u.path, u.p_len) + "|" +
                      part(u.query, u.q_len),
                  parts);
    }
    EXPECT_EQ(uri_parse("http://", nullptr), -1);
    EXPECT_EQ(uri_parse("udp://x@", nullptr), -1);
}

TEST(Uri, DecodesWithinItsText)
{
    const std::pair<const char*, const char*> cases[] = {
        {"a%2Fb", "a/b"}, {"a%0Ab", "a?b"}, {"a%zzb", "ab"},  {"a+b", "a b"},  {"a%4", "a"},
        {"a%", "a"},      {"%00x", "?x"},   {"%41%6a", "Aj"}, {"%%41x", "1x"}, {"", ""}};
    for (const auto& [text, decoded] : cases) {
        std::array<char, 32> buf{};
        buf.fill('4'); /* what an overrun would take for digits */
        memcpy(buf.data(), text, strlen(text) + 1);
        ASSERT_NE(uri_decode(buf.data(), buf.size()), nullptr);
        EXPECT_STREQ(buf.data(), decoded) << text;
    }
    std::array<char, 4> full{'a', 'b', '%', '4'};
    EXPECT_EQ(uri_decode(full.data(), full.size()), nullptr);
}

TEST(Heads, ANumberIsAFieldOfItsOwnOrNone)
{
    const std::pair<const char*, std::optional<int64_t>> cases[] = {
        {"A: 1\r\nContent-Length: 42\r\n\r\n", 42},
        {"content-length:7\n\n", 7},
        {"CONTENT-LENGTH \t: \t8 \r\n", 8},
        {"X-Content-Length: 5\r\n", {}},
        {"Content-Length: 5 6\r\n", {}},
        {"Content-Length: -5\r\n", {}},
        {"Content-Length: 0x5\r\n", {}},
        {"Content-Length:\r\n", {}},
        {"Content-Length: 9223372036854775807\r\n", INT64_MAX},
        {"Content-Length: 9223372036854775808\r\n", {}}};
    for (const auto& [head, value] : cases)
        EXPECT_EQ(extract_num_hdr("Content-Length", head), value) << head;
}

TEST(Heads, EndAtTheBlankLine)
{
    const std::pair<const char*, size_t> cases[] = {{"a\r\n\r\nb", 5}, {"a\n\nb", 3}, {"a\r\n\r", 0}, {"a\r\n\n", 4},
                                                    {"\n", 0},         {"", 0},       {"\r\n\r\n", 4}};
    for (const auto& [text, end] : cases)
        EXPECT_EQ(head_eod(text, strlen(text)), end) << text;
}

TEST(Responses, ThatDoNotFitAreNone)
{
    std::array<char, HTTP_RESP_MAX> buf{};
    http_response resp = g_resp_denied;
    resp.server = "me";
    const std::string text = "HTTP/1.1 403 Forbidden\r\nServer: me\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    for (size_t cap = 1; cap <= text.size(); ++cap)
        EXPECT_EQ(mk_http_response(&resp, buf.data(), cap), -1) << cap;
    EXPECT_EQ(mk_http_response(&resp, buf.data(), text.size() + 1), static_cast<int>(text.size()));
    EXPECT_EQ(buf.data(), text);
}

struct SourceHead : testing::Test {
    int fds[2] = {-1, -1};
    http_resp_ctx resp{};
    std::array<char, 2048> buf{};

    SourceHead() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0); }
    ~SourceHead() override
    {
        for (const int fd : fds)
            close(fd);
    }
    int receive(const std::string& bytes)
    {
        EXPECT_EQ(write(fds[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        buf.fill('#');
        return recv_http_response(fds[0], buf.data(), 2047, &resp);
    }
};

TEST_F(SourceHead, IsAwaitedAndLeavesTheBodyBehindIt)
{
    EXPECT_EQ(receive("HTTP/1.1 200 OK\r\n"), EAGAIN);
    resp = {};
    const std::string head = "HTTP/1.1 404 Not Found\r\nA: b\r\n\r\n";
    ASSERT_EQ(receive(head + "body"), 0);
    EXPECT_EQ(resp.code, 404);
    EXPECT_EQ(resp.tail, static_cast<ssize_t>(head.size()));
    EXPECT_EQ(resp.total, static_cast<ssize_t>(head.size() + 4));
    EXPECT_EQ(std::string(buf.data() + resp.tail, 4), "body");
}

TEST_F(SourceHead, TheRequestNamesAnAddressInBrackets)
{
    usock_ctx ctx{};
    for (const auto& [url, host] : {std::pair("http://[::1]:81/a", "[::1]:81"), std::pair("http://[::1]/a", "[::1]")}) {
        ASSERT_EQ(usock_http_get(fds[1], url, &ctx), 0);
        const ssize_t len = read(fds[0], buf.data(), buf.size());
        EXPECT_NE(std::string(buf.data(), static_cast<size_t>(len)).find("\r\nHost: " + std::string(host) + "\r\n"),
                  std::string::npos);
    }
    EXPECT_EQ(usock_http_get(fds[1], "http://h", &ctx), -1) << "no path to ask for";
}

/* By an interface's name, by its address, and by either interface of the kernel: what was joined can be left, once. */
TEST(Groups, AreJoinedAndLeftByEitherInterface)
{
    const std::pair<const char*, const char*> rows[] = {{"239.9.8.7:5000", "127.0.0.2:1"},
                                                        {"[ff15::98]:5000", "[fd00::7]:1"}};
    for (const auto& [group_text, source_text] : rows) {
        sockaddr_storage group{};
        sockaddr_storage source{};
        socklen_t len = 0;
        ASSERT_EQ(mk_sockaddr(group_text, SOCK_DGRAM, 0, &group, &len), 0);
        ASSERT_EQ(mk_sockaddr(source_text, SOCK_DGRAM, 0, &source, &len), 0);
        const int fd = socket(group.ss_family, SOCK_DGRAM, 0);
        ifc_info* lo = get_ifc_info(group.ss_family, "lo");
        ASSERT_TRUE(lo);
        ifc_info by_name = *lo;
        by_name.ss.ss_family = AF_UNSPEC;
        for (const bool by_protocol : {false, true}) {
            mcast_by_protocol = by_protocol;
            const int rc = by_protocol && group.ss_family == AF_INET6 ? EINVAL : 0;
            for (const ifc_info* ifc : {lo, &by_name}) {
                EXPECT_EQ(mcast_join(fd, &group, ifc), 0);
                EXPECT_EQ(mcast_leave(fd, &group, lo), 0);
                EXPECT_EQ(mcast_leave(fd, &group, ifc), -1);
                EXPECT_EQ(ssm_join(fd, &source, &group, ifc), rc);
                EXPECT_EQ(ssm_leave(fd, &source, &group, lo), rc);
            }
        }
        free(lo);
        close(fd);
    }
    mcast_by_protocol = false;
}
