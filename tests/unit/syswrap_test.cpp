#include "fdio.h"
#include "syswrap.h"

#include "caught_log.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/time.h>
#include <unistd.h>

struct Wrappers : testing::Test {
    int sv[2] = {-1, -1};
    Wrappers() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0); }
    ~Wrappers() override
    {
        for (const int fd : sv)
            close(fd);
    }
};

TEST(Faults, ExpectedOnesDependOnStrict)
{
    EXPECT_TRUE(is_eagain(EAGAIN));
    EXPECT_FALSE(is_eagain(EINTR));
    for (const int err : {EAGAIN, EPIPE, EINTR, ECONNRESET}) {
        EXPECT_TRUE(no_fault(err, 0)) << err;
        EXPECT_FALSE(no_fault(err, 1)) << err;
    }
    EXPECT_FALSE(no_fault(EBADF, 0));
}

TEST_F(Wrappers, AFailureIsLoggedOnceAndKeepsErrno)
{
    const struct {
        int (*call)();
        int err;
        const char* text;
    } cases[] = {
        {[] { return W_open("me", "/no/such", 64, 0644); }, ENOENT, "me: open('/no/such', 64, 0x1a4) ERROR(2): "},
        {[] { return W_close("me", -1); }, EBADF, "me: close(fd-1) ERROR(9): "},
        {[] { return int(W_lseek("me", -1, 7, 0)); }, EBADF, "me: lseek(-1, 7, 0) ERROR(9): "},
        {[] { return W_unlink("me", "/no/such"); }, ENOENT, "me: unlink(/no/such) ERROR(2): "},
        {[] { return W_ftruncate("me", -1, 7); }, EBADF, "me: ftruncate(-1, 7) ERROR(9): "},
        {[] { return W_bind("me", -1, nullptr, 4); }, EBADF, "me: bind(-1, (nil), 4): ERROR(9): "},
        {[] { return W_listen("me", -1, 4); }, EBADF, "me: listen(-1, 4) ERROR(9): "},
        {[] { return W_connect("me", -1, nullptr, 4); }, EBADF, "me: connect(-1, (nil), 4) ERROR(9): "},
        {[] { return W_accept("me", -1, nullptr, nullptr); }, EBADF, "me: accept(-1, (nil), 0) ERROR(9): "},
        {[] { return W_socket("me", -1, 1, 2); }, EAFNOSUPPORT, "me: socket(-1, 1, 2) ERROR(97): "},
        {[] { return W_setsockopt("me", -1, 1, 2, nullptr, 4); }, EBADF,
         "me: setsockopt(-1, 1, 2, (nil), 4) ERROR(9): "},
        {[] { return int(W_sendto("me", -1, nullptr, 3, 0, nullptr, 0)); }, EBADF,
         "me: sendto(-1, (nil), 3, 0, ...) ERROR(9): "},
        {[] { return int(W_recvfrom("me", -1, nullptr, 3, 0, nullptr, nullptr)); }, EBADF,
         "me: recvfrom(-1, (nil), 3, 0, ...) ERROR(9): "},
        {[] { return int(W_write_f("me", -1, nullptr, 3, 0)); }, EBADF, "me: write(-1, (nil), 3) ERROR(9): "},
    };
    for (const auto& c : cases) {
        const caught_log log(MOD_SYSWRAP, NORM_level);
        EXPECT_EQ(c.call(), -1);
        EXPECT_EQ(errno, c.err) << c.text;
        EXPECT_TRUE(log.has(std::string(c.text) + strerror(c.err) + "\n")) << log.text();
        EXPECT_EQ(log.count("\n"), 1u);
    }
    const caught_log log(MOD_SYSWRAP, NORM_level);
    EXPECT_EQ(W_calloc("me", SIZE_MAX / 2, 8), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(log.has("me: calloc(9223372036854775807, 8) ERROR(12): "));
}

TEST_F(Wrappers, AnExpectedConditionIsLoggedOnlyWhenStrict)
{
    char c = 0;
    const caught_log log(MOD_SYSWRAP, NORM_level);
    EXPECT_EQ(W_read_f("me", sv[0], &c, 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(W_read_f("me", sv[0], &c, 1, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(log.has("me: read(" + std::to_string(sv[0]) + ", "));
    EXPECT_EQ(log.count("\n"), 1u);
}

TEST_F(Wrappers, TheEndOfAStreamIsAFailureOfRecvfromOnly)
{
    char c = 0;
    shutdown(sv[1], SHUT_WR);
    const caught_log log(MOD_SYSWRAP, NORM_level);
    EXPECT_EQ(W_read_f("me", sv[0], &c, 1, 1), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(W_recvfrom("me", sv[0], &c, 1, 0, nullptr, nullptr), 0);
    EXPECT_TRUE(log.has("me: recvfrom("));
}

TEST_F(Wrappers, SuccessesAreTracedAtDebug)
{
    for (const int level : {NORM_level, DEBUG_level}) {
        const caught_log log(MOD_SYSWRAP, level);
        const int fd = W_socket("me", AF_INET, SOCK_STREAM, 0);
        ASSERT_GE(fd, 0);
        const std::string num = std::to_string(fd);
        EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        EXPECT_EQ(W_close("me", fd), 0);
        EXPECT_EQ(log.has("me opened socket fd=" + num + " (2, 1, 0)\n"), level == DEBUG_level);
        EXPECT_EQ(log.has("me: CLOSED(fd" + num + ")\n"), level == DEBUG_level);
    }
}

TEST(Sockets, AConnectInProgressIsInfoAndAcceptIsReady)
{
    const int lfd = W_socket("me", AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* sa = reinterpret_cast<sockaddr*>(&sin);
    socklen_t len = sizeof(sin);
    ASSERT_EQ(W_bind("me", lfd, sa, len), 0);
    ASSERT_EQ(W_listen("me", lfd, 4), 0);
    ASSERT_EQ(getsockname(lfd, sa, &len), 0);

    const caught_log log(MOD_SYSWRAP);
    EXPECT_EQ(W_accept("me", lfd, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.text(), "") << "no client yet is no fault";

    const int cfd = W_socket("me", AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    EXPECT_EQ(W_connect("me", cfd, sa, len), -1);
    EXPECT_EQ(errno, EINPROGRESS);
    EXPECT_EQ(log.count("W_connect: non-blocking connect in progress for fd" + std::to_string(cfd) + "\n"), 1u);
    EXPECT_FALSE(log.has("ERROR"));

    ASSERT_EQ(wait_to_read(lfd, 5000), 1);
    const int afd = W_accept("me", lfd, nullptr, nullptr);
    ASSERT_GE(afd, 0);
    EXPECT_EQ(fcntl(afd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(afd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    pollfd pfd = {afd, POLLIN, 0};
    EXPECT_EQ(W_poll("me", &pfd, 1, 1), 0);
    EXPECT_TRUE(log.has("me: poll() has timed out after 1 ms\n"));
    for (const int fd : {afd, cfd, lfd})
        close(fd);
}

TEST(Resolver, NamesItsOwnErrorText)
{
    const caught_log log(MOD_SYSWRAP, NORM_level);
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* res = nullptr;
    EXPECT_EQ(W_getaddrinfo("me", "not-numeric", nullptr, &hints, &res), EAI_NONAME);
    EXPECT_TRUE(log.has("me: getaddrinfo(not-numeric, (null), 0x"));
    EXPECT_TRUE(log.has(std::string("): ") + gai_strerror(EAI_NONAME) + "\n"));
}

TEST_F(Wrappers, WaitToReadSeesDataAndTheEnd)
{
    EXPECT_EQ(wait_to_read(sv[0], 1), 0);
    ASSERT_EQ(nwrite(sv[1], "x", 1), 1);
    EXPECT_EQ(wait_to_read(sv[0], 1), 1);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    close(p[1]);
    EXPECT_EQ(wait_to_read(p[0], 1), 1) << "the end of a pipe can be read";
    close(p[0]);
}

TEST(Fdio, ACallIsRepeatedOnlyAfterASignal)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    static int wfd;
    static int nticks;
    wfd = p[1];
    nticks = 0;
    struct sigaction sa {
    }, old{};
    sa.sa_handler = [](int) {
        if (++nticks == 3)
            (void)!write(wfd, "ab", 2);
    };
    sigaction(SIGALRM, &sa, &old);
    itimerval tick = {{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &tick, nullptr);
    char buf[8];
    EXPECT_EQ(nread(p[0], buf, sizeof(buf)), 2) << "interrupted twice, then one short read";
    tick = {};
    setitimer(ITIMER_REAL, &tick, nullptr);
    sigaction(SIGALRM, &old, nullptr);

    ASSERT_EQ(fcntl(p[1], F_SETFL, O_NONBLOCK), 0);
    const std::string much(1 << 20, 'x');
    EXPECT_EQ(nwrite(p[1], much.data(), much.size()), 1 << 16) << "a short write is reported, not continued";
    EXPECT_EQ(nwrite(p[1], "x", 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    close(p[0]);
    close(p[1]);
}

TEST(Fdio, ReadsTheFirstBytesOfAFile)
{
    char path[] = "/tmp/kov_fdio_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_EQ(write(fd, "12345", 5), 5);
    close(fd);
    char buf[8];
    EXPECT_EQ(read_file_buf(path, buf, sizeof(buf)), 5);
    EXPECT_EQ(read_file_buf(path, buf, 3), 3);
    unlink(path);
    const caught_log log(MOD_SYSWRAP, NORM_level);
    EXPECT_EQ(read_file_buf(path, buf, 3), -1);
    EXPECT_EQ(log.count("\n"), 1u);
}
