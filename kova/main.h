/* The main sequence: command line, runtime, the loop's callbacks. */
#pragma once

#include "rqs.h"

#include <getopt.h>

/* Fills g_cfg from defaults, file and command line. Returns only on success; else the process ends with status 1. */
void setup_config(int argc, char* argv[]) noexcept;
[[noreturn]] void usage(int status) noexcept;
/* The long options; the last one has no name. */
extern const option LONG_OPTS[];

/* Signals, daemon, user, log, pid file, limits. 0, or the failing step's status (logged). Once, before any context. */
[[nodiscard]] int runtime_setup() noexcept;

extern const rqs_config g_rqs_config; /* what the loop calls */
