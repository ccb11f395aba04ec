/* The wait before a stop: until the agent has no download left. New orders are kept away by others: a balancer, a
   firewall; the agent itself goes on to take them.
   The difficulty is an agent that ends meanwhile. Told to, it cuts its downloads and is there for a while without any:
   it looks as if they had ended by themselves. But signals come through to an agent only where it waits in its loop,
   and an agent that ends is not there any more: that it has nothing to do counts only while a signal would come
   through. */
#include "ctl.h"

#include "guard.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

constexpr long DRAIN_WAIT_SEC = 60;
constexpr int LOOK_MS = 250;
constexpr int SECOND_LOOK_MS = 20; /* a client that turns into a download may be missed by one */
constexpr auto SAY_EVERY = std::chrono::seconds(10);
constexpr auto HUNG_AFTER = std::chrono::seconds(10);

using std::chrono::steady_clock;

std::string downloads_text(const workload& w)
{
    return std::to_string(w.downloads) + (w.downloads == 1 ? " download" : " downloads");
}

/* The process has ended, waited for at most so long. */
bool has_ended(int pidfd, int wait_ms)
{
    pollfd p = {pidfd, POLLIN, 0};
    return poll(&p, 1, wait_ms) > 0;
}

/* Of the last look that saw something. */
[[noreturn]] void fail_gone(const workload& last)
{
    if (last.downloads > 0)
        fail(STATUS_REFUSED, "gone: the agent has ended, with " + downloads_text(last) +
                                 " at the last look: kovctl lost lists what was cut");
    fail(STATUS_UNREACHABLE, "gone: the agent has ended");
}

} // namespace

int cmd_drain()
{
    const pid_t pid = need_agent();
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd < 0)
        fail(STATUS_UNREACHABLE, "process " + std::to_string(pid) + ": " + strerror(errno));
    const scope_guard close_fd([pidfd] { close(pidfd); });

    const auto begin = steady_clock::now();
    const auto deadline = begin + std::chrono::seconds(g_set.timeout.value_or(DRAIN_WAIT_SEC));
    auto say_at = begin;
    auto moved_at = begin; /* when something has come to an end, or a source has sent something */
    workload load{};
    workload busy{}; /* the last one that was not idle */
    for (bool was_idle = false;;) {
        const auto now = steady_clock::now();
        const auto seen = workload_of(pid);
        if (!seen && !has_ended(pidfd, LOOK_MS))
            fail_blind(pid);
        if (!seen)
            fail_gone(busy);
        const bool is_idle = seen->downloads == 0 && seen->clients == 0;
        if (is_idle && was_idle && takes_signal(pid, SIGTERM)) {
            printf("drained: nothing runs, after %.1f s\n", std::chrono::duration<double>(now - begin).count());
            return 0;
        }
        was_idle = is_idle;
        if (*seen != load)
            moved_at = now;
        load = *seen;
        if (!is_idle)
            busy = load;
        if (now >= deadline)
            fail(STATUS_GAVE_UP, "gave up: " + downloads_text(load) + " and " + std::to_string(load.clients) +
                                     " clients are left; kovctl status names silent sources");
        if (now - moved_at >= HUNG_AFTER) {
            if (!answers_ping())
                fail(STATUS_GAVE_UP, "the agent hangs: " + downloads_text(load) + " will not end");
            moved_at = steady_clock::now();
        }
        if (now >= say_at && !is_idle) {
            printf("waiting: %s\n", downloads_text(load).c_str());
            fflush(stdout);
            say_at = now + SAY_EVERY;
        }
        if (has_ended(pidfd, is_idle ? SECOND_LOOK_MS : LOOK_MS))
            fail_gone(busy);
    }
}
