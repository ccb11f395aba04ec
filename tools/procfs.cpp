/* Processes and their sockets, read from /proc.
   The difficulty is that nothing here holds still: a process may end, a descriptor be closed between a name that was
   listed and the look at it. What is gone is left out without a word; what may not be seen is told apart from it. */
#include "procfs.h"

#include "appcfg.h"
#include "data.h"
#include "guard.h"
#include "strops.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <netdb.h>
#include <string_view>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

constexpr unsigned STATE_CONNECTED = 0x01;
constexpr unsigned STATE_LISTENING = 0x0a;
constexpr unsigned PATH_ACCEPTS = 0x10000; /* flag of a listening Unix-domain socket */

std::string host_and_port(const std::string& host, unsigned port)
{
    return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

/* "0100007F", each 32 bits of the address as the number that they are in memory. An IPv4 address in an IPv6 socket is
   one. */
std::string address_text(std::string_view hex)
{
    std::array<uint32_t, 4> words{};
    const size_t count = std::min<size_t>(hex.size() / 8, words.size());
    for (size_t i = 0; i < count; ++i)
        std::from_chars(hex.data() + i * 8, hex.data() + i * 8 + 8, words.at(i), 16);
    const bool is_six = count == words.size();
    const bool is_mapped = is_six && words[0] == 0 && words[1] == 0 && words[2] == htonl(0xffff);
    std::array<char, INET6_ADDRSTRLEN> text{};
    const void* address = is_mapped ? &words[3] : words.data();
    return inet_ntop(is_six && !is_mapped ? AF_INET6 : AF_INET, address, text.data(), text.size()) ? text.data() : "?";
}

/* The tables begin with what listens. */
void read_inet(const fs::path& table, net_socket::kind_of kind, socket_choice choice, std::vector<net_socket>* sockets)
{
    std::ifstream in(table);
    std::string line;
    std::getline(in, line); /* the headings */
    while (std::getline(in, line)) {
        std::array<char, 33> host{};
        std::array<char, 33> peer{};
        net_socket s;
        unsigned state = 0;
        unsigned long last = 0;
        if (sscanf(line.c_str(), " %*[0-9]: %32[0-9A-F]:%x %32[0-9A-F]:%x %x %*x:%lx %*s %*s %*s %*s %lu %*s %*s %lu",
                   host.data(), &s.port, peer.data(), &s.peer_port, &state, &s.waiting, // NOLINT(cert-err34-c)
                   &s.inode, &last) < 7)
            continue;
        s.dropped = kind == net_socket::DATAGRAM ? last : 0;
        s.kind = kind;
        s.is_listening = kind == net_socket::DATAGRAM || state == STATE_LISTENING;
        s.is_connected = kind == net_socket::STREAM && state == STATE_CONNECTED;
        if (choice == socket_choice::LISTENING && !s.is_listening)
            return;
        s.is_six = strlen(host.data()) > 8;
        s.host = address_text(host.data());
        s.peer_host = address_text(peer.data());
        sockets->push_back(std::move(s));
    }
}

/* A socket that has no path is nobody's listener, and left out. */
void read_paths(const fs::path& table, std::vector<net_socket>* sockets)
{
    std::ifstream in(table);
    for (std::string line; std::getline(in, line);) {
        unsigned flags = 0;
        net_socket s;
        std::array<char, 128> path{};
        if (sscanf(line.c_str(), "%*s %*s %*s %x %*s %*s %lu %127[^\n]", &flags, &s.inode, // NOLINT(cert-err34-c)
                   path.data()) != 3)
            continue;
        s.kind = net_socket::PATH;
        s.host = path.data();
        s.is_listening = (flags & PATH_ACCEPTS) != 0;
        sockets->push_back(std::move(s));
    }
}

} // namespace

fs::path proc_of(pid_t pid)
{
    return "/proc/" + std::to_string(pid);
}

std::string first_line(const fs::path& path)
{
    std::array<char, 4096> buf{};
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    const ssize_t n = fd >= 0 ? read(fd, buf.data(), buf.size()) : -1;
    if (fd >= 0)
        close(fd);
    const std::string_view text(buf.data(), static_cast<size_t>(std::max<ssize_t>(n, 0)));
    return std::string(text.substr(0, text.find('\n')));
}

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

std::string name_of(pid_t pid)
{
    return first_line(proc_of(pid) / "comm");
}

bool is_agent(pid_t pid)
{
    return name_of(pid) == APP_NAME;
}

time_t start_of(pid_t pid)
{
    constexpr int NAME_FIELD = 2; /* in brackets, and may hold blanks */
    constexpr int START_FIELD = 22;
    const std::string stat = first_line(proc_of(pid) / "stat");
    size_t at = stat.rfind(')');
    for (int field = NAME_FIELD; field < START_FIELD && at != std::string::npos; ++field)
        at = stat.find(' ', at + 1);
    timespec up{};
    if (at == std::string::npos || clock_gettime(CLOCK_BOOTTIME, &up) != 0)
        return 0;
    const auto ticks = parse_num<long>(stat.substr(at + 1, stat.find(' ', at + 1) - at - 1)); /* since the boot */
    return time(nullptr) - up.tv_sec + ticks.value_or(0) / sysconf(_SC_CLK_TCK);
}

bool takes_signal(pid_t pid, int signo)
{
    constexpr std::string_view HEAD = "SigBlk:\t";
    std::ifstream status(proc_of(pid) / "status");
    for (std::string line; std::getline(status, line);) {
        uint64_t blocked = 0; /* in hexadecimal, signal 1 the lowest bit */
        if (line.starts_with(HEAD) &&
            std::from_chars(line.data() + HEAD.size(), line.data() + line.size(), blocked, 16).ec == std::errc{})
            return !(blocked >> (signo - 1) & 1);
    }
    return false;
}

std::optional<std::vector<descriptor>> descriptors_of(pid_t pid)
{
    const std::unique_ptr<DIR, releaser<closedir>> dir(opendir((proc_of(pid) / "fd").c_str()));
    std::vector<descriptor> fds;
    if (!dir)
        return errno == ENOENT || errno == ESRCH ? std::optional(fds) : std::nullopt;
    std::array<char, PATH_MAX> target{};
    while (const dirent* entry = readdir(dir.get())) {
        if (entry->d_name[0] == '.')
            continue;
        const ssize_t n = readlinkat(dirfd(dir.get()), entry->d_name, target.data(), target.size());
        if (n < 0 && (errno == EACCES || errno == EPERM)) /* they may be counted, but not looked at */
            return std::nullopt;
        if (n >= 0) /* else closed meanwhile */
            fds.push_back({entry->d_name, {target.data(), static_cast<size_t>(n)}});
    }
    return fds;
}

std::set<ino_t> sockets_among(const std::vector<descriptor>& fds)
{
    std::set<ino_t> inodes;
    for (const descriptor& fd : fds) {
        constexpr std::string_view HEAD = "socket:[";
        if (fd.target.starts_with(HEAD))
            inodes.insert(
                parse_num<ino_t>(fd.target.substr(HEAD.size(), fd.target.size() - HEAD.size() - 1)).value_or(0));
    }
    return inodes;
}

std::set<ino_t> sockets_of(pid_t pid)
{
    return sockets_among(descriptors_of(pid).value_or(std::vector<descriptor>{}));
}

std::set<ino_t> watched_among(pid_t pid, const std::vector<descriptor>& fds)
{
    std::set<ino_t> inodes;
    for (const descriptor& fd : fds) {
        if (fd.target != "anon_inode:[eventpoll]")
            continue;
        std::ifstream info(proc_of(pid) / "fdinfo" / fd.number);
        for (std::string line; std::getline(info, line);) { /* "tfd: 5 events: 19 data: 7f pos:0 ino:3039 sdev:8" */
            constexpr std::string_view HEAD = " ino:";
            const size_t at = line.find(HEAD);
            ino_t inode = 0; /* in hexadecimal */
            if (at != std::string::npos && line.starts_with("tfd:") &&
                std::from_chars(line.data() + at + HEAD.size(), line.data() + line.size(), inode, 16).ec == std::errc{})
                inodes.insert(inode);
        }
    }
    return inodes;
}

std::string net_socket::place() const
{
    return kind == PATH ? host : host_and_port(host, port);
}

std::string net_socket::peer() const
{
    return host_and_port(peer_host, peer_port);
}

std::vector<net_socket> net_sockets(pid_t pid, socket_choice choice)
{
    const fs::path net = proc_of(pid) / "net";
    std::vector<net_socket> sockets;
    read_inet(net / "tcp", net_socket::STREAM, choice, &sockets);
    /* An empty table costs as much as a full one: the kernel walks over the connections of all namespaces. */
    if (first_line(net / "sockstat6") != "TCP6: inuse 0")
        read_inet(net / "tcp6", net_socket::STREAM, choice, &sockets);
    read_paths(net / "unix", &sockets);
    read_inet(net / "udp", net_socket::DATAGRAM, choice, &sockets);
    read_inet(net / "udp6", net_socket::DATAGRAM, choice, &sockets);
    return sockets;
}

std::vector<net_socket> own_listeners(pid_t pid, listener_tables* known)
{
    struct stat ns {
    };
    if (stat((proc_of(pid) / "ns/net").c_str(), &ns) != 0)
        return {};
    /* The tables are those of the namespace: whose a socket in them is tell the process's own descriptors. */
    const auto [table, is_new] = known->try_emplace(ns.st_ino);
    if (is_new)
        table->second = net_sockets(pid, socket_choice::LISTENING);
    const std::set<ino_t> own = sockets_of(pid);
    std::vector<net_socket> sockets;
    std::copy_if(table->second.begin(), table->second.end(), std::back_inserter(sockets),
                 [&own](const net_socket& s) { return own.contains(s.inode); });
    return sockets;
}

bool listening_place::is_served_by(const net_socket& s) const
{
    return s.is_listening && meets({s.kind, s.host, s.port});
}

bool listening_place::meets(const listening_place& other) const
{
    if (kind != other.kind || port != other.port)
        return false;
    if (host == other.host)
        return true;
    if (kind == net_socket::PATH)
        return false;
    /* An IPv6 socket of every address takes IPv4 clients, too; that it may be set not to is not seen here. */
    if (host.empty() || other.host.empty() || host == "::" || other.host == "::")
        return true;
    const bool has_six = host.find(':') != std::string::npos || other.host.find(':') != std::string::npos;
    return !has_six && (host == "0.0.0.0" || other.host == "0.0.0.0");
}

std::string listening_place::text() const
{
    return kind == net_socket::PATH ? host : host_and_port(host.empty() ? "*" : host, port);
}

std::vector<listening_place> places_of(const rui_cfg& cfg)
{
    std::vector<listening_place> places;
    for (const rui_listener_cfg& l : cfg.user) {
        if (!l.is_valid)
            continue;
        if (l.domain_path[0]) {
            places.push_back({net_socket::PATH, l.domain_path, 0});
            continue;
        }
        std::array<char, NI_MAXHOST> host{};
        if (l.ifc)
            (void)getnameinfo(reinterpret_cast<const sockaddr*>(&l.ifc->ss), sizeof(l.ifc->ss), host.data(),
                              host.size(), nullptr, 0, NI_NUMERICHOST);
        std::string text = host.data();
        text.resize(std::min(text.size(), text.find('%'))); /* the tables name no scope */
        places.push_back({l.proto == IPPROTO_UDP ? net_socket::DATAGRAM : net_socket::STREAM, text,
                          parse_num<unsigned>(l.port).value_or(0)});
    }
    return places;
}

std::vector<pid_t> who_listens(const listening_place& place)
{
    /* The other way round than own_listeners: the table knows no processes, so each is asked for these sockets. */
    std::set<ino_t> inodes;
    for (const net_socket& s : net_sockets(getpid(), socket_choice::LISTENING)) {
        if (place.is_served_by(s))
            inodes.insert(s.inode);
    }
    std::vector<pid_t> pids;
    if (inodes.empty())
        return pids;
    for (const pid_t pid : all_pids()) {
        const std::set<ino_t> own = sockets_of(pid);
        if (std::any_of(inodes.begin(), inodes.end(), [&own](ino_t i) { return own.contains(i); }))
            pids.push_back(pid);
    }
    return pids;
}
