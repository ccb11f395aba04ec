/* The agent's process, seen through /proc.
   The difficulty is which one: a host may run several agents, on shared ports, in containers, beside a stale pid file.
   The right one is known by where it listens. When that cannot be told, because of two or because one may not be looked
   into, this says so: a guess would sweep or drain another's. */
#include "ctl.h"

#include "cfg.h"
#include "strops.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

/* The file that a descriptor leads to. False when it is none, or was closed. */
bool stat_behind(pid_t pid, const descriptor& fd, struct stat* st)
{
    return fd.target.starts_with('/') && stat((proc_of(pid) / "fd" / fd.number).c_str(), st) == 0 &&
           S_ISREG(st->st_mode);
}

bool listens(pid_t pid, listener_tables* known)
{
    const std::vector<net_socket> own = own_listeners(pid, known);
    return std::any_of(g_set.places.begin(), g_set.places.end(), [&own](const listening_place& p) {
        return std::any_of(own.begin(), own.end(), [&p](const net_socket& s) { return p.is_served_by(s); });
    });
}

std::string blind_text(pid_t pid)
{
    return "may not look into the agent (pid " + std::to_string(pid) + "): run as root";
}

} // namespace

void fail_blind(pid_t pid)
{
    fail(STATUS_REFUSED, blind_text(pid));
}

found_agent find_agent()
{
    if (g_set.pid > 0) {
        if (is_agent(g_set.pid))
            return {g_set.pid, ""};
        return {std::nullopt, "process " + std::to_string(g_set.pid) + " is no agent"};
    }
    std::vector<pid_t> agents = all_pids();
    std::erase_if(agents, [](pid_t pid) { return !is_agent(pid); });
    for (const pid_t pid : agents) {
        if (!g_set.places.empty() && !descriptors_of(pid)) /* it may be the one */
            return {std::nullopt, blind_text(pid), STATUS_REFUSED, true};
    }
    listener_tables known;
    if (!g_set.places.empty())
        std::erase_if(agents, [&known](pid_t pid) { return !listens(pid, &known); });
    const auto named = parse_num<pid_t>(g_cfg.rt.pidfile[0] ? first_line(g_cfg.rt.pidfile) : "");
    if (named && std::find(agents.begin(), agents.end(), *named) != agents.end())
        return {named, ""};
    if (agents.size() == 1)
        return {agents.front(), ""};
    std::string places;
    for (const listening_place& place : g_set.places)
        places += (places.empty() ? "listens at " : ", ") + place.text();
    if (places.empty())
        places = "runs here";
    if (agents.empty())
        return {std::nullopt, "no agent " + places};
    std::string pids;
    for (const pid_t pid : agents)
        pids += (pids.empty() ? "" : ", ") + std::to_string(pid);
    return {std::nullopt, "more than one agent " + places + " (" + pids + "): choose one with --pid",
            STATUS_UNREACHABLE, true};
}

pid_t need_agent()
{
    const found_agent agent = find_agent();
    if (!agent.pid)
        fail(agent.status, agent.why_not);
    return *agent.pid;
}

std::vector<written_file> files_written_by(pid_t pid, const std::vector<descriptor>& fds)
{
    std::vector<written_file> files;
    for (const descriptor& fd : fds) {
        written_file f;
        f.path = fd.target;
        if (!is_unfinished(fd.target) || !stat_behind(pid, fd, &f.st))
            continue;
        (void)sscanf(first_line(proc_of(pid) / "fdinfo" / fd.number).c_str(), "pos: %lu", // NOLINT(cert-err34-c)
                     &f.position);
        files.push_back(std::move(f));
    }
    return files;
}

held_files all_held_files()
{
    /* Of all processes, not of agents alone: a copy under way has a file open, too. */
    held_files held;
    for (const pid_t pid : all_pids()) {
        const auto fds = descriptors_of(pid);
        if (!fds && is_agent(pid))
            fail_blind(pid);
        for (const descriptor& fd : fds.value_or(std::vector<descriptor>{})) {
            struct stat st {
            };
            if (stat_behind(pid, fd, &st))
                held.emplace(st.st_dev, st.st_ino);
        }
    }
    return held;
}
