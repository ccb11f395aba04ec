/* Checks a configuration before an agent is restarted with it: loads it with the agent's own loader, prints the dump,
   then says what the agent itself cannot say. */
#include "check.h"

#include "cfg.h"
#include "config.h"
#include "guard.h"
#include "log.h"
#include "meta.h"
#include "options.h"
#include "schema.h"
#include "strops.h"
#include "util.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <pwd.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

static int g_warnings = 0;

void warn(const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    fputs("warning: ", stdout);
    vprintf(format, ap);
    fputs("\n", stdout);
    va_end(ap);
    ++g_warnings;
}

namespace
{

constexpr int STATUS_REFUSED = 1;
constexpr int STATUS_WARNINGS = 2;
constexpr size_t PATH_ROOM = 126; /* data_dir/destination-Kova */
constexpr size_t SMALL_ROOM = 64;
constexpr size_t FDS_A_TASK = 3;
constexpr size_t MANY_TASKS = 100'000'000; /* no machine has the memory */
constexpr size_t FDS_A_LISTENER = 1001;    /* with its longest queue */
constexpr size_t FDS_OF_ITS_OWN = 16;

/* ---- the file's text ---- */

unsigned type_of(const config_setting_t* s)
{
    switch (config_setting_type(s)) {
    case CONFIG_TYPE_INT:
    case CONFIG_TYPE_INT64:
        return V_INT;
    case CONFIG_TYPE_BOOL:
        return V_BOOL;
    case CONFIG_TYPE_STRING:
        return V_STRING;
    case CONFIG_TYPE_GROUP:
        return V_GROUP;
    case CONFIG_TYPE_LIST:
        return V_LIST;
    default:
        return 0;
    }
}

std::string type_names(unsigned types)
{
    static const struct {
        unsigned type;
        const char* name;
    } NAMES[] = {
        {V_INT, "a number"}, {V_BOOL, "true or false"}, {V_STRING, "a text"}, {V_GROUP, "a group"}, {V_LIST, "a list"}};
    std::string text;
    for (const auto& n : NAMES) {
        if (types & n.type)
            text += (text.empty() ? "" : " or ") + std::string(n.name);
    }
    return text;
}

void check_keys(const config_setting_t* group, std::span<const key_rule> rules);

void check_value(const config_setting_t* s, const key_rule& rule)
{
    const unsigned type = type_of(s);
    if (!(type & rule.types)) {
        warn("line %u: %s is not %s, and has no effect", config_setting_source_line(s), config_setting_name(s),
             type_names(rule.types).c_str());
        return;
    }
    if (type == V_GROUP) {
        check_keys(s, rule.keys);
        return;
    }
    const long long value = type == V_INT ? config_setting_get_int64(s) : 0;
    if (value < 0 && rule.name != "cpunum")
        warn("line %u: %s is negative", config_setting_source_line(s), config_setting_name(s));
    if (type != V_LIST)
        return;
    const int n = config_setting_length(s);
    for (int i = 0; i < n; ++i) {
        const config_setting_t* elem = config_setting_get_elem(s, static_cast<unsigned>(i));
        if (i >= static_cast<int>(MAX_LISTENERS))
            warn("line %u: listener %d is ignored: there are four at most", config_setting_source_line(elem), i + 1);
        else if (config_setting_is_group(elem))
            check_keys(elem, rule.keys);
    }
}

void check_keys(const config_setting_t* group, std::span<const key_rule> rules)
{
    const int n = config_setting_length(group);
    for (int i = 0; i < n; ++i) {
        const config_setting_t* s = config_setting_get_elem(group, static_cast<unsigned>(i));
        const char* name = config_setting_name(s);
        const key_rule* found = nullptr;
        for (const key_rule& rule : rules) {
            if (rule.name == name)
                found = &rule;
        }
        if (found)
            check_value(s, *found);
        else
            warn("line %u: unknown key %s", config_setting_source_line(s), name);
    }
}

/* A listener that is given a path and a port listens on the path only. */
void check_listener(const config_setting_t* s)
{
    const char* path = nullptr;
    if (config_setting_lookup_string(s, "domain_path", &path) == CONFIG_TRUE && *path &&
        (config_setting_get_member(s, "port") || config_setting_get_member(s, "ifc")))
        warn("line %u: ifc and port are ignored beside domain_path", config_setting_source_line(s));
    const char* protocol = nullptr;
    if (config_setting_lookup_string(s, "protocol", &protocol) == CONFIG_TRUE && ci_equal(protocol, "udp"))
        warn("line %u: a web listener over udp accepts nobody", config_setting_source_line(s));
}

/* The parser library cuts a number without an L at its end to 32 bits and says nothing. */
void check_numbers(const std::string& path)
{
    std::ifstream file(path);
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    config_scan scan{.rest = text};
    std::string_view word;
    for (config_word kind{}; (kind = config_next_word(&scan, &word)) != config_word::END;) {
        if (kind == config_word::INCLUDE) {
            check_numbers(std::string(word)); /* the loader has bounded the depth */
            continue;
        }
        const bool is_hex = word.starts_with("0x") || word.starts_with("0X");
        errno = 0;
        const long long value = strtoll(std::string(word).c_str(), nullptr, is_hex ? 16 : 10);
        if (errno == ERANGE || value > INT_MAX || value < INT_MIN)
            warn("%s, line %u: %.*s is beyond 32 bits, and is taken for another number", path.c_str(), scan.line,
                 static_cast<int>(word.size()), word.data());
    }
}

void check_text(const char* path)
{
    check_numbers(path);
    config_t file;
    config_init(&file);
    const scope_guard destroy([&file] { config_destroy(&file); });
    if (config_read_file(&file, path) != CONFIG_TRUE)
        return; /* the loader has said so */
    check_keys(config_root_setting(&file), FILE_KEYS);
    const config_setting_t* web = config_lookup(&file, "kova.web_input.web");
    if (web && config_setting_is_group(web)) {
        check_listener(web);
    } else if (web && config_setting_is_list(web)) {
        for (int i = 0; i < config_setting_length(web); ++i)
            check_listener(config_setting_get_elem(web, static_cast<unsigned>(i)));
    }
}

/* ---- what it means on this machine ---- */

void check_descriptors(const kova_cfg& cfg)
{
    if (cfg.max_tasks > MANY_TASKS) {
        warn("max_tasks %zd: the agent will not start", static_cast<ssize_t>(cfg.max_tasks));
        return;
    }
    size_t need = cfg.max_tasks * FDS_A_TASK + FDS_OF_ITS_OWN;
    for (const rui_listener_cfg& l : cfg.rui.user)
        need += l.is_valid ? FDS_A_LISTENER : 0;
    rlimit lim{};
    if (getrlimit(RLIMIT_NOFILE, &lim) != 0)
        return;
    printf("descriptors: up to %zu (3 a download, 1 a waiting client), hard limit here %lu\n", need,
           static_cast<unsigned long>(lim.rlim_max));
    if (need > lim.rlim_max)
        warn("max_tasks and full queues want %zu descriptors, the hard limit is %lu", need,
             static_cast<unsigned long>(lim.rlim_max));
}

/* For the user that the agent will be. */
bool is_writable_dir(const kova_cfg& cfg, const char* path)
{
    struct stat st {
    };
    if (stat(path, &st) != 0 || !S_ISDIR(st.st_mode) || access(path, W_OK | X_OK) != 0)
        return false;
    const passwd* pw = geteuid() == 0 && !cfg.rt.non_daemon && cfg.rt.user[0] ? getpwnam(cfg.rt.user) : nullptr;
    if (!pw || pw->pw_uid == 0)
        return true;
    const bool is_group = st.st_gid == pw->pw_gid;
    constexpr mode_t WRITE_AND_ENTER = 3;
    const mode_t want = WRITE_AND_ENTER << (st.st_uid == pw->pw_uid ? 6U : is_group ? 3U : 0U);
    return (st.st_mode & want) == want;
}

void check_data_dir(const kova_cfg& cfg)
{
    if (!is_writable_dir(cfg, cfg.data_dir))
        warn("data_dir %s cannot be written to by the agent's user", cfg.data_dir);
    const size_t used = strlen(cfg.data_dir) + 1 + strlen("-Kova");
    const size_t room = used < PATH_ROOM ? PATH_ROOM - used : 0;
    printf("destinations: up to %zu characters below %s\n", room, cfg.data_dir);
    if (room < SMALL_ROOM)
        warn("data_dir leaves %zu characters for a destination", room);
}

void check_channel(const kova_cfg& cfg)
{
    if (!cfg.udp_cha.url[0])
        return;
    if (!strchr(cfg.udp_cha.url, '@'))
        warn("anybody who reaches %s can stop the agent with one datagram; name the sender: udp://SENDER@GROUP:PORT",
             cfg.udp_cha.url);
    if (!cfg.udp_cha.must_lock)
        return;
    const std::string_view dir = cfg.udp_cha.lkdir;
    for (const std::string_view temporary : {"/tmp", "/var/tmp", "/dev/shm"}) {
        if (dir == temporary || (dir.starts_with(temporary) && dir[temporary.size()] == '/'))
            warn("lock_dir %s is a temporary place: others can hold or clear locks there", cfg.udp_cha.lkdir);
    }
    if (!is_writable_dir(cfg, cfg.udp_cha.lkdir))
        warn("lock_dir %s is missing, or cannot be written to by the agent's user: orders go on without their locks",
             cfg.udp_cha.lkdir);
}

/* Where the agent makes files of its own besides the data. */
void check_dir_of(const kova_cfg& cfg, const char* key, const char* path)
{
    if (!path[0] || path[0] == '|')
        return;
    const std::string_view text = path;
    const size_t slash = text.rfind('/');
    const std::string dir(slash == std::string_view::npos ? "." : slash == 0 ? "/" : text.substr(0, slash));
    if (!is_writable_dir(cfg, dir.c_str()))
        warn("%s: the directory %s is missing, or cannot be written to by the agent's user", key, dir.c_str());
}

void check_daemon(const kova_cfg& cfg)
{
    if (cfg.rt.non_daemon)
        return;
    if (!cfg.log.path[0])
        warn("a daemon needs log.file; without it only -T starts");
    if (!cfg.rt.pidfile[0])
        warn("a daemon needs runtime.pidfile; without it only -T starts");
    if (cfg.rt.user[0] && !getpwnam(cfg.rt.user))
        warn("run_as_user: there is no user %s here; without one only -T starts", cfg.rt.user);
}

int usage(FILE* out, int status)
{
    fputs(
        "usage: kov-checkconf [--strict] [FILE]\n\n"
        "Loads FILE (else the file that kov would find) as kov does, prints what it means, and warns of what is legal\n"
        "but hardly meant. Nothing is started, nothing is written.\n\n",
        out);
    print_options(out, CHECKCONF_OPTIONS);
    fputs("\nStatus: 0 accepted, 1 refused, 2 accepted with warnings (only with --strict).\n", out);
    return status;
}

} // namespace

int main(int argc, char* argv[])
{
    const std::string letters = option_letters(CHECKCONF_OPTIONS);
    const auto options = long_options(CHECKCONF_OPTIONS);
    bool is_strict = false;
    int wait_sec = 0;
    for (int c = 0; (c = getopt_long(argc, argv, letters.c_str(), options.data(), nullptr)) != -1;) {
        if (c == 'h')
            return usage(stdout, 0);
        if (c == 's') {
            is_strict = true;
            continue;
        }
        const auto wait = c == 'w' ? parse_num<int>(optarg) : std::nullopt;
        if (!wait || *wait < 0)
            return usage(stderr, STATUS_REFUSED);
        wait_sec = *wait;
    }
    const char* path = optind < argc ? argv[optind] : default_config_path();
    if (!path || argc - optind > 1)
        return usage(stderr, STATUS_REFUSED);

    glog_init("kov-checkconf");
    log_set_modules(g_log, WARN_level);
    init_kova_config(&g_cfg);
    const scope_guard free_cfg([] { free_kova_config(&g_cfg); });
    if (load_kova_config(path, &g_cfg, 0) != 0 || validate_config(&g_cfg) != 0) {
        check_text(path); /* the cause may be a misspelt key */
        printf("%s: refused\n", path);
        return STATUS_REFUSED;
    }
    dump_kova_config(stdout, &g_cfg);
    check_text(path);
    check_descriptors(g_cfg);
    check_data_dir(g_cfg);
    check_channel(g_cfg);
    check_daemon(g_cfg);
    check_dir_of(g_cfg, "log.file", g_cfg.log.path);
    check_dir_of(g_cfg, "runtime.pidfile", g_cfg.rt.pidfile);
    check_host(g_cfg);
    if (wait_sec > 0 && !await_database(g_cfg.lbdb, wait_sec)) {
        printf("%s: refused: no database answers at %s:%d\n", path, g_cfg.lbdb.host, g_cfg.lbdb.port);
        return STATUS_REFUSED;
    }
    check_database(g_cfg.lbdb);
    printf("%s: accepted, %d warning%s\n", path, g_warnings, g_warnings == 1 ? "" : "s");
    return is_strict && g_warnings > 0 ? STATUS_WARNINGS : 0;
}
