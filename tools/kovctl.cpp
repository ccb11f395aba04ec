/* Talks to one agent by hand: orders, health, what it holds, what it left behind.
   The difficulty is to know as much as the agent does from the agent's own configuration, and to do without it: a
   command needs only a part of it, this user may not be able to read the file, and an option may stand in for each
   part. So the configuration only fills what no option has said, and its lack is a failure of the command that misses
   something. */
#include "cfg.h"
#include "ctl.h"
#include "data.h"
#include "log.h"
#include "netops.h"
#include "options.h"
#include "plain_out.h"
#include "strops.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <unistd.h>

ctl_settings g_set;

void fail(int status, const std::string& text)
{
    fprintf(stderr, "kovctl: %s\n", text.c_str());
    exit(status);
}

void fail_without(const char* key, const char* advice)
{
    const std::string why =
        g_set.config.empty() ? "no configuration was read (-C names one)" : g_set.config + " has no " + key;
    fail(STATUS_USAGE, why + ": " + advice);
}

std::optional<host_port> host_port_of(std::string_view text)
{
    std::string_view host;
    std::string_view port;
    if (!split_host_port(text, &host, &port))
        return std::nullopt;
    if (host.size() > 2 && host.front() == '[')
        host = host.substr(1, host.size() - 2);
    return host_port{std::string(host), std::string(port)};
}

namespace
{

constexpr const char* PACKAGED_CONFIG = "/etc/kov/kov.conf"; /* what the service unit names to the agent */

int usage(FILE* out, int status)
{
    fputs("usage: kovctl [OPTIONS] COMMAND [ARGUMENTS]\n\n", out);
    for (const ctl_command& c : CTL_COMMANDS) {
        const int column = fprintf(out, "  %-9s %-19s ", c.name, c.args);
        print_wrapped(out, column, c.help);
    }
    fputs("\n", out);
    print_options(out, CTL_OPTIONS);
    fputs("\n", out);
    print_wrapped(out, 0,
                  "Status: 0 done; 1 refused, failed, or something was found; 2 usage; 3 no agent there; 4 the "
                  "destination is there already, or forbidden; 5 gave up waiting; 6 refused by the source; 7 not "
                  "registered, or not known.");
    return status;
}

/* Of an agent that was given as --agent. A name stands for whatever address it has. */
listening_place place_of_option(const std::string& agent)
{
    const auto place = host_port_of(agent);
    if (agent.starts_with('/') || agent.starts_with('.') || !place)
        return {net_socket::PATH, agent, 0};
    std::array<unsigned char, sizeof(in6_addr)> address{};
    const bool is_numeric = inet_pton(AF_INET, place->host.c_str(), address.data()) == 1 ||
                            inet_pton(AF_INET6, place->host.c_str(), address.data()) == 1;
    return {net_socket::STREAM, is_numeric ? place->host : "", parse_num<unsigned>(place->port).value_or(0)};
}

/* "udp://source@group:port?query" in its parts. */
void read_channel()
{
    std::string url = g_cfg.udp_cha.url;
    url = url.substr(0, url.find('?'));
    if (const size_t at = url.find("://"); at != std::string::npos)
        url = url.substr(at + 3);
    if (const size_t at = url.find('@'); at != std::string::npos) {
        g_set.channel_source = url.substr(0, at);
        /* Its port, if it has one, says nothing; an IPv6 address without brackets has none. */
        const size_t colon = g_set.channel_source.rfind(':');
        if (colon != std::string::npos &&
            (colon == g_set.channel_source.find(':') || g_set.channel_source[colon - 1] == ']'))
            g_set.channel_source.resize(colon);
        url = url.substr(at + 1);
    }
    g_set.channel = url;
}

/* What no option has said is taken from the configuration. One that was not asked for may be unreadable: what is then
   missing is said by the command that misses it. */
void take_configuration(const char* path, bool is_named)
{
    if (!path)
        return;
    log_set_modules(g_log, ERR_level);
    init_kova_config(&g_cfg);
    const char* why_not = access(path, R_OK) != 0                  ? strerror(errno)
                          : load_kova_config(path, &g_cfg, 0) != 0 ? "refused: see kov-checkconf"
                                                                   : nullptr;
    if (why_not && is_named)
        fail(STATUS_USAGE, std::string(path) + ": " + why_not);
    if (why_not) {
        fprintf(stderr, "kovctl: goes on without %s: %s\n", path, why_not);
        free_kova_config(&g_cfg);
        init_kova_config(&g_cfg);
        return;
    }
    g_set.config = path;
    if (g_set.agent.empty()) {
        g_set.places = places_of(g_cfg.rui);
        const auto web = std::find_if(g_set.places.begin(), g_set.places.end(),
                                      [](const listening_place& p) { return p.kind != net_socket::DATAGRAM; });
        if (web != g_set.places.end() && web->kind == net_socket::PATH) { /* told from a host by its first letter */
            g_set.agent = web->host.starts_with('/') ? web->host : "./" + web->host;
        } else if (web != g_set.places.end()) {
            const char* host = web->host.empty() ? "127.0.0.1" : web->host.c_str();
            g_set.agent = listening_place{web->kind, host, web->port}.text();
        }
    }
    if (g_set.channel.empty())
        read_channel();
    /* An agent without a web listener is known by its channel. */
    const auto channel = host_port_of(g_set.channel);
    const auto port = channel ? parse_num<unsigned>(channel->port) : std::nullopt;
    if (g_set.places.empty() && g_set.agent.empty() && port)
        g_set.places.push_back({net_socket::DATAGRAM, channel->host, *port});
    g_set.channel_ifc = g_cfg.udp_cha.mifc;
    if (g_set.data_dir.empty())
        g_set.data_dir = g_cfg.data_dir;
    g_set.lock_dir = g_cfg.udp_cha.lkdir;
    g_set.prefix = g_cfg.seg_url_pfx;
}

long number_or_usage(const char* text, long least)
{
    const auto value = parse_num<long>(text);
    if (!value || *value < least || *value > INT_MAX)
        fail(STATUS_USAGE, std::string(text) + ": not a number, or too small or large");
    return *value;
}

int run(ctl_cmd cmd, std::span<char* const> args)
{
    switch (cmd) {
    case CTL_PING:
        return cmd_ping();
    case CTL_READY:
        return cmd_ready();
    case CTL_GET:
        return cmd_get(args);
    case CTL_SEND:
        return cmd_send(args);
    case CTL_STATUS:
        return cmd_status();
    case CTL_METRICS:
        return cmd_metrics();
    case CTL_DRAIN:
        return cmd_drain();
    case CTL_VERIFY:
        return cmd_verify();
    case CTL_SWEEP:
        return cmd_sweep();
    case CTL_REGISTER:
        return cmd_register(args);
    case CTL_LOST:
        return cmd_lost(args);
    case CTL_REPLAY:
        return cmd_replay(args);
    case CTL_EXPIRE:
        return cmd_expire(args);
    case CTL_FLEET:
        return cmd_fleet();
    }
    return STATUS_USAGE;
}

/* The options into g_set; the configuration that they name, or null. What is no option is left at optind. */
const char* take_options(int argc, char* argv[])
{
    const char* named = nullptr;
    const std::string letters = option_letters(CTL_OPTIONS);
    const auto options = long_options(CTL_OPTIONS);
    for (int c = 0; (c = getopt_long(argc, argv, letters.c_str(), options.data(), nullptr)) != -1;) {
        switch (c) {
        case 'C':
            named = optarg;
            break;
        case 'a':
            g_set.agent = optarg;
            g_set.places = {place_of_option(g_set.agent)};
            break;
        case 'u':
            g_set.channel = optarg;
            break;
        case 'D':
            g_set.data_dir = optarg;
            break;
        case 'p':
            if (!*optarg) /* what systemd makes of $MAINPID when there is none */
                fail(STATUS_UNREACHABLE, "the process has ended");
            g_set.pid = static_cast<pid_t>(number_or_usage(optarg, 1));
            break;
        case 'e':
            g_set.expiry = std::to_string(number_or_usage(optarg, INT_MIN));
            break;
        case 't':
            g_set.timeout = number_or_usage(optarg, 1);
            break;
        case 'w':
            g_set.is_waiting = true;
            break;
        case 'd':
            g_set.is_deleting = true;
            break;
        case 'A':
            g_set.is_all = true;
            break;
        case 'f':
            g_set.is_from_log = true;
            break;
        case 'j':
            g_set.is_json = true;
            break;
        case 'h':
            exit(usage(stdout, 0));
        default: /* getopt has said why */
            fail(STATUS_USAGE, "see kovctl --help");
        }
    }
    return named;
}

} // namespace

int main(int argc, char* argv[])
{
    make_output_plain();
    const char* named = take_options(argc, argv);
    if (optind >= argc)
        return usage(stderr, STATUS_USAGE);
    const char* name = argv[optind++];
    const std::span<char* const> args(argv + optind, static_cast<size_t>(argc - optind));
    const auto* cmd = std::find_if(std::begin(CTL_COMMANDS), std::end(CTL_COMMANDS),
                                   [name](const ctl_command& c) { return strcmp(c.name, name) == 0; });
    if (cmd == std::end(CTL_COMMANDS))
        fail(STATUS_USAGE, std::string("no command ") + name + ": see kovctl --help");
    if (args.size() < cmd->min_args || args.size() > cmd->max_args)
        fail(STATUS_USAGE, std::string(name) + " takes " + (*cmd->args ? cmd->args : "no arguments"));
    glog_init("kovctl");
    /* Where the agent would look, then where the service unit has it look. */
    const char* config = named ? named : default_config_path();
    if (!config && access(PACKAGED_CONFIG, F_OK) == 0)
        config = PACKAGED_CONFIG;
    take_configuration(config, named != nullptr);
    return run(static_cast<ctl_cmd>(cmd - CTL_COMMANDS), args);
}
