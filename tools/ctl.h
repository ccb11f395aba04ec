/* The rooms of kovctl: what it was told, orders, the agent's process, the agent's files. */
#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>
#include <vector>

constexpr int STATUS_REFUSED = 1; /* by the agent, or something was found or failed */
constexpr int STATUS_USAGE = 2;
constexpr int STATUS_UNREACHABLE = 3;

/* From the options, then, for what they do not say, from the configuration; empty where neither says it. */
struct ctl_settings {
    std::string agent; /* host:port of a web listener, or the path of a Unix-domain one */
    std::string channel;
    std::string channel_source; /* the one sender that a source-specific group hears */
    std::string channel_ifc;
    std::string data_dir;
    std::string lock_dir;
    std::string prefix; /* local_url_prefix */
    pid_t pid = 0;
    std::string expiry;
    long timeout = 600; /* s */
    bool is_waiting = false;
    bool is_deleting = false;
};

extern ctl_settings g_set;

/* Says so on standard error and ends the program. */
[[noreturn]] void fail(int status, const std::string& text);

/* ---- orders (ctl_order.cpp); each returns the program's status ---- */

[[nodiscard]] int cmd_ping();
[[nodiscard]] int cmd_get(std::span<char* const> args);
[[nodiscard]] int cmd_send(std::span<char* const> args);
[[nodiscard]] int cmd_register(std::span<char* const> args);

/* ---- the agent's process (ctl_proc.cpp) ---- */

[[nodiscard]] int cmd_status();

/* The process: --pid's, the pid file's, or the only one of that name. */
struct found_agent {
    std::optional<pid_t> pid;
    std::string why_not; /* without a pid */
};
[[nodiscard]] found_agent find_agent();

/* How far the process has written the file, in bytes, if it writes by position and not through a mapping. */
[[nodiscard]] std::optional<uint64_t> position_in(pid_t pid, const std::filesystem::path& path);

/* The files that processes have open, by device and inode. Fails when an agent may not be looked into. */
using held_files = std::set<std::pair<dev_t, ino_t>>;
[[nodiscard]] held_files all_held_files();

/* ---- files (ctl_files.cpp) ---- */

[[nodiscard]] int cmd_verify();
[[nodiscard]] int cmd_sweep();
[[nodiscard]] bool is_unfinished(const std::filesystem::path& path);
void print_unfinished();
