/* Checks a configuration before an agent is restarted with it: loads it with the agent's own loader, prints the dump,
   then says what the agent itself cannot say.
   The difficulty is to be right in both directions. What the agent would refuse is left to the agent's loader, so that
   the two never disagree; a warning is for what it would take without a word, and must not cry at what people mean. */
#include "check.h"

#include "cfg.h"
#include "guard.h"
#include "log.h"
#include "options.h"
#include "plain_out.h"
#include "strops.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
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
    if (argc - optind > 1)
        return usage(stderr, STATUS_REFUSED);
    const char* path = optind < argc ? argv[optind] : default_config_path();
    if (!path) {
        fputs("kov-checkconf: no file is given, and kov would find none\n", stderr);
        return STATUS_REFUSED;
    }
    return check(path, is_strict, wait_sec);
}
