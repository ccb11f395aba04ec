/* What a database answers, on the wire: to the question for the script, then to a registration. */
#include "fuzz.h"

#include "lbquery.h"

#include <cstdlib>
#include <hiredis/hiredis.h>

static std::string_view g_bytes;

/* Takes the place of the library's: the connection is one end of a pair whose other end has answered already. */
extern "C" redisContext* redisConnectWithTimeout(const char* /*host*/, int /*port*/, timeval /*tmout*/)
{
    int fds[2];
    MUST(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
    MUST(send(fds[1], g_bytes.data(), g_bytes.size(), 0) == static_cast<ssize_t>(g_bytes.size()) || g_bytes.empty());
    shutdown(fds[1], SHUT_WR);
    static int peer = -1; /* stays open for the commands, which nobody reads */
    if (peer >= 0)
        close(peer);
    peer = fds[1];
    redisContext* c = redisConnectFd(fds[0]);
    MUST(c);
    return c;
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    fuzz_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string dir = [] {
        std::string name = "/tmp/kov-fuzz-XXXXXX";
        MUST(mkdtemp(name.data()));
        FILE* fp = fopen((name + "/add_url.sha1").c_str(), "w");
        fputs("0123456789012345678901234567890123456789\n", fp);
        fclose(fp);
        return name;
    }();
    static const struct cleaner {
        ~cleaner()
        {
            unlink((dir + "/add_url.sha1").c_str());
            rmdir(dir.c_str());
        }
    } clean;
    /* A quarter of the socket's buffer: more would block the sender. */
    g_bytes = {reinterpret_cast<const char*>(data), std::min<size_t>(size, 50000)};
    MUST(lbdb_init(dir.c_str(), LBQ_FL_ADD, 0) == 0);
    if (lbdb_connect("db", 1, {0, 500000}) == 0)
        (void)lbdb_add_segurl("id", "http://me/id", 600);
    lbdb_destroy();
    return 0;
}
