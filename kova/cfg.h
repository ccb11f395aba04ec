/* The one configuration record: defaults, configuration file, command-line listeners, check, dump. */
#pragma once

#include "appcfg.h"
#include "lbquery.h"

#include <cstddef>
#include <cstdio>

constexpr int D_MAX_TASKS = 4096;
constexpr int D_DW_TMOUT_MS = 5000;
constexpr int D_MAX_MMAP_MB = 8;
constexpr size_t MAX_IFC_LEN = 32;

struct udp_lstn_cfg {
    char url[128];          /* empty = no channel */
    char mifc[MAX_IFC_LEN]; /* interface of the multicast group, empty = any */
    bool is_gzipped;        /* only shown: datagrams are plain text */
    bool must_lock;         /* each order's id is locked by a file in lkdir while it is taken and runs */
    char lkdir[128];        /* empty unless must_lock */
};

struct kova_cfg {
    char config_path[128]; /* the file that was read */
    log_cfg log;
    rt_cfg rt;
    rui_cfg rui;
    char data_dir[128]; /* root of all destinations; without a final slash, unless it is "/" */
    udp_lstn_cfg udp_cha;
    int urq_tmout_sec;     /* what a client has from its connect to the end of its head; 0: gone at the next look */
    size_t max_tasks;      /* downloads at once; 0 = as many as descriptors allow */
    size_t task_tmout_ms;  /* paces the look at the clients' time-outs, nothing else: no download is timed by it */
    size_t max_mmap_mb;    /* MiB; larger bodies are written instead of mapped */
    char seg_url_pfx[128]; /* prefix under which this host's files are published; without a final slash */
    lbdb_cfg lbdb;
};

/* The keys of the whole file, for kova_cfg, in the order in which they are read. */
extern const config_table KOVA_KEYS;

extern kova_cfg g_cfg; /* filled at start-up, read-only afterwards (the listeners' interface records excepted) */

/* The first of the usual places where there is a file, or null. */
[[nodiscard]] const char* default_config_path() noexcept;
void init_kova_config(kova_cfg* cfg) noexcept; /* what holds where no file is read */
/* The file over what cfg holds; with reload (never here) without its groups. 0, or non-zero (logged, or reported on
   standard error). */
[[nodiscard]] int load_kova_config(const char* path, kova_cfg* cfg, int reload) noexcept;
/* A listener of the command line, "ifc:port", of AF_INET or AF_INET6. 0; EINVAL (logged); -ENOMEM. */
[[nodiscard]] int add_web_cli(kova_cfg* cfg, const char* text, int family) noexcept;
/* 0, or -1: there is nothing to listen to (logged). */
[[nodiscard]] int validate_config(const kova_cfg* cfg) noexcept;
void dump_kova_config(FILE* stream, const kova_cfg* cfg) noexcept;
/* Frees what the listeners own. */
void free_kova_config(kova_cfg* cfg) noexcept;
