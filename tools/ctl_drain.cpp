/* The wait before a stop: until the agent has no download left. New orders are kept away by others: a balancer, a
   firewall; the agent itself goes on to take them. */
#include "ctl.h"

#include "guard.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

constexpr long DRAIN_WAIT_SEC = 60;
constexpr int LOOK_MS = 250;
constexpr auto SAY_EVERY = std::chrono::seconds(10);
constexpr auto HUNG_AFTER = std::chrono::seconds(10);

using std::chrono::steady_clock;

std::string left_text(const workload& w)
{
    return std::to_string(w.downloads) + (w.downloads == 1 ? " download" : " downloads");
}

/* The process has ended, waited for at most LOOK_MS. */
bool has_ended(int pidfd)
{
    pollfd p = {pidfd, POLLIN, 0};
    return poll(&p, 1, LOOK_MS) > 0;
}

[[noreturn]] void fail_ended(const workload& last)
{
    if (last.downloads > 0)
        fail(STATUS_REFUSED, "the agent has ended with " + left_text(last) + " running: kovctl lost lists them");
    fail(STATUS_UNREACHABLE, "the agent has ended");
}

} // namespace

int cmd_drain()
{
    const found_agent agent = find_agent();
    if (!agent.pid)
        fail(agent.is_hidden ? STATUS_REFUSED : STATUS_UNREACHABLE, agent.why_not);
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, *agent.pid, 0));
    if (pidfd < 0)
        fail(STATUS_UNREACHABLE, "process " + std::to_string(*agent.pid) + ": " + strerror(errno));
    const scope_guard close_fd([pidfd] { close(pidfd); });

    const auto begin = steady_clock::now();
    const auto deadline = begin + std::chrono::seconds(g_set.timeout.value_or(DRAIN_WAIT_SEC));
    auto say_at = begin;
    auto moved_at = begin; /* when something has come to an end, or a source has sent something */
    workload last{};
    for (;;) {
        const auto now = steady_clock::now();
        const auto load = workload_of(*agent.pid);
        if (!load && !has_ended(pidfd))
            fail_blind(*agent.pid);
        if (!load)
            fail_ended(last);
        if (load->downloads == 0 && load->clients == 0) {
            printf("drained: nothing runs, after %.1f s\n", std::chrono::duration<double>(now - begin).count());
            return 0;
        }
        if (*load != last)
            moved_at = now;
        last = *load;
        if (now >= deadline)
            fail(STATUS_GAVE_UP, "gave up: " + left_text(last) + " and " + std::to_string(last.clients) +
                                     " clients are left; kovctl status names silent sources");
        if (now - moved_at >= HUNG_AFTER) {
            if (!answers_ping())
                fail(STATUS_GAVE_UP, "the agent hangs: " + left_text(last) + " will not end");
            moved_at = steady_clock::now();
        }
        if (now >= say_at) {
            printf("waiting: %s\n", left_text(last).c_str());
            fflush(stdout);
            say_at = now + SAY_EVERY;
        }
        if (has_ended(pidfd))
            fail_ended(last);
    }
}
