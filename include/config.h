/* Look-ups in a configuration file. A value that is too long is refused with both lengths (ERR). */
#pragma once

#include <cstddef>
#include <cstdio>
#include <libconfig.h>
#include <string_view>

constexpr size_t CONFIG_TEXT_MAX = 1 << 20; /* bytes: a file that has as many is no configuration */

/* Reads and parses a whole file. 0, or -1 (logged); an included file that cannot be read counts as an error of the
   text, where the parser library alone would end the process. */
[[nodiscard]] int parse_config(config_t* cfg, const char* path, FILE* fp) noexcept;

/* Text at a path from the root, or at a key of a group, shorter than limit, copied into dst[limit or more]. An absent
   one copies deflt when that is non-empty, else leaves dst as it is. 0, or -1 too long (logged). */
[[nodiscard]] int load_config_str(const config_t* cfg, const char* path, char* dst, size_t limit,
                                  const char* deflt) noexcept;
[[nodiscard]] int load_config_setting_str(const config_setting_t* group, const char* key, char* dst, size_t limit,
                                          const char* deflt) noexcept;

/* The value, or deflt when absent or of another type. */
[[nodiscard]] bool config_setting_flag(const config_setting_t* group, const char* key, bool deflt) noexcept;

/* Reads a text as the parser library does, for what it decides without telling: where it includes a file, and plain
   numbers, which it cuts to 32 bits. */
struct config_scan {
    std::string_view rest;
    unsigned line = 1; /* of rest's start */
    bool is_line_start = true;
};

enum class config_word { END, INCLUDE, NUMBER };

/* The next such word; *text gets the included file's path as written, or the number. */
[[nodiscard]] config_word config_next_word(config_scan* scan, std::string_view* text) noexcept;
