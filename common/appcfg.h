/* Log, runtime and listener settings that servers of this kind share. */
#pragma once

#include "log.h"
#include "netops.h"
#include "tags.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <libconfig.h>

constexpr size_t USERNAME_MAX_LEN = 32;
constexpr size_t MAX_LISTENERS = 4;
constexpr size_t LSTNR_ALIAS_LEN = 32;
constexpr size_t DSOCK_PATH_MAX = 104;
constexpr int D_MAX_ACCEPT = 64;
constexpr int D_MAX_FILES = 8;
constexpr int D_MAX_LOGSZ = 8;
constexpr int D_URQ_TMOUT_MS = 1000;

struct log_cfg {
    char path[128]; /* empty = none; '|' first: a command to pipe into */
    int level;
    uint32_t timefmt; /* f_* of timeop.h */
    bool enable_syslog;
    int max_size_mb; /* below 1: no rotation by size */
    int max_files;
    bool eod_rotate;
};

struct rt_cfg {
    char pidfile[128];
    char user[USERNAME_MAX_LEN];
    bool non_daemon;
    bool quiet;
    bool enforce_core_dumps;
    int cpunum; /* -1 = none */
};

struct rui_listener_cfg {
    bool is_valid;
    char alias[LSTNR_ALIAS_LEN];
    size_t index;  /* slot + 1 */
    ifc_info* ifc; /* owned; null = any address */
    char port[6];
    int pref_af;
    char domain_path[DSOCK_PATH_MAX]; /* a Unix-domain listener instead of ifc and port */
    int proto;                        /* IPPROTO_TCP or IPPROTO_UDP */
    n32_tag kind;
};

struct rui_cfg {
    rui_listener_cfg user[MAX_LISTENERS];
    rui_listener_cfg admin[MAX_LISTENERS];
    rui_listener_cfg custom[MAX_LISTENERS];
    size_t max_accept;      /* connections a wake-up */
    int user_request_tmout; /* ms */
    int admin_request_tmout;
    int custom_request_tmout;
};

/* Readers of a configuration group. 0, or non-zero (logged). A missing group is the caller's affair. */
[[nodiscard]] int load_log_config(const config_setting_t* group, log_cfg* cfg) noexcept;
[[nodiscard]] int load_rt_config(const config_setting_t* group, rt_cfg* cfg) noexcept;
/* One listener (a group) or a list of up to four into slots. setting may be null: no listener. */
[[nodiscard]] int get_listeners(const char* kind, const config_setting_t* setting, rui_listener_cfg* slots) noexcept;
[[nodiscard]] int load_listener_from(const config_setting_t* setting, rui_listener_cfg* cfg) noexcept;
/* Hands the rotation settings to the log. */
void apply_log_config(log_ctx* log, const log_cfg* cfg) noexcept;

/* Blocks of the configuration dump. */
void dump_log_config(FILE* stream, const log_cfg* cfg) noexcept;
void dump_rt_config(FILE* stream, const rt_cfg* cfg) noexcept;
void dump_rui_config(FILE* stream, const rui_cfg* cfg) noexcept;
/* Frees what the listeners own and clears their records. */
void free_rui_config(rui_cfg* cfg) noexcept;
