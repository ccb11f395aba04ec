/* The keys that a configuration file may hold: for the checker, which tells a misspelt key from one that has no effect.
   */
#pragma once

#include <libconfig.h>
#include <span>
#include <string_view>

/* Types of a value, as a set. */
enum : unsigned { V_INT = 1, V_BOOL = 2, V_STRING = 4, V_GROUP = 8, V_LIST = 16 };

struct key_rule {
    std::string_view name;
    unsigned types;
    std::span<const key_rule> keys; /* of the group behind it, or of each group of the list */
};

inline constexpr key_rule LOG_KEYS[] = {
    {"file", V_STRING, {}},   {"level", V_STRING, {}},    {"time_format", V_STRING, {}}, {"max_size_mb", V_INT, {}},
    {"max_files", V_INT, {}}, {"eod_rotate", V_BOOL, {}}, {"enable_syslog", V_BOOL, {}},
};
inline constexpr key_rule RUNTIME_KEYS[] = {
    {"pidfile", V_STRING, {}}, {"non_daemon", V_BOOL, {}},    {"quiet", V_BOOL, {}},
    {"cpunum", V_INT, {}},     {"run_as_user", V_STRING, {}}, {"enforce_core_dumps", V_BOOL, {}},
};
inline constexpr key_rule LISTENER_KEYS[] = {
    {"ifc", V_STRING, {}},      {"port", V_INT | V_STRING, {}}, {"default_af", V_STRING, {}},
    {"protocol", V_STRING, {}}, {"alias", V_STRING, {}},        {"domain_path", V_STRING, {}},
};
inline constexpr key_rule WEB_KEYS[] = {{"web", V_GROUP | V_LIST, LISTENER_KEYS}, {"max_accept", V_INT, {}}};
inline constexpr key_rule UDP_KEYS[] = {
    {"url", V_STRING, {}},     {"mcast_ifc", V_STRING, {}}, {"is_gzipped", V_BOOL, {}},
    {"must_lock", V_BOOL, {}}, {"lock_dir", V_STRING, {}},
};
inline constexpr key_rule LBDB_KEYS[] = {
    {"host", V_STRING, {}}, {"port", V_INT, {}}, {"connect_tmout_ms", V_INT, {}}, {"sha1_dir", V_STRING, {}}};
inline constexpr key_rule KOVA_KEYS[] = {
    {"log", V_GROUP, LOG_KEYS},         {"runtime", V_GROUP, RUNTIME_KEYS}, {"web_input", V_GROUP, WEB_KEYS},
    {"udp_input", V_GROUP, UDP_KEYS},   {"lbdb", V_GROUP, LBDB_KEYS},       {"data_dir", V_STRING, {}},
    {"local_url_prefix", V_STRING, {}}, {"urq_tmout_sec", V_INT, {}},       {"max_tasks", V_INT, {}},
    {"task_tmout_ms", V_INT, {}},       {"max_mmap_mb", V_INT, {}},
};
inline constexpr key_rule FILE_KEYS[] = {{"kova", V_GROUP, KOVA_KEYS}};
