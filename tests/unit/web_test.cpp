/* URIs, request heads, responses and the head of a source: what foreign bytes become. */
#include "caught_log.h"
#include "scratch_dir.h"
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

TEST(Uri, ExtractsThePartsThatAreAskedFor)
{
    std::array<char, URI_SCHEME_MAX> scheme{};
    std::array<char, URI_AUTH_MAX> authority{};
    std::array<char, URI_PATH_MAX> path{};
    std::array<char, URI_QUERY_MAX> query{"old"};
    EXPECT_EQ(uri_extract("UDP://10.0.0.1@232.1.1.1:5000", scheme.data(), authority.data(), path.data(), query.data()),
              URI_UDP);
    EXPECT_EQ(std::string(scheme.data()) + "|" + authority.data() + "|" + path.data() + "|" + query.data(),
              "UDP|10.0.0.1|232.1.1.1:5000|");
    EXPECT_EQ(uri_extract("http://h/a?x=1", nullptr, nullptr, nullptr, query.data()), URI_HTTP);
    EXPECT_STREQ(query.data(), "x=1");
    caught_log log;
    const std::string long_path = "http://" + std::string(URI_PATH_MAX, 'p');
    for (const char* bad : {"/a/b", "gopher://h/a", "http://", long_path.c_str()})
        EXPECT_EQ(uri_extract(bad, nullptr, nullptr, path.data(), nullptr), URI_BAD) << bad;
    EXPECT_NE(log.text().find("uri_extract: uri_get_path ERROR\n"), std::string::npos);
    EXPECT_NE(log.text().find("uri_extract: error parsing URI: [gopher://h/a]\n"), std::string::npos);
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
    char* encoded = uri_encode("a b/\xff", 32);
    EXPECT_STREQ(encoded, "a%20b%2F%FF");
    free(encoded);
}

TEST(Uri, WalksSegments)
{
    const char* start = nullptr;
    size_t len = 0;
    std::string seen;
    for (const char* p = "/a//bc/d"; (p = uri_xseg(p, "//", &start, &len));)
        seen += "[" + std::string(start, len) + "]";
    EXPECT_EQ(seen, "[a/][bc/][d]");
    EXPECT_EQ(xseg_scmp("src", "SRC/", 4, "//"), 0);
    EXPECT_NE(xseg_scmp("src", "srcs/", 5, "//"), 0);
    std::array<char, 4> buf{};
    EXPECT_EQ(xseg_cpy("/abc/", 5, buf.data(), buf.size(), "//"), 0);
    EXPECT_STREQ(buf.data(), "abc");
    EXPECT_EQ(xseg_cpy("/abcd/", 6, buf.data(), buf.size(), "//"), 7);
}

TEST(Orders, FindSourceAndDestination)
{
    const struct {
        const char* path;
        int rc;
        const char* both; /* source|destination */
    } cases[] = {
        {"src/http://o:8080/live/a.ts/dst/cache/a.ts", 0, "http://o:8080/live/a.ts|cache/a.ts"},
        {"dl/src/http://o/v/b.ts/dst/", 0, "http://o/v/b.ts|"},
        {"src/http://o/b/dst", 0, "http://o/b|"},
        {"dst/x/SRC/http://o/src/x/Dst/y/dST/z//w/", 0, "http://o/src/x/Dst/y|z//w/"},
        {"a/b", -14, "|"},
        {"word", 3, "|"},
        {"$alias", -14, "|"},
        {"src/http://o/a", 1, "|"},
        {"src/http://o/src/a/dst/b", 1, "|"},
        {"udp/1.2.3.4:5", 0, "udp://1.2.3.4:5|"},
    };
    for (const auto& c : cases) {
        std::array<char, 64> src{};
        std::array<char, 64> dst{};
        EXPECT_EQ(uri_extract_endpts_ext(c.path, strlen(c.path), src.data(), dst.data(), src.size()), c.rc) << c.path;
        EXPECT_EQ(std::string(src.data()) + "|" + dst.data(), c.both) << c.path;
    }
    std::array<char, 8> small{};
    std::array<char, 8> dst{};
    EXPECT_EQ(uri_extract_endpts_ext("src/12345678/dst/x", 18, small.data(), dst.data(), small.size()), 7);
}

TEST(Orders, BareUrlsHaveALimitedPath)
{
    std::array<char, 256> src{};
    std::array<char, 256> dst{};
    EXPECT_EQ(web_parse_url("http://a/src/http://o/x%20y/dst/z?q", src.data(), dst.data(), src.size()), 0);
    EXPECT_STREQ(src.data(), "http://o/x y");
    EXPECT_STREQ(dst.data(), "z");
    const std::string url = "http://a/src/http://o/x/dst/";
    const size_t used = url.size() - strlen("http://");
    EXPECT_EQ(web_parse_url((url + std::string(127 - used, 'z')).c_str(), src.data(), dst.data(), src.size()), 0);
    EXPECT_EQ(web_parse_url((url + std::string(128 - used, 'z')).c_str(), src.data(), dst.data(), src.size()), -1);
}

TEST(Heads, FieldsAreFoundAsStated)
{
    const char* head = "Host: h\r\nX-Note: see User-Agent: inner\r\nUser-Agent: outer\r\nTab: a\tb\r\nNone:x\r\n";
    const auto value_of = [head](const char* name) {
        size_t len = 0;
        const char* value = find_http_header(name, head, &len);
        return part(value, len);
    };
    EXPECT_EQ(value_of("host:"), "h");
    EXPECT_EQ(value_of("User-Agent:"), "inner"); /* the first hit wins */
    EXPECT_EQ(value_of("Tab:"), "-");
    EXPECT_EQ(value_of("None:"), "-");
    EXPECT_EQ(value_of("Absent:"), "-");

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

TEST(Responses, AreExact)
{
    std::array<char, HTTP_RESP_MAX> buf{};
    http_response full = {.code = 200,
                          .content_type = "text/plain",
                          .content_encoding = "gzip",
                          .content_length = 5,
                          .reason = "OK",
                          .server = "me",
                          .connection = "close",
                          .ok_suffix = "X-One: 1",
                          .location = "/x",
                          .fpath = nullptr};
    const int n = mk_http_xt_resp(&full, 10, buf.data(), buf.size());
    EXPECT_EQ(
        std::string(buf.data(), static_cast<size_t>(n)),
        "HTTP/1.0 200 OK\r\nServer: me\r\nContent-Type: text/plain\r\nContent-Encoding: gzip\r\nContent-Length: 5\r\n"
        "Connection: close\r\nLocation: /x\r\nX-One: 1\r\n\r\n");
    const scratch_dir dir;
    const std::string page = dir.put("page", "hello");
    http_response with_file{};
    with_file.code = 403;
    with_file.reason = "Forbidden";
    with_file.server = "me";
    with_file.content_length = 5;
    with_file.fpath = page.c_str();
    const int m = mk_http_response(&with_file, buf.data(), buf.size());
    EXPECT_EQ(std::string(buf.data(), static_cast<size_t>(m)),
              "HTTP/1.1 403 Forbidden\r\nServer: me\r\nContent-Length: 5\r\n\r\nhello");
    EXPECT_EQ(mk_http_xt_resp(&full, 20, buf.data(), buf.size()), 22);
    EXPECT_EQ(mk_http_response(&full, buf.data(), 60), -1);
    const std::string long_text(130, 'x');
    full.location = long_text.c_str();
    EXPECT_EQ(mk_http_response(&full, buf.data(), buf.size()), -1);

    for (const int code : {200, 204, 302, 400, 403, 404, 406, 408, 500, 502, 503, 504})
        EXPECT_EQ(http_code_resp(code)->code, code);
    caught_log log;
    EXPECT_EQ(http_code_resp(201), &g_resp_ok);
    EXPECT_EQ(http_code_resp(418), &g_resp_err);
    EXPECT_NE(log.text().find("no response for HTTP418 defined, please update the lib!\n"), std::string::npos);
}

/* What sources have been getting away with, and the counts in the refusals, are those of the C library. */
TEST(TextScan, TakesAndCountsAsScanfDoes)
{
    for (const char* text : {"",
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
                             "HTTP/1.1 4294967496 OK"}) {
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

TEST_F(SourceHead, RequestNamesHostAndPath)
{
    usock_set_apptag("me");
    usock_ctx ctx{};
    ctx.http_flags = RQFLAG_HTTP10_GET | RQFLAG_KEEPALIVE;
    ASSERT_EQ(usock_http_get(fds[1], "http://h:81/a?q=1", &ctx), 0);
    const ssize_t n = read(fds[0], buf.data(), buf.size());
    EXPECT_EQ(std::string(buf.data(), static_cast<size_t>(n)),
              "GET /a?q=1 HTTP/1.0\r\nHost: h:81\r\nConnection: keep-alive\r\nUser-Agent: me\r\n"
              "Accept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
              "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n");
    for (const auto& [url, host] : {std::pair("http://[::1]:81/a", "[::1]:81"), std::pair("http://[::1]/a", "[::1]")}) {
        ASSERT_EQ(usock_http_get(fds[1], url, &ctx), 0);
        const ssize_t len = read(fds[0], buf.data(), buf.size());
        EXPECT_NE(std::string(buf.data(), static_cast<size_t>(len)).find("\r\nHost: " + std::string(host) + "\r\n"),
                  std::string::npos);
    }
    EXPECT_EQ(usock_http_get(fds[1], "http://h", &ctx), -1); /* no path tail */
    const http_request bare = {
        .type = 0, .flags = 0, .request = "x", .server = "me", .host_addr = "", .host_port = nullptr};
    ASSERT_EQ(send_http_request(fds[1], &bare), 0);
    const ssize_t m = read(fds[0], buf.data(), buf.size());
    EXPECT_EQ(
        std::string(buf.data(), static_cast<size_t>(m)).find("GET /x HTTP/1.1\r\nHost: localhost\r\nConnection: close"),
        0U);
}

} // namespace
