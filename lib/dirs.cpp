/* Directories and paths. Nothing here asks first and acts later where somebody else may come in between: a directory is
   made, and one that is there already is no failure; only afterwards is what stands at the path looked at. */
#include "dirs.h"

#include "log.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr mode_t DIR_MODE = 0755; /* a daemon has no umask */
constexpr size_t FPATH_MAX = 512;

/* Opened rather than asked for: a directory that may not be read is of no use either. */
int dir_check(char* path, int strip) noexcept
{
    const size_t len = strlen(path);
    if (strip && len > 1 && path[len - 1] == '/')
        path[len - 1] = '\0';
    DIR* dir = opendir(path);
    if (!dir)
        return -1;
    closedir(dir);
    return 0;
}

/* The ordinary case is a directory that exists, which costs one call; only then is the path made from its start, part
   by part. EEXIST of a part says nothing about its kind: the last look does. */
int mk_fpath_dirs(const char* fpath) noexcept
{
    const char* slash = strrchr(fpath, '/');
    if (!slash || slash == fpath)
        return 0;
    std::array<char, FPATH_MAX> dir{};
    const auto len = static_cast<size_t>(slash - fpath);
    if (len >= dir.size())
        return ENAMETOOLONG;
    memcpy(dir.data(), fpath, len);

    struct stat st {
    };
    if (stat(dir.data(), &st) == 0 && S_ISDIR(st.st_mode))
        return 0;
    for (size_t end = 1; end <= len; ++end) { /* after each part of the path, and at its end */
        if (dir[end] != '/' && end < len)
            continue;
        dir[end] = '\0';
        if (mkdir(dir.data(), DIR_MODE) != 0 && errno != EEXIST) {
            LOG_ERRNO("%s: mkdir(%s)", __func__, dir.data());
            return errno;
        }
        dir[end] = end < len ? '/' : '\0';
    }
    if (stat(dir.data(), &st) == 0 && S_ISDIR(st.st_mode))
        return 0;
    LOG_ERR("%s: [%s] is not a directory\n", __func__, dir.data());
    return ENOTDIR;
}

const char* pick_first_file(std::span<const char* const> paths) noexcept
{
    for (const char* path : paths) {
        if (access(path, F_OK) == 0)
            return path;
    }
    return nullptr;
}
