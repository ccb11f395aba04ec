/* Client of the load-balancer database: scripts in Redis, called by their SHA1 digests over one connection. A call
   waits for the answer of its command: for ever, but no longer than 500 ms once a quit signal has come. */
#pragma once

#include "config_keys.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <libconfig.h>
#include <sys/time.h>

struct redisReply;

constexpr int RC_NO_SCRIPT = 2; /* the server does not have it */

constexpr size_t LBQ_MAX_SHA1_LEN = 42;
constexpr size_t LBQ_MAX_HOSTNM_LEN = 128;
constexpr size_t LBQ_MAX_DIRNAME_LEN = 128;
constexpr size_t LBQ_MAX_FPATH_LEN = 256;
constexpr int32_t LBQ_FL_NEXT = 1;
constexpr int32_t LBQ_FL_ADD = 2;
constexpr int32_t LBQ_FL_DEL = 4;
constexpr int32_t LBQ_FL_MBGET = 8;

struct lbdb_cfg {
    char host[LBQ_MAX_HOSTNM_LEN];       /* name or address; never empty once loaded */
    int port;                            /* 1..65535; 0 = no database */
    char sha1_path[LBQ_MAX_DIRNAME_LEN]; /* directory of the digest files */
    timeval tmout;                       /* of the connect only: a command's answer is waited for without one */
};

/* The keys of its group, for lbdb_cfg. */
extern const config_table LBDB_KEYS;
/* 0 or -1 (logged). */
[[nodiscard]] int load_lbdb_cfg(const config_setting_t* group, lbdb_cfg* cfg) noexcept;
/* Reads the digests of the scripts in need_func. 0, or the failing step's result (logged). */
[[nodiscard]] int lbdb_init(const char* sha1_dir, int32_t need_func, uint32_t options) noexcept;
/* Connects and verifies that the scripts are loaded. 0; -1 unreachable; RC_NO_SCRIPT; EINVAL odd reply (logged, unless
   a quit signal has come meanwhile). */
[[nodiscard]] int lbdb_connect(const char* host, int port, timeval tmout) noexcept;
/* Disconnects and forgets everything; safe at any stage. */
void lbdb_destroy() noexcept;
/* Registers url under id with its expiry (seconds). 0 or -1 (logged). Waits for one round trip. */
[[nodiscard]] int lbdb_add_segurl(const char* id, const char* url, long expiry) noexcept;

/* ---- offered, called in this room only ---- */

void lbdb_disconnect() noexcept; /* safe without a connection */
/* Asks the connected server. 0; RC_NO_SCRIPT; EINVAL odd reply; -1 (logged). */
[[nodiscard]] int check_script_exists(const char* sha1) noexcept;
/* The digest in dir/name into dst[cap]; when connected, the server is asked for it, too. 0, or the failing step's
   result (logged). */
[[nodiscard]] int verify_db_script(const char* dir, const char* name, char* dst, size_t cap) noexcept;
/* The digest in a file into buf[cap], empty when the file cannot be read on. 0 or -1 (logged). */
[[nodiscard]] int read_sha_signature(const char* path, char* buf, size_t cap) noexcept;
/* A script's text into buf[cap + 1]. 0; ERANGE too long; EINVAL another type; -1 a status or an error (logged). */
[[nodiscard]] int reply_to_str(const redisReply* reply, char* buf, size_t cap) noexcept;
