/* The agent's files: what is being written, what a power cut or a crash has left.
   The difficulty is that the agent goes on meanwhile. What was seen may be another file by the time it is removed, so
   nothing goes that has changed since, nothing that any process has open, and nothing young enough to be some order's
   next moment. */
#include "ctl.h"
#include "data.h"
#include "guard.h"
#include "lock.h"
#include "strops.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <memory>
#include <mutex>
#include <sys/ioctl.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

/* An open directory below the data directory, for whoever still has names of it to look at. */
struct directory {
    std::string path;
    std::unique_ptr<DIR, releaser<closedir>> stream;
};
using directory_ptr = std::shared_ptr<const directory>;

/* Of a regular file; none for what has another type, or has vanished. */
std::optional<struct stat> stat_at(const directory& dir, const char* name)
{
    struct stat st {
    };
    const bool is_file = fstatat(dirfd(dir.stream.get()), name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
    return is_file ? std::optional(st) : std::nullopt;
}

/* Every name below the data directory that is, or is not, one of an unfinished file, and may be a regular file's; what
   vanishes on the way is passed by. There may be millions: f decides which to look at. */
template <class F>
void each_name(removal* r, bool wants_unfinished, F&& f)
{
    if (g_set.data_dir.empty())
        fail(STATUS_USAGE, "no data directory given: name the configuration (-C) or the directory (-D)");
    std::error_code ec;
    std::vector<std::string> paths{g_set.data_dir};
    if (!fs::is_directory(g_set.data_dir, ec))
        fail(STATUS_USAGE, g_set.data_dir + ": no directory that can be looked into");
    while (!paths.empty()) {
        const auto dir = std::make_shared<directory>();
        dir->path = std::move(paths.back());
        paths.pop_back();
        dir->stream.reset(opendir(dir->path.c_str()));
        if (!dir->stream)
            r->miss(dir->path);
        while (const dirent* entry = dir->stream ? readdir(dir->stream.get()) : nullptr) {
            const char* name = static_cast<const char*>(entry->d_name);
            struct stat st {
            };
            if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
                continue;
            const bool is_dir =
                entry->d_type == DT_DIR ||
                (entry->d_type == DT_UNKNOWN &&
                 fstatat(dirfd(dir->stream.get()), name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode));
            if (is_dir)
                paths.push_back(dir->path + "/" + name);
            else if ((entry->d_type == DT_REG || entry->d_type == DT_UNKNOWN) &&
                     is_unfinished(name) == wants_unfinished)
                f(dir, name);
        }
    }
}

/* ---- verify ---- */

constexpr size_t BATCH = 256;       /* names that one thread looks at before it comes back for more */
constexpr size_t BATCHES_AHEAD = 8; /* then the walk stops and looks, too; each may hold a directory open */
constexpr unsigned HELPERS_MAX = 3;

/* Final files of one directory. */
struct batch {
    directory_ptr dir;
    std::vector<std::string> names;
};

/* Nearly all the time goes into one system call a file, so there are helpers for it. */
struct verification {
    std::mutex mutex; /* for the fields below */
    std::condition_variable changed;
    std::deque<batch> waiting;
    bool is_walked = false; /* nothing more will come */
    removal found;
};

/* Whether the file system says that all of it is on the disk. It may not say so of what is still cached and unwritten,
   or in very many pieces, and some say nothing. */
bool is_all_written(int fd, uint64_t size)
{
    constexpr uint32_t PIECES = 16;
    alignas(fiemap) std::array<char, sizeof(fiemap) + PIECES * sizeof(fiemap_extent)> room{};
    auto* map = reinterpret_cast<fiemap*>(room.data());
    map->fm_length = size;
    map->fm_extent_count = PIECES;
    if (ioctl(fd, FS_IOC_FIEMAP, map) != 0)
        return false;
    uint64_t written = 0; /* up to here */
    for (uint32_t i = 0; i < map->fm_mapped_extents; ++i) {
        const fiemap_extent& e = map->fm_extents[i];
        if (e.fe_logical > written || (e.fe_flags & (FIEMAP_EXTENT_UNWRITTEN | FIEMAP_EXTENT_UNKNOWN)))
            return false;
        written = e.fe_logical + e.fe_length;
    }
    return written >= size;
}

/* Whether a part of it was never written, though its blocks were reserved: a mapping that did not reach the disk. What
   somebody has read since is cached, and would pass for data; the cache of a file that is well is left alone. */
bool has_hole(removal* r, const directory& dir, const char* name, off_t size)
{
    const int fd = openat(dirfd(dir.stream.get()), name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        r->miss(dir.path + "/" + name);
        return false;
    }
    const scope_guard close_fd([fd] { close(fd); });
    if (is_all_written(fd, static_cast<uint64_t>(size)))
        return false;
    (void)posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED); /* what is still to be written stays */
    const off_t hole = lseek(fd, 0, SEEK_HOLE);
    return hole >= 0 && hole < size;
}

/* What has changed since then was in no power cut of this machine; with a margin for a clock that was set. */
time_t looked_into_before()
{
    constexpr time_t MARGIN = 60;
    timespec now{};
    timespec up{};
    if (g_set.is_all || clock_gettime(CLOCK_REALTIME, &now) != 0 || clock_gettime(CLOCK_BOOTTIME, &up) != 0)
        return std::numeric_limits<time_t>::max();
    return now.tv_sec - up.tv_sec + MARGIN;
}

void look_at(verification* v, const batch& b)
{
    static const time_t before = looked_into_before();
    for (const std::string& name : b.names) {
        const auto st = stat_at(*b.dir, name.c_str());
        if (!st)
            continue;
        const bool has_blocks = st->st_blocks * 512 >= st->st_size;
        if (has_blocks && (st->st_ctim.tv_sec >= before || !has_hole(&v->found, *b.dir, name.c_str(), st->st_size)))
            continue;
        const std::scoped_lock lock(v->mutex);
        v->found.take(fs::path(b.dir->path) / name, *st,
                      has_blocks ? "has blocks that were never written" : "has fewer blocks than its size");
    }
}

/* Looks at what is waiting until nothing more will come. */
void help(verification* v)
{
    for (;;) {
        std::unique_lock lock(v->mutex);
        v->changed.wait(lock, [v] { return !v->waiting.empty() || v->is_walked; });
        if (v->waiting.empty())
            return;
        const batch b = std::move(v->waiting.front());
        v->waiting.pop_front();
        lock.unlock();
        look_at(v, b);
    }
}

/* To the helpers, or looked at here when they have enough. */
void hand_over(verification* v, batch b)
{
    if (b.names.empty())
        return;
    std::unique_lock lock(v->mutex);
    if (v->waiting.size() < BATCHES_AHEAD) {
        v->waiting.push_back(std::move(b));
        v->changed.notify_one();
        return;
    }
    lock.unlock();
    look_at(v, b);
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
    std::replace_if(out.begin(), out.end(), is_control, '?');
    return out;
}

bool is_printable(std::string_view text)
{
    return std::none_of(text.begin(), text.end(), is_control);
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

void removal::miss(const std::string& path)
{
    if (errno == ENOENT)
        return;
    is_partial = true;
    fprintf(stderr, "kovctl: %s: %s\n", path.c_str(), strerror(errno));
}

/* A power cut may leave final files whose blocks never reached the disk. */
int cmd_verify()
{
    verification v;
    std::vector<std::jthread> helpers;
    const unsigned cpus = std::thread::hardware_concurrency();
    try {
        while (helpers.size() < HELPERS_MAX && helpers.size() + 1 < cpus)
            helpers.emplace_back(help, &v);
    } catch (const std::system_error&) { /* no more may be had; it goes on without */
    }
    batch b;
    each_name(&v.found, false, [&](const directory_ptr& dir, const char* name) {
        if (b.dir != dir || b.names.size() == BATCH) {
            hand_over(&v, std::move(b));
            b = {dir, {}};
        }
        b.names.emplace_back(name);
    });
    hand_over(&v, std::move(b));
    {
        const std::scoped_lock lock(v.mutex);
        v.is_walked = true;
    }
    v.changed.notify_all();
    help(&v);
    helpers.clear(); /* waits for them */
    return v.found.status();
}

int cmd_sweep()
{
    removal r;
    /* Asked first: a file that is opened after this is young, and left alone for that. */
    const held_files held = all_held_files();
    each_name(&r, true, [&](const directory_ptr& dir, const char* name) {
        const auto st = stat_at(*dir, name);
        if (st && age_of(*st) > STALE_LOCK_SEC && !held.contains({st->st_dev, st->st_ino}))
            r.take(fs::path(dir->path) / name, *st, "unfinished, and no agent writes it");
    });
    /* The directory of the locks may be everybody's (/tmp): a lock is an empty file named by a lock id, of the user of
       the running agent, else of that of its data directory. */
    const auto pid = find_agent().pid;
    const std::string owned = pid ? "/proc/" + std::to_string(*pid) : g_set.data_dir;
    struct stat owner {
    };
    if (stat(owned.c_str(), &owner) != 0)
        return r.status();
    std::error_code ec;
    for (fs::directory_iterator it(g_set.lock_dir, ec); !ec && it != fs::directory_iterator(); it.increment(ec)) {
        struct stat st {
        };
        const size_t len = it->path().stem().native().size();
        if (it->path().extension() == ".lock" && len >= MIN_LID_LEN && len <= MAX_LID_LEN &&
            lstat(it->path().c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size == 0 &&
            st.st_uid == owner.st_uid && age_of(st) > STALE_LOCK_SEC)
            r.take(it->path(), st, "a lock that has lapsed");
    }
    return r.status();
}
