/* The loop over real descriptors: which callback comes when, and what signals do to it. */
#include "rqs.h"

#include "caught_log.h"
#include "signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

/* A letter for each callback: u update_tmout, t time_out, r read, w write, e error, P post_process behind the events, i
   on_idle, p post_process behind the idle step. */
static std::string g_seen;
static std::function<int(char what, uint32_t flags, void* udata)> g_on_event;
static timespec g_limit;
static int g_nidle; /* rounds until the quit */

static int seen(char what)
{
    g_seen += what;
    return 0;
}

template <char what>
static int event(int /*fd*/, uint32_t flags, void* udata, void* /*reserved*/) noexcept
{
    return g_on_event ? seen(what) + g_on_event(what, flags, udata) : seen(what);
}

static const rqs_config CONFIG = {
    .cb = {.update_tmout = [](timespec* limit) noexcept { seen('u'), *limit = g_limit; },
           .on_idle = []() noexcept { return g_quit = g_quit || --g_nidle <= 0, seen('i'); },
           .read = event<'r'>,
           .write = event<'w'>,
           .error = event<'e'>,
           .post_process = []() noexcept { return seen(rqs_ctx(GET_LOOP_STAGE) == ELOOP_POSTEV ? 'P' : 'p'); },
           .on_file_modified = nullptr,
           .time_out = []() noexcept { (void)seen('t'); },
           .is_dormant = nullptr},
    .quit_on_zero_fds = 0,
};

/* A loop of one round, and a pair of sockets. */
struct Loop : testing::Test {
    int sv[2] = {-1, -1};
    int rec = 0; /* stands for a registered record */

    Loop() { start(); }
    ~Loop() override
    {
        stop();
        g_tdbg = 0;
    }
    void stop()
    {
        rqs_destroy();
        for (const int fd : sv)
            close(fd);
        g_quit = 0;
    }
    void start(int nidle = 1, timespec limit = {0, 0})
    {
        stop();
        g_seen.clear();
        g_on_event = nullptr;
        g_limit = limit;
        g_nidle = nidle;
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
        ASSERT_EQ(rqs_init(&CONFIG), 0);
    }
    void hang_up()
    {
        close(sv[1]);
        sv[1] = -1;
    }
    void send_byte() const { ASSERT_EQ(write(sv[1], "x", 1), 1); }
};

TEST_F(Loop, OneHandlerForEachEventWithinTheStagesOfARound)
{
    constexpr uint32_t NOT_CALLED = 99;
    const struct {
        const char* what;
        std::function<void()> arrange;
        uint32_t interest;
        const char* handler;
        uint32_t flags;
    } cases[] = {
        {"readable", [this] { send_byte(); }, RQS_READ, "r", 0},
        {"readable and writable", [this] { send_byte(); }, RQS_READ | RQS_WRITE, "r", 0},
        {"writable", [] {}, RQS_READ | RQS_WRITE, "w", 0},
        {"data and hang-up", [this] { send_byte(), hang_up(); }, RQS_READ, "r", RQS_SOCKHUP},
        {"parked and hung up", [this] { hang_up(); }, 0, "e", RQS_SOCKHUP},
        {"parked with data only", [this] { send_byte(); }, 0, "", NOT_CALLED},
        {"writing to nobody", [this] { hang_up(); }, RQS_WRITE, "w", RQS_SOCKHUP},
    };
    for (const auto& c : cases) {
        start();
        uint32_t seen = NOT_CALLED;
        g_on_event = [&](char, uint32_t flags, void* udata) {
            EXPECT_EQ(udata, &rec);
            EXPECT_EQ(rqs_ctx(GET_LOOP_STAGE), ELOOP_EV);
            seen = flags;
            return 0;
        };
        ASSERT_EQ(rqs_add_reader(sv[0], &rec), 0);
        ASSERT_EQ(rqs_mod(sv[0], &rec, c.interest), 0);
        EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 1U);
        c.arrange();
        EXPECT_EQ(rqs_event_loop(), 0);
        EXPECT_EQ(g_seen, std::string("uut") + c.handler + "Pip") << c.what;
        EXPECT_EQ(seen, c.flags) << c.what;
    }
}

TEST_F(Loop, AFailedHandlerEndsItAfterPostProcessing)
{
    ASSERT_EQ(rqs_add_reader(sv[0], &rec), 0);
    ASSERT_EQ(rqs_add_writer(sv[1], &rec), 0);
    send_byte();
    g_on_event = [](char, uint32_t, void*) { return 5; };
    EXPECT_EQ(rqs_event_loop(), 2) << "the number of failed events, not their codes";
    EXPECT_TRUE(g_seen == "uutrwP" || g_seen == "uutwrP") << g_seen;
}

TEST_F(Loop, TheWaitLimitIsInWholeMilliseconds)
{
    const std::pair<timespec, const char*> cases[] = {{{1, 999999999}, "timeout=1.999000 sec"},
                                                      {{0, 0}, "timeout=0.000000 sec"},
                                                      {{-1, 0}, "timeout=-1.000000 sec"},
                                                      {{0, -1}, "timeout=-1.000000 sec"},
                                                      {{4000000000, 0}, "timeout=2147483.647000 sec"}};
    for (const auto& [limit, text] : cases) {
        start(1, limit);
        ASSERT_EQ(rqs_add_writer(sv[0], &rec), 0); /* always ready: no wait is long */
        const caught_log log;
        EXPECT_EQ(rqs_event_loop(), 0);
        EXPECT_TRUE(log.has(text)) << log.text();
    }
}

TEST_F(Loop, TheClockStandsStillWithinARound)
{
    ASSERT_EQ(rqs_add_writer(sv[0], &rec), 0);
    const auto moves = [](char, uint32_t, void*) {
        const timespec before = *rqs_now_ref();
        usleep(2000);
        return rqs_now_ref()->tv_nsec != before.tv_nsec ? 1 : 0;
    };
    g_on_event = moves;
    EXPECT_EQ(rqs_event_loop(), 0);
    rqs_destroy();
    EXPECT_EQ(moves(0, 0, nullptr), 1) << "without a loop the clock itself is read";
}

TEST_F(Loop, IsNeededAndNamesWhatIsNotWatched)
{
    const caught_log log;
    EXPECT_EQ(rqs_mod_reader(sv[1], &rec), -1);
    EXPECT_EQ(rqs_rm_fd(sv[1], true, false), -1);
    EXPECT_TRUE(log.has("rqs_rm_fd: REMOVE fd=" + std::to_string(sv[1]) + " from epoll FAILED [rc=-1]\n"));
    EXPECT_EQ(rqs_fd_count(GET_TOTALFDS), 0U) << "what is not there is not counted";
    rqs_destroy();
    EXPECT_EQ(rqs_rm_fd(sv[0], true, false), 0);
    EXPECT_DEATH((void)rqs_event_loop(), "loopfd >= 0");
    EXPECT_DEATH((void)rqs_add_reader(sv[0], nullptr), "loopfd >= 0");
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
    std::for_each(fds.begin(), fds.end(), close);
}

TEST_F(Loop, NoPollDescriptorsAreServedInSlotOrder)
{
    start(2);
    ssize_t index[2] = {-1, -1};
    ASSERT_EQ(rqs_add_nopoll_reader(sv[0], &index[0], &rec), 0);
    ASSERT_EQ(rqs_add_nopoll_writer(sv[1], &index[1], &rec), 0);
    g_on_event = [&](char what, uint32_t, void*) {
        if (what == 'w')
            rqs_pprm_nopoll(index[1]);
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(g_seen, "urwPiprPip") << "no wait; the listed one is gone in the second round";
    EXPECT_EQ(index[1], -1);
    EXPECT_EQ(rqs_rm_nopoll(index[0]), 0);
    EXPECT_EQ(index[0], -1);

    start(1, {60, 0});
    ASSERT_EQ(rqs_add_nopoll_reader(sv[0], nullptr, &rec), 0);
    ASSERT_EQ(rqs_add_writer(sv[1], &rec), 0);
    g_on_event = [](char, uint32_t, void*) { return 9; };
    EXPECT_EQ(rqs_event_loop(), 9);
    EXPECT_EQ(g_seen, "uutr") << "a failure ends the round at once, and nothing is waited for beside them";
    g_on_event = [](char, uint32_t, void*) { return rqs_pprm_nopoll(99), 0; };
    EXPECT_DEATH((log_default(g_log, stderr), (void)rqs_event_loop()), "failed to remove j=99\n");
}

/* Signals blocked outside the wait, as in the daemon. */
struct Signals : Loop {
    sigset_t old_mask{};
    Signals()
    {
        sigprocmask(SIG_SETMASK, nullptr, &old_mask);
        EXPECT_EQ(handle_quit_signals(on_sigquit), 0);
        EXPECT_EQ(handle_sig(SIGUSR2, on_tdbg), 0);
        signal(SIGALRM, [](int) { kill(getpid(), SIGTERM); }); /* never blocked */
        block_handled_signals();
        start(1000000000, {-1, 0});
    }
    ~Signals() override
    {
        for (const int signo : {SIGTERM, SIGQUIT, SIGINT, SIGUSR2, SIGALRM, SIGCHLD, SIGHUP, SIGUSR1})
            signal(signo, SIG_DFL);
        sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    }
};

TEST_F(Signals, AQuitThatCameBeforeTheWaitEndsIt)
{
    kill(getpid(), SIGTERM);
    const caught_log log;
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_TRUE(log.has("wait4events interrupted, quit=1\n"));
    EXPECT_EQ(g_seen, "uu");
}

TEST_F(Signals, AnotherSignalDoesNotEndTheLoop)
{
    start(2, {0, 100000000});
    kill(getpid(), SIGUSR2);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(g_tdbg, 1);
    EXPECT_EQ(g_seen, "uutPiputPip") << "the interrupted round goes on without events";
}

TEST_F(Signals, ABusyLoopStillQuits)
{
    const std::pair<const char*, std::function<int()>> cases[] = {
        {"always readable", [this] { return send_byte(), rqs_add_reader(sv[0], &rec); }},
        {"zero limit", [] { return static_cast<int>(g_limit.tv_sec = 0); }},
        {"no-poll only", [this] { return rqs_add_nopoll_reader(sv[0], nullptr, &rec); }},
    };
    for (const auto& [what, arrange] : cases) {
        start(2000000, {-1, 0}); /* a loop that does not quit ends after some seconds all the same */
        ASSERT_EQ(arrange(), 0);
        const itimerval once = {{0, 0}, {0, 30000}};
        setitimer(ITIMER_REAL, &once, nullptr);
        EXPECT_EQ(rqs_event_loop(), 0);
        EXPECT_GT(g_nidle, 0) << what;
    }
}
