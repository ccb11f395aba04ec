/* The shared configuration groups: their keys in the order in which they are read, up to the first bad value, which its
   reader has logged; and what the dump tells of them. */
#include "appcfg.h"

#include "strops.h"
#include "timeop.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <string_view>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t WORD_LIMIT = 15;
constexpr size_t FAMILY_LIMIT = 16;
constexpr size_t IFC_LIMIT = 16;

static int read_level(const config_setting_t* group, const config_key& key, void* record) noexcept
{
    std::array<char, WORD_LIMIT + 1> word{};
    if (load_config_setting_str(group, key.name, word.data(), WORD_LIMIT, key.word) != 0)
        return -1;
    if (match_log_level(word.data(), &static_cast<log_cfg*>(record)->level) == 0)
        return 0;
    log_trouble("Invalid log level: %s\n", word.data());
    return -1;
}

static int read_time_format(const config_setting_t* group, const config_key& key, void* record) noexcept
{
    std::array<char, WORD_LIMIT + 1> word{};
    if (load_config_setting_str(group, key.name, word.data(), WORD_LIMIT, key.word) != 0)
        return -1;
    uint32_t* const format = &static_cast<log_cfg*>(record)->timefmt;
    *format = match_timefmt(word.data());
    if (*format != f_BAD_TIME)
        return 0;
    log_trouble("Invalid time format: %s\n", word.data());
    return -1;
}

static constexpr config_key LOG_ROWS[] = {
    key_text<&log_cfg::path>("file", "", "Path, or \"|command\" to pipe into. Without one: standard error."),
    {.name = "level",
     .types = V_STRING,
     .read = read_level,
     .text = "err, crit, warn, norm, info or debug.",
     .word = "info"},
    {.name = "time_format",
     .types = V_STRING,
     .read = read_time_format,
     .text = "local, gmt, raw (seconds), raw_mono (of the monotonic clock) or no_time.",
     .word = "local"},
    key_int<&log_cfg::max_size_mb>("max_size_mb", 64, 0, INT_MAX, "MiB at which the log is rotated; 0: never."),
    key_int<&log_cfg::max_files>("max_files", 16, 1, 127, "Rotated files kept; beyond the range: 16."),
    key_flag<&log_cfg::eod_rotate>("eod_rotate", false, "Rotate at the end of the day, too."),
    key_flag<&log_cfg::enable_syslog>("enable_syslog", true, "Copies of warnings and worse; only as a daemon."),
};
constinit const config_table LOG_KEYS = LOG_ROWS;

int load_log_config(const config_setting_t* group, log_cfg* cfg) noexcept
{
    return load_config_keys(group, LOG_KEYS, cfg);
}

static constexpr config_key RUNTIME_ROWS[] = {
    key_text<&rt_cfg::pidfile>("pidfile", "", "Path; a daemon needs one."),
    key_flag<&rt_cfg::non_daemon>("non_daemon", false, "Stay in the foreground."),
    key_flag<&rt_cfg::quiet>("quiet", false, "No copy of the log on the terminal beside the log file."),
    key_flag<&rt_cfg::enforce_core_dumps>("enforce_core_dumps", true, "Unlimited core size."),
    key_int<&rt_cfg::cpunum>("cpunum", -1, INT_MIN, INT_MAX, "Run on this CPU only; below 0: on any."),
    key_text<&rt_cfg::user>("run_as_user", "", "The user that a daemon becomes when root starts it."),
};
constinit const config_table RUNTIME_KEYS = RUNTIME_ROWS;

int load_rt_config(const config_setting_t* group, rt_cfg* cfg) noexcept
{
    return load_config_keys(group, RUNTIME_KEYS, cfg);
}

/* ---- listeners ---- */

constexpr char LISTENER_LOADER[] = "load_listener_from"; /* which the messages of all readers name */

static int read_protocol(const config_setting_t* group, const config_key& key, void* record) noexcept
{
    rui_listener_cfg* const cfg = static_cast<rui_listener_cfg*>(record);
    std::array<char, WORD_LIMIT + 1> word{};
    if (load_config_setting_str(group, key.name, word.data(), WORD_LIMIT, key.word) != 0)
        return -1;
    if (ci_equal(word.data(), "tcp")) {
        cfg->proto = IPPROTO_TCP;
    } else if (ci_equal(word.data(), "udp")) {
        cfg->proto = IPPROTO_UDP;
    } else {
        LOG_ERR("%s: invald protocol for [%s]: %s\n", LISTENER_LOADER, cfg->alias, word.data());
        return -1;
    }
    return 0;
}

static int read_family(const config_setting_t* group, const config_key& key, void* record) noexcept
{
    rui_listener_cfg* const cfg = static_cast<rui_listener_cfg*>(record);
    std::array<char, FAMILY_LIMIT + 1> word{};
    if (load_config_setting_str(group, key.name, word.data(), FAMILY_LIMIT, key.word) != 0)
        return -1;
    cfg->pref_af = AF_UNSPEC; /* of an empty word */
    return word[0] ? name2af(word.data(), &cfg->pref_af) : 0;
}

static int read_ifc(const config_setting_t* group, const config_key& key, void* record) noexcept
{
    rui_listener_cfg* const cfg = static_cast<rui_listener_cfg*>(record);
    std::array<char, IFC_LIMIT + 1> text{};
    if (read_config_text(group, key, text.data()) != 0)
        return -1;
    if (is_any_name(text.data()))
        return 0;
    if (cfg->pref_af != AF_UNSPEC) {
        cfg->ifc = get_ifc_info(cfg->pref_af, text.data());
        if (!cfg->ifc) {
            LOG_ERR("%s: [%s] failed the check for [%s] interface name\n", LISTENER_LOADER, text.data(),
                    af2name(cfg->pref_af));
        }
    } else {
        cfg->ifc = get_ifc_info(AF_INET, text.data());
        if (!cfg->ifc)
            cfg->ifc = get_ifc_info(AF_INET6, text.data());
        if (!cfg->ifc)
            LOG_ERR("%s: [%s] failed the check for IPv4/v6 interface name\n", LISTENER_LOADER, text.data());
    }
    if (cfg->ifc)
        return 0;
    LOG_ERR("invalid network interface name/address: %s\n", text.data());
    return -1;
}

/* A number is checked as a number before it becomes text, which holds five digits. */
static int read_port(const config_setting_t* group, const config_key& key, void* record) noexcept
{
    rui_listener_cfg* const cfg = static_cast<rui_listener_cfg*>(record);
    const config_setting_t* s = config_setting_get_member(group, key.name);
    if (s && config_setting_is_number(s) && config_setting_type(s) != CONFIG_TYPE_FLOAT) {
        const long long number = config_setting_get_int64(s);
        if (number < key.min || number > key.max) {
            LOG_ERR("%s: invalid port value: [%lld]\n", LISTENER_LOADER, number);
            return -1;
        }
        snprintf(cfg->port, sizeof(cfg->port), "%d", static_cast<int>(number));
        return 0;
    }
    if (read_config_text(group, key, cfg->port) != 0)
        return -1;
    if (is_valid_port(cfg->port))
        return 0;
    LOG_ERR("%s: invalid port value: [%s]\n", LISTENER_LOADER, cfg->port);
    return -1;
}

static constexpr config_key LISTENER_ROWS[] = {
    key_text<&rui_listener_cfg::alias>("alias", "", "Its name in the log. Without one: ifc:port.", LSTNR_ALIAS_LEN),
    {.name = "protocol", .types = V_STRING, .read = read_protocol, .text = "tcp; udp accepts nobody.", .word = "tcp"},
    key_text<&rui_listener_cfg::domain_path>("domain_path", "", "A Unix-domain socket instead of the keys below."),
    {.name = "default_af", .types = V_STRING, .read = read_family, .text = "inet4, inet6 or any.", .word = "any"},
    {.name = "ifc",
     .types = V_STRING,
     .read = read_ifc,
     .text = "Interface name or address. Without one: every IPv4 address, with default_af inet6 every address of both "
             "families.",
     .word = "",
     .limit = IFC_LIMIT},
    {.name = "port",
     .types = V_INT | V_STRING,
     .read = read_port,
     .text = "A number or a text.",
     .min = 1,
     .max = 65535,
     .limit = sizeof(rui_listener_cfg::port)},
};
constinit const config_table LISTENER_KEYS = LISTENER_ROWS;

constexpr size_t NPATH_KEYS = 3; /* up to domain_path, which says the whole place: what follows is not looked at then */
static_assert(std::string_view(LISTENER_ROWS[NPATH_KEYS - 1].name) == "domain_path");

int load_listener_from(const config_setting_t* setting, rui_listener_cfg* cfg) noexcept
{
    int rc = load_config_keys(setting, LISTENER_KEYS.first(NPATH_KEYS), cfg);
    const bool has_path = rc == 0 && cfg->domain_path[0];
    if (rc == 0 && !has_path)
        rc = load_config_keys(setting, LISTENER_KEYS.subspan(NPATH_KEYS), cfg);
    if (rc != 0) {
        free(cfg->ifc);
        cfg->ifc = nullptr;
        return rc;
    }
    if (!has_path && !cfg->alias[0])
        snprintf(cfg->alias, LSTNR_ALIAS_LEN - 1, "%s:%s", cfg->ifc ? cfg->ifc->name : "all", cfg->port);
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
    LOG_DEBUG("%s: %zu %s listeners loaded\n", __func__, count, kind);
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
    fprintf(stream, "Log (regular):\n\tpath   = %s\n\tlevel  = %s\n\tformat = %s\n", cfg->path,
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
