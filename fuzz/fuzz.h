/* What the fuzz targets share. Each target is one file with LLVMFuzzerTestOneInput; scripts/fuzz runs it under
   libFuzzer, and the ordinary tests replay its seeds. */
#pragma once

#include "data.h"
#include "log.h"
#include "strops.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

/* A promise that no input may break. */
#define MUST(condition)                                                                                                \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            fprintf(stderr, "broken: %s\n", #condition);                                                               \
            __builtin_trap();                                                                                          \
        }                                                                                                              \
    } while (0)

/* Every record is formatted, none is seen. Orders are checked below a directory in which nothing can be made. */
inline void fuzz_init()
{
    glog_init("fuzz");
    log_default(g_log, fopen("/dev/null", "w"));
    log_set_modules(g_log, DEBUG_level);
    cut_text(g_cfg.data_dir, sizeof(g_cfg.data_dir), "/sys");
}

/* A connected socket from which just these bytes come, then the end. */
inline int fuzz_peer(std::string_view bytes, int type = SOCK_STREAM)
{
    int fds[2];
    MUST(socketpair(AF_UNIX, type | SOCK_NONBLOCK, 0, fds) == 0);
    MUST(send(fds[1], bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()) || bytes.empty());
    shutdown(fds[1], SHUT_WR);
    close(fds[1]);
    return fds[0];
}

/* What every accepted order promises. */
inline void fuzz_check_spec(const dw_spec& spec)
{
    const std::string_view path = spec.fpath;
    MUST(std::string_view(spec.url).starts_with("http://"));
    MUST(path.starts_with("/sys/") && path.ends_with("-Kova") && path.size() < SPEC_PATH_MAX);
    MUST(!path.ends_with("-Kova-Kova"));
    MUST((std::string(path) + "/").find("/../") == std::string::npos);
    MUST(spec.dst_path[0] && spec.content_length == 0);
}
