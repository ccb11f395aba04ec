/* What a database answers, on the wire: to the question for the script, then to a registration. */
#include "fuzz.h"

#include "lbquery.h"

#include <cstdlib>
#include <hiredis/hiredis.h>

static std::string_view g_first; /* answers the question for the script */
static std::string_view g_rest;  /* answers a registration; empty: there is none */
static int g_peer = -1;          /* the database's end; the commands that come to it are not read */

static void answer(std::string_view bytes, bool is_last)
{
    MUST(bytes.empty() || send(g_peer, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    if (is_last)
        shutdown(g_peer, SHUT_WR);
}

/* Takes the place of the library's: the connection is one end of a pair. */
extern "C" redisContext* redisConnectNonBlock(const char* /*host*/, int /*port*/)
{
    int fds[2];
    MUST(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) == 0);
    g_peer = fds[1];
    answer(g_first, g_rest.empty());
    redisContext* c = redisConnectFd(fds[0]);
    MUST(c);
    c->flags &= ~REDIS_BLOCK;
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
    g_first = {reinterpret_cast<const char*>(data), std::min<size_t>(size, 50000)};
    g_rest = {};
    for (const std::string_view found : {":1\r\n", "*1\r\n:1\r\n"}) {
        if (g_first.starts_with(found)) {
            g_rest = g_first.substr(found.size());
            g_first = found;
        }
    }
    MUST(lbdb_init(dir.c_str(), LBQ_FL_ADD, 0) == 0);
    const int rc = lbdb_connect("db", 1, {0, 500000});
    MUST(g_peer >= 0 && (rc == 0 || g_rest.empty()));
    if (!g_rest.empty())
        answer(g_rest, true);
    for (int i = 0; rc == 0 && i < 3; ++i) /* the second one meets what the first has left */
        (void)lbdb_add_segurl("id", "http://me/id", 600);
    lbdb_destroy();
    close(g_peer);
    g_peer = -1;
    return 0;
}
