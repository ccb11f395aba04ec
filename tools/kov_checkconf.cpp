/* Checks a configuration before an agent is restarted with it: loads it with the agent's own loader, prints the dump,
   then says what the agent itself cannot say.
   The difficulty is to be right in both directions. What the agent would refuse is left to the agent's loader, so that
   the two never disagree; a warning is for what it would take without a word, and must not cry at what people mean. */
#include "check.h"

#include "cfg.h"
#include "gkh.h"
#include "guard.h"
#include "log.h"
#include "meta.h"
#include "options.h"
#include "plain_out.h"
#include "process.h"
#include "strops.h"

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
constexpr size_t FDS_A_LISTENER = 1001; /* with its longest queue */
constexpr size_t FDS_OF_ITS_OWN = 16;

/* ---- what it means on this machine ---- */

void check_descriptors(const kova_cfg& cfg)
{
    if (cfg.max_tasks > HT_MAX_CAP) { /* or negative */
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

/* Who can send to it, and where its locks lie. */
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

/* What the agent writes to: the data directory, and for log and pid file the directories around them. */
void check_places(const kova_cfg& cfg)
{
    if (!is_writable_dir(cfg, cfg.data_dir))
        warn("data_dir %s cannot be written to by the agent's user", cfg.data_dir);
    const size_t used = strlen(cfg.data_dir) + 1 + strlen("-Kova");
    const size_t room = used < PATH_ROOM ? PATH_ROOM - used : 0;
    printf("destinations: up to %zu characters below %s\n", room, cfg.data_dir);
    if (room < SMALL_ROOM)
        warn("data_dir leaves %zu characters for a destination", room);

    if (!cfg.rt.non_daemon && !cfg.log.path[0])
        warn("a daemon needs log.file; without it only -T starts");
    if (!cfg.rt.non_daemon && !cfg.rt.pidfile[0])
        warn("a daemon needs runtime.pidfile; without it only -T starts");
    if (!cfg.rt.non_daemon && cfg.rt.user[0] && !getpwnam(cfg.rt.user))
        warn("run_as_user: there is no user %s here; without one only -T starts", cfg.rt.user);

    const std::pair<const char*, const char*> files[] = {{"log.file", cfg.log.path},
                                                         {"runtime.pidfile", cfg.rt.pidfile}};
    for (const auto& [key, path] : files) {
        if (!path[0] || path[0] == '|')
            continue;
        const std::string_view text = path;
        const size_t slash = text.rfind('/');
        const std::string dir(slash == std::string_view::npos ? "." : slash == 0 ? "/" : text.substr(0, slash));
        if (!is_writable_dir(cfg, dir.c_str()))
            warn("%s: the directory %s is missing, or cannot be written to by the agent's user", key, dir.c_str());
    }
}

int usage(FILE* out, int status)
{
    fputs("usage: kov-checkconf [--strict] [--wait SECONDS] [FILE]\n       kov-checkconf --keys\n\n", out);
    print_wrapped(out, 0,
                  "Loads FILE (else the file that kov would find) as kov does, prints what it means, and warns of what "
                  "is legal but hardly meant. Nothing is started, nothing is written.");
    fputs("\n", out);
    print_options(out, CHECKCONF_OPTIONS);
    fputs("\nStatus: 0 accepted, 1 refused, 2 accepted with warnings (only with --strict).\n", out);
    return status;
}

/* The whole check of one file; its status. */
int check(const char* path, bool is_strict, int wait_sec)
{
    if (access(path, R_OK) != 0) {
        fprintf(stderr, "kov-checkconf: %s: %s\n", path, strerror(errno));
        return STATUS_REFUSED;
    }
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
    check_channel(g_cfg);
    check_places(g_cfg);
    check_host(g_cfg);
    if (wait_sec > 0 && !await_database(g_cfg.lbdb, wait_sec)) {
        printf("%s: refused: no database answers at %s:%d\n", path, g_cfg.lbdb.host, g_cfg.lbdb.port);
        return STATUS_REFUSED;
    }
    check_database(g_cfg.lbdb);
    printf("%s: accepted, %d warning%s\n", path, g_warnings, g_warnings == 1 ? "" : "s");
    return is_strict && g_warnings > 0 ? STATUS_WARNINGS : 0;
}

} // namespace

int main(int argc, char* argv[])
{
    make_output_plain();
    const std::string letters = option_letters(CHECKCONF_OPTIONS);
    const auto options = long_options(CHECKCONF_OPTIONS);
    bool is_strict = false;
    int wait_sec = 0;
    for (int c = 0; (c = getopt_long(argc, argv, letters.c_str(), options.data(), nullptr)) != -1;) {
        if (c == 'h')
            return usage(stdout, 0);
        if (c == 'k') {
            list_keys();
            return 0;
        }
        if (c == 's') {
            is_strict = true;
            continue;
        }
        if (c != 'w') /* getopt has said why */
            return STATUS_REFUSED;
        wait_sec = parse_num<int>(optarg).value_or(-1);
        if (wait_sec < 0) {
            fprintf(stderr, "kov-checkconf: --wait %s: not a number of seconds\n", optarg);
            return STATUS_REFUSED;
        }
    }
    const char* path = optind < argc ? argv[optind] : default_config_path();
    if (!path || argc - optind > 1)
        return usage(stderr, STATUS_REFUSED);
    return check(path, is_strict, wait_sec);
}
