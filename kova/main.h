/* The main sequence: command line, runtime, dispatch, start and shutdown. */
#pragma once

#include "rqs.h"

#include <getopt.h>

/* Fills g_cfg from defaults, file and command line. Returns only on success; else the process ends with status 1. */
void setup_config(int argc, char* argv[]) noexcept;
[[noreturn]] void usage(int status) noexcept;
/* The long options; the last one has no name. */
extern const option LONG_OPTS[];

/* Signals, daemon, user, log, pid file, limits. 0, or the failing step's status (logged). */
[[nodiscard]] int runtime_setup() noexcept;

/* Engine, listeners, channel. 0, or the failing step's status (logged). */
[[nodiscard]] int app_start() noexcept;
/* Releases everything, from whatever stage of a start. */
void app_shutdown() noexcept;

/* ---- the loop's callbacks (main_loop.cpp): events are routed by the tag at the start of the record ---- */

extern const rqs_config g_rqs_config;

[[nodiscard]] int on_read(int fd, uint32_t flags, void* udata, void* aux) noexcept;
[[nodiscard]] int on_write(int fd, uint32_t flags, void* udata, void* aux) noexcept;
[[nodiscard]] int on_error(int fd, uint32_t flags, void* udata, void* aux) noexcept;
void upd_tmout(timespec* ts) noexcept;
[[nodiscard]] int do_idle_tasks() noexcept;
[[nodiscard]] int on_pp() noexcept;
