/* What a configuration means beside this machine's limits, places and processes: things that the agent takes without a
   word and that are hardly meant.
   The difficulty is that this program is another process than the agent: often another user, and beside a running
   agent. It looks at what the agent will meet, and does not try it: no port is bound, no file made, no lock taken. */
#include "check.h"

#include "cfg.h"
#include "data.h"
#include "gkh.h"
#include "procfs.h"
#include "strops.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <pwd.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace
{

constexpr size_t LOCK_PATH_ROOM = 126; /* lock_dir/id.lock */
constexpr size_t PATH_ROOM = 126;      /* data_dir/destination-Kova */
constexpr size_t SMALL_ROOM = 64;
constexpr size_t FDS_A_TASK = 3;
constexpr size_t FDS_A_LISTENER = 1001; /* with its longest queue */
constexpr size_t FDS_OF_ITS_OWN = 16;
constexpr unsigned USUAL_FIRST_FREE_PORT = 1024;

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

/* Log, CPU, user and pid file, and the paths that a daemon sees from another directory. */
void check_runtime(const kova_cfg& cfg)
{
    struct stat st {
    };
    if (cfg.log.path[0] && cfg.log.path[0] != '|' && stat(cfg.log.path, &st) == 0 && !S_ISREG(st.st_mode))
        warn("log.file %s is no regular file: it is never rotated, and lines are dropped while nobody reads them",
             cfg.log.path);
    const long cpus = sysconf(_SC_NPROCESSORS_CONF);
    if (cfg.rt.cpunum >= cpus)
        warn("cpunum %d: this machine has the CPUs 0 to %ld: the agent will not start", cfg.rt.cpunum, cpus - 1);
    if (cfg.rt.non_daemon && cfg.rt.user[0])
        warn("run_as_user has no effect beside non_daemon: the agent stays who starts it");
    const std::string path = cfg.rt.pidfile;
    const std::string dir = path.substr(0, path.rfind('/') + 1);
    if (!dir.empty() && stat(dir.c_str(), &st) == 0 && (st.st_mode & S_IWOTH))
        warn("pidfile %s: everybody may put a file of that name into %s", path.c_str(), dir.c_str());
    if (cfg.rt.non_daemon)
        return;
    const std::pair<const char*, const char*> paths[] = {{"log.file", cfg.log.path},
                                                         {"pidfile", cfg.rt.pidfile},
                                                         {"lock_dir", cfg.udp_cha.lkdir},
                                                         {"sha1_dir", cfg.lbdb.sha1_path}};
    for (const auto& [key, value] : paths) {
        if (value[0] && value[0] != '/' && value[0] != '|')
            warn("%s %s: a daemon changes its directory, so what a relative path names depends on its start", key,
                 value);
    }
}

/* What the fixed lengths of the agent's records leave for the names that come with orders. */
void check_names(const kova_cfg& cfg)
{
    /* A lock's path is cut where it does not fit, so that two ids may come to mean one file. */
    const size_t locks = strlen(cfg.udp_cha.lkdir) + 1 + strlen(".lock");
    if (cfg.udp_cha.url[0] && cfg.udp_cha.must_lock && locks + MAX_LID_LEN > LOCK_PATH_ROOM)
        warn("lock_dir leaves %zu characters for a lock id: longer ones are cut and share a lock",
             LOCK_PATH_ROOM - std::min(locks, LOCK_PATH_ROOM));
    if (!cfg.seg_url_pfx[0])
        return;
    /* To register again is to order the prefix and the destination as a source. */
    const size_t used = strlen(cfg.seg_url_pfx) + 1;
    const size_t room = SPEC_URL_MAX - 1 - std::min(used, SPEC_URL_MAX - 1);
    printf("registered again: destinations of up to %zu characters (local_url_prefix and destination are a source)\n",
           room);
    if (room < SMALL_ROOM)
        warn("local_url_prefix leaves %zu characters for a destination that is registered again", room);
}

/* Listeners against each other, against the ports that are root's, and against who listens here already. */
void check_listeners(const kova_cfg& cfg)
{
    const std::vector<listening_place> places = places_of(cfg.rui);
    if (!places.empty() && cfg.rui.max_accept == 0)
        warn("max_accept 0: no client is ever taken");
    const unsigned free_port = parse_num<unsigned>(first_line("/proc/sys/net/ipv4/ip_unprivileged_port_start"))
                                   .value_or(USUAL_FIRST_FREE_PORT);
    for (size_t i = 0; i < places.size(); ++i) {
        const listening_place& p = places[i];
        for (size_t k = 0; k < i; ++k) {
            if (p.meets(places[k]))
                warn("listeners %zu and %zu meet at %s: one is enough", k + 1, i + 1, p.text().c_str());
        }
        if (p.kind == net_socket::STREAM && p.port < free_port)
            warn("port %u is root's: an agent that is not root, as under the service unit, cannot listen there "
                 "(AmbientCapabilities=CAP_NET_BIND_SERVICE)",
                 p.port);
        /* A port of another agent is shared with it, on purpose; that of another program fails the start. */
        for (const pid_t pid : who_listens(p)) {
            if (is_agent(pid))
                printf("%s: an agent (pid %d) listens there already; two at once share the orders\n", p.text().c_str(),
                       pid);
            else
                warn("%s: %s (pid %d) listens there already: the agent will not start beside it", p.text().c_str(),
                     name_of(pid).c_str(), pid);
        }
    }
}

} // namespace

void check_host(const kova_cfg& cfg)
{
    check_descriptors(cfg);
    check_channel(cfg);
    check_places(cfg);
    check_runtime(cfg);
    check_names(cfg);
    check_listeners(cfg);
    /* What comes while the agent is busy waits in the kernel, in a buffer that the configuration cannot change. */
    constexpr long BYTES_A_DATAGRAM = 832; /* what the kernel reckons for a short one */
    const auto bytes = parse_num<long>(first_line("/proc/sys/net/core/rmem_default"));
    if (cfg.udp_cha.url[0] && bytes)
        printf("channel: %ld orders wait for a busy agent, further ones are dropped (net.core.rmem_default %ld)\n",
               *bytes / BYTES_A_DATAGRAM, *bytes);
}
