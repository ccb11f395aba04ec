/* Identity and version texts. They are built once; later calls return the same buffer. */
#pragma once

#include <cstdio>

/* "kov/0.2-0.7 (marlinet)": User-Agent and Server of everything that is sent. */
[[nodiscard]] const char* get_app_tag(const char* name) noexcept;
/* One line with name, description, versions, platform, checksum (null = the built-in one) and build date. */
[[nodiscard]] const char* get_app_info(const char* name, const char* checksum) noexcept;
void dump_build_info(FILE* stream) noexcept; /* the banner behind the options' list */

/* ---- offered, called in this room only ---- */

[[nodiscard]] const char* app_description(const char* name) noexcept; /* "#error#" for a name that is none */
