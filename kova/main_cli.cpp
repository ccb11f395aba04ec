/* The command line, read twice: first for the configuration file, then, over the file's values, for everything else.
   The log is not open yet, so whatever is wrong is printed to standard error and ends the process with status 1. */
#include "main.h"

#include "data.h"
#include "log.h"
#include "meta.h"
#include "process.h"
#include "strops.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <sys/socket.h>
#include <unistd.h>

static const char* const OPT_LETTERS = "w:W:U:C:0D:l:L:p:P:TVqh?";

/* --default has no letter of its own, so the second pass refuses it; -0 is harmless. */
const option LONG_OPTS[] = {
    {"webrq", required_argument, nullptr, 'w'},   {"webrq6", required_argument, nullptr, 'W'},
    {"udpcha", required_argument, nullptr, 'U'},  {"config", required_argument, nullptr, 'C'},
    {"default", no_argument, nullptr, 0},         {"dataroot", required_argument, nullptr, 'D'},
    {"logfile", required_argument, nullptr, 'l'}, {"level", required_argument, nullptr, 'L'},
    {"pidfile", required_argument, nullptr, 'p'}, {"cpu", required_argument, nullptr, 'P'},
    {"term", no_argument, nullptr, 'T'},          {"version", no_argument, nullptr, 'V'},
    {"quiet", no_argument, nullptr, 'q'},         {"help", no_argument, nullptr, 'h'},
    {"options", no_argument, nullptr, '?'},       {nullptr, 0, nullptr, 0},
};

void usage(int status) noexcept
{
    fprintf(stderr, "%s\n", get_app_info(APP_NAME, nullptr));
    fprintf(stderr, "Usage: %s PARAMETERS [OPTIONS]\n\n", APP_NAME);
    fputs("Parameters:\n"
          "  -w|-W|--webrq[6] {ifc:port}  = IPv4/6 interface:port for HTTP-requests\n"
          "  -U|--udpcha      {addr:port} = address:port for UDP listener\n"
          "  -C|--config  {path}        = config file\n"
          "\n"
          "Options:\n"
          "  -0|--default               = run with default settings [false]\n"
          "  -D|--dataroot {dir-path}   = data root\n"
          "  -l|--logfile {path}        = log file\n"
          "  -L|--level   {level}       = log level: crit|err|norm|warn|info|debug [info]\n"
          "  -p|--pidfile {path}        = pid file\n"
          "  -P|--cpu {0..N}            = run on CPUx only\n"
          "  -u|--runas   {user}        = run as user [root|current]\n"
          "  -T|--term                  = run as a non-daemon application [false]\n"
          "  -V|--version               = output application's version\n"
          "  -q|--quiet                 = send no output to terminal\n"
          "  -h|?|--help                = output this option guide\n"
          "\n",
          stderr);
    dump_build_info(stderr);
    fprintf(stderr, "%s is part of the marlinet product family.\n", APP_NAME);
    exit(status);
}

/* A path option into its field; what names it in the message. */
static int set_path(char (&dst)[128], const char* what, const char* value) noexcept
{
    if (copy_text(dst, sizeof(dst), value))
        return 0;
    fprintf(stderr, "%s path is too long (%zu bytes), max=%zu bytes.\n", what, strlen(value), sizeof(dst));
    return -1;
}

/* One option of the second pass, with its value in optarg. 0, or -1 (printed to standard error). */
static int apply_option(int c) noexcept
{
    switch (c) {
    case 'w':
        return add_web_cli(&g_cfg, optarg, AF_INET);
    case 'W':
        return add_web_cli(&g_cfg, optarg, AF_INET6);
    case 'U':
        cut_text(g_cfg.udp_cha.url, sizeof(g_cfg.udp_cha.url), optarg);
        /* The reverse of what the text says, on purpose: senders rely on it. */
        g_cfg.udp_cha.is_gzipped = strstr(optarg, "zipped=1") == nullptr;
        return 0;
    case 'C':
    case '0':
        return 0;
    case 'D':
        if (!*optarg) { /* every destination would be one of the whole file system */
            fprintf(stderr, "Data path is empty.\n");
            return -1;
        }
        return set_path(g_cfg.data_dir, "Data", optarg);
    case 'l':
        return set_path(g_cfg.log.path, "Log", optarg);
    case 'L':
        if (match_log_level(optarg, &g_cfg.log.level) == 0)
            return 0;
        fprintf(stderr, "Invalid log level: %s\n", optarg);
        return -1;
    case 'p':
        return set_path(g_cfg.rt.pidfile, "Pidfile", optarg);
    case 'P': {
        const int cpu = atoi(optarg); // NOLINT(cert-err34-c): 0 from any other text than "0" is refused
        if (cpu == 0 && strcmp(optarg, "0") != 0) {
            fprintf(stderr, "Invalid CPU #: %s\n", optarg);
            return -1;
        }
        g_cfg.rt.cpunum = cpu < -1 ? -1 : cpu;
        return 0;
    }
    case 'T':
        g_cfg.rt.non_daemon = true;
        return 0;
    case 'q':
        g_cfg.rt.quiet = true;
        return 0;
    default:
        fprintf(stderr, "Unknown option: %c\n", c);
        return -1;
    }
}

void setup_config(int argc, char* argv[]) noexcept
{
    init_kova_config(&g_cfg);
    log_default(g_log, stderr);
    log_set_group(g_log, mk_tag8("KOV"));

    const char* path = default_config_path();
    for (int c = 0; (c = getopt_long(argc, argv, OPT_LETTERS, LONG_OPTS, nullptr)) != -1;) {
        switch (c) {
        case 'C':
            path = optarg;
            break;
        case 'q':
            g_cfg.rt.quiet = true;
            break;
        case 'V':
            fprintf(stderr, "%s\n", get_app_info(APP_NAME, nullptr));
            exit(1);
        case 'h':
        case '?':
            usage(1);
        default: /* for the second pass */
            break;
        }
    }
    if (!path || !*path) {
        fprintf(stderr, "Invalid or unspecified config [%s], please use -C path\n", "");
        usage(1);
    }
    if (load_kova_config(path, &g_cfg, 0) != 0)
        exit(1);

    reset_getopt_state();
    log_timefmt(g_log, g_cfg.log.timefmt);
    if (geteuid() != 0) /* a daemon's user, pid file and log are root's to make */
        g_cfg.rt.non_daemon = true;
    for (int c = 0; (c = getopt_long(argc, argv, OPT_LETTERS, LONG_OPTS, nullptr)) != -1;) {
        if (apply_option(c) != 0)
            exit(1);
    }
    if (validate_config(&g_cfg) != 0)
        exit(1);
}
