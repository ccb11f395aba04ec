/* The rooms of kovctl: what it was told, orders, the agent's process, its state, its files. */
#pragma once

#include "procfs.h"

#include <atomic>
#include <filesystem>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>
#include <vector>

constexpr int STATUS_REFUSED = 1; /* by the agent, or something was found or failed */
constexpr int STATUS_USAGE = 2;
constexpr int STATUS_UNREACHABLE = 3;  /* no agent there */
constexpr int STATUS_EXISTS = 4;       /* the destination is there already, or nobody here can tell */
constexpr int STATUS_GAVE_UP = 5;      /* a wait was too long */
constexpr int STATUS_SOURCE = 6;       /* the source has refused */
constexpr int STATUS_UNREGISTERED = 7; /* the database has not taken it, or nobody can tell */

/* From the options, then, for what they do not say, from the configuration; empty where neither says it. */
struct ctl_settings {
    std::string config;                  /* its file, empty: none was found */
    std::string agent;                   /* host:port of a web listener, or the path of a Unix-domain one */
    std::vector<listening_place> places; /* where the agent's process listens; empty: nothing is known of it */
    std::string channel;
    std::string channel_source; /* the one sender that a source-specific group hears */
    std::string channel_ifc;
    std::string data_dir;
    std::string lock_dir;
    std::string prefix; /* local_url_prefix */
    pid_t pid = 0;
    std::string expiry;
    std::optional<long> timeout; /* s; each wait has its own default */
    bool is_json = false;
    bool is_from_log = false;
    bool is_waiting = false;
    bool is_deleting = false;
    bool is_all = false;
};

extern ctl_settings g_set;

/* Says so on standard error and ends the program. */
[[noreturn]] void fail(int status, const std::string& text);
/* A command wants what only the configuration tells: that has no such key, or was not read. */
[[noreturn]] void fail_without(const char* key, const char* advice);

/* "host:port" or "[host]:port" in its parts, without brackets. None when there is no port. */
struct host_port {
    std::string host;
    std::string port;
};
[[nodiscard]] std::optional<host_port> host_port_of(std::string_view text);

/* ---- orders (ctl_order.cpp); each returns the program's status ---- */

[[nodiscard]] int cmd_ping();
[[nodiscard]] int cmd_ready();
/* True also of an agent that has no listener to ask. */
[[nodiscard]] bool answers_ping();
[[nodiscard]] int cmd_get(std::span<char* const> args);
[[nodiscard]] int cmd_send(std::span<char* const> args);
[[nodiscard]] int cmd_register(std::span<char* const> args);
/* One order over HTTP, one registration: said on standard output, the program's status. */
[[nodiscard]] int place_order(const std::string& src, const std::string& dst);
[[nodiscard]] int register_one(const std::string& dst);

/* ---- what the log tells (ctl_log.cpp); the arguments are logs, none: the configuration's ---- */

[[nodiscard]] int cmd_lost(std::span<char* const> args);
[[nodiscard]] int cmd_replay(std::span<char* const> args);
[[nodiscard]] int cmd_register_from_log(std::span<char* const> args);
[[nodiscard]] int cmd_expire(std::span<char* const> args);

/* ---- what the fleet's database tells (ctl_fleet.cpp) ---- */

[[nodiscard]] int cmd_fleet();

/* ---- the agent's process (ctl_proc.cpp) ---- */

/* The process: --pid's, else the one that listens where the configuration says, else, when it says nothing, the pid
   file's or the only one of that name. */
struct found_agent {
    std::optional<pid_t> pid;
    std::string why_not; /* without a pid; the next two as well */
    int status = STATUS_UNREACHABLE;
    bool may_run = false; /* hidden from this user, or one of several */
};
[[nodiscard]] found_agent find_agent();
/* Ends the program when none is found. */
[[nodiscard]] pid_t need_agent();
[[noreturn]] void fail_blind(pid_t pid);

/* A file that a process is writing. */
struct written_file {
    std::filesystem::path path;
    struct stat st {
    };
    uint64_t position = 0; /* 0 also while a mapping is written to */
};
/* The unfinished files among the descriptors of the process. */
[[nodiscard]] std::vector<written_file> files_written_by(pid_t pid, const std::vector<descriptor>& fds);

/* The files that processes have open, by device and inode. Fails when an agent may not be looked into. */
using held_files = std::set<std::pair<dev_t, ino_t>>;
[[nodiscard]] held_files all_held_files();

/* ---- its state (ctl_status.cpp) ---- */

[[nodiscard]] int cmd_status();
[[nodiscard]] int cmd_metrics();
/* What an agent is busy with. */
struct workload {
    size_t downloads = 0;
    size_t clients = 0;    /* connected, or not taken yet */
    uint64_t received = 0; /* bytes, over the connections that there are */
    bool operator==(const workload&) const = default;
};
/* None when it may not be looked into, or is gone. */
[[nodiscard]] std::optional<workload> workload_of(pid_t pid);

/* ---- the wait for the end of its downloads (ctl_drain.cpp) ---- */

[[nodiscard]] int cmd_drain();

/* ---- files (ctl_files.cpp) ---- */

[[nodiscard]] int cmd_verify();
[[nodiscard]] int cmd_sweep();
/* Lists files, and with --delete removes them. */
struct removal {
    int found = 0;
    int removed = 0;
    std::atomic<bool> is_partial = false; /* something could not be looked at */

    /* Not when the file has changed since it was seen. */
    void take(const std::filesystem::path& path, const struct stat& seen, const char* why);
    /* Says so with errno, unless it is gone; any thread may call it. */
    void miss(const std::string& path);
    [[nodiscard]] int status() const { return found > removed || is_partial ? STATUS_REFUSED : 0; }
};
[[nodiscard]] bool is_unfinished(std::string_view path);
[[nodiscard]] long age_of(const struct stat& st); /* s since the last change */
/* Text from outside without what commands a terminal, and whether it has any of that. */
[[nodiscard]] std::string printable(std::string_view text);
[[nodiscard]] bool is_printable(std::string_view text);
