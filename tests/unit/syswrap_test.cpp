#include "syswrap.h"

#include "caught_log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

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

TEST(Failures, AreLoggedOnceAndKeepErrno)
{
    const struct {
        ssize_t (*call)();
        int err;
        const char* text;
    } cases[] = {
        {[]() -> ssize_t { return W_open("me", "/no/such", 64, 0644); }, ENOENT, "open('/no/such', 64, 0x1a4)"},
        {[]() -> ssize_t { return W_close("me", -1); }, EBADF, "close(fd-1)"},
        {[]() -> ssize_t { return W_lseek("me", -1, 7, 0); }, EBADF, "lseek(-1, 7, 0)"},
        {[]() -> ssize_t { return W_unlink("me", "/no/such"); }, ENOENT, "unlink(/no/such)"},
        {[]() -> ssize_t { return W_ftruncate("me", -1, 7); }, EBADF, "ftruncate(-1, 7)"},
        {[]() -> ssize_t { return W_bind("me", -1, nullptr, 4); }, EBADF, "bind(-1, (nil), 4):"},
        {[]() -> ssize_t { return W_listen("me", -1, 4); }, EBADF, "listen(-1, 4)"},
        {[]() -> ssize_t { return W_connect("me", -1, nullptr, 4); }, EBADF, "connect(-1, (nil), 4)"},
        {[]() -> ssize_t { return W_accept("me", -1, nullptr, nullptr); }, EBADF, "accept(-1, (nil), 0)"},
        {[]() -> ssize_t { return W_socket("me", -1, 1, 2); }, EAFNOSUPPORT, "socket(-1, 1, 2)"},
        {[]() -> ssize_t { return W_write_f("me", -1, nullptr, 3, 0); }, EBADF, "write(-1, (nil), 3)"},
    };
    for (const auto& c : cases) {
        const caught_log log(MOD_SYSWRAP, NORM_level);
        EXPECT_EQ(c.call(), -1);
        EXPECT_EQ(errno, c.err) << c.text;
        EXPECT_EQ(log.text(), std::string("(ERR)  me: ") + c.text + " ERROR(" + std::to_string(c.err) +
                                  "): " + strerror(c.err) + "\n");
    }
}
