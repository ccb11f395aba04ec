/* The configuration record: built-in defaults, the file, listeners of the command line. After start-up it is only read.
   The defaults of the record and those of absent keys are two different sets, on purpose: the former hold only where
   the file is not read at all. */
#include "cfg.h"

#include "dirs.h"
#include "guard.h"
#include "log.h"
#include "strops.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <string_view>
#include <sys/stat.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t PATH_LIMIT = 127;

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

constexpr char LOADER[] = "load_config"; /* which the messages of all readers name */

static int read_channel_url(const config_setting_t* group, const config_key& key, void* record) noexcept
{
    udp_lstn_cfg* const cfg = static_cast<udp_lstn_cfg*>(record);
    if (read_config_text(group, key, cfg->url) != 0)
        return -1;
    if (cfg->url[0])
        return 0;
    LOG_ERR("%s: missing url for UDP channel\n", LOADER);
    return -1;
}

static int read_lock_dir(const config_setting_t* group, const config_key& key, void* record) noexcept
{
    udp_lstn_cfg* const cfg = static_cast<udp_lstn_cfg*>(record);
    return cfg->must_lock ? read_config_text(group, key, cfg->lkdir) : 0;
}

static constexpr config_key UDP_ROWS[] = {
    {.name = "url",
     .types = V_STRING,
     .read = read_channel_url,
     .text = "addr:port, udp://addr:port or udp://sender@group:port.",
     .limit = PATH_LIMIT},
    key_flag<&udp_lstn_cfg::is_gzipped>("is_gzipped", true, "Only shown: datagrams are plain text."),
    key_text<&udp_lstn_cfg::mifc>("mcast_ifc", "", "Interface of the group, name or address. Without one: any."),
    key_flag<&udp_lstn_cfg::must_lock>("must_lock", true, "Serialise orders by lock files."),
    {.name = "lock_dir",
     .types = V_STRING,
     .read = read_lock_dir,
     .text = "Directory of the lock files, shared by cooperating agents.",
     .word = "/tmp",
     .limit = PATH_LIMIT},
};
static constinit const config_table UDP_KEYS = UDP_ROWS;

static int read_listeners(const config_setting_t* group, const config_key& key, void* record) noexcept
{
    if (get_listeners(key.name, config_setting_get_member(group, key.name), static_cast<rui_cfg*>(record)->user) == 0)
        return 0;
    LOG_ERR("%s: failed to load web listener(s)\n", LOADER);
    return -1;
}

static constexpr config_key WEB_ROWS[] = {
    {.name = "web",
     .types = V_GROUP | V_LIST,
     .read = read_listeners,
     .text = "A listener, or a list of up to four.",
     .word = "",
     .keys = &LISTENER_KEYS},
    key_count<&rui_cfg::max_accept>("max_accept", D_MAX_ACCEPT, "Clients taken in one wake-up."),
};
static constinit const config_table WEB_KEYS = WEB_ROWS;

/* Null (logged) when there is no such group. */
static const config_setting_t* required_group(const config_setting_t* root, const config_key& key) noexcept
{
    const config_setting_t* group = config_lookup(root->config, key.name);
    if (group && config_setting_is_group(group))
        return group;
    LOG_ERR("%s: missing %s section\n", LOADER, strchr(key.name, '.') + 1);
    return nullptr;
}

static int read_log(const config_setting_t* root, const config_key& key, void* record) noexcept
{
    const config_setting_t* group = required_group(root, key);
    return group ? load_log_config(group, &static_cast<kova_cfg*>(record)->log) : -1;
}

static int read_runtime(const config_setting_t* root, const config_key& key, void* record) noexcept
{
    const config_setting_t* group = required_group(root, key);
    return group ? load_rt_config(group, &static_cast<kova_cfg*>(record)->rt) : -1;
}

static int read_udp_input(const config_setting_t* root, const config_key& key, void* record) noexcept
{
    const config_setting_t* group = config_lookup(root->config, key.name);
    return group ? load_config_keys(group, UDP_KEYS, &static_cast<kova_cfg*>(record)->udp_cha) : 0;
}

static int read_web_input(const config_setting_t* root, const config_key& key, void* record) noexcept
{
    rui_cfg* const cfg = &static_cast<kova_cfg*>(record)->rui;
    const config_setting_t* group = config_lookup(root->config, key.name);
    if (!group)
        return 0;
    if (const int rc = load_config_keys(group, WEB_KEYS, cfg))
        return rc;
    cfg->user_request_tmout = D_URQ_TMOUT_MS;
    return 0;
}

static int read_lbdb(const config_setting_t* root, const config_key& key, void* record) noexcept
{
    const config_setting_t* group = config_lookup(root->config, key.name);
    return group ? load_lbdb_cfg(group, &static_cast<kova_cfg*>(record)->lbdb) : 0;
}

static int read_data_dir(const config_setting_t* root, const config_key& key, void* record) noexcept
{
    kova_cfg* const cfg = static_cast<kova_cfg*>(record);
    if (read_config_text(root, key, cfg->data_dir) != 0)
        return -1;
    if (dir_check(cfg->data_dir, 1) == 0)
        return 0;
    LOG_ERR("%s: cannot accept [%s] as %s\n", LOADER, cfg->data_dir, key.name);
    return -1;
}

static int read_url_prefix(const config_setting_t* root, const config_key& key, void* record) noexcept
{
    kova_cfg* const cfg = static_cast<kova_cfg*>(record);
    if (read_config_text(root, key, cfg->seg_url_pfx) != 0)
        return -1;
    const size_t len = strlen(cfg->seg_url_pfx);
    if (len > 0 && cfg->seg_url_pfx[len - 1] == '/')
        cfg->seg_url_pfx[len - 1] = '\0';
    /* After the strip: a prefix of "/" alone is none, and no URL could be formed with it. */
    if (cfg->lbdb.port > 0 && !cfg->seg_url_pfx[0]) {
        LOG_ERR("%s: %s must be set for lbdb-enabled mode\n", LOADER, key.name);
        return -1;
    }
    return 0;
}

static int read_urq_tmout(const config_setting_t* root, const config_key& key, void* record) noexcept
{
    int sec = 0;
    if (read_config_int(root, key, &sec) != 0)
        return -1;
    static_cast<kova_cfg*>(record)->urq_tmout_sec = std::max(0, sec);
    return 0;
}

static int read_max_tasks(const config_setting_t* root, const config_key& key, void* record) noexcept
{
    int ntasks = 0;
    if (read_config_int(root, key, &ntasks) != 0)
        return -1;
    /* A negative number becomes a size that no table can have: the start fails where the table is made. */
    static_cast<kova_cfg*>(record)->max_tasks = static_cast<size_t>(ntasks);
    return 0;
}

static constexpr config_key KOVA_ROWS[] = {
    {.name = "kova.log", .types = V_GROUP, .read = read_log, .text = "What is logged, and where.", .keys = &LOG_KEYS},
    {.name = "kova.runtime", .types = V_GROUP, .read = read_runtime, .text = "The process.", .keys = &RUNTIME_KEYS},
    {.name = "kova.udp_input",
     .types = V_GROUP,
     .read = read_udp_input,
     .text = "Orders as datagrams.",
     .word = "",
     .keys = &UDP_KEYS},
    {.name = "kova.web_input",
     .types = V_GROUP,
     .read = read_web_input,
     .text = "Orders over HTTP.",
     .word = "",
     .keys = &WEB_KEYS},
    {.name = "kova.lbdb",
     .types = V_GROUP,
     .read = read_lbdb,
     .text = "Registration of stored files in Redis.",
     .word = "",
     .keys = &LBDB_KEYS},
    {.name = "kova.data_dir",
     .types = V_STRING,
     .read = read_data_dir,
     .text = "Where files are stored; must exist. Together with a destination and -Kova it makes a path of at most 126 "
             "characters.",
     .word = "/tmp",
     .limit = PATH_LIMIT},
    {.name = "kova.local_url_prefix",
     .types = V_STRING,
     .read = read_url_prefix,
     .text = "Sources below it need no download; required with lbdb.",
     .word = "",
     .limit = PATH_LIMIT},
    {.name = "kova.urq_tmout_sec",
     .types = V_INT,
     .read = read_urq_tmout,
     .text = "Seconds that a client has to send its head, looked at every task_tmout_ms.",
     .number = 1},
    {.name = "kova.max_tasks",
     .types = V_INT,
     .read = read_max_tasks,
     .text = "Downloads at once; 0: as many as descriptors allow.",
     .number = D_MAX_TASKS},
    key_count<&kova_cfg::task_tmout_ms>(
        "kova.task_tmout_ms", D_DW_TMOUT_MS,
        "Milliseconds between two looks at the clients' time-outs. No download is timed by it."),
    key_count<&kova_cfg::max_mmap_mb>(
        "kova.max_mmap_mb", D_MAX_MMAP_MB,
        "MiB; bodies up to this size go through a mapping of the file, larger ones are written."),
};
constinit const config_table KOVA_KEYS = KOVA_ROWS;
constexpr size_t NGROUPS = 5; /* first in the table, and read only once */
static_assert(KOVA_ROWS[NGROUPS - 1].types == V_GROUP && KOVA_ROWS[NGROUPS].types != V_GROUP);

static int load_config(const config_t* file, kova_cfg* cfg, int reload) noexcept
{
    const config_table keys = reload ? KOVA_KEYS.subspan(NGROUPS) : KOVA_KEYS;
    const int rc = load_config_keys(config_root_setting(file), keys, cfg);
    if (rc == 0 && reload)
        LOG_INFO("%s: configuration re-loaded\n", __func__);
    return rc;
}

int load_kova_config(const char* path, kova_cfg* cfg, int reload) noexcept
{
    config_t file;
    config_init(&file);
    const scope_guard destroy([&file] { config_destroy(&file); });
    std::unique_ptr<FILE, releaser<fclose>> fp(fopen(path, "re"));
    struct stat st {
    };
    if (fp && fstat(fileno(fp.get()), &st) == 0 && S_ISDIR(st.st_mode))
        fp.reset(); /* a directory is refused like a file that cannot be opened */

    int rc = -1;
    if (fp)
        rc = parse_config(&file, path, fp.get());
    else
        fprintf(stderr, "Failed to load [%s]\n", path);
    if (rc == 0) {
        cut_text(cfg->config_path, sizeof(cfg->config_path), path);
        rc = load_config(&file, cfg, reload);
    }
    if (rc != 0)
        LOG_ERR("%s: FAILED (%d)\n", __func__, rc);
    return rc;
}

/* ---- listeners of the command line ---- */

int add_web_cli(kova_cfg* cfg, const char* text, int family) noexcept
{
    std::string_view host;
    std::string_view port;
    if (!split_host_port(text, &host, &port)) {
        LOG_ERR("%s: missing port number in %s\n", __func__, text);
        return EINVAL;
    }
    if (port.size() >= sizeof(rui_listener_cfg::port)) {
        LOG_ERR("%s: invalid port number: %s\n", __func__, port.data());
        return EINVAL;
    }

    /* The highest free slot k gives the slot before it; with none free, slot 0 is replaced. */
    size_t k = MAX_LISTENERS - 1;
    while (k > 0 && cfg->rui.user[k].is_valid)
        --k;
    if (cfg->rui.user[k].is_valid)
        LOG_WARN("%s: all interface slots are busy, [%s] will be replaced\n", __func__, cfg->rui.user[k].alias);
    rui_listener_cfg* slot = &cfg->rui.user[k > 0 ? k - 1 : 0];

    const std::unique_ptr<char, releaser<free>> name(strndup(host.data(), host.size()));
    if (!name)
        return -ENOMEM;
    ifc_info* ifc = get_ifc_info(family, name.get());
    if (!ifc) {
        LOG_ERR("%s: invalid interface name: %s\n", __func__, name.get());
        return EINVAL;
    }
    free(slot->ifc);
    *slot = rui_listener_cfg{};
    slot->is_valid = true;
    slot->index = k;
    slot->ifc = ifc;
    slot->pref_af = family;
    slot->proto = IPPROTO_TCP;
    slot->kind = mk_tag("Web");
    cut_text(slot->alias, sizeof(slot->alias), "web-cli");
    cut_text(slot->port, sizeof(slot->port), port);
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
    if (cfg->lbdb.port > 0) {
        fprintf(stream, "Load-balancer DB: %s:%d\n\tConnect timeout        = %ld.%03ld sec\n", cfg->lbdb.host,
                cfg->lbdb.port, static_cast<long>(cfg->lbdb.tmout.tv_sec), static_cast<long>(cfg->lbdb.tmout.tv_usec));
        fprintf(stream, "\tSHA1 directory         = %s\n", cfg->lbdb.sha1_path);
    }
    fputs(RULER, stream);
}
