/* Names of unfinished files. */
#include "seg.h"

#include "data.h"

#include <cerrno>
#include <cstring>
#include <string_view>

bool is_unfinished_seg(const char* path) noexcept
{
    return std::string_view(path).ends_with(UNFINISHED_SFX);
}

int cutoff_segext(char* path) noexcept
{
    if (!*path)
        return EINVAL;
    if (!is_unfinished_seg(path))
        return ESRCH;
    path[strlen(path) - (sizeof(UNFINISHED_SFX) - 1)] = '\0';
    return 0;
}
