/* The main sequence of the daemon: configuration, runtime, context, engine, loop, shutdown. There is no way back from a
   later stage to an earlier one, and app_shutdown copes with every stage. */
#include "main.h"

#include "app.h"
#include "ctx.h"
#include "log.h"
#include "meta.h"
#include "process.h"
#include "signals.h"
#include "timeop.h"
#include "tmout.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

/* The engine first: what is started wants to be watched. */
static int app_start() noexcept
{
    if (const int rc = rqs_init(&g_rqs_config))
        return rc;
    return start_kova_ctx();
}

/* Releases everything, from whatever stage of a start. The pid file goes last, so that whoever waits for it to vanish
   finds the process done. */
static void app_shutdown() noexcept
{
    LOG_DEBUG("%s: begins\n", __func__);
    pprm_all_tasks(); /* running downloads end by the ordinary road */
    pprm_task_cleanup();
    destroy_kova_ctx();
    rqs_destroy();
    LOG_NORM("%s shut down\n", APP_NAME);

    const char* path = g_cfg.rt.pidfile;
    struct stat st {
    };
    /* A link or a device at the pid file's path was refused at the start, and is nothing of ours to remove. */
    const bool is_ours = path[0] && (lstat(path, &st) != 0 || S_ISREG(st.st_mode));
    if (is_ours && unlink(path) != 0 && errno != ENOENT)
        LOG_ERRNO("%s: unlink(%s)", __func__, path);
}

/* Into the log, and for a terminal run also to the terminal, where all later lines are mirrored. */
static void write_config_dump() noexcept
{
    if (!g_cfg.rt.quiet && g_cfg.rt.non_daemon && g_cfg.log.path[0])
        log_mirror(g_log, stderr);
    char* text = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&text, &len);
    if (fp) {
        dump_kova_config(fp, &g_cfg);
        (void)fclose(fp);
    }
    if (text)
        log_put_text(g_log, text, len);
    free(text);
}

/* From the prepared configuration to the end of the loop. */
static int run() noexcept
{
    if (const int rc = runtime_setup())
        return rc;
    write_config_dump();
    if (const int rc = init_kova_ctx())
        return rc;
    if (const int rc = app_start())
        return rc;

    LOG_NORM("%s STARTING. PID=%jd\n", get_app_info(APP_NAME, nullptr), intmax_t{getpid()});
    LOG_INFO("Config read from [%s]\n", g_cfg.config_path);
    return rqs_event_loop();
}

int main(int argc, char* argv[])
{
    fill_std_fds();
    /* From the first line on: a file at its size limit is a write that fails, not an end. */
    (void)handle_sig(SIGXFSZ, SIG_IGN);
    const char* trace = getenv("SYSW_DEBUG");
    if (argc < 2)
        usage(1);

    glog_init(APP_NAME);
    init_timeout_registry();
    log_default(g_log, stderr);
    g_mod_ll[0] = DEBUG_level;
    setup_config(argc, argv);
    g_mod_ll[0] = g_cfg.log.level;
    if (trace && strcmp(trace, "1") == 0)
        g_mod_ll[MOD_SYSWRAP] = DEBUG_level;

    int rc = run();
    if (g_quit) { /* it may also have come while the start waited for the database; what it cut short is no failure */
        LOG_NORM("%s has been asked to quit.\n", APP_NAME);
        rc = 0;
    }
    app_shutdown();
    free_kova_config(&g_cfg);

    int status = abs(rc);
    if (status != 0 && (status & 0xff) == 0)
        status = 255; /* the kernel keeps eight bits: a failure must not look like success */
    LOG_NORM("%s EXIT(%d). PID=%jd\n", get_app_info(APP_NAME, nullptr), status, intmax_t{getpid()});
    log_close(g_log);
    return status;
}
