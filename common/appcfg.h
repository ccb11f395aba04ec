/* Log, runtime and listener settings that servers of this kind share. */
#pragma once

#include "config_keys.h"
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
    char path[128];     /* empty = none; '|' first: a command to pipe into */
    int level;          /* *_level of log.h: what is written, before the command line and signals change it */
    uint32_t timefmt;   /* f_* of timeop.h: the clock and the text of each line's time */
    bool enable_syslog; /* WARN and worse go there, too; only as a daemon */
    int max_size_mb;    /* MiB at which the file is rotated; below 1: no rotation by size */
    int max_files;      /* rotated files kept, 1..127; beyond that 16 */
    bool eod_rotate;    /* rotated with the day's last second, too */
};

struct rt_cfg {
    char pidfile[128];           /* empty = none: a daemon does not start without one */
    char user[USERNAME_MAX_LEN]; /* whom root's daemon becomes; empty = it stays root */
    bool non_daemon;             /* stays in the foreground; an ordinary user's agent does anyway */
    bool quiet;                  /* no copy on the terminal of what goes to a log file */
    bool enforce_core_dumps;     /* core dumps of any size, whatever the limits were */
    int cpunum;                  /* the process runs on this CPU only; -1 = on any */
};

struct rui_listener_cfg {
    bool is_valid;                    /* a walk over the slots ends at the first that is not */
    char alias[LSTNR_ALIAS_LEN];      /* its name in the log */
    size_t index;                     /* slot + 1 */
    ifc_info* ifc;                    /* owned; null = any address */
    char port[6];                     /* as text; one from the command line is judged when it is opened */
    int pref_af;                      /* AF_INET, AF_INET6, or AF_UNSPEC: IPv4 when ifc is null, too */
    char domain_path[DSOCK_PATH_MAX]; /* a Unix-domain listener instead of ifc and port */
    int proto;                        /* IPPROTO_TCP or IPPROTO_UDP */
    n32_tag kind;                     /* "Web" for one of the command line; nobody asks */
};

struct rui_cfg {
    rui_listener_cfg user[MAX_LISTENERS];
    rui_listener_cfg admin[MAX_LISTENERS];  /* for siblings, empty here */
    rui_listener_cfg custom[MAX_LISTENERS]; /* for siblings, empty here */
    size_t max_accept;                      /* clients taken in one wake-up of a listener; 0: none ever */
    int user_request_tmout;                 /* ms; only shown: one time-out serves all kinds (rui_tmout_all) */
    int admin_request_tmout;                /* ms; only shown */
    int custom_request_tmout;               /* ms; only shown */
};

/* The keys of the groups, for log_cfg, rt_cfg and each rui_listener_cfg. */
extern const config_table LOG_KEYS;
extern const config_table RUNTIME_KEYS;
extern const config_table LISTENER_KEYS;

/* Readers of a whole group. 0, or non-zero (logged). A missing group is for the caller to judge. */
[[nodiscard]] int load_log_config(const config_setting_t* group, log_cfg* cfg) noexcept;
[[nodiscard]] int load_rt_config(const config_setting_t* group, rt_cfg* cfg) noexcept;
/* One listener (a group) or a list of up to four into slots. setting may be null: no listener. 0, or non-zero
   (logged), then the slots before the bad one are filled. */
[[nodiscard]] int get_listeners(const char* kind, const config_setting_t* setting, rui_listener_cfg* slots) noexcept;
/* Hands the rotation settings to the log, which is open. */
void apply_log_config(log_ctx* log, const log_cfg* cfg) noexcept;

/* Blocks of the configuration dump. */
void dump_log_config(FILE* stream, const log_cfg* cfg) noexcept;
void dump_rt_config(FILE* stream, const rt_cfg* cfg) noexcept;
void dump_rui_config(FILE* stream, const rui_cfg* cfg) noexcept;
/* Frees what the listeners own and clears their records. */
void free_rui_config(rui_cfg* cfg) noexcept;

/* ---- offered, called in this room only ---- */

/* One group. 0, or non-zero (logged), then cfg owns nothing. */
[[nodiscard]] int load_listener_from(const config_setting_t* setting, rui_listener_cfg* cfg) noexcept;
