/* From a configured process to a running one: signals, daemon, user, log, pid file, limits, CPU. */
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
#include <cstring>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t CWD_MAX = 256;
constexpr size_t RUNTIME_CWD_MAX = 4096;

static int setup_signals() noexcept
{
    block_handled_signals();
    if (const int rc = handle_quit_signals(on_sigquit))
        return rc;
    if (const int rc = ignore_sigpipe())
        return rc;
    return handle_sig(SIGUSR2, on_tdbg);
}

/* A data directory given from where the operator stood, before the daemon leaves that place. */
static int fix_data_dir(const char* cwd) noexcept
{
    char* dir = g_cfg.data_dir;
    if (!dir[0] || dir[0] == '/')
        return 0;
    std::array<char, sizeof(g_cfg.data_dir)> path{};
    const size_t len = join_text(path.data(), path.size(), {cwd, strcmp(cwd, "/") == 0 ? "" : "/", dir});
    if (len >= path.size()) {
        LOG_ERR("%s: data directory [%s/%s] is too long (%zu), max = %zu characters.\n", "runtime_setup", cwd, dir, len,
                path.size() - 1);
        return -1;
    }
    cut_text(dir, sizeof(g_cfg.data_dir), path.data());
    return 0;
}

static int become_daemon() noexcept
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
    if (const int rc = fix_data_dir(home.data()))
        return rc;
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

static int open_log() noexcept
{
    const char* path = g_cfg.log.path;
    if (!path[0])
        return 0;
    const int rc = path[0] == '|' ? log_popen(g_log, path + 1) : log_open_ex(g_log, path, 0);
    if (rc != 0) {
        log_default(g_log, stderr);
        return rc;
    }
    apply_log_config(g_log, &g_cfg.log);
    LOG_DEBUG("%s: log config applied\n", "runtime_setup");
    return 0;
}

static int settle_daemon() noexcept
{
    null_fd(STDERR_FILENO);
    if (const int rc = create_pidfile_extra(g_cfg.rt.pidfile, getpid(), nullptr, 0))
        return rc;
    if (g_cfg.log.enable_syslog)
        glog_enable_syslog(APP_NAME);
    return 0;
}

static int say_where() noexcept
{
    std::array<char, RUNTIME_CWD_MAX> cwd{};
    if (!getcwd(cwd.data(), cwd.size())) {
        const int err = errno;
        LOG_ERR("getcwd ERROR(%d) : %s\n", err, strerror(err));
        return -1;
    }
    LOG_INFO("Runtime pid=%ld uid/gid = %ld/%ld running in [%s]\n", static_cast<long>(getpid()),
             static_cast<long>(geteuid()), static_cast<long>(getegid()), cwd.data());
    return 0;
}

static int pin() noexcept
{
    const int cpu = g_cfg.rt.cpunum;
    if (cpu < 0)
        return 0;
    const auto pid = static_cast<long>(getpid());
    if (const int rc = pin2cpu(cpu)) {
        LOG_ERR("Failed to pin this %s(pid=%ld) to CPU%d\n", APP_NAME, pid, cpu);
        return rc;
    }
    LOG_INFO("%s(pid=%ld) processor affinity set to CPU%d\n", APP_NAME, pid, cpu);
    return 0;
}

static int runtime_steps() noexcept
{
    usock_set_apptag(get_app_tag(APP_NAME));
    http_set_server(get_app_tag(APP_NAME));
    if (const int rc = setup_signals())
        return rc;
    if (!g_cfg.rt.non_daemon) {
        if (const int rc = become_daemon())
            return rc;
    }
    if (const int rc = open_log())
        return rc;
    if (!g_cfg.rt.non_daemon) {
        if (const int rc = settle_daemon())
            return rc;
    }
    log_set_pid(g_log, getpid());
    raise_fd_limit();
    if (g_cfg.rt.enforce_core_dumps)
        set_unlimited_core(0);
    if (const int rc = say_where())
        return rc;
    return pin();
}

int runtime_setup() noexcept
{
    const int rc = runtime_steps();
    if (rc != 0)
        LOG_ERR("%s: FAILED (rc=%d)\n", __func__, rc);
    else
        LOG_DEBUG("%s: OK\n", __func__);
    return rc;
}
