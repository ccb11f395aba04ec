/* The state of an agent: for a reader, as JSON, as metrics. All of it is the kernel's: sockets and open files of the
   process. The agent itself is not asked, so a hung one can be looked at, too.
   The difficulty is that the kernel knows sockets and no downloads. A socket of the process is told by its port to be a
   listener or a client's; of the rest those are sources that the agent's loop watches, which the database's connection
   is not. What they receive is told by counters since their beginning, so a rate takes two looks. */
#include "ctl.h"

#include "cfg.h"
#include "guard.h"
#include "strops.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <map>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

constexpr long SILENT_SEC = 30;
constexpr long SAMPLE_MS = 50; /* over which bytes a second are measured */
constexpr int DIAG_WAIT_MS = 500;
constexpr uint32_t DATALESS_STATES =
    1U << 6 | 1U << 10; /* TCP_TIME_WAIT, TCP_LISTEN: of netinet/tcp.h, beside linux/tcp.h */

/* What the kernel knows of a connection's incoming side. */
struct reception {
    uint64_t bytes = 0;
    long idle_sec = 0;
};
using receptions = std::map<ino_t, reception>;

struct silent_source {
    size_t downloads = 0;
    long longest = 0; /* s */
};

struct agent_state {
    pid_t pid = 0;
    std::vector<std::string> listeners; /* with what a reader must know of them */
    std::vector<std::string> channels;
    unsigned long dropped = 0;           /* datagrams that found a channel's receive buffer full */
    std::optional<std::string> database; /* what it is connected to */
    size_t clients = 0;                  /* connected */
    unsigned long queued = 0;
    size_t downloads = 0;
    size_t fds = 0;
    std::optional<uint64_t> fd_limit;
    std::vector<written_file> files;
    std::optional<uint64_t> rate; /* bytes a second from sources; none where the kernel does not say */
    std::map<std::string, silent_source> silent;
};

/* ---- receptions ---- */

void take_diag(const nlmsghdr* message, receptions* all)
{
    const auto* diag = static_cast<const inet_diag_msg*>(NLMSG_DATA(message));
    auto* attr = reinterpret_cast<const rtattr*>(diag + 1);
    auto left = static_cast<int>(message->nlmsg_len - NLMSG_LENGTH(sizeof(*diag)));
    for (; RTA_OK(attr, left); attr = RTA_NEXT(attr, left)) {
        if (attr->rta_type != INET_DIAG_INFO ||
            RTA_PAYLOAD(attr) < offsetof(tcp_info, tcpi_bytes_received) + sizeof(uint64_t))
            continue;
        const auto* info = static_cast<const char*>(RTA_DATA(attr));
        reception r;
        uint32_t idle_ms = 0; /* the attribute is aligned to 4 bytes only, and may be shorter than the record */
        memcpy(&idle_ms, info + offsetof(tcp_info, tcpi_last_data_recv), sizeof(idle_ms));
        memcpy(&r.bytes, info + offsetof(tcp_info, tcpi_bytes_received), sizeof(r.bytes));
        r.idle_sec = idle_ms / 1000;
        (*all)[diag->idiag_inode] = r;
    }
}

/* One family's connections into `all`. False when the kernel does not answer. */
bool dump_receptions(int fd, int family, receptions* all)
{
    struct {
        nlmsghdr head;
        inet_diag_req_v2 rq;
    } ask{};
    ask.head = {.nlmsg_len = sizeof(ask),
                .nlmsg_type = SOCK_DIAG_BY_FAMILY,
                .nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP,
                .nlmsg_seq = 0,
                .nlmsg_pid = 0};
    ask.rq.sdiag_family = static_cast<uint8_t>(family);
    ask.rq.sdiag_protocol = IPPROTO_TCP;
    ask.rq.idiag_ext = 1 << (INET_DIAG_INFO - 1);
    ask.rq.idiag_states = ~DATALESS_STATES;
    if (send(fd, &ask, sizeof(ask), 0) != sizeof(ask))
        return false;
    for (;;) {
        alignas(nlmsghdr) std::array<char, 65536> buf{};
        const ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        if (n <= 0)
            return false;
        auto left = static_cast<unsigned>(n);
        for (auto* m = reinterpret_cast<const nlmsghdr*>(buf.data()); NLMSG_OK(m, left); m = NLMSG_NEXT(m, left)) {
            if (m->nlmsg_type == NLMSG_DONE)
                return true;
            if (m->nlmsg_type == NLMSG_ERROR)
                return false;
            take_diag(m, all);
        }
    }
}

/* Of these connections' families in this network namespace; none where the kernel does not say. */
std::optional<receptions> receptions_like(const std::vector<net_socket>& sockets)
{
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0)
        return std::nullopt;
    const scope_guard close_fd([fd] { close(fd); });
    const timeval wait = {0, DIAG_WAIT_MS * 1000L};
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
    receptions all;
    for (const bool is_six : {false, true}) { /* each costs a walk over all the connections of the host */
        if (std::any_of(sockets.begin(), sockets.end(), [is_six](const net_socket& s) { return s.is_six == is_six; }) &&
            !dump_receptions(fd, is_six ? AF_INET6 : AF_INET, &all))
            return std::nullopt;
    }
    return all;
}

/* ---- the state ---- */

std::optional<uint64_t> fd_limit_of(pid_t pid)
{
    std::ifstream limits(proc_of(pid) / "limits");
    for (std::string line; std::getline(limits, line);) {
        if (line.starts_with("Max open files"))
            return parse_num<uint64_t>(line.substr(26, line.find(' ', 26) - 26));
    }
    return std::nullopt;
}

/* A port may be shared: all is of the agent's network, own of the agent. */
std::string listener_text(const net_socket& s, const std::vector<net_socket>& all, const std::set<ino_t>& own)
{
    std::string text = printable(s.place());
    const listening_place place = {s.kind, s.host, s.port};
    if (std::none_of(all.begin(), all.end(),
                     [&](const net_socket& other) { return place.is_served_by(other) && !own.contains(other.inode); }))
        return text;
    for (const pid_t pid : who_listens(place)) {
        const std::set<ino_t> theirs = sockets_of(pid);
        if (!theirs.contains(s.inode))
            text += ", shared with pid " + std::to_string(pid) + " (" + printable(name_of(pid)) + ")";
    }
    return text;
}

/* Sorts the process's sockets; the sources. */
std::vector<net_socket> take_sockets(agent_state* a, const std::vector<descriptor>& fds)
{
    const std::set<ino_t> own_inodes = sockets_among(fds);
    /* Before and after, so that no download that has just begun or just ended passes for the database's connection. */
    std::set<ino_t> watched = watched_among(a->pid, fds);
    const std::vector<net_socket> all = net_sockets(a->pid, socket_choice::ALL);
    watched.merge(watched_among(a->pid, fds));
    std::set<unsigned> ports;
    std::set<std::string> paths;
    std::vector<net_socket> own;
    std::copy_if(all.begin(), all.end(), std::back_inserter(own),
                 [&](const net_socket& s) { return own_inodes.contains(s.inode); });
    for (const net_socket& s : own) {
        if (!s.is_listening)
            continue;
        if (s.kind == net_socket::DATAGRAM) {
            a->channels.push_back(s.place());
            a->dropped += s.dropped;
            continue;
        }
        a->listeners.push_back(listener_text(s, all, own_inodes));
        a->queued += s.kind == net_socket::STREAM ? s.waiting : 0;
        if (s.kind == net_socket::PATH)
            paths.insert(s.host);
        else
            ports.insert(s.port);
    }
    std::vector<net_socket> sources;
    for (const net_socket& s : own) {
        if (s.is_listening || s.kind == net_socket::DATAGRAM)
            continue;
        if (s.kind == net_socket::PATH ? paths.contains(s.host) : ports.contains(s.port))
            ++a->clients;
        else if (s.kind == net_socket::STREAM && watched.contains(s.inode))
            sources.push_back(s);
        else if (s.is_connected)
            a->database = s.peer();
    }
    return sources;
}

/* A look at what the sources have sent. */
struct sample {
    std::optional<receptions> got;
    std::chrono::steady_clock::time_point time;
};

sample take_sample(const std::vector<net_socket>& sources)
{
    auto got = receptions_like(sources);
    return {std::move(got), std::chrono::steady_clock::now()};
}

/* Since the first sample, which is SAMPLE_MS old at least. */
void take_receptions(agent_state* a, const std::vector<net_socket>& sources, const sample& first_sample)
{
    if (!sources.empty())
        std::this_thread::sleep_until(first_sample.time + std::chrono::milliseconds(SAMPLE_MS));
    const sample second_sample = take_sample(sources);
    const auto& [first, begin] = first_sample;
    const auto& [second, end] = second_sample;
    if (!first || !second)
        return;
    uint64_t bytes = 0;
    for (const net_socket& s : sources) {
        const auto now = second->find(s.inode);
        if (now == second->end())
            continue;
        const auto before = first->find(s.inode);
        bytes += now->second.bytes - (before == first->end() ? 0 : before->second.bytes);
        if (now->second.idle_sec < SILENT_SEC)
            continue;
        silent_source& silent = a->silent[s.peer()];
        ++silent.downloads;
        silent.longest = std::max(silent.longest, now->second.idle_sec);
    }
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(end - begin).count();
    a->rate = bytes * 1000000 / static_cast<uint64_t>(std::max<int64_t>(us, 1));
}

/* The two samples of the sources stand as far apart as they can: all else is looked at between them. */
agent_state look_at(pid_t pid)
{
    agent_state a;
    a.pid = pid;
    const auto fds = descriptors_of(pid);
    if (!fds)
        fail_blind(pid);
    if (fds->empty())
        fail(STATUS_UNREACHABLE, "process " + std::to_string(pid) + " has ended");
    const std::vector<net_socket> sources = take_sockets(&a, *fds);
    const sample first = take_sample(sources);
    a.downloads = sources.size();
    a.fds = fds->size();
    a.fd_limit = fd_limit_of(pid);
    a.files = files_written_by(pid, *fds);
    take_receptions(&a, sources, first);
    return a;
}

long oldest_of(const agent_state& a)
{
    long oldest = 0;
    for (const written_file& f : a.files)
        oldest = std::max(oldest, age_of(f.st));
    return oldest;
}

/* ---- for a reader ---- */

/* A line a thing, its kind before the colon; what is not there has no line, but for the counts. */
void print_text(const agent_state& a)
{
    printf("agent: pid %d\n", a.pid);
    for (const std::string& l : a.listeners)
        printf("listener: %s\n", l.c_str());
    for (const std::string& c : a.channels)
        printf("channel: %s\n", c.c_str());
    if (a.database || g_cfg.lbdb.port > 0)
        printf("database: %s\n",
               a.database ? a.database->c_str() : "not connected: nothing is registered until the agent starts again");
    if (a.dropped > 0)
        printf("datagrams dropped: %lu; see net.core.rmem_default\n", a.dropped);
    printf("clients: %zu, %lu waiting\n", a.clients, a.queued);
    printf("downloads: %zu", a.downloads);
    if (g_cfg.max_tasks > 0)
        printf(" of %zu", g_cfg.max_tasks);
    if (a.rate)
        printf(", %lu bytes/s", *a.rate);
    printf("\ndescriptors: %zu of %s\n", a.fds, a.fd_limit ? std::to_string(*a.fd_limit).c_str() : "?");
    for (const auto& [host, s] : a.silent)
        printf("silent: %s, %zu download%s, up to %ld s\n", host.c_str(), s.downloads, s.downloads == 1 ? "" : "s",
               s.longest);
    for (const written_file& f : a.files)
        printf("unfinished: %s, %lu of %jd bytes, %ld s since its last change\n", printable(f.path.native()).c_str(),
               f.position, static_cast<intmax_t>(f.st.st_size), age_of(f.st));
}

/* ---- JSON ---- */

/* Bytes that are no UTF-8 pass for Latin 1, so that the text always parses. */
bool is_utf8(const std::string& text)
{
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        const size_t len = c < 0x80                ? 1
                           : c >= 0xc2 && c < 0xe0 ? 2
                           : c >= 0xe0 && c < 0xf0 ? 3
                           : c >= 0xf0 && c < 0xf5 ? 4
                                                   : 0;
        if (len == 0 || i + len > text.size())
            return false;
        for (size_t k = 1; k < len; ++k) {
            if ((static_cast<unsigned char>(text[i + k]) & 0xc0U) != 0x80)
                return false;
        }
        i += len;
    }
    return true;
}

/* A quoted string. */
std::string json(const std::string& text)
{
    std::string out = "\"";
    const bool is_plain = is_utf8(text);
    for (const char c : text) {
        const auto ch = static_cast<unsigned char>(c);
        if (is_control(c) || (ch > 0x7f && !is_plain)) {
            std::array<char, 8> hex{};
            snprintf(hex.data(), hex.size(), "\\u%04x", ch);
            out += hex.data();
        } else {
            out += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
        }
    }
    return out + "\"";
}

std::string json_or_null(const std::optional<uint64_t>& number)
{
    return number ? std::to_string(*number) : "null";
}

std::string json_list(const std::vector<std::string>& texts)
{
    std::string out;
    for (const std::string& t : texts)
        out += (out.empty() ? "" : ", ") + json(t);
    return "[" + out + "]";
}

/* By hand: some forty lines of a fixed form need no library. What is not known is null, never left out. */
void print_json(const agent_state& a)
{
    const std::optional<uint64_t> max = g_cfg.max_tasks > 0 ? std::optional<uint64_t>(g_cfg.max_tasks) : std::nullopt;
    printf("{\"pid\": %d, \"listeners\": %s, \"channels\": %s, \"dropped\": %lu,\n", a.pid,
           json_list(a.listeners).c_str(), json_list(a.channels).c_str(), a.dropped);
    printf(" \"database\": %s,\n", a.database ? json(*a.database).c_str() : "null");
    printf(" \"clients\": {\"connected\": %zu, \"waiting\": %lu},\n", a.clients, a.queued);
    printf(" \"downloads\": {\"running\": %zu, \"max\": %s, \"bytes_per_second\": %s},\n", a.downloads,
           json_or_null(max).c_str(), json_or_null(a.rate).c_str());
    printf(" \"descriptors\": {\"used\": %zu, \"limit\": %s},\n", a.fds, json_or_null(a.fd_limit).c_str());
    printf(" \"silent_sources\": [");
    const char* comma = "";
    for (const auto& [host, s] : a.silent) {
        printf("%s\n  {\"source\": %s, \"downloads\": %zu, \"seconds\": %ld}", comma, json(host).c_str(), s.downloads,
               s.longest);
        comma = ",";
    }
    printf("],\n \"unfinished\": {\"count\": %zu, \"oldest_seconds\": %ld, \"files\": [", a.files.size(), oldest_of(a));
    comma = "";
    for (const written_file& f : a.files) {
        printf("%s\n  {\"path\": %s, \"bytes\": %jd, \"written\": %lu, \"idle_seconds\": %ld}", comma,
               json(f.path.native()).c_str(), static_cast<intmax_t>(f.st.st_size), f.position, age_of(f.st));
        comma = ",";
    }
    puts("]}}");
}

/* ---- metrics ---- */

std::string g_label; /* agent="kov", set by cmd_metrics */

/* The value of a label. */
std::string label(const std::string& text)
{
    std::string out;
    for (const char c : printable(text))
        out += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    return "\"" + out + "\"";
}

void gauge(const char* name, const char* help, const std::optional<uint64_t>& value)
{
    if (value)
        printf("# TYPE %s gauge\n# HELP %s %s\n%s{%s} %lu\n", name, name, help, name, g_label.c_str(), *value);
}

/* The names are an interface: dashboards and alerts hold them. */
void print_metrics(const agent_state& a)
{
    gauge("kov_downloads", "Downloads that run.", a.downloads);
    if (g_cfg.max_tasks > 0)
        gauge("kov_downloads_max", "Downloads that may run at once.", g_cfg.max_tasks);
    gauge("kov_received_bytes_per_second", "From all sources, over a twentieth of a second.", a.rate);
    gauge("kov_descriptors", "Descriptors in use.", a.fds);
    gauge("kov_descriptors_max", "Limit of descriptors.", a.fd_limit);
    gauge("kov_clients", "Clients that are connected.", a.clients);
    gauge("kov_clients_waiting", "Clients that the agent has not taken yet.", a.queued);
    gauge("kov_unfinished_files", "Files that are being written.", a.files.size());
    gauge("kov_unfinished_oldest_seconds", "Since the last change of the file that has waited longest.",
          static_cast<uint64_t>(oldest_of(a)));
    printf("# TYPE kov_dropped_datagrams counter\n# HELP kov_dropped_datagrams Orders that found the receive buffer "
           "full.\n"
           "kov_dropped_datagrams_total{%s} %lu\n",
           g_label.c_str(), a.dropped);
    printf("# TYPE kov_silent_downloads gauge\n# HELP kov_silent_downloads Whose source has sent nothing for %ld s.\n",
           SILENT_SEC);
    for (const auto& [host, s] : a.silent)
        printf("kov_silent_downloads{%s,source=%s} %zu\n", g_label.c_str(), label(host).c_str(), s.downloads);
}

} // namespace

/* Less than look_at finds: it is asked four times a second. */
std::optional<workload> workload_of(pid_t pid)
{
    agent_state a;
    a.pid = pid;
    const auto fds = descriptors_of(pid);
    if (!fds || fds->empty())
        return std::nullopt;
    const std::vector<net_socket> sources = take_sockets(&a, *fds);
    workload w = {.downloads = sources.size(), .clients = a.clients + a.queued};
    const auto received = receptions_like(sources);
    for (const net_socket& s : sources) {
        if (received && received->contains(s.inode))
            w.received += received->at(s.inode).bytes;
    }
    return w;
}

int cmd_status()
{
    const agent_state a = look_at(need_agent());
    if (g_set.is_json)
        print_json(a);
    else
        print_text(a);
    return 0;
}

/* An agent that is gone is a metric, too. */
int cmd_metrics()
{
    const found_agent agent = find_agent();
    if (!agent.pid && agent.may_run)
        fail(agent.status, agent.why_not);
    g_label = "agent=" + label(g_set.config.empty() ? "kov" : fs::path(g_set.config).stem().native());
    gauge("kov_up", "Whether the agent's process is there.", agent.pid ? 1 : 0);
    if (agent.pid)
        print_metrics(look_at(*agent.pid));
    puts("# EOF");
    return 0;
}
