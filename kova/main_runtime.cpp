/* From a configured process to a running one: signals, daemon, user, log, pid file, limits, CPU. The difficulty is the
   order: some steps need root, which one of them gives up, and some a place, which another leaves. */
#include "main.h"

#include "data.h"
#include "log.h"
#include "meta.h"
#include "process.h"
#include "signals.h"
#include "strops.h"
#include "webops.h"
#include "wopen.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t CWD_MAX = 256; /* of the place that the daemon leaves; a longer one fails the start */
constexpr size_t RUNTIME_CWD_MAX = 4096;

/* In this order: the user is given up in the daemon itself, and only then is it known which directory that user may
   enter. */
static int become_daemon(const char* fn) noexcept
{
    if (!g_cfg.log.path[0]) {
        LOG_ERR("Logfile must be specified to run as daemon\n");
        return 1;
    }
    std::array<char, CWD_MAX> home{};
    if (!getcwd(home.data(), home.size())) {
        const int err = errno;
        LOG_ERR("getcwd ERROR(%d) : %s\n", err, strerror(err));
        return -1;
    }

    /* A data directory may be given from where the operator stands, which the daemon leaves. */
    char* dir = g_cfg.data_dir;
    if (dir[0] && dir[0] != '/') {
        const char* cwd = home.data();
        std::array<char, sizeof(g_cfg.data_dir)> path{};
        const size_t len = join_text(path.data(), path.size(), {cwd, strcmp(cwd, "/") == 0 ? "" : "/", dir});
        if (len >= path.size()) {
            LOG_ERR("%s: data directory [%s/%s] is too long (%zu), max = %zu characters.\n", fn, cwd, dir, len,
                    path.size() - 1);
            return -1;
        }
        cut_text(dir, sizeof(g_cfg.data_dir), path.data());
    }

    if (const int rc = daemonize()) {
        log_default(g_log, stderr);
        LOG_ERR("Failed to make the process a daemon, quitting.\n");
        return rc;
    }
    if (g_cfg.rt.user[0]) {
        if (const int rc = run_as_user(g_cfg.rt.user))
            return rc;
    }
    return geteuid() != 0 ? goto_runtime_home(home.data(), "/tmp") : 0;
}

/* Where the process runs, and on which CPU: what an operator asks for first. */
static int settle() noexcept
{
    const auto pid = intmax_t{getpid()};
    std::array<char, RUNTIME_CWD_MAX> cwd{};
    if (!getcwd(cwd.data(), cwd.size())) {
        const int err = errno;
        LOG_ERR("getcwd ERROR(%d) : %s\n", err, strerror(err));
        return -1;
    }
    LOG_INFO("Runtime pid=%jd uid/gid = %jd/%jd running in [%s]\n", pid, intmax_t{geteuid()}, intmax_t{getegid()},
             cwd.data());
    const int cpu = g_cfg.rt.cpunum;
    if (cpu < 0)
        return 0;
    if (const int rc = pin2cpu(cpu)) {
        LOG_ERR("Failed to pin this %s(pid=%jd) to CPU%d\n", APP_NAME, pid, cpu);
        return rc;
    }
    LOG_INFO("%s(pid=%jd) processor affinity set to CPU%d\n", APP_NAME, pid, cpu);
    return 0;
}

/* The steps of runtime_setup. The signals come first: from here on a quit signal is remembered, and nothing below may
   be cut short by one. The pid file comes after the fork, whose child it names, and after the change of user. */
static int runtime_steps(const char* fn) noexcept
{
    const bool is_daemon = !g_cfg.rt.non_daemon;

    usock_set_apptag(get_app_tag(APP_NAME));
    http_set_server(get_app_tag(APP_NAME));
    block_handled_signals();
    if (const int rc = handle_quit_signals(on_sigquit))
        return rc;
    if (const int rc = ignore_sigpipe())
        return rc;
    if (const int rc = handle_sig(SIGUSR2, on_tdbg))
        return rc;
    if (is_daemon) {
        if (const int rc = become_daemon(fn))
            return rc;
    }

    if (const char* path = g_cfg.log.path; path[0]) { /* after the change of user, to whom the file belongs */
        const int rc = path[0] == '|' ? log_popen(g_log, path + 1) : log_open_ex(g_log, path, 0);
        if (rc != 0) {
            log_default(g_log, stderr);
            return rc;
        }
        apply_log_config(g_log, &g_cfg.log);
        LOG_DEBUG("%s: log config applied\n", fn);
    }

    if (is_daemon) {
        null_fd(STDERR_FILENO);
        if (const int rc = create_pidfile_extra(g_cfg.rt.pidfile, getpid(), nullptr, 0))
            return rc;
        if (g_cfg.log.enable_syslog)
            glog_enable_syslog(APP_NAME);
    }
    log_set_pid(g_log, getpid());
    raise_fd_limit();
    if (g_cfg.rt.enforce_core_dumps)
        set_unlimited_core(0);
    return settle();
}

int runtime_setup() noexcept
{
    const int rc = runtime_steps(__func__);
    if (rc != 0)
        LOG_ERR("%s: FAILED (rc=%d)\n", __func__, rc);
    else
        LOG_DEBUG("%s: OK\n", __func__);
    return rc;
}
