/* Readers of the shared configuration groups. A reader stops at its first bad value, which it has logged. */
#include "appcfg.h"

#include "config.h"
#include "strops.h"
#include "timeop.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netinet/in.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t PATH_LIMIT = 127;
constexpr size_t WORD_LIMIT = 15;
constexpr size_t IFC_LIMIT = 16;
constexpr size_t USER_LIMIT = 31;

int load_log_config(const config_setting_t* group, log_cfg* cfg) noexcept
{
    std::array<char, WORD_LIMIT + 1> word{};
    if (load_config_setting_str(group, "file", cfg->path, PATH_LIMIT, "") != 0)
        return -1;
    if (load_config_setting_str(group, "level", word.data(), WORD_LIMIT, "info") != 0)
        return -1;
    if (match_log_level(word.data(), &cfg->level) != 0) {
        log_trouble("Invalid log level: %s\n", word.data());
        return -1;
    }
    if (load_config_setting_str(group, "time_format", word.data(), WORD_LIMIT, "local") != 0)
        return -1;
    cfg->timefmt = match_timefmt(word.data());
    if (cfg->timefmt == f_BAD_TIME) {
        log_trouble("Invalid time format: %s\n", word.data());
        return -1;
    }
    if (load_config_setting_int(group, "max_size_mb", &cfg->max_size_mb, 64) != 0 ||
        load_config_setting_int(group, "max_files", &cfg->max_files, 16) != 0)
        return -1;
    cfg->enable_syslog = config_setting_flag(group, "enable_syslog", true);
    cfg->eod_rotate = config_setting_flag(group, "eod_rotate", false);
    return 0;
}

int load_rt_config(const config_setting_t* group, rt_cfg* cfg) noexcept
{
    if (load_config_setting_str(group, "pidfile", cfg->pidfile, PATH_LIMIT, "") != 0)
        return -1;
    cfg->non_daemon = config_setting_flag(group, "non_daemon", false);
    cfg->quiet = config_setting_flag(group, "quiet", false);
    cfg->enforce_core_dumps = config_setting_flag(group, "enforce_core_dumps", true);
    if (load_config_setting_int(group, "cpunum", &cfg->cpunum, -1) != 0)
        return -1;
    return load_config_setting_str(group, "run_as_user", cfg->user, USER_LIMIT, "");
}

/* ---- listeners ---- */

static int load_protocol(const config_setting_t* setting, rui_listener_cfg* cfg) noexcept
{
    std::array<char, WORD_LIMIT + 1> word{};
    if (load_config_setting_str(setting, "protocol", word.data(), WORD_LIMIT, "tcp") != 0)
        return -1;
    if (ci_equal(word.data(), "tcp")) {
        cfg->proto = IPPROTO_TCP;
    } else if (ci_equal(word.data(), "udp")) {
        cfg->proto = IPPROTO_UDP;
    } else {
        LOG_ERR("%s: invald protocol for [%s]: %s\n", "load_listener_from", cfg->alias, word.data());
        return -1;
    }
    return 0;
}

static int load_family(const config_setting_t* setting, rui_listener_cfg* cfg) noexcept
{
    std::array<char, 16 + 1> word{};
    if (load_config_setting_str(setting, "default_af", word.data(), 16, "") != 0)
        return -1;
    cfg->pref_af = AF_UNSPEC;
    return word[0] ? name2af(word.data(), &cfg->pref_af) : 0;
}

static int load_ifc(const config_setting_t* setting, rui_listener_cfg* cfg) noexcept
{
    std::array<char, IFC_LIMIT + 1> text{};
    if (load_config_setting_str(setting, "ifc", text.data(), IFC_LIMIT, "") != 0)
        return -1;
    if (is_any_name(text.data()))
        return 0;
    if (cfg->pref_af != AF_UNSPEC) {
        cfg->ifc = get_ifc_info(cfg->pref_af, text.data());
        if (!cfg->ifc) {
            LOG_ERR("%s: [%s] failed the check for [%s] interface name\n", "load_listener_from", text.data(),
                    af2name(cfg->pref_af));
        }
    } else {
        cfg->ifc = get_ifc_info(AF_INET, text.data());
        if (!cfg->ifc)
            cfg->ifc = get_ifc_info(AF_INET6, text.data());
        if (!cfg->ifc)
            LOG_ERR("%s: [%s] failed the check for IPv4/v6 interface name\n", "load_listener_from", text.data());
    }
    if (cfg->ifc)
        return 0;
    LOG_ERR("invalid network interface name/address: %s\n", text.data());
    return -1;
}

/* A number is checked as a number before it becomes text, which holds five digits. */
static int load_port(const config_setting_t* setting, rui_listener_cfg* cfg) noexcept
{
    const config_setting_t* s = config_setting_get_member(setting, "port");
    if (s && config_setting_is_number(s) && config_setting_type(s) != CONFIG_TYPE_FLOAT) {
        std::array<char, 24> text{};
        const long long number = config_setting_get_int64(s);
        snprintf(text.data(), text.size(), "%lld", number);
        if (number < 1 || number > 65535) {
            LOG_ERR("%s: invalid port value: [%s]\n", "load_listener_from", text.data());
            return -1;
        }
        cut_text(cfg->port, sizeof(cfg->port), text.data());
        return 0;
    }
    if (load_config_setting_str(setting, "port", cfg->port, sizeof(cfg->port), "") != 0)
        return -1;
    if (is_valid_port(cfg->port))
        return 0;
    LOG_ERR("%s: invalid port value: [%s]\n", "load_listener_from", cfg->port);
    return -1;
}

static int load_listener_keys(const config_setting_t* setting, rui_listener_cfg* cfg) noexcept
{
    if (load_config_setting_str(setting, "alias", cfg->alias, LSTNR_ALIAS_LEN, "") != 0)
        return -1;
    if (load_protocol(setting, cfg) != 0)
        return -1;
    if (load_config_setting_str(setting, "domain_path", cfg->domain_path, DSOCK_PATH_MAX - 1, "") != 0)
        return -1;
    if (cfg->domain_path[0])
        return 0;
    if (load_family(setting, cfg) != 0 || load_ifc(setting, cfg) != 0 || load_port(setting, cfg) != 0)
        return -1;
    if (!cfg->alias[0])
        snprintf(cfg->alias, LSTNR_ALIAS_LEN - 1, "%s:%s", cfg->ifc ? cfg->ifc->name : "all", cfg->port);
    return 0;
}

int load_listener_from(const config_setting_t* setting, rui_listener_cfg* cfg) noexcept
{
    const int rc = load_listener_keys(setting, cfg);
    if (rc != 0) {
        free(cfg->ifc);
        cfg->ifc = nullptr;
        return rc;
    }
    cfg->is_valid = true;
    return 0;
}

int get_listeners(const char* kind, const config_setting_t* setting, rui_listener_cfg* slots) noexcept
{
    size_t count = 0;
    if (setting && config_setting_is_group(setting)) {
        if (const int rc = load_listener_from(setting, &slots[0]))
            return rc;
        slots[0].index = ++count;
    } else if (setting && config_setting_is_list(setting)) {
        const auto len = static_cast<size_t>(std::max(0, config_setting_length(setting)));
        for (; count < std::min(len, MAX_LISTENERS); ++count) {
            const config_setting_t* elem = config_setting_get_elem(setting, static_cast<unsigned>(count));
            if (const int rc = load_listener_from(elem, &slots[count]))
                return rc;
            slots[count].index = count + 1;
        }
    }
    LOG_DEBUG("%s: %lu %s listeners loaded\n", __func__, static_cast<unsigned long>(count), kind);
    return 0;
}

/* ---- the log ---- */

void apply_log_config(log_ctx* log, const log_cfg* cfg) noexcept
{
    const size_t max_bytes = cfg->max_size_mb >= 1 ? static_cast<size_t>(cfg->max_size_mb) << 20 : 0;
    log_set_rota(log, max_bytes, cfg->max_files > 0 ? static_cast<size_t>(cfg->max_files) : 0,
                 cfg->eod_rotate ? time(nullptr) : 0);
}

/* ---- dump ---- */

void dump_log_config(FILE* stream, const log_cfg* cfg) noexcept
{
    fprintf(stream, "Log (%s):\n\tpath   = %s\n\tlevel  = %s\n\tformat = %s\n", "regular", cfg->path,
            log_level_str(cfg->level), timefmt_str(cfg->timefmt));
    if (cfg->max_size_mb >= 1 || cfg->eod_rotate) {
        fprintf(stream, "\trota:max size   = %d Mb\n\trota:max files  = %d\n\trota:end-of-day = %s (%ld)\n",
                cfg->max_size_mb, cfg->max_files, cfg->eod_rotate ? "ON" : "off",
                static_cast<long>(log_rota_eod(g_log)));
    }
    fputs("\n", stream);
}

void dump_rt_config(FILE* stream, const rt_cfg* cfg) noexcept
{
    fputs("Runtime:\n", stream);
    if (cfg->pidfile[0])
        fprintf(stream, "\tpid file = %s\n", cfg->pidfile);
    if (cfg->user[0])
        fprintf(stream, "\trun as user: %s\n", cfg->user);
    if (cfg->cpunum >= 0)
        fprintf(stream, "\tCPU: %d\n", cfg->cpunum);
    fprintf(stream, "\tflags:%s%s%s\n\n", cfg->non_daemon ? " [non-daemon]" : "", cfg->quiet ? " [quiet]" : "",
            cfg->enforce_core_dumps ? " [cores]" : "");
}

/* Valid slots up to the first invalid one. Their number. */
static size_t dump_listeners(FILE* stream, const char* set, const rui_listener_cfg* slots) noexcept
{
    size_t n = 0;
    for (; n < MAX_LISTENERS && slots[n].is_valid; ++n) {
        const rui_listener_cfg& l = slots[n];
        if (l.domain_path[0])
            fprintf(stream, "\t%s listener[%s]: path=%s\n", set, l.alias, l.domain_path);
        else
            fprintf(stream, "\t%s listener[%s]: ifc=%s, af=%s port=%s\n", set, l.alias,
                    l.ifc ? l.ifc->name : "<anyaddr>", af2name(l.pref_af), l.port);
    }
    return n;
}

void dump_rui_config(FILE* stream, const rui_cfg* cfg) noexcept
{
    fputs("Listeners:\n", stream);
    if (dump_listeners(stream, "user", cfg->user) > 0)
        fputs("\n", stream);
    if (dump_listeners(stream, "admin", cfg->admin) > 0)
        fputs("\n", stream);
    dump_listeners(stream, "custom", cfg->custom);
    fputs("\n", stream);
    if (cfg->max_accept != 0)
        fprintf(stream, "\tmax-accepted=%ld\n", static_cast<long>(cfg->max_accept));
    fprintf(stream, "\tI/O timeouts: user-rq=%d, admin-rq=%d custom-rq=%d\n\n", cfg->user_request_tmout,
            cfg->admin_request_tmout, cfg->custom_request_tmout);
}

void free_rui_config(rui_cfg* cfg) noexcept
{
    for (rui_listener_cfg* set : {cfg->user, cfg->admin, cfg->custom}) {
        for (size_t i = 0; i < MAX_LISTENERS; ++i) {
            free(set[i].ifc);
            set[i] = rui_listener_cfg{};
        }
    }
}
