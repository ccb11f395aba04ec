/* The agent's process, seen through /proc. */
#include "ctl.h"

#include "cfg.h"
#include "data.h"
#include "strops.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace fs = std::filesystem;

namespace
{

fs::path proc_of(pid_t pid)
{
    return "/proc/" + std::to_string(pid);
}

std::string first_line(const fs::path& path)
{
    std::string line;
    std::ifstream in(path);
    std::getline(in, line);
    return line;
}

bool is_agent(pid_t pid)
{
    return first_line(proc_of(pid) / "comm") == APP_NAME;
}

/* Every process of this host. */
std::vector<pid_t> all_pids()
{
    std::vector<pid_t> pids;
    std::error_code ec;
    for (fs::directory_iterator it("/proc", ec); !ec && it != fs::directory_iterator(); it.increment(ec)) {
        if (const auto pid = parse_num<pid_t>(it->path().filename().c_str()))
            pids.push_back(*pid);
    }
    return pids;
}

/* The descriptors of a process as paths below /proc; none if they may not be seen. */
std::optional<std::vector<fs::path>> descriptors_of(pid_t pid)
{
    std::vector<fs::path> fds;
    std::error_code ec;
    fs::directory_iterator it(proc_of(pid) / "fd", ec);
    if (ec)
        return std::nullopt;
    for (; !ec && it != fs::directory_iterator(); it.increment(ec))
        fds.push_back(it->path());
    return fds;
}

[[noreturn]] void fail_blind(pid_t pid)
{
    fail(STATUS_REFUSED, "may not look into the agent (pid " + std::to_string(pid) + "): run as root");
}

/* What a descriptor of a process leads to. False when it is gone. An agent whose directory may be read may still forbid to
   follow: a file that it holds must not pass for one that nobody holds. */
bool stat_descriptor(pid_t pid, const fs::path& fd, struct stat* st)
{
    if (stat(fd.c_str(), st) == 0)
        return true;
    if (errno != ENOENT && is_agent(pid))
        fail_blind(pid);
    return false;
}

/* One line of /proc/PID/net/tcp, tcp6 or udp. */
struct inet_socket {
    std::string local;
    unsigned port = 0;
    unsigned peer_port = 0;
    unsigned state = 0;
    ino_t inode = 0;
};

constexpr unsigned STATE_LISTENING = 0x0a;

/* "0100007F:1F90", each 32 bits of the address as the number that they are in memory. */
std::string address_text(const std::string& hex, unsigned port)
{
    std::array<uint32_t, 4> words{};
    const size_t count = std::min<size_t>(hex.size() / 8, words.size());
    for (size_t i = 0; i < count; ++i)
        words.at(i) = static_cast<uint32_t>(strtoul(hex.substr(i * 8, 8).c_str(), nullptr, 16));
    std::array<char, INET6_ADDRSTRLEN> text{};
    const bool is_six = count == words.size();
    if (!inet_ntop(is_six ? AF_INET6 : AF_INET, words.data(), text.data(), text.size()))
        return "?";
    return (is_six ? "[" + std::string(text.data()) + "]" : std::string(text.data())) + ":" + std::to_string(port);
}

std::vector<inet_socket> inet_sockets(const fs::path& table)
{
    std::vector<inet_socket> sockets;
    std::ifstream in(table);
    std::string line;
    std::getline(in, line); /* the headings */
    while (std::getline(in, line)) {
        std::array<char, 33> address{};
        inet_socket s;
        if (sscanf(line.c_str(),
                   " %*[0-9]: %32[0-9A-F]:%x %*[0-9A-F]:%x %x %*s %*s %*s %*s %*s %lu", // NOLINT(cert-err34-c)
                   address.data(), &s.port, &s.peer_port, &s.state, &s.inode) == 5) {
            s.local = address_text(address.data(), s.port);
            sockets.push_back(std::move(s));
        }
    }
    return sockets;
}

/* The paths on which the process listens. */
void print_unix_listeners(const fs::path& proc, const std::set<ino_t>& own)
{
    std::ifstream in(proc / "net/unix");
    for (std::string line; std::getline(in, line);) {
        unsigned flags = 0;
        ino_t inode = 0;
        std::array<char, 128> path{};
        constexpr unsigned ACCEPTS = 0x10000;
        if (sscanf(line.c_str(), "%*s %*s %*s %x %*s %*s %lu %127s", &flags, &inode, path.data()) ==
                3 && // NOLINT(cert-err34-c)
            (flags & ACCEPTS) &&
            own.contains(inode))
            printf("listener: %s\n", path.data());
    }
}

/* Listeners and channel, then how many downloads run: each has one connection to its source. */
void print_sockets(const fs::path& proc, const std::set<ino_t>& own)
{
    std::vector<inet_socket> tcp;
    for (const char* table : {"net/tcp", "net/tcp6"}) {
        for (inet_socket& s : inet_sockets(proc / table)) {
            if (own.contains(s.inode))
                tcp.push_back(std::move(s));
        }
    }
    std::set<unsigned> listening;
    for (const inet_socket& s : tcp) {
        if (s.state != STATE_LISTENING)
            continue;
        listening.insert(s.port);
        printf("listener: %s\n", s.local.c_str());
    }
    print_unix_listeners(proc, own);
    for (const char* table : {"net/udp", "net/udp6"}) {
        for (const inet_socket& s : inet_sockets(proc / table)) {
            if (own.contains(s.inode))
                printf("channel: %s\n", s.local.c_str());
        }
    }
    const auto database = static_cast<unsigned>(g_cfg.lbdb.port);
    const auto running = std::count_if(tcp.begin(), tcp.end(), [&](const inet_socket& s) {
        return !listening.contains(s.port) && s.peer_port != database;
    });
    printf("downloads: %td", running);
    printf(g_cfg.max_tasks > 0 ? " of %zu\n" : "\n", g_cfg.max_tasks);
}

} // namespace

found_agent find_agent()
{
    if (g_set.pid > 0) {
        if (is_agent(g_set.pid))
            return {g_set.pid, ""};
        return {std::nullopt, "process " + std::to_string(g_set.pid) + " is no agent"};
    }
    if (g_cfg.rt.pidfile[0]) {
        const auto pid = parse_num<pid_t>(first_line(g_cfg.rt.pidfile).c_str());
        if (pid && is_agent(*pid))
            return {pid, ""};
    }
    std::vector<pid_t> found = all_pids();
    std::erase_if(found, [](pid_t pid) { return !is_agent(pid); });
    if (found.size() == 1)
        return {found.front(), ""};
    return {std::nullopt, found.empty() ? "no agent runs here" : "several agents run here: choose one with --pid"};
}

std::optional<uint64_t> position_in(pid_t pid, const fs::path& path)
{
    struct stat wanted {
    };
    const auto fds = descriptors_of(pid);
    if (!fds || stat(path.c_str(), &wanted) != 0)
        return std::nullopt;
    for (const fs::path& fd : *fds) {
        struct stat st {
        };
        if (stat(fd.c_str(), &st) != 0 || st.st_dev != wanted.st_dev || st.st_ino != wanted.st_ino)
            continue;
        uint64_t pos = 0;
        const std::string line = first_line(proc_of(pid) / "fdinfo" / fd.filename());
        if (sscanf(line.c_str(), "pos: %lu", &pos) == 1 && pos > 0) // NOLINT(cert-err34-c)
            return pos;
    }
    return std::nullopt;
}

held_files all_held_files()
{
    held_files held;
    for (const pid_t pid : all_pids()) {
        const auto fds = descriptors_of(pid);
        if (!fds && is_agent(pid))
            fail_blind(pid);
        for (const fs::path& fd : fds.value_or(std::vector<fs::path>{})) {
            struct stat st {
            };
            if (stat_descriptor(pid, fd, &st) && S_ISREG(st.st_mode))
                held.emplace(st.st_dev, st.st_ino);
        }
    }
    return held;
}

int cmd_status()
{
    const found_agent agent = find_agent();
    if (!agent.pid)
        fail(STATUS_UNREACHABLE, agent.why_not);
    const auto fds = descriptors_of(*agent.pid);
    if (!fds)
        fail_blind(*agent.pid);
    const fs::path proc = proc_of(*agent.pid);
    std::string limit = "?";
    std::ifstream limits(proc / "limits");
    for (std::string line; std::getline(limits, line);) {
        if (line.starts_with("Max open files"))
            limit = line.substr(26, line.find(' ', 26) - 26);
    }
    std::set<ino_t> sockets;
    for (const fs::path& fd : *fds) {
        struct stat st {
        };
        if (stat_descriptor(*agent.pid, fd, &st) && S_ISSOCK(st.st_mode))
            sockets.insert(st.st_ino);
    }
    printf("agent: pid %d\n", *agent.pid);
    print_sockets(proc, sockets);
    printf("descriptors: %zu of %s\n", fds->size(), limit.c_str());
    if (!g_set.data_dir.empty())
        print_unfinished();
    return 0;
}
