/* The configuration record: built-in defaults, the file, listeners of the command line. After start-up it is only read.
   */
#include "cfg.h"

#include "config.h"
#include "guard.h"
#include "log.h"
#include "strops.h"
#include "util.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/stat.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t PATH_LIMIT = 127;
constexpr int WEB_RQ_TMOUT_MS = 1000;

kova_cfg g_cfg{};

static const char* const CONFIG_PLACES[] = {
    "./kov.conf",      "/etc/kov.conf",      "/usr/local/etc/kov.conf",
    "./marlinet.conf", "/etc/marlinet.conf", "/usr/local/etc/marlinet.conf",
};

const char* default_config_path() noexcept
{
    return pick_first_file(CONFIG_PLACES);
}

void init_kova_config(kova_cfg* cfg) noexcept
{
    *cfg = kova_cfg{};
    cfg->log.level = INFO_level;
    cfg->log.max_size_mb = D_MAX_LOGSZ;
    cfg->log.max_files = D_MAX_FILES;
    cfg->task_tmout_ms = D_DW_TMOUT_MS;
    cut_text(cfg->data_dir, sizeof(cfg->data_dir), "/tmp");
}

/* ---- the file ---- */

static size_t not_negative(int value) noexcept
{
    return static_cast<size_t>(std::max(0, value));
}

static int load_udp_input(const config_setting_t* group, udp_lstn_cfg* cfg) noexcept
{
    if (load_config_setting_str(group, "url", cfg->url, PATH_LIMIT, "") != 0)
        return -1;
    if (!cfg->url[0]) {
        LOG_ERR("%s: missing url for UDP channel\n", "load_config");
        return -1;
    }
    cfg->is_gzipped = config_setting_flag(group, "is_gzipped", true);
    if (load_config_setting_str(group, "mcast_ifc", cfg->mifc, MAX_IFC_LEN - 1, "") != 0)
        return -1;
    cfg->must_lock = config_setting_flag(group, "must_lock", true);
    return cfg->must_lock ? load_config_setting_str(group, "lock_dir", cfg->lkdir, PATH_LIMIT, "/tmp") : 0;
}

static int load_web_input(const config_setting_t* group, rui_cfg* cfg) noexcept
{
    if (get_listeners("web", config_setting_get_member(group, "web"), cfg->user) != 0) {
        LOG_ERR("%s: failed to load web listener(s)\n", "load_config");
        return -1;
    }
    int max_accept = 0;
    if (const int rc = load_config_setting_int(group, "max_accept", &max_accept, D_MAX_ACCEPT))
        return rc;
    cfg->max_accept = not_negative(max_accept);
    cfg->user_request_tmout = WEB_RQ_TMOUT_MS;
    return 0;
}

/* The groups that are read only once. */
static int load_groups(const config_t* file, kova_cfg* cfg) noexcept
{
    const config_setting_t* group = config_lookup(file, "kova.log");
    if (!group || !config_setting_is_group(group)) {
        LOG_ERR("%s: missing log section\n", "load_config");
        return -1;
    }
    if (const int rc = load_log_config(group, &cfg->log))
        return rc;
    group = config_lookup(file, "kova.runtime");
    if (!group || !config_setting_is_group(group)) {
        LOG_ERR("%s: missing runtime section\n", "load_config");
        return -1;
    }
    if (const int rc = load_rt_config(group, &cfg->rt))
        return rc;
    if ((group = config_lookup(file, "kova.udp_input"))) {
        if (const int rc = load_udp_input(group, &cfg->udp_cha))
            return rc;
    }
    if ((group = config_lookup(file, "kova.web_input"))) {
        if (const int rc = load_web_input(group, &cfg->rui))
            return rc;
    }
    if ((group = config_lookup(file, "kova.lbdb")))
        return load_lbdb_cfg(group, &cfg->lbdb);
    return 0;
}

static int load_data_dir(const config_t* file, kova_cfg* cfg) noexcept
{
    if (load_config_str(file, "kova.data_dir", cfg->data_dir, PATH_LIMIT, "/tmp") != 0)
        return -1;
    if (dir_check(cfg->data_dir, 1) == 0)
        return 0;
    LOG_ERR("%s: cannot accept [%s] as %s\n", "load_config", cfg->data_dir, "kova.data_dir");
    return -1;
}

static int load_url_prefix(const config_t* file, kova_cfg* cfg) noexcept
{
    static const char KEY[] = "kova.local_url_prefix";
    if (load_config_str(file, KEY, cfg->seg_url_pfx, PATH_LIMIT, "") != 0)
        return -1;
    const size_t len = strlen(cfg->seg_url_pfx);
    if (len > 0 && cfg->seg_url_pfx[len - 1] == '/')
        cfg->seg_url_pfx[len - 1] = '\0';
    /* After the strip: a prefix of "/" alone is none, and no URL could be formed with it. */
    if (cfg->lbdb.port != 0 && !cfg->seg_url_pfx[0]) {
        LOG_ERR("%s: %s must be set for lbdb-enabled mode\n", "load_config", KEY);
        return -1;
    }
    return 0;
}

static int load_numbers(const config_t* file, kova_cfg* cfg) noexcept
{
    int urq_sec = 0;
    int ntasks = 0;
    int task_ms = 0;
    int mmap_mb = 0;
    if (load_config_int(file, "kova.urq_tmout_sec", &urq_sec, 1) != 0 ||
        load_config_int(file, "kova.max_tasks", &ntasks, D_MAX_TASKS) != 0 ||
        load_config_int(file, "kova.task_tmout_ms", &task_ms, D_DW_TMOUT_MS) != 0 ||
        load_config_int(file, "kova.max_mmap_mb", &mmap_mb, D_MAX_MMAP_MB) != 0)
        return -1;
    cfg->urq_tmout_sec = std::max(0, urq_sec);
    /* A negative number becomes a size that no table can have: the start fails where the table is made. */
    cfg->max_tasks = static_cast<size_t>(ntasks);
    cfg->task_tmout_ms = not_negative(task_ms);
    cfg->max_mmap_mb = not_negative(mmap_mb);
    return 0;
}

static int load_config(const config_t* file, kova_cfg* cfg, int reload) noexcept
{
    if (!reload) {
        if (const int rc = load_groups(file, cfg))
            return rc;
    }
    if (const int rc = load_data_dir(file, cfg))
        return rc;
    if (const int rc = load_url_prefix(file, cfg))
        return rc;
    if (const int rc = load_numbers(file, cfg))
        return rc;
    if (reload)
        LOG_INFO("%s: configuration re-loaded\n", __func__);
    return 0;
}

/* The parser library would end the process on a directory, so such a path is refused like a missing file. */
static FILE* open_config(const char* path) noexcept
{
    FILE* fp = fopen(path, "re");
    struct stat st {
    };
    if (fp && fstat(fileno(fp), &st) == 0 && S_ISDIR(st.st_mode)) {
        fclose(fp);
        fp = nullptr;
    }
    if (!fp)
        fprintf(stderr, "Failed to load [%s]\n", path);
    return fp;
}

static int read_config(const char* path, kova_cfg* cfg, int reload) noexcept
{
    config_t file;
    config_init(&file);
    const scope_guard destroy([&file] { config_destroy(&file); });
    const std::unique_ptr<FILE, releaser<fclose>> fp(open_config(path));
    if (!fp)
        return -1;
    if (const int rc = parse_config(&file, path, fp.get()))
        return rc;
    cut_text(cfg->config_path, sizeof(cfg->config_path), path);
    return load_config(&file, cfg, reload);
}

int load_kova_config(const char* path, kova_cfg* cfg, int reload) noexcept
{
    const int rc = read_config(path, cfg, reload);
    if (rc != 0)
        LOG_ERR("%s: FAILED (%d)\n", __func__, rc);
    return rc;
}

/* ---- listeners of the command line ---- */

/* The highest free slot k gives the slot before it; with none free, slot 0 is replaced. */
static rui_listener_cfg* pick_slot(rui_cfg* cfg, size_t* index) noexcept
{
    for (size_t k = MAX_LISTENERS; k-- > 0;) {
        if (cfg->user[k].is_valid)
            continue;
        *index = k;
        return &cfg->user[k > 0 ? k - 1 : 0];
    }
    LOG_WARN("%s: all interface slots are busy, [%s] will be replaced\n", "add_web_cli", cfg->user[0].alias);
    *index = 0;
    return &cfg->user[0];
}

int add_web_cli(kova_cfg* cfg, const char* text, int family) noexcept
{
    const std::unique_ptr<char, releaser<free>> copy(strdup(text));
    if (!copy)
        return -ENOMEM;
    char* colon = strrchr(copy.get(), ':');
    if (!colon) {
        LOG_ERR("%s: missing port number in %s\n", __func__, text);
        return EINVAL;
    }
    *colon = '\0';
    if (strlen(colon + 1) >= sizeof(rui_listener_cfg::port)) {
        LOG_ERR("%s: invalid port number: %s\n", __func__, colon + 1);
        return EINVAL;
    }
    size_t index = 0;
    rui_listener_cfg* slot = pick_slot(&cfg->rui, &index);
    ifc_info* ifc = get_ifc_info(family, copy.get());
    if (!ifc) {
        LOG_ERR("%s: invalid interface name: %s\n", __func__, copy.get());
        return EINVAL;
    }
    free(slot->ifc);
    *slot = rui_listener_cfg{};
    slot->is_valid = true;
    slot->index = index;
    slot->ifc = ifc;
    slot->pref_af = family;
    slot->proto = IPPROTO_TCP;
    slot->kind = mk_tag("Web");
    cut_text(slot->alias, sizeof(slot->alias), "web-cli");
    cut_text(slot->port, sizeof(slot->port), colon + 1);
    return 0;
}

int validate_config(const kova_cfg* cfg) noexcept
{
    if (cfg->rui.custom[0].is_valid || cfg->rui.user[0].is_valid || cfg->udp_cha.url[0])
        return 0;
    LOG_ERR("%s: at least one listener must be present\n", __func__);
    return -1;
}

void free_kova_config(kova_cfg* cfg) noexcept
{
    free_rui_config(&cfg->rui);
}

/* ---- dump ---- */

static const char RULER[] = "-----------------------------------\n";

void dump_kova_config(FILE* stream, const kova_cfg* cfg) noexcept
{
    fputs(RULER, stream);
    dump_log_config(stream, &cfg->log);
    dump_rt_config(stream, &cfg->rt);
    dump_rui_config(stream, &cfg->rui);
    if (cfg->udp_cha.url[0]) {
        fprintf(stream, "\tUDP input            = [%s] ifc=%s fmt=%s lk=[%s]\n", cfg->udp_cha.url,
                cfg->udp_cha.mifc[0] ? cfg->udp_cha.mifc : "all", cfg->udp_cha.is_gzipped ? "gzip" : "text",
                cfg->udp_cha.must_lock && cfg->udp_cha.lkdir[0] ? cfg->udp_cha.lkdir : "none");
    }
    fprintf(stream, "Misc:\n\tdata directory       = [%s]\n\trequest time-out     = %d sec\n", cfg->data_dir,
            cfg->urq_tmout_sec);
    fprintf(stream, "\tmax tasks            = %zu %s\n\ttask time-out        = %zu ms\n", cfg->max_tasks,
            cfg->max_tasks ? "" : "(unlimited)", cfg->task_tmout_ms);
    fprintf(stream, "\tmmap up to           = %zu MB\n", cfg->max_mmap_mb);
    if (cfg->seg_url_pfx[0])
        fprintf(stream, "\tlocal URL prefix     = %s\n", cfg->seg_url_pfx);
    fputs("\n", stream);
    if (cfg->lbdb.port != 0) {
        fprintf(stream, "Load-balancer DB: %s:%d\n\tConnect timeout        = %ld.%03ld sec\n", cfg->lbdb.host,
                cfg->lbdb.port, static_cast<long>(cfg->lbdb.tmout.tv_sec), static_cast<long>(cfg->lbdb.tmout.tv_usec));
        fprintf(stream, "\tSHA1 directory         = %s\n", cfg->lbdb.sha1_path);
    }
    fputs(RULER, stream);
}
