/* Names of unfinished files. */
#pragma once

/* Removes a trailing "-Kova". 0; 22 empty text; 3 no such suffix. */
[[nodiscard]] int cutoff_segext(char* path) noexcept;
[[nodiscard]] bool is_unfinished_seg(const char* path) noexcept;
