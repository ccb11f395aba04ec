/* Orders: over HTTP with what the answer means, as datagrams, and the wait for the file.
   The difficulty is how little an answer says. 200 comes when a download has begun, and nobody tells its end: that is
   read off the directory. 400 and 500 have many causes, and a datagram is never answered. A registration's failure
   stands in the agent's log alone. */
#include "ctl.h"

#include "cfg.h"
#include "data.h"
#include "guard.h"
#include "netops.h"
#include "strops.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
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

constexpr long ANSWER_WAIT_SEC = 60;
constexpr long PING_WAIT_SEC = 2;
constexpr long READY_WAIT_SEC = 30;
constexpr long FILE_WAIT_SEC = 600;
constexpr size_t ORDER_PATH_MAX = 127; /* of a datagram's URL, from the host on */

using addrinfo_ptr = std::unique_ptr<addrinfo, releaser<freeaddrinfo>>;

/* "host:port" or "[host]:port". */
addrinfo_ptr resolve(const std::string& text, int socktype)
{
    const auto place = host_port_of(text);
    if (!place)
        fail(STATUS_USAGE, "no port in " + text);
    addrinfo hints{};
    hints.ai_socktype = socktype;
    addrinfo* ai = nullptr;
    if (const int rc = getaddrinfo(place->host.c_str(), place->port.c_str(), &hints, &ai))
        fail(STATUS_UNREACHABLE, text + ": " + gai_strerror(rc));
    return addrinfo_ptr(ai);
}

/* Of the answer to come, and of the connection before it. */
long answer_wait_ms(long usual_sec)
{
    return std::min(g_set.timeout.value_or(usual_sec), 86400L) * 1000;
}

/* A connected socket, or -1 with errno. */
int connect_to(int family, const sockaddr* address, socklen_t len, long wait_ms)
{
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0)
        (void)set_send_timeout(fd, wait_ms); /* bounds the connect, too */
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

/* As connect_to. */
int connect_agent(long wait_ms)
{
    if (g_set.agent.empty())
        fail(STATUS_USAGE, "no agent given: name its configuration (-C) or its listener (-a)");
    int fd = -1;
    if (is_path(g_set.agent)) {
        sockaddr_un sun{};
        sun.sun_family = AF_UNIX;
        if (!copy_text(sun.sun_path, sizeof(sun.sun_path), g_set.agent))
            fail(STATUS_USAGE, g_set.agent + ": too long for a socket");
        return connect_to(AF_UNIX, reinterpret_cast<const sockaddr*>(&sun), sizeof(sun), wait_ms);
    }
    const auto list = resolve(g_set.agent, SOCK_STREAM);
    for (const addrinfo* ai = list.get(); ai && fd < 0; ai = ai->ai_next)
        fd = connect_to(ai->ai_family, ai->ai_addr, ai->ai_addrlen, wait_ms);
    return fd;
}

/* What became of a request. */
struct outcome {
    int code = 0; /* the answer's status; 0: closed without one */
    bool is_late = false;
    int err = 0; /* errno: no agent there */
};

outcome try_ask(const std::string& target, long wait_ms)
{
    /* The agent looks at a request from its 32nd byte on, so it is never shorter. */
    const std::string head = "GET " + target + " HTTP/1.1\r\nHost: " + (is_path(g_set.agent) ? "local" : g_set.agent) +
                             "\r\nUser-Agent: kovctl\r\n\r\n";
    if (head.size() > HEAD_MAX - 1)
        fail(STATUS_REFUSED, "too long: a request has at most " + std::to_string(HEAD_MAX - 1) + " bytes");
    const int fd = connect_agent(wait_ms);
    if (fd < 0) /* a listener whose queue is full or whose host is silent is there, but late */
        return {.is_late = errno == EINPROGRESS || errno == EAGAIN || errno == ETIMEDOUT, .err = errno};
    const scope_guard close_fd([fd] { close(fd); });
    if (send(fd, head.data(), head.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(head.size()))
        return {.err = errno};
    pollfd p = {fd, POLLIN, 0};
    /* One piece is enough: the status stands at its beginning, and more of it is not read, however much there is. */
    if (poll(&p, 1, static_cast<int>(wait_ms)) <= 0)
        return {.is_late = true};
    std::array<char, 64> answer{};
    const ssize_t n = recv(fd, answer.data(), answer.size() - 1, 0);
    int code = 0;
    const bool is_http = n > 0 && sscanf(answer.data(), "HTTP/1.%*1d %3d", &code) == 1; // NOLINT(cert-err34-c)
    return {.code = is_http && code >= 100 && code < 600 ? code : 0};
}

/* The status of the answer; 0 when the agent closed without one. */
int ask(const std::string& target, long usual_sec)
{
    const long wait_ms = answer_wait_ms(usual_sec);
    const outcome o = try_ask(target, wait_ms);
    if (o.is_late)
        fail(STATUS_GAVE_UP, g_set.agent + ": no answer within " + std::to_string(wait_ms / 1000) +
                                 " s: the agent hangs, or the source is silent");
    if (o.err)
        fail(STATUS_UNREACHABLE, g_set.agent + ": " + strerror(o.err));
    return o.code;
}

/* Text as a part of an order's path: bytes that would end it or that decoding would change are escaped, and so is the
   first letter of a segment by which the agent would split the order. Bytes above ASCII pass as they are: the agent
   decodes their escapes to a question mark, as those of control characters, which no order can carry. */
std::string encode(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const std::string segment = i == 0 || text[i - 1] == '/' ? text.substr(i, text.find('/', i) - i) : "";
        if (is_control(c))
            fail(STATUS_USAGE, "no order can carry a control character");
        const bool splits = ci_equal(segment.c_str(), "src") || ci_equal(segment.c_str(), "dst");
        if (!strchr(" %+?#@", c) && !splits) {
            out += c;
        } else {
            std::array<char, 4> hex{};
            snprintf(hex.data(), hex.size(), "%%%02X", static_cast<unsigned char>(c));
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
        return "refused: the destination is there already, or the source forbids it";
    case 404:
        return "refused by the source: not found";
    case 500:
        return "failed: the source is being fetched already, has no such name or route, ended early or gave no length, "
               "the agent is full, or the file could not be made; the agent's log says which";
    default:
        return "refused by the source";
    }
}

/* The program's status after such an answer to an order. */
int status_of(int code)
{
    switch (code) {
    case 200:
        return 0;
    case 403:
        return STATUS_EXISTS;
    case 0:
    case 204:
    case 400:
    case 500:
        return STATUS_REFUSED;
    default:
        return STATUS_SOURCE;
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

/* The agent says 403 of a file that is there, and passes on what a source says: the file itself tells which it was. */
bool is_forbidden(int code, const std::string& src, const std::string& dst)
{
    struct stat st {
    };
    return code == 403 && stat(final_path(src, dst).c_str(), &st) != 0 && errno == ENOENT;
}

constexpr char FORBIDDEN[] = "refused by the source: forbidden";

/* The file has its full length from the start, so it is the agent's position in it that tells how far it is. A body
   that goes through a mapping has none: then the time that has passed is shown. */
void show_progress(const fs::path& unfinished, long seconds)
{
    static const found_agent agent = find_agent();
    struct stat st {
    };
    if (stat(unfinished.c_str(), &st) != 0)
        return;
    constexpr uint64_t WIDTH = 40;
    uint64_t pos = 0;
    const pid_t pid = agent.pid.value_or(0);
    for (const written_file& f : files_written_by(pid, descriptors_of(pid).value_or(std::vector<descriptor>{})))
        pos = f.st.st_ino == st.st_ino && f.st.st_dev == st.st_dev ? f.position : pos;
    const auto size = static_cast<uint64_t>(st.st_size);
    if (pos > 0 && size > 0) {
        const auto done = static_cast<size_t>(std::min(pos, size) * WIDTH / size);
        dprintf(STDERR_FILENO, "\r[%s%s] %3lu%%", std::string(done, '#').c_str(),
                std::string(WIDTH - done, '.').c_str(), pos * 100 / size);
    } else {
        dprintf(STDERR_FILENO, "\r%ld s, %lu bytes announced", seconds, size);
    }
}

/* Looks ten times a second: a directory may be on another host's disk, where no notification would come from. */
int wait_for_file(const fs::path& path)
{
    const fs::path unfinished = path.native() + UNFINISHED_SFX;
    const bool is_tty = isatty(STDERR_FILENO) != 0;
    const long wait_sec = g_set.timeout.value_or(FILE_WAIT_SEC);
    for (long tenth = 0; tenth < wait_sec * 10; ++tenth) {
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
        /* The rename may come between the two looks: the final name is asked for last. */
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
    printf("gave up after %ld s\n", wait_sec);
    return STATUS_GAVE_UP;
}

/* The channel's socket, of the one process that is meant. */
bool serves_channel()
{
    const found_agent agent = find_agent();
    if (!agent.pid)
        return false;
    listener_tables known;
    const std::vector<net_socket> own = own_listeners(*agent.pid, &known);
    return std::any_of(own.begin(), own.end(), [](const net_socket& s) { return s.kind == net_socket::DATAGRAM; });
}

using file_ptr = std::unique_ptr<FILE, releaser<fclose>>;

/* Null when the log is no file that can be read. */
file_ptr open_log(int whence)
{
    struct stat st {
    };
    if (stat(g_cfg.log.path, &st) != 0 || !S_ISREG(st.st_mode))
        return nullptr;
    file_ptr log(fopen(g_cfg.log.path, "re"));
    if (log && fseek(log.get(), 0, whence) != 0)
        log.reset();
    return log;
}

std::string rest_of(FILE* file)
{
    std::string text;
    std::array<char, 65536> buf{};
    for (size_t n = 0; file && (n = fread(buf.data(), 1, buf.size(), file)) > 0;)
        text.append(buf.data(), n);
    return text;
}

/* What was logged since `log` was opened, also in the file that has taken its place meanwhile. */
std::string logged_since(FILE* log)
{
    struct stat was {
    };
    struct stat now {
    };
    std::string text = rest_of(log);
    if (fstat(fileno(log), &was) == 0 && stat(g_cfg.log.path, &now) == 0 && was.st_ino != now.st_ino)
        text += rest_of(open_log(SEEK_SET).get());
    return text;
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
    const int code = ask("/", PING_WAIT_SEC);
    printf("%s: %s\n", g_set.agent.c_str(), code == 204 ? "alive" : "answers, but not like an agent");
    return code == 204 ? 0 : STATUS_REFUSED;
}

bool answers_ping()
{
    return g_set.agent.empty() || try_ask("/", PING_WAIT_SEC * 1000).code == 204;
}

/* An agent that has only a channel cannot be asked; it takes orders from the moment its socket is there. */
int cmd_ready()
{
    const bool is_asked = !g_set.agent.empty();
    const long wait_sec = g_set.timeout.value_or(READY_WAIT_SEC);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(wait_sec);
    while (is_asked ? try_ask("/", PING_WAIT_SEC * 1000).code != 204 : !serves_channel()) {
        if (g_set.pid > 0 && !is_agent(g_set.pid))
            fail(STATUS_UNREACHABLE, "process " + std::to_string(g_set.pid) + " is no agent, or has ended");
        if (std::chrono::steady_clock::now() >= deadline)
            fail(STATUS_GAVE_UP, "not ready within " + std::to_string(wait_sec) + " s; the agent's log says why");
        usleep(50000);
    }
    printf("%s: ready\n", is_asked ? g_set.agent.c_str() : g_set.channel.c_str());
    return 0;
}

int cmd_get(std::span<char* const> args)
{
    const std::string src = args[0];
    const std::string dst = args[1];
    if (g_set.is_waiting && g_set.data_dir.empty())
        fail(STATUS_USAGE, "no data directory to watch: name the configuration (-C) or the directory (-D)");
    if (src.find('?') != std::string::npos)
        fputs("kovctl: the agent fetches the source without its query\n", stderr);
    const int code = ask(order_target(src, dst), ANSWER_WAIT_SEC);
    /* Who waits for the file has named its place; else it may be on another host. */
    const bool is_source = g_set.is_waiting && is_forbidden(code, src, dst);
    printf("%d %s\n", code, is_source ? FORBIDDEN : meaning(code, src));
    if (code != 200)
        return is_source ? STATUS_SOURCE : status_of(code);
    return g_set.is_waiting ? wait_for_file(final_path(src, dst)) : 0;
}

int place_order(const std::string& src, const std::string& dst)
{
    const outcome o = try_ask(order_target(src, dst), answer_wait_ms(ANSWER_WAIT_SEC));
    if (!o.is_late && o.err)
        fail(STATUS_UNREACHABLE, g_set.agent + ": " + strerror(o.err));
    if (o.is_late) {
        printf("%s: no answer: the agent hangs, or the source is silent\n", printable(dst).c_str());
        return STATUS_GAVE_UP;
    }
    const bool is_source = is_forbidden(o.code, src, dst);
    printf("%s: %d %s\n", printable(dst).c_str(), o.code, is_source ? FORBIDDEN : meaning(o.code, src));
    return is_source ? STATUS_SOURCE : status_of(o.code);
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
        fail_without("udp_input", "name the channel (-u)");
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

/* The agent answers 200 whatever the database says, after it has logged the database's refusal: what it logs from here
   on tells. */
int register_one(const std::string& dst)
{
    struct stat st {
    };
    if (!g_set.data_dir.empty() && stat(final_path("", dst).c_str(), &st) != 0 && errno == ENOENT) {
        printf("%s: not in %s\n", dst.c_str(), g_set.data_dir.c_str());
        return STATUS_REFUSED;
    }
    const file_ptr log = open_log(SEEK_END);
    const int code = ask(order_target(g_set.prefix + "/" + dst, dst), ANSWER_WAIT_SEC);
    if (code != 200) {
        printf("%s: %s\n", dst.c_str(), meaning(code, g_set.prefix));
        return status_of(code);
    }
    if (!log) {
        printf("%s: asked for; what the database said stands in the agent's log, which cannot be read here: %s\n",
               dst.c_str(), g_cfg.log.path);
        return STATUS_UNREGISTERED;
    }
    if (logged_since(log.get()).find("add_lbdb_url: failed to add [" + dst + "]\n") != std::string::npos) {
        printf("%s: NOT registered: the database has refused it or is gone; the agent's log says which\n", dst.c_str());
        return STATUS_UNREGISTERED;
    }
    printf("%s: registered\n", dst.c_str());
    return 0;
}

/* The expiry cannot be left out: an entry without an end outlives its file and its host. */
int cmd_register(std::span<char* const> args)
{
    if (g_set.prefix.empty())
        fail_without("local_url_prefix", "there is nothing to register");
    if (g_cfg.lbdb.port <= 0)
        fail_without("lbdb", "there is nowhere to register");
    if (g_set.is_from_log)
        return cmd_register_from_log(args);
    if (args.empty())
        fail(STATUS_USAGE, "register what? Name destinations, or --from-log");
    if (g_set.expiry.empty())
        fail(STATUS_USAGE, "until when? --expiry SECONDS, or a Unix time; 0 makes entries that outlive the files");
    int status = 0;
    for (const char* dst : args) {
        const int rc = register_one(dst);
        status = rc != 0 ? rc : status;
    }
    return status;
}
