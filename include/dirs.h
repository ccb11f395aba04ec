/* Directories and paths. */
#pragma once

#include <span>

/* With strip, removes one trailing '/' of path (not of "/" itself); 0 when the directory can be opened, else -1. */
[[nodiscard]] int dir_check(char* path, int strip) noexcept;
/* Creates every missing directory of a file's path. 0, or an errno value (logged, but for
   ENAMETOOLONG). */
[[nodiscard]] int mk_fpath_dirs(const char* fpath) noexcept;
/* The first path that exists, or null. */
[[nodiscard]] const char* pick_first_file(std::span<const char* const> paths) noexcept;
