/* The agent's files: what is being written, what a power cut or a crash has left. */
#include "ctl.h"
#include "data.h"
#include "guard.h"
#include "lock.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

/* Every regular file below the data directory that has, or has not, the name of an unfinished one; what vanishes or may
   not be entered on the way is passed by. There may be millions: only those that are wanted are looked at. */
template <class F>
void each_file(bool wants_unfinished, F&& f)
{
    if (g_set.data_dir.empty())
        fail(STATUS_USAGE, "no data directory given: name the configuration (-C) or the directory (-D)");
    std::error_code ec;
    std::vector<std::string> dirs{g_set.data_dir};
    if (!fs::is_directory(g_set.data_dir, ec))
        fail(STATUS_USAGE, g_set.data_dir + ": no directory that can be looked into");
    while (!dirs.empty()) {
        const std::string path = std::move(dirs.back());
        dirs.pop_back();
        const std::unique_ptr<DIR, releaser<closedir>> dir(opendir(path.c_str()));
        if (!dir && errno != ENOENT)
            fprintf(stderr, "kovctl: %s: %s\n", path.c_str(), strerror(errno));
        while (const dirent* entry = dir ? readdir(dir.get()) : nullptr) {
            const std::string_view name = static_cast<const char*>(entry->d_name);
            const bool may_be_wanted = is_unfinished(name) == wants_unfinished;
            const bool has_type = entry->d_type != DT_UNKNOWN;
            struct stat st {
            };
            if (name == "." || name == ".." || (has_type && entry->d_type != DT_DIR && !may_be_wanted))
                continue;
            if (has_type && entry->d_type == DT_DIR)
                st.st_mode = S_IFDIR;
            else if (fstatat(dirfd(dir.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            if (S_ISDIR(st.st_mode))
                dirs.push_back(path + "/" + entry->d_name);
            else if (S_ISREG(st.st_mode) && may_be_wanted)
                f(path, name, st);
        }
    }
}

/* The directory may be everybody's (/tmp): a lock is an empty file of the agent's own user, named by a lock id. */
bool is_lapsed_lock(const fs::path& path, uid_t agent, struct stat* lock)
{
    struct stat& st = *lock;
    const size_t len = path.stem().native().size();
    return path.extension() == ".lock" && len >= MIN_LID_LEN && len <= MAX_LID_LEN && lstat(path.c_str(), &st) == 0 &&
           S_ISREG(st.st_mode) && st.st_size == 0 && st.st_uid == agent && age_of(st) > STALE_LOCK_SEC;
}

/* Of the running agent, or of its data directory. */
std::optional<uid_t> owner_of_locks()
{
    struct stat st {
    };
    const auto pid = find_agent().pid;
    const std::string place = pid ? "/proc/" + std::to_string(*pid) : g_set.data_dir;
    return stat(place.c_str(), &st) == 0 ? std::optional(st.st_uid) : std::nullopt;
}

} // namespace

bool is_unfinished(std::string_view path)
{
    return path.ends_with(UNFINISHED_SFX);
}

long age_of(const struct stat& st)
{
    return std::max(0L, static_cast<long>(time(nullptr) - st.st_mtime));
}

std::string printable(std::string_view text)
{
    std::string out(text);
    std::replace_if(
        out.begin(), out.end(), [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; }, '?');
    return out;
}

void removal::take(const fs::path& path, const struct stat& seen, const char* why)
{
    struct stat now {
    };
    if (lstat(path.c_str(), &now) != 0 || now.st_ino != seen.st_ino || now.st_dev != seen.st_dev ||
        now.st_mtime != seen.st_mtime)
        return; /* an agent has just taken it over */
    ++found;
    if (!g_set.is_deleting) {
        printf("%s: %s\n", printable(path.native()).c_str(), why);
    } else if (unlink(path.c_str()) == 0) {
        ++removed;
        printf("removed %s: %s\n", printable(path.native()).c_str(), why);
    } else {
        fprintf(stderr, "kovctl: %s: %s\n", path.c_str(), strerror(errno));
    }
}

/* A power cut may leave final files whose blocks never reached the disk. */
int cmd_verify()
{
    removal r;
    each_file(false, [&r](const std::string& dir, std::string_view name, const struct stat& st) {
        if (st.st_blocks * 512 < st.st_size)
            r.take(fs::path(dir) / name, st, "has fewer blocks than its size");
    });
    return r.status();
}

int cmd_sweep()
{
    removal r;
    const held_files held = all_held_files();
    each_file(true, [&](const std::string& dir, std::string_view name, const struct stat& st) {
        if (age_of(st) > STALE_LOCK_SEC && !held.contains({st.st_dev, st.st_ino}))
            r.take(fs::path(dir) / name, st, "unfinished, and no agent writes it");
    });
    const auto owner = owner_of_locks();
    std::error_code ec;
    fs::directory_iterator it(g_set.lock_dir, ec);
    for (; owner && !ec && it != fs::directory_iterator(); it.increment(ec)) {
        struct stat st {
        };
        if (is_lapsed_lock(it->path(), *owner, &st))
            r.take(it->path(), st, "a lock that has lapsed");
    }
    return r.status();
}
