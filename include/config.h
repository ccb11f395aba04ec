/* Look-ups in a configuration file. A value that is too long is refused with both lengths (ERR). */
#pragma once

#include <cstddef>
#include <libconfig.h>

/* Text at a path from the root, or at a key of a group, shorter than limit, copied into dst[limit or more]. An absent one
   copies deflt when that is non-empty, else leaves dst as it is. 0, or -1 too long (logged). */
[[nodiscard]] int load_config_str(const config_t* cfg, const char* path, char* dst, size_t limit,
                                  const char* deflt) noexcept;
[[nodiscard]] int load_config_setting_str(const config_setting_t* group, const char* key, char* dst, size_t limit,
                                          const char* deflt) noexcept;

/* The value, or deflt when absent or of another type. */
[[nodiscard]] int config_int(const config_t* cfg, const char* path, int deflt) noexcept;
[[nodiscard]] int config_setting_int(const config_setting_t* group, const char* key, int deflt) noexcept;
[[nodiscard]] bool config_setting_flag(const config_setting_t* group, const char* key, bool deflt) noexcept;
