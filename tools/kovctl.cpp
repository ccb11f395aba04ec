/* Talks to one agent by hand: orders, health, what it holds, what it left behind. */
#include "cfg.h"
#include "data.h"
#include "guard.h"
#include "log.h"
#include "options.h"
#include "strops.h"
#include "util.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <netdb.h>
#include <optional>
#include <poll.h>
#include <span>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace
{

constexpr int STATUS_REFUSED = 1; /* by the agent, or something was found */
constexpr int STATUS_USAGE = 2;
constexpr int STATUS_UNREACHABLE = 3;
constexpr long STALE_SEC = 30;
constexpr const char* PACKAGED_CONFIG = "/etc/kov/kov.conf"; /* what the service unit names to the agent */
constexpr int ANSWER_WAIT_MS = 60000;

struct settings {
    std::string agent; /* host:port of a web listener */
    std::string channel;
    std::string data_dir;
    std::string lock_dir;
    std::string prefix;
    pid_t pid = 0;
    std::string expiry;
    long timeout = 600;
    bool is_waiting = false;
    bool is_deleting = false;
};

settings g_set;

[[noreturn]] void fail(int status, const std::string& text)
{
    fprintf(stderr, "kovctl: %s\n", text.c_str());
    exit(status);
}

/* ---- one request ---- */

struct free_addrinfo {
    void operator()(addrinfo* ai) const noexcept { freeaddrinfo(ai); }
};

/* "host:port" or "[host]:port". */
std::unique_ptr<addrinfo, free_addrinfo> resolve(const std::string& text, int socktype)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        fail(STATUS_USAGE, text.empty() ? "no agent given: name its configuration (-C) or its address (-a, -u)"
                                        : "no port in " + text);
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[')
        host = host.substr(1, host.size() - 2);
    addrinfo hints{};
    hints.ai_socktype = socktype;
    addrinfo* ai = nullptr;
    if (const int rc = getaddrinfo(host.c_str(), text.c_str() + colon + 1, &hints, &ai))
        fail(STATUS_UNREACHABLE, text + ": " + gai_strerror(rc));
    return std::unique_ptr<addrinfo, free_addrinfo>(ai);
}

/* The status of the answer; 0 when the agent closed without one. */
int ask(const std::string& target)
{
    const auto ai = resolve(g_set.agent, SOCK_STREAM);
    const int fd = socket(ai->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const scope_guard close_fd([fd] { close(fd); });
    if (fd < 0 || connect(fd, ai->ai_addr, ai->ai_addrlen) != 0)
        fail(STATUS_UNREACHABLE, g_set.agent + ": " + strerror(errno));
    /* The agent looks at a request from its 32nd byte on, so it is never shorter. */
    const std::string head = "GET " + target + " HTTP/1.1\r\nHost: " + g_set.agent + "\r\nUser-Agent: kovctl\r\n\r\n";
    if (head.size() > HEAD_MAX - 1)
        fail(STATUS_REFUSED, "too long: a request has at most " + std::to_string(HEAD_MAX - 1) + " bytes");
    if (send(fd, head.data(), head.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(head.size()))
        fail(STATUS_UNREACHABLE, g_set.agent + ": " + strerror(errno));
    std::array<char, 64> answer{};
    pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, ANSWER_WAIT_MS) <= 0)
        fail(STATUS_UNREACHABLE, g_set.agent + ": no answer within a minute");
    const ssize_t n = recv(fd, answer.data(), answer.size() - 1, 0);
    int code = 0;
    return n > 0 && sscanf(answer.data(), "HTTP/1.%*d %d", &code) == 1 ? code : 0; // NOLINT(cert-err34-c)
}

/* Bytes that would end or split the path, and what decoding would change. */
std::string encode(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        const auto ch = static_cast<unsigned char>(c);
        std::array<char, 4> hex{};
        if (ch > ' ' && ch < 0x7f && !strchr("%+?#", c)) {
            out += c;
        } else {
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
        return "closed without an answer: the agent is stopping, or its queue is full";
    case 200:
        return "started";
    case 204:
        return "taken for a ping: no order in it";
    case 400:
        if (!src.starts_with("http://"))
            return "refused: the source is not http://";
        if (src.size() >= SPEC_URL_MAX)
            return "refused: the source has more than 127 characters";
        return "refused: the source cannot be reached, a fresh unfinished file of that name exists, or the destination "
               "is too "
               "long, leaves the data directory or ends in -Kova";
    case 403:
        return "refused: the destination is there already";
    case 404:
        return "refused by the source: not found";
    case 500:
        return "failed: the source is being fetched already, the agent is full, the source has no length, or the file "
               "could not "
               "be made; the agent's log says which";
    default:
        return "refused by the source";
    }
}

/* ---- the agent's process ---- */

std::string first_line(const fs::path& path)
{
    std::string line;
    std::ifstream in(path);
    std::getline(in, line);
    return line;
}

/* The one process of that name, unless a pid was given or the pid file holds one. */
pid_t find_agent()
{
    if (g_set.pid > 0)
        return g_set.pid;
    if (g_cfg.rt.pidfile[0]) {
        if (const auto pid = parse_num<pid_t>(first_line(g_cfg.rt.pidfile).c_str());
            pid && fs::exists("/proc/" + std::to_string(*pid)))
            return *pid;
    }
    std::vector<pid_t> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const auto pid = parse_num<pid_t>(entry.path().filename().c_str());
        if (pid && first_line(entry.path() / "comm") == APP_NAME)
            found.push_back(*pid);
    }
    if (found.size() != 1)
        fail(STATUS_UNREACHABLE,
             found.empty() ? "no agent runs here" : "several agents run here: choose one with --pid");
    return found.front();
}

struct open_file {
    int fd;
    fs::path path;
};

std::vector<open_file> open_files(const fs::path& proc)
{
    std::vector<open_file> files;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(proc / "fd", ec)) {
        const fs::path to = fs::read_symlink(entry.path(), ec);
        if (!ec)
            files.push_back({atoi(entry.path().filename().c_str()), to});
    }
    return files;
}

/* Whether some process has the file open: an agent that is writing it. */
bool is_held(const fs::path& path)
{
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/proc", ec)) {
        if (!parse_num<pid_t>(entry.path().filename().c_str()))
            continue;
        for (const open_file& f : open_files(entry.path())) {
            if (f.path == path)
                return true;
        }
    }
    return false;
}

long age_of(const struct stat& st)
{
    return static_cast<long>(time(nullptr) - st.st_mtime);
}

bool is_unfinished(const fs::path& path)
{
    return std::string_view(path.native()).ends_with(UNFINISHED_SFX);
}

template <class F>
void each_file(const std::string& dir, F&& f)
{
    std::error_code ec;
    const auto options = fs::directory_options::skip_permission_denied;
    for (auto it = fs::recursive_directory_iterator(dir, options, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        struct stat st {
        };
        if (lstat(it->path().c_str(), &st) == 0 && S_ISREG(st.st_mode))
            f(it->path(), st);
    }
    if (ec)
        fail(STATUS_USAGE, dir + ": " + ec.message());
}

/* ---- commands ---- */

int cmd_ping()
{
    const int code = ask("/");
    printf("%s: %s\n", g_set.agent.c_str(), code == 204 ? "alive" : "answers, but not like an agent");
    return code == 204 ? 0 : STATUS_REFUSED;
}

/* How far the agent has written the file, in bytes: its position in write mode. */
std::optional<uint64_t> position_in(pid_t pid, const fs::path& path)
{
    const fs::path proc = "/proc/" + std::to_string(pid);
    for (const open_file& f : open_files(proc)) {
        if (f.path != path)
            continue;
        const std::string line = first_line(proc / "fdinfo" / std::to_string(f.fd));
        uint64_t pos = 0;
        if (sscanf(line.c_str(), "pos: %lu", &pos) == 1 && pos > 0) // NOLINT(cert-err34-c)
            return pos;
    }
    return std::nullopt;
}

void show_progress(const fs::path& unfinished, long seconds)
{
    static std::optional<pid_t> pid;
    struct stat st {
    };
    if (stat(unfinished.c_str(), &st) != 0)
        return;
    if (!pid)
        pid = find_agent();
    constexpr uint64_t WIDTH = 40;
    const auto pos = position_in(*pid, unfinished);
    const auto size = static_cast<uint64_t>(st.st_size);
    if (pos && size > 0) {
        const auto done = static_cast<size_t>(std::min(*pos, size) * WIDTH / size);
        fprintf(stderr, "\r[%s%s] %3lu%%", std::string(done, '#').c_str(), std::string(WIDTH - done, '.').c_str(),
                *pos * 100 / size);
    } else {
        fprintf(stderr, "\r%ld s, %lu bytes announced", seconds, size);
    }
}

int wait_for_file(const std::string& dst)
{
    const fs::path path = fs::path(g_set.data_dir) / dst;
    const fs::path unfinished = path.native() + UNFINISHED_SFX;
    const bool is_tty = isatty(STDERR_FILENO) != 0;
    for (long tenth = 0; tenth < g_set.timeout * 10; ++tenth) {
        if (fs::exists(path)) {
            fputs(is_tty ? "\n" : "", stderr);
            printf("stored: %s, %ju bytes\n", path.c_str(), static_cast<uintmax_t>(fs::file_size(path)));
            return 0;
        }
        if (tenth > 10 && !fs::exists(unfinished) && !fs::exists(path)) {
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

int cmd_get(std::span<char* const> args)
{
    const std::string src = args[0];
    const std::string dst = args[1];
    const int code = ask(order_target(src, dst));
    printf("%d %s\n", code, meaning(code, src));
    if (code != 200)
        return STATUS_REFUSED;
    return g_set.is_waiting ? wait_for_file(dst) : 0;
}

int cmd_send(std::span<char* const> args)
{
    const std::string lid = args[0];
    if (lid.size() < MIN_LID_LEN || lid.size() > MAX_LID_LEN || lid.find_first_of(" \t/") != std::string::npos)
        fail(STATUS_USAGE, "a lock id has 4 to 31 characters and no slash");
    /* Never without an expiry: that stops every agent that hears it. */
    if (!parse_num<long>(args[3]))
        fail(STATUS_USAGE, "the expiry is a number of seconds");
    const std::string path = "kovctl/src/" + encode(args[1]) + "/dst/" + encode(args[2]);
    if (path.size() > 127)
        fail(STATUS_USAGE, "source and destination are too long for a datagram");
    const std::string text = "#!" + lid + " http://" + path + " " + args[3];
    if (g_set.channel.empty())
        fail(STATUS_USAGE, "the configuration has no udp_input: name the channel with --udp ADDR:PORT");
    const auto ai = resolve(g_set.channel, SOCK_DGRAM);
    const int fd = socket(ai->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const scope_guard close_fd([fd] { close(fd); });
    if (fd < 0 ||
        sendto(fd, text.data(), text.size(), 0, ai->ai_addr, ai->ai_addrlen) != static_cast<ssize_t>(text.size()))
        fail(STATUS_UNREACHABLE, g_set.channel + ": " + strerror(errno));
    printf("sent to %s: %s\n", g_set.channel.c_str(), text.c_str());
    return 0;
}

int cmd_status()
{
    const pid_t pid = find_agent();
    const fs::path proc = "/proc/" + std::to_string(pid);
    const std::vector<open_file> files = open_files(proc);
    std::string limit = "?";
    std::ifstream limits(proc / "limits");
    for (std::string line; std::getline(limits, line);) {
        if (line.starts_with("Max open files"))
            limit = line.substr(26, line.find(' ', 26) - 26);
    }
    const auto tasks =
        std::count_if(files.begin(), files.end(), [](const open_file& f) { return is_unfinished(f.path); });
    printf("agent: pid %d\n", pid);
    for (const rui_listener_cfg& l : g_cfg.rui.user) {
        if (l.is_valid)
            printf("listener: %s\n", l.domain_path[0] ? l.domain_path : l.alias);
    }
    if (g_cfg.udp_cha.url[0])
        printf("channel: %s\n", g_cfg.udp_cha.url);
    printf("downloads: %td of %zu\n", tasks, g_cfg.max_tasks);
    printf("descriptors: %zu of %s\n", files.size(), limit.c_str());
    each_file(g_set.data_dir, [](const fs::path& path, const struct stat& st) {
        if (is_unfinished(path))
            printf("unfinished: %s, %jd bytes, %ld s since its last change\n", path.c_str(),
                   static_cast<intmax_t>(st.st_size), age_of(st));
    });
    return 0;
}

/* Lists, and with --delete removes. */
struct removal {
    int found = 0;

    void take(const fs::path& path, const char* why)
    {
        ++found;
        const bool is_gone = g_set.is_deleting && unlink(path.c_str()) == 0;
        printf("%s%s: %s\n", is_gone ? "removed " : "", path.c_str(), why);
    }
    [[nodiscard]] int status() const { return found > 0 && !g_set.is_deleting ? STATUS_REFUSED : 0; }
};

/* A power cut may leave final files whose blocks never reached the disk. */
int cmd_verify()
{
    removal r;
    each_file(g_set.data_dir, [&r](const fs::path& path, const struct stat& st) {
        if (!is_unfinished(path) && st.st_blocks * 512 < st.st_size)
            r.take(path, "has fewer blocks than its size");
    });
    return r.status();
}

/* The directory may be everybody's (/tmp): a lock is an empty file of the agent's own user, named by a lock id. */
bool is_lapsed_lock(const fs::path& path, uid_t agent)
{
    struct stat st {
    };
    const size_t len = path.stem().native().size();
    return path.extension() == ".lock" && len >= MIN_LID_LEN && len <= MAX_LID_LEN && lstat(path.c_str(), &st) == 0 &&
           S_ISREG(st.st_mode) && st.st_size == 0 && st.st_uid == agent && age_of(st) > STALE_SEC;
}

int cmd_sweep()
{
    removal r;
    each_file(g_set.data_dir, [&r](const fs::path& path, const struct stat& st) {
        if (is_unfinished(path) && age_of(st) > STALE_SEC && !is_held(path))
            r.take(path, "unfinished, and no agent writes it");
    });
    struct stat data {
    };
    if (g_set.lock_dir.empty() || !fs::is_directory(g_set.lock_dir) || stat(g_set.data_dir.c_str(), &data) != 0)
        return r.status();
    for (const auto& entry : fs::directory_iterator(g_set.lock_dir)) {
        if (is_lapsed_lock(entry.path(), data.st_uid))
            r.take(entry.path(), "a lock that has lapsed");
    }
    return r.status();
}

int cmd_register(std::span<char* const> args)
{
    if (g_set.prefix.empty())
        fail(STATUS_USAGE, "the configuration has no local_url_prefix: there is nothing to register");
    int status = 0;
    for (const char* dst : args) {
        const int code = ask(order_target(g_set.prefix + "/" + dst, dst));
        printf("%s: %s\n", dst,
               code == 200 ? "registered, unless the agent's log says otherwise" : meaning(code, g_set.prefix));
        status = code == 200 ? status : STATUS_REFUSED;
    }
    return status;
}

int usage(FILE* out, int status)
{
    fputs("usage: kovctl [OPTIONS] COMMAND [ARGUMENTS]\n\n", out);
    for (const ctl_command& c : CTL_COMMANDS)
        fprintf(out, "  %-9s %-19s %s\n", c.name, c.args, c.help);
    fputs("\n", out);
    print_options(out, CTL_OPTIONS);
    fputs("\nStatus: 0 done; 1 refused, failed, or something was found; 2 usage; 3 no agent there.\n", out);
    return status;
}

/* From the configuration, what no option has said. */
void complete(const char* path)
{
    if (!path)
        return;
    log_set_modules(g_log, ERR_level);
    init_kova_config(&g_cfg);
    if (load_kova_config(path, &g_cfg, 0) != 0)
        fail(STATUS_USAGE, std::string(path) + " is refused: see kov-checkconf");
    const rui_listener_cfg& l = g_cfg.rui.user[0];
    if (g_set.agent.empty() && l.is_valid && !l.domain_path[0]) {
        std::array<char, NI_MAXHOST> host{"127.0.0.1"};
        if (l.ifc)
            (void)getnameinfo(reinterpret_cast<const sockaddr*>(&l.ifc->ss), sizeof(l.ifc->ss), host.data(),
                              host.size(), nullptr, 0, NI_NUMERICHOST);
        g_set.agent =
            (strchr(host.data(), ':') ? "[" + std::string(host.data()) + "]" : host.data()) + std::string(":") + l.port;
    }
    if (g_set.channel.empty()) {
        std::string url = g_cfg.udp_cha.url;
        url = url.substr(0, url.find('?'));
        for (const char* end : {"://", "@"}) {
            if (const size_t at = url.find(end); at != std::string::npos)
                url = url.substr(at + strlen(end));
        }
        g_set.channel = url;
    }
    if (g_set.data_dir.empty())
        g_set.data_dir = g_cfg.data_dir;
    g_set.lock_dir = g_cfg.udp_cha.lkdir;
    g_set.prefix = g_cfg.seg_url_pfx;
}

int run(ctl_cmd cmd, std::span<char* const> args)
{
    switch (cmd) {
    case CTL_PING:
        return cmd_ping();
    case CTL_GET:
        return cmd_get(args);
    case CTL_SEND:
        return cmd_send(args);
    case CTL_STATUS:
        return cmd_status();
    case CTL_VERIFY:
        return cmd_verify();
    case CTL_SWEEP:
        return cmd_sweep();
    case CTL_REGISTER:
        return cmd_register(args);
    }
    return STATUS_USAGE;
}

} // namespace

int main(int argc, char* argv[])
{
    const char* config = default_config_path();
    if (!config && access(PACKAGED_CONFIG, R_OK) == 0)
        config = PACKAGED_CONFIG;
    const std::string letters = option_letters(CTL_OPTIONS);
    const auto options = long_options(CTL_OPTIONS);
    for (int c = 0; (c = getopt_long(argc, argv, letters.c_str(), options.data(), nullptr)) != -1;) {
        switch (c) {
        case 'C':
            config = optarg;
            break;
        case 'a':
            g_set.agent = optarg;
            break;
        case 'u':
            g_set.channel = optarg;
            break;
        case 'D':
            g_set.data_dir = optarg;
            break;
        case 'p':
            g_set.pid = parse_num<pid_t>(optarg).value_or(0);
            break;
        case 'e':
            g_set.expiry = optarg;
            break;
        case 't':
            g_set.timeout = parse_num<long>(optarg).value_or(0);
            break;
        case 'w':
            g_set.is_waiting = true;
            break;
        case 'd':
            g_set.is_deleting = true;
            break;
        case 'h':
            return usage(stdout, 0);
        default:
            return usage(stderr, STATUS_USAGE);
        }
    }
    if (optind >= argc)
        return usage(stderr, STATUS_USAGE);
    const char* name = argv[optind++];
    const std::span<char* const> args(argv + optind, static_cast<size_t>(argc - optind));
    glog_init("kovctl");
    const auto* cmd = std::find_if(std::begin(CTL_COMMANDS), std::end(CTL_COMMANDS),
                                   [name](const ctl_command& c) { return strcmp(c.name, name) == 0; });
    if (cmd == std::end(CTL_COMMANDS) || args.size() < cmd->min_args || args.size() > cmd->max_args)
        return usage(stderr, STATUS_USAGE);
    complete(config);
    return run(static_cast<ctl_cmd>(cmd - CTL_COMMANDS), args);
}
