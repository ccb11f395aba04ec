/* Orders: over HTTP with what the answer means, as datagrams, and the wait for the file. */
#include "ctl.h"

#include "cfg.h"
#include "data.h"
#include "guard.h"
#include "netops.h"
#include "strops.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

constexpr int ANSWER_WAIT_MS = 60000;
constexpr int CONNECT_WAIT_MS = 10000;
constexpr size_t ORDER_PATH_MAX = 127; /* of a datagram's URL, from the host on */

struct free_addrinfo {
    void operator()(addrinfo* ai) const noexcept { freeaddrinfo(ai); }
};
using addrinfo_ptr = std::unique_ptr<addrinfo, free_addrinfo>;

/* "host:port" or "[host]:port". */
addrinfo_ptr resolve(const std::string& text, int socktype)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        fail(STATUS_USAGE, "no port in " + text);
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[')
        host = host.substr(1, host.size() - 2);
    addrinfo hints{};
    hints.ai_socktype = socktype;
    addrinfo* ai = nullptr;
    if (const int rc = getaddrinfo(host.c_str(), text.c_str() + colon + 1, &hints, &ai))
        fail(STATUS_UNREACHABLE, text + ": " + gai_strerror(rc));
    return addrinfo_ptr(ai);
}

/* A connected socket, or -1 with errno. */
int connect_to(int family, const sockaddr* address, socklen_t len)
{
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0)
        (void)set_send_timeout(fd, CONNECT_WAIT_MS); /* bounds the connect, too */
    if (fd >= 0 && connect(fd, address, len) == 0)
        return fd;
    const int err = errno;
    if (fd >= 0)
        close(fd);
    errno = err;
    return -1;
}

/* A Unix-domain listener. */
bool is_path(const std::string& agent)
{
    return agent.starts_with('/') || agent.starts_with('.');
}

int connect_agent()
{
    if (g_set.agent.empty())
        fail(STATUS_USAGE, "no agent given: name its configuration (-C) or its listener (-a)");
    int fd = -1;
    if (is_path(g_set.agent)) {
        sockaddr_un sun{};
        sun.sun_family = AF_UNIX;
        if (!copy_text(sun.sun_path, sizeof(sun.sun_path), g_set.agent))
            fail(STATUS_USAGE, g_set.agent + ": too long for a socket");
        fd = connect_to(AF_UNIX, reinterpret_cast<const sockaddr*>(&sun), sizeof(sun));
    } else {
        const auto list = resolve(g_set.agent, SOCK_STREAM);
        for (const addrinfo* ai = list.get(); ai && fd < 0; ai = ai->ai_next)
            fd = connect_to(ai->ai_family, ai->ai_addr, ai->ai_addrlen);
    }
    if (fd < 0)
        fail(STATUS_UNREACHABLE, g_set.agent + ": " + strerror(errno));
    return fd;
}

/* The status of the answer; 0 when the agent closed without one. */
int ask(const std::string& target)
{
    /* The agent looks at a request from its 32nd byte on, so it is never shorter. */
    const std::string head = "GET " + target + " HTTP/1.1\r\nHost: " + (is_path(g_set.agent) ? "local" : g_set.agent) +
                             "\r\nUser-Agent: kovctl\r\n\r\n";
    if (head.size() > HEAD_MAX - 1)
        fail(STATUS_REFUSED, "too long: a request has at most " + std::to_string(HEAD_MAX - 1) + " bytes");
    const int fd = connect_agent();
    const scope_guard close_fd([fd] { close(fd); });
    if (send(fd, head.data(), head.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(head.size()))
        fail(STATUS_UNREACHABLE, g_set.agent + ": " + strerror(errno));
    pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, ANSWER_WAIT_MS) <= 0)
        fail(STATUS_REFUSED, "no answer within a minute: the source is silent, or the agent hangs");
    std::array<char, 64> answer{};
    const ssize_t n = recv(fd, answer.data(), answer.size() - 1, 0);
    int code = 0;
    return n > 0 && sscanf(answer.data(), "HTTP/1.%*d %d", &code) == 1 ? code : 0; // NOLINT(cert-err34-c)
}

/* Text as a part of an order's path: bytes that would end it or that decoding would change are escaped, and so is the
   first letter of a segment by which the agent would split the order. Bytes above ASCII pass as they are: the agent decodes
   their escapes to a question mark, as those of control characters, which no order can carry. */
std::string encode(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const auto ch = static_cast<unsigned char>(c);
        const std::string segment = i == 0 || text[i - 1] == '/' ? text.substr(i, text.find('/', i) - i) : "";
        if (ch < ' ' || ch == 0x7f)
            fail(STATUS_USAGE, "no order can carry a control character");
        const bool splits = ci_equal(segment.c_str(), "src") || ci_equal(segment.c_str(), "dst");
        if (!strchr(" %+?#@", c) && !splits) {
            out += c;
        } else {
            std::array<char, 4> hex{};
            snprintf(hex.data(), hex.size(), "%%%02X", ch);
            out += hex.data();
        }
    }
    return out;
}

std::string order_target(const std::string& src, const std::string& dst)
{
    return "/src/" + encode(src) + "/dst/" + encode(dst) + (g_set.expiry.empty() ? "" : "?expiry=" + g_set.expiry);
}

/* What an answer to an order means. */
const char* meaning(int code, const std::string& src)
{
    switch (code) {
    case 0:
        return "closed without an answer: the source broke, the agent is stopping, or its queue is full";
    case 200:
        return "started";
    case 204:
        return "taken for a ping: no order in it";
    case 400:
        if (!src.starts_with("http://"))
            return "refused: the source is not http://";
        if (src.size() >= SPEC_URL_MAX)
            return "refused: the source has more than 127 characters";
        return "refused: the source refuses connections, a fresh unfinished file of that name exists, or the "
               "destination is too long, leaves the data directory or ends in -Kova";
    case 403:
        return "refused: the destination is there already";
    case 404:
        return "refused by the source: not found";
    case 500:
        return "failed: the source is being fetched already, has no such name or route, ended early or gave no length, "
               "the agent is full, or the file could not be made; the agent's log says which";
    default:
        return "refused by the source";
    }
}

/* Where the file of an order will be. */
fs::path final_path(const std::string& src, std::string dst)
{
    if (dst.empty()) { /* made from the source's path */
        dst = src.substr(0, src.find('?'));
        dst = dst.substr(std::min(dst.find('/', dst.find("//") + 2), dst.size()));
    }
    dst.erase(0, dst.find_first_not_of('/'));
    return fs::path(g_set.data_dir) / dst;
}

void show_progress(const fs::path& unfinished, long seconds)
{
    static const found_agent agent = find_agent();
    struct stat st {
    };
    if (stat(unfinished.c_str(), &st) != 0)
        return;
    constexpr uint64_t WIDTH = 40;
    const auto pos = agent.pid ? position_in(*agent.pid, unfinished) : std::nullopt;
    const auto size = static_cast<uint64_t>(st.st_size);
    if (pos && size > 0) {
        const auto done = static_cast<size_t>(std::min(*pos, size) * WIDTH / size);
        fprintf(stderr, "\r[%s%s] %3lu%%", std::string(done, '#').c_str(), std::string(WIDTH - done, '.').c_str(),
                *pos * 100 / size);
    } else {
        fprintf(stderr, "\r%ld s, %lu bytes announced", seconds, size);
    }
}

int wait_for_file(const fs::path& path)
{
    const fs::path unfinished = path.native() + UNFINISHED_SFX;
    const bool is_tty = isatty(STDERR_FILENO) != 0;
    for (long tenth = 0; tenth < g_set.timeout * 10; ++tenth) {
        struct stat st {
        };
        const bool is_there = stat(path.c_str(), &st) == 0;
        if (is_there && S_ISREG(st.st_mode)) {
            fputs(is_tty ? "\n" : "", stderr);
            printf("stored: %s, %jd bytes\n", path.c_str(), static_cast<intmax_t>(st.st_size));
            return 0;
        }
        if (!is_there && errno == EACCES)
            fail(STATUS_USAGE, path.native() + ": may not be looked at by this user");
        if (tenth > 10 && stat(unfinished.c_str(), &st) != 0 && stat(path.c_str(), &st) != 0) {
            printf("failed: %s is gone; the agent's log says why\n", unfinished.c_str());
            return STATUS_REFUSED;
        }
        if (is_tty)
            show_progress(unfinished, tenth / 10);
        else if (tenth % 100 == 99)
            printf("waiting: %ld s\n", (tenth + 1) / 10);
        usleep(100000);
    }
    printf("gave up after %ld s\n", g_set.timeout);
    return STATUS_REFUSED;
}

bool is_any_ifc(const std::string& text)
{
    return text.empty() || ci_equal(text, "all") || ci_equal(text, "any") || text == "0.0.0.0" || text == "::";
}

/* A sender to a group goes out where the agents listen, from the one address that they hear. */
void choose_way(int fd, const addrinfo* to)
{
    const char* ifc = g_set.channel_ifc.c_str();
    const std::unique_ptr<ifc_info, decltype(&free)> info(
        is_any_ifc(g_set.channel_ifc) ? nullptr : get_ifc_info(to->ai_family, ifc), free);
    if (info && to->ai_family == AF_INET6) {
        (void)setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &info->idx, sizeof(info->idx));
    } else if (info) {
        const in_addr address = reinterpret_cast<const sockaddr_in*>(&info->ss)->sin_addr;
        (void)setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &address, sizeof(address));
    }
    if (g_set.channel_source.empty())
        return;
    const auto from = resolve(g_set.channel_source + ":0", SOCK_DGRAM);
    if (bind(fd, from->ai_addr, from->ai_addrlen) != 0)
        fail(STATUS_USAGE, "the channel hears " + g_set.channel_source + " only: send from that host");
}

} // namespace

int cmd_ping()
{
    const int code = ask("/");
    printf("%s: %s\n", g_set.agent.c_str(), code == 204 ? "alive" : "answers, but not like an agent");
    return code == 204 ? 0 : STATUS_REFUSED;
}

int cmd_get(std::span<char* const> args)
{
    const std::string src = args[0];
    const std::string dst = args[1];
    if (g_set.is_waiting && g_set.data_dir.empty())
        fail(STATUS_USAGE, "no data directory to watch: name the configuration (-C) or the directory (-D)");
    if (src.find('?') != std::string::npos)
        fputs("kovctl: the agent fetches the source without its query\n", stderr);
    const int code = ask(order_target(src, dst));
    printf("%d %s\n", code, meaning(code, src));
    if (code != 200)
        return STATUS_REFUSED;
    return g_set.is_waiting ? wait_for_file(final_path(src, dst)) : 0;
}

int cmd_send(std::span<char* const> args)
{
    const std::string lid = args[0];
    if (lid.size() < MIN_LID_LEN || lid.size() > MAX_LID_LEN || lid.find_first_of(" \t/") != std::string::npos)
        fail(STATUS_USAGE, "a lock id has 4 to 31 characters and no slash");
    /* Never without an expiry: that stops every agent that hears it. */
    const auto expiry = parse_num<long>(args[3]);
    if (!expiry)
        fail(STATUS_USAGE, "the expiry is a number of seconds");
    const std::string path = "kovctl/src/" + encode(args[1]) + "/dst/" + encode(args[2]);
    if (path.size() > ORDER_PATH_MAX)
        fail(STATUS_USAGE, "source and destination are too long for a datagram");
    const std::string text = "#!" + lid + " http://" + path + " " + std::to_string(*expiry);
    if (g_set.channel.empty())
        fail(STATUS_USAGE, "the configuration has no udp_input: name the channel with --udp ADDR:PORT");
    const auto ai = resolve(g_set.channel, SOCK_DGRAM);
    const int fd = socket(ai->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const scope_guard close_fd([fd] { close(fd); });
    if (fd >= 0)
        choose_way(fd, ai.get());
    if (fd < 0 ||
        sendto(fd, text.data(), text.size(), 0, ai->ai_addr, ai->ai_addrlen) != static_cast<ssize_t>(text.size()))
        fail(STATUS_UNREACHABLE, g_set.channel + ": " + strerror(errno));
    printf("sent to %s: %s\n", g_set.channel.c_str(), text.c_str());
    return 0;
}

int cmd_register(std::span<char* const> args)
{
    if (g_set.prefix.empty())
        fail(STATUS_USAGE, "the configuration has no local_url_prefix: there is nothing to register");
    if (g_cfg.lbdb.port <= 0)
        fail(STATUS_USAGE, "the configuration has no lbdb: there is nowhere to register");
    int status = 0;
    for (const char* dst : args) {
        struct stat st {
        };
        if (!g_set.data_dir.empty() && stat(final_path("", dst).c_str(), &st) != 0 && errno == ENOENT) {
            printf("%s: not in %s\n", dst, g_set.data_dir.c_str());
            status = STATUS_REFUSED;
            continue;
        }
        const int code = ask(order_target(g_set.prefix + "/" + dst, dst));
        printf("%s: %s\n", dst,
               code == 200 ? "registered, unless the agent's log says otherwise" : meaning(code, g_set.prefix));
        status = code == 200 ? status : STATUS_REFUSED;
    }
    return status;
}
