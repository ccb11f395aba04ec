/* URIs, request heads, responses and the head of a source: what foreign bytes become. */
#include "strops.h"
#include "uri.h"
#include "webops.h"
#include "wopen.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

std::string part(const char* p, size_t len)
{
    return p ? std::string(p, len) : "-";
}

TEST(Uri, SplitsIntoParts)
{
    const struct {
        const char* text;
        const char* parts; /* scheme|authority|path|query, "-" = absent */
    } cases[] = {
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
    for (const auto& c : cases) {
        uri_layout u{};
        ASSERT_EQ(uri_parse(c.text, &u), 0) << c.text;
        EXPECT_EQ(part(u.scheme, u.s_len) + "|" + part(u.authority, u.a_len) + "|" + part(u.path, u.p_len) + "|" +
                      part(u.query, u.q_len),
                  c.parts);
    }
    EXPECT_EQ(uri_parse("http://", nullptr), -1);
    EXPECT_EQ(uri_parse("udp://x@", nullptr), -1);
}

TEST(Uri, TakesHostAndPortOutOfAPath)
{
    const struct {
        const char* path;
        const char* expected; /* host|port|rest, null = refused */
    } cases[] = {
        {"[::1]:8080/x", "::1|8080|/x"}, {"h/x", "h||/x"},    {"h:81", "h|81|"},
        {"//h:1?q", "h|1|?q"},           {"[::1/x", nullptr}, {"h:123456789/", nullptr},
    };
    for (const auto& c : cases) {
        std::array<char, 64> host{};
        std::array<char, 8> port{};
        const char* rest =
            uri_path_addrport(c.path, strlen(c.path), host.data(), host.size(), port.data(), port.size());
        EXPECT_EQ(rest ? std::string(host.data()) + "|" + port.data() + "|" + rest : "refused",
                  c.expected ? c.expected : "refused");
    }
}

TEST(Uri, DecodesWithinItsText)
{
    const struct {
        const char* text;
        const char* decoded;
    } cases[] = {{"a%2Fb", "a/b"}, {"a%0Ab", "a?b"}, {"a%zzb", "ab"},  {"a+b", "a b"},  {"a%4", "a"},
                 {"a%", "a"},      {"%00x", "?x"},   {"%41%6a", "Aj"}, {"%%41x", "1x"}, {"", ""}};
    for (const auto& c : cases) {
        std::array<char, 32> buf{};
        memset(buf.data(), '4', buf.size()); /* what an overrun would take for digits */
        memcpy(buf.data(), c.text, strlen(c.text) + 1);
        ASSERT_NE(uri_decode(buf.data(), buf.size()), nullptr);
        EXPECT_STREQ(buf.data(), c.decoded) << c.text;
    }
    std::array<char, 4> full{'a', 'b', '%', '4'};
    EXPECT_EQ(uri_decode(full.data(), full.size()), nullptr);
}

TEST(Heads, ANumberIsAFieldOfItsOwnOrNone)
{
    const struct {
        const char* head;
        std::optional<int64_t> value;
    } cases[] = {{"A: 1\r\nContent-Length: 42\r\n\r\n", 42},
                 {"content-length:7\n\n", 7},
                 {"CONTENT-LENGTH \t: \t8 \r\n", 8},
                 {"X-Content-Length: 5\r\n", {}},
                 {"Content-Length: 5 6\r\n", {}},
                 {"Content-Length: -5\r\n", {}},
                 {"Content-Length: +5\r\n", {}},
                 {"Content-Length: 0x5\r\n", {}},
                 {"Content-Length:\r\n", {}},
                 {"Content-Length: 9223372036854775807\r\n", INT64_MAX},
                 {"Content-Length: 9223372036854775808\r\n", {}}};
    for (const auto& c : cases)
        EXPECT_EQ(extract_num_hdr("Content-Length", c.head), c.value) << c.head;
}

TEST(Heads, EndAtTheBlankLine)
{
    const struct {
        const char* text;
        size_t end;
    } cases[] = {{"a\r\n\r\nb", 5}, {"a\n\nb", 3}, {"a\r\n\r", 0}, {"a\r\n\n", 4}, {"\n", 0}, {"", 0}, {"\r\n\r\n", 4}};
    for (const auto& c : cases)
        EXPECT_EQ(head_eod(c.text, strlen(c.text)), c.end) << c.text;
}

TEST(Responses, ThatDoNotFitAreNone)
{
    std::array<char, HTTP_RESP_MAX> buf{};
    http_response resp = g_resp_denied;
    resp.server = "me";
    const std::string text = "HTTP/1.1 403 Forbidden\r\nServer: me\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    const auto len = static_cast<int>(text.size());
    EXPECT_EQ(mk_http_response(&resp, buf.data(), text.size() + 1), len);
    EXPECT_EQ(std::string(buf.data()), text);
    for (size_t cap = 1; cap <= text.size(); ++cap)
        EXPECT_EQ(mk_http_response(&resp, buf.data(), cap), -1) << cap;
    const std::string long_text(130, 'x');
    resp.location = long_text.c_str();
    EXPECT_EQ(mk_http_response(&resp, buf.data(), buf.size()), -1);
    for (const int code : {200, 204, 302, 400, 403, 404, 406, 408, 500, 502, 503, 504})
        EXPECT_EQ(http_code_resp(code)->code, code);
}

/* What sources have been getting away with, and the counts in the refusals, are those of the C library. */
TEST(TextScan, TakesAndCountsAsScanfDoes)
{
    static const char* const TEXTS[] = {"",
                                        "HT",
                                        "junk",
                                        "http/1.1 200 OK",
                                        "HTTP/",
                                        "HTTP/ ",
                                        "HTTP/x",
                                        "HTTP/1",
                                        "HTTP/1 .1 200 OK",
                                        "HTTP/1. 1 200 OK",
                                        "HTTP/11 200 OK",
                                        "HTTP/-1.1 200 OK",
                                        "HTTP/1.1",
                                        "HTTP/1.1200 OK",
                                        "HTTP/1.1 +",
                                        "HTTP/1.1 - 200",
                                        "HTTP/1.1 200",
                                        "HTTP/1.1 200 \r\n",
                                        "HTTP/1.1 200\r\nContent-Length: 5",
                                        "HTTP/1.1\t\v+200 OK",
                                        "HTTP/1.1 0x1 OK",
                                        "HTTP/1.1 -7 OK",
                                        "HTTP/1.1 200 1234567890123456789012345678901234567890 b",
                                        "HTTP/1.1 99999999999999999999999 OK",
                                        "HTTP/1.1 -99999999999999999999999 OK",
                                        "HTTP/1.1 4294967496 OK"};
    for (const char* text : TEXTS) {
        int theirs[3] = {};
        std::array<char, 32> their_word{};
        const int n =
            sscanf(text, "HTTP/%1d.%1d %d %31s\r\n", &theirs[0], &theirs[1], &theirs[2], // NOLINT(cert-err34-c)
                   their_word.data());
        long ours[3] = {};
        std::array<char, 32> our_word{};
        text_scan s = {.p = text, .count = 0, .failed = false};
        scan_literal(&s, "HTTP/");
        scan_num(&s, 1, &ours[0]);
        scan_literal(&s, ".");
        scan_num(&s, 1, &ours[1]);
        scan_num(&s, SIZE_MAX, &ours[2]);
        scan_word(&s, our_word.data(), our_word.size());
        EXPECT_EQ(s.count, n) << text;
        for (size_t i = 0; i < 3; ++i)
            EXPECT_EQ(static_cast<int>(ours[i]), theirs[i]) << text;
        EXPECT_STREQ(our_word.data(), their_word.data()) << text;
    }
}

class SourceHead : public testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds.data()), 0); }
    void TearDown() override
    {
        close(fds[0]);
        if (fds[1] >= 0)
            close(fds[1]);
    }
    int receive(const std::string& bytes, http_resp_ctx* resp)
    {
        EXPECT_EQ(write(fds[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        buf.fill('#');
        return recv_http_response(fds[0], buf.data(), 2047, resp);
    }
    std::array<int, 2> fds{};
    std::array<char, 2048> buf{};
};

TEST_F(SourceHead, LeavesTheBodyBehindIt)
{
    http_resp_ctx resp{};
    const std::string head = "HTTP/1.1 404 Not Found\r\nA: b\r\n\r\n";
    ASSERT_EQ(receive(head + "body", &resp), 0);
    EXPECT_EQ(resp.code, 404);
    EXPECT_EQ(resp.tail, static_cast<ssize_t>(head.size()));
    EXPECT_EQ(resp.total, static_cast<ssize_t>(head.size() + 4));
    EXPECT_EQ(std::string(buf.data() + resp.tail, 4), "body");
}

TEST_F(SourceHead, IsAwaitedRefusedOrBroken)
{
    http_resp_ctx resp{};
    EXPECT_EQ(receive("HTTP/1.1 200 OK\r\n", &resp), 11);
    resp = {};
    EXPECT_EQ(receive("HTTP/1.1 200\r\n\r\n", &resp), -1);
    resp = {};
    EXPECT_EQ(receive("HTTP/1.1 200 OK\r\nX: " + std::string(2100, 'x'), &resp), -1);
    while (read(fds[0], buf.data(), buf.size()) > 0) {
    }
    close(fds[1]);
    fds[1] = -1;
    resp = {};
    EXPECT_EQ(recv_http_response(fds[0], buf.data(), 2047, &resp), -1);
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

} // namespace
