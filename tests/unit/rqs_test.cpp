#include "rqs.h"

#include "caught_log.h"
#include "signals.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

/* What the callbacks saw, and what the test wants of them. */
static std::vector<std::string> g_calls;
static std::function<int(const char* what, int fd, uint32_t flags, void* udata)> g_on_event;
static std::function<int()> g_on_post;
static timespec g_limit;
static int g_nidle;
static bool g_is_dormant;

static int event(const char* what, int fd, uint32_t flags, void* udata)
{
    g_calls.emplace_back(what);
    return g_on_event ? g_on_event(what, fd, flags, udata) : 0;
}

static int quit()
{
    g_quit = 1;
    return 0;
}

static const rqs_callbacks CALLBACKS = {
    .update_tmout =
        [](timespec* limit) noexcept {
            g_calls.emplace_back("tmout");
            *limit = g_limit;
        },
    .on_idle =
        []() noexcept {
            g_calls.emplace_back("idle");
            if (--g_nidle <= 0)
                quit();
            return 0;
        },
    .read = [](int fd, uint32_t flags, void* udata, void*) noexcept { return event("read", fd, flags, udata); },
    .write = [](int fd, uint32_t flags, void* udata, void*) noexcept { return event("write", fd, flags, udata); },
    .error = [](int fd, uint32_t flags, void* udata, void*) noexcept { return event("error", fd, flags, udata); },
    .post_process =
        []() noexcept {
            g_calls.emplace_back(rqs_ctx(GET_LOOP_STAGE) == ELOOP_POSTEV ? "post-ev" : "post-idle");
            return g_on_post ? g_on_post() : 0;
        },
    .on_file_modified = nullptr,
    .time_out = []() noexcept { g_calls.emplace_back("time_out"); },
    .is_dormant = []() noexcept { return g_is_dormant; },
};

static size_t ncalls(const std::string& what)
{
    size_t n = 0;
    for (const auto& c : g_calls)
        n += c == what;
    return n;
}

static long ms_since(const timespec& start)
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
}

/* An initialised loop that idles g_nidle rounds, one unless the test says otherwise, and a pair of sockets. */
struct Loop : testing::Test {
    int sv[2] = {-1, -1};
    int rec = 0; /* stands for a registered record */

    Loop()
    {
        g_calls.clear();
        g_on_event = nullptr;
        g_on_post = nullptr;
        g_limit = {0, 0};
        g_nidle = 1;
        g_quit = 0;
        g_is_dormant = false;
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
        start(false);
    }
    ~Loop() override
    {
        rqs_destroy();
        for (const int fd : sv) {
            if (fd >= 0)
                close(fd);
        }
        g_quit = 0;
        g_tdbg = 0;
    }
    static void start(bool quit_on_zero_fds)
    {
        rqs_destroy();
        const rqs_config cfg = {.cb = CALLBACKS, .quit_on_zero_fds = quit_on_zero_fds};
        ASSERT_EQ(rqs_init(&cfg), 0);
    }
    void hang_up()
    {
        close(sv[1]);
        sv[1] = -1;
    }
    void send_byte() const { ASSERT_EQ(write(sv[1], "x", 1), 1); }
};

TEST_F(Loop, StagesComeInOrder)
{
    ASSERT_EQ(rqs_add_reader(sv[0], &rec), 0);
    send_byte();
    g_on_event = [this](const char*, int, uint32_t flags, void* udata) {
        EXPECT_EQ(rqs_ctx(GET_LOOP_STAGE), ELOOP_EV);
        EXPECT_EQ(flags, 0u);
        EXPECT_EQ(udata, &rec);
        return 0;
    };
    const caught_log log;
    EXPECT_EQ(rqs_event_loop(), 0);
    const std::vector<std::string> expected = {"tmout", "tmout", "time_out", "read", "post-ev", "idle", "post-idle"};
    EXPECT_EQ(g_calls, expected);
    EXPECT_TRUE(log.has("Entering event loop\n"));
    EXPECT_TRUE(log.has("wait4events: timeout=0.000000 sec\n"));
    EXPECT_TRUE(log.has("wait4events: got 1 events\n"));
    EXPECT_TRUE(log.has("rqs_event_loop: processing 1 pollable events\n"));
    EXPECT_TRUE(log.has("Exiting event loop, 0 failed, rc=0, quit=1\n"));
}

TEST_F(Loop, OneHandlerForEachEvent)
{
    constexpr uint32_t NOT_CALLED = 99;
    const struct {
        const char* what;
        std::function<void()> arrange;
        uint32_t interest;
        const char* handler;
        uint32_t flags;
    } cases[] = {
        {"readable and writable", [this] { send_byte(); }, RQS_READ | RQS_WRITE, "read", 0},
        {"writable", [] {}, RQS_READ | RQS_WRITE, "write", 0},
        {"data and hang-up", [this] { send_byte(), hang_up(); }, RQS_READ, "read", RQS_SOCKHUP},
        {"parked and hung up", [this] { hang_up(); }, 0, "error", RQS_SOCKHUP},
        {"parked with data only", [this] { send_byte(); }, 0, "none", NOT_CALLED},
    };
    for (const auto& c : cases) {
        start(false);
        close(sv[0]);
        if (sv[1] >= 0)
            close(sv[1]);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
        g_calls.clear();
        g_quit = 0;
        uint32_t seen = NOT_CALLED;
        g_on_event = [&](const char*, int, uint32_t flags, void*) {
            seen = flags;
            return 0;
        };
        ASSERT_EQ(rqs_add_reader(sv[0], &rec), 0);
        ASSERT_EQ(rqs_mod(sv[0], &rec, c.interest), 0);
        EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 1u);
        c.arrange();
        EXPECT_EQ(rqs_event_loop(), 0);
        for (const std::string h : {"read", "write", "error"})
            EXPECT_EQ(ncalls(h), h == c.handler ? 1u : 0u) << c.what << ": " << h;
        EXPECT_EQ(seen, c.flags) << c.what;
    }
}

TEST_F(Loop, ABareDescriptorIsItsOwnDataWord)
{
    ASSERT_EQ(rqs_add_reader(sv[0], nullptr), 0);
    send_byte();
    g_on_event = [this](const char*, int fd, uint32_t, void* udata) {
        EXPECT_EQ(fd, sv[0]);
        EXPECT_EQ(reinterpret_cast<intptr_t>(udata), sv[0]);
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(ncalls("read"), 1u);
}

TEST_F(Loop, CountsDescriptorsByTheKernelsWord)
{
    EXPECT_EQ(rqs_add_reader(sv[0], &rec), 0);
    const caught_log log;
    EXPECT_EQ(rqs_add_writer(sv[0], &rec), -1) << "already there";
    EXPECT_TRUE(log.has(", EPOLL_CTL_ADD, " + std::to_string(sv[0]) + ", {0x4, 0x"));
    EXPECT_EQ(rqs_mod_reader(sv[1], &rec), -1) << "not there";
    EXPECT_EQ(rqs_rm_fd(sv[1], true, false), -1);
    EXPECT_TRUE(log.has("rqs_rm_fd: REMOVE fd=" + std::to_string(sv[1]) + " from epoll FAILED [rc=-1]\n"));
    EXPECT_EQ(rqs_fd_count(GET_TOTALFDS), 1u);
    EXPECT_EQ(rqs_rm_fd(sv[0], true, false), 0);
    EXPECT_TRUE(log.has("rqs_rm_fd: fd" + std::to_string(sv[0]) + ", poll_fds count=0\n"));
    EXPECT_EQ(rqs_fd_count(GET_TOTALFDS), 0u);
    EXPECT_DEATH((void)rqs_fd_count(9), "");
}

TEST_F(Loop, AFailedHandlerEndsTheLoopAfterPostProcessing)
{
    ASSERT_EQ(rqs_add_reader(sv[0], &rec), 0);
    ASSERT_EQ(rqs_add_writer(sv[1], &rec), 0);
    send_byte();
    g_on_event = [](const char*, int, uint32_t, void*) { return 5; };
    EXPECT_EQ(rqs_event_loop(), 2) << "the number of failed events, not their codes";
    EXPECT_EQ(ncalls("post-ev"), 1u);
    EXPECT_EQ(ncalls("idle"), 0u);
    EXPECT_EQ(ncalls("post-idle"), 0u);
}

TEST_F(Loop, NothingToWatchEndsItOnlyWhenDormant)
{
    start(true);
    g_nidle = 2;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(ncalls("idle"), 2u) << "not dormant: it waits with nothing to watch";
    g_quit = 0;
    g_is_dormant = true;
    g_calls.clear();
    const caught_log log;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(ncalls("time_out"), 0u);
    EXPECT_TRUE(log.has("rqs_event_loop: no fd's, no activity, quitting now.\n"));
}

TEST_F(Loop, TheWaitLimitIsInWholeMilliseconds)
{
    const struct {
        timespec limit;
        const char* text;
    } cases[] = {
        {{1, 999999999}, "timeout=1.999000 sec"},
        {{0, 0}, "timeout=0.000000 sec"},
        {{-1, 0}, "timeout=-1.000000 sec"},
        {{0, -1}, "timeout=-1.000000 sec"},
        {{4000000000, 0}, "timeout=2147483.647000 sec"},
    };
    ASSERT_EQ(rqs_add_writer(sv[0], &rec), 0); /* always ready: no wait is long */
    for (const auto& c : cases) {
        g_quit = 0;
        g_limit = c.limit;
        const caught_log log;
        EXPECT_EQ(rqs_event_loop(), 0);
        EXPECT_TRUE(log.has(c.text)) << log.text();
    }
}

TEST_F(Loop, TheClockStandsStillWithinARound)
{
    ASSERT_EQ(rqs_add_writer(sv[0], &rec), 0);
    g_on_event = [](const char*, int, uint32_t, void*) {
        const timespec before = *rqs_now_ref();
        usleep(2000);
        timespec after{};
        rqs_set_now(&after);
        EXPECT_EQ(memcmp(&before, &after, sizeof(after)), 0);
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    rqs_destroy();
    EXPECT_LT(ms_since(*rqs_now_ref()), 1000) << "without a loop the clock itself is read";
}

TEST_F(Loop, LifeIsSafeAtAnyStage)
{
    EXPECT_EQ(rqs_rm_fd(sv[0], true, false), -1);
    rqs_destroy();
    rqs_destroy();
    EXPECT_EQ(rqs_rm_fd(sv[0], true, false), 0);
    EXPECT_DEATH((void)rqs_event_loop(), "");
    EXPECT_DEATH((void)rqs_add_reader(sv[0], nullptr), "");
    EXPECT_DEATH((void)rqs_init(nullptr), "cfg");
}

TEST_F(Loop, WarnsWhenEverySlotIsFull)
{
    std::vector<int> fds;
    for (size_t nfds = 1; nfds <= 20; ++nfds) { /* 10 and 20 fill the slots, but up to 15 events are never too many */
        fds.push_back(dup(sv[0]));
        ASSERT_EQ(rqs_add_writer(fds.back(), &rec), 0);
        g_quit = 0;
        const caught_log log;
        EXPECT_EQ(rqs_event_loop(), 0);
        EXPECT_EQ(log.has("all event slots populated, might need more\n"), nfds == 20) << nfds;
    }
    for (const int fd : fds)
        close(fd);
}

TEST_F(Loop, AnErrorComesWithItsReadOrWriteEvent)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    close(p[0]);
    ASSERT_EQ(rqs_add_writer(p[1], &rec), 0);
    g_on_event = [](const char* what, int, uint32_t flags, void*) {
        EXPECT_STREQ(what, "write");
        EXPECT_EQ(flags, RQS_SOCKERR);
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(ncalls("write"), 1u);
    close(p[1]);
}

/* ---- signals: blocked outside the wait, as in the daemon ---- */

struct Signals : Loop {
    sigset_t old_mask{};
    Signals()
    {
        sigprocmask(SIG_SETMASK, nullptr, &old_mask);
        EXPECT_EQ(handle_quit_signals(on_sigquit), 0);
        EXPECT_EQ(handle_sig(SIGUSR2, on_tdbg), 0);
        block_handled_signals();
        g_nidle = 1000000000;
        g_limit = {-1, 0};
    }
    ~Signals() override
    {
        const itimerval none{};
        setitimer(ITIMER_REAL, &none, nullptr);
        for (const int signo : {SIGTERM, SIGQUIT, SIGINT, SIGUSR2, SIGALRM, SIGCHLD, SIGHUP, SIGUSR1})
            signal(signo, SIG_DFL);
        sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    }
    /* signo for this process after 30 ms, from a handler that is never blocked. */
    static void raise_later(int signo)
    {
        static int later;
        later = signo;
        signal(SIGALRM, [](int) { kill(getpid(), later); });
        const itimerval once = {{0, 0}, {0, 30000}};
        setitimer(ITIMER_REAL, &once, nullptr);
    }
};

TEST_F(Signals, AQuitThatCameBeforeTheWaitEndsIt)
{
    kill(getpid(), SIGTERM);
    const caught_log log;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_TRUE(log.has("wait4events interrupted, quit=1\n"));
    EXPECT_TRUE(log.has("Exiting event loop, 0 failed, rc=0, quit=1\n"));
    EXPECT_EQ(ncalls("time_out"), 0u);
}

TEST_F(Signals, AnotherSignalDoesNotEndTheLoop)
{
    kill(getpid(), SIGUSR2);
    g_nidle = 2;
    g_on_post = [] {
        g_limit = {0, 0};
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(g_tdbg, 1);
    EXPECT_EQ(ncalls("idle"), 2u) << "the interrupted round goes on without events";
    EXPECT_EQ(ncalls("time_out"), 2u);
}

TEST_F(Signals, ABusyLoopStillQuits)
{
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    ssize_t index = -1;
    const struct {
        const char* what;
        std::function<int()> arrange;
        std::function<void()> undo;
    } cases[] = {
        {"always readable", [this] { return send_byte(), rqs_add_reader(sv[0], &rec); },
         [this] { rqs_rm_fd(sv[0], false, false); }},
        {"zero limit",
         [] {
             return g_limit = {0, 0}, 0;
         },
         [] {}},
        {"no-poll only", [&] { return rqs_add_nopoll_reader(sv[0], &index, &rec); }, [&] { rqs_rm_nopoll(index); }},
    };
    for (const auto& c : cases) {
        g_quit = 0;
        g_nidle = 1000000000;
        g_on_post = [&] {
            g_calls.clear();
            if (ms_since(start) > 5000)
                g_nidle = 0; /* or the test would not end */
            return 0;
        };
        clock_gettime(CLOCK_MONOTONIC, &start);
        ASSERT_EQ(c.arrange(), 0);
        raise_later(SIGTERM);
        EXPECT_EQ(rqs_event_loop(), 0);
        EXPECT_LT(ms_since(start), 1000) << c.what;
        c.undo();
    }
}

/* ---- no-poll descriptors ---- */

TEST_F(Loop, NoPollDescriptorsAreServedInSlotOrder)
{
    ssize_t index[3] = {-1, -1, -1};
    ASSERT_EQ(rqs_add_nopoll_reader(sv[0], &index[0], &rec), 0);
    ASSERT_EQ(rqs_add_nopoll_writer(sv[1], &index[1], &rec), 0);
    ASSERT_EQ(rqs_add_nopoll_reader(sv[0], nullptr, &rec), 0);
    EXPECT_EQ(index[1], 1);
    EXPECT_EQ(rqs_fd_count(GET_NOPOLLFDS), 3u);
    EXPECT_EQ(rqs_fd_count(GET_TOTALFDS), 3u);
    std::vector<int> fds;
    g_on_event = [&](const char* what, int fd, uint32_t, void*) {
        fds.push_back(fd);
        if (*what == 'w')
            rqs_pprm_nopoll(index[1]);
        return 0;
    };
    g_nidle = 2;
    EXPECT_EQ(rqs_event_loop(), 0);
    const std::vector<std::string> expected = {"tmout",     "read", "write", "read",    "post-ev", "idle",
                                               "post-idle", "read", "read",  "post-ev", "idle",    "post-idle"};
    EXPECT_EQ(g_calls, expected) << "only no-poll descriptors: no wait; the listed one is gone in the second round";
    EXPECT_EQ(fds, (std::vector<int>{sv[0], sv[1], sv[0], sv[0], sv[0]}));
    EXPECT_EQ(index[1], -1);
    EXPECT_EQ(rqs_rm_nopoll(index[0]), 0);
    EXPECT_EQ(index[0], -1);
    EXPECT_NE(rqs_rm_nopoll(index[0]), 0);
    EXPECT_EQ(rqs_add_nopoll_reader(sv[0], &index[2], &rec), 0);
    EXPECT_EQ(index[2], 0) << "the lowest free slot";
    EXPECT_DEATH(rqs_pprm_nopoll(-1), "j >= 0");
}

TEST_F(Loop, ANoPollFailureEndsTheRoundAtOnce)
{
    ASSERT_EQ(rqs_add_nopoll_reader(sv[0], nullptr, &rec), 0);
    ASSERT_EQ(rqs_add_writer(sv[1], &rec), 0);
    g_on_event = [](const char*, int, uint32_t, void*) { return 9; };
    g_limit = {60, 0};
    const caught_log log;
    EXPECT_EQ(rqs_event_loop(), 9);
    EXPECT_TRUE(log.has("no-poll events present: changing to 0 timeout\n"));
    EXPECT_TRUE(log.has(": FAILED(9)\n"));
    EXPECT_EQ(ncalls("write"), 0u);
    EXPECT_EQ(ncalls("post-ev"), 0u);
}
