/* Order locks: exclusive creation in a shared directory, and the age at which a lock counts as left behind. */
#include "lock.h"

#include "data.h"
#include "log.h"
#include "strops.h"
#include "syswrap.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr mode_t LOCK_MODE = 0644;
constexpr int MIN_LOCK_PATH = 5;        /* the length of ".lock" */
constexpr long STRANGE_AGE_SEC = 86400; /* beyond it an age is looked at twice */
constexpr timespec SECOND_LOOK = {0, 100'000'000};

/* Under this name the log speaks of every look at an age and of every file that has lapsed, whoever has asked: it is
   what operators search for. */
constexpr char EXPIRY_FN[] = "check_and_expire";

using lock_path = std::array<char, 128>;

/* The path of a lock; a longer one is cut. False (logged) for an id that has none: one that names another directory, or
   that no listing shows as it is. */
static bool mk_lock_path(const char* fn, const char* lid, lock_path* path) noexcept
{
    const int n = snprintf(path->data(), path->size() - 1, "%s/%s.lock", g_cfg.udp_cha.lkdir, lid);
    const char* p = lid;
    while (*p && *p != '/' && !is_control(*p))
        ++p;
    if (n >= MIN_LOCK_PATH && !*p)
        return true;
    LOG_ERR("%s: invalid lock path (n=%d): %s\n", fn, n, path->data());
    return false;
}

/* Age of a file by its time of change, in seconds. A link that leads to no file has its own: it is in the way of an
   exclusive creation like any file. 0; -1 with errno. */
static int file_age(const char* path, long* age) noexcept
{
    struct stat st {
    };
    struct stat target {
    };
    if (lstat(path, &st) != 0)
        return -1;
    if (S_ISLNK(st.st_mode) && stat(path, &target) == 0)
        st = target;
    *age = time(nullptr) - st.st_mtime;
    return 0;
}

/* The age that a descriptor of one's own sees: on NFS a file that another host is just creating shows a strange time
   until its maker's second step, and an attribute cache may keep that time. As file_age. */
static int look_again(const char* fn, const char* path, long* age) noexcept
{
    nanosleep(&SECOND_LOOK, nullptr);
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return file_age(path, age); /* gone, a link to nowhere, or closed to this user */
    struct stat st {
    };
    if (fstat(fd, &st) == 0)
        *age = time(nullptr) - st.st_mtime;
    W_close(fn, fd);
    return 0;
}

/* What a look with the result rc has found, as check_age. */
static int judge_age(const char* path, int rc, long age, long max_age) noexcept
{
    if (rc != 0) {
        if (errno == ENOENT)
            return 0;
        LOG_ERRNO("%s: stat(%s, ..)", EXPIRY_FN, path);
        return -1;
    }
    if (age > max_age)
        return ESTALE;
    LOG_INFO("%s: upstanding lock [%s] (age=%ld) found\n", EXPIRY_FN, path, age);
    return EBUSY;
}

int check_age(const char* path, long max_age, long* age) noexcept
{
    const int rc = file_age(path, age);
    return judge_age(path, rc, *age, max_age);
}

int expire_file(const char* path, long age) noexcept
{
    if (W_unlink(EXPIRY_FN, path) != 0)
        return -1;
    LOG_DEBUG("%s: expired stale lock [%s], age=%ld sec\n", EXPIRY_FN, path, age);
    return 0;
}

int check_and_expire(const char* path, long max_age) noexcept
{
    long age = 0;
    int rc = file_age(path, &age);
    if (rc == 0 && age > STRANGE_AGE_SEC)
        rc = look_again(__func__, path, &age);
    rc = judge_age(path, rc, age, max_age);
    return rc == ESTALE ? expire_file(path, age) : rc;
}

/* Between the look at an old lock and the creation another host may come first; the exclusive creation decides. */
int lid_lock(const char* lid, timespec* taken) noexcept
{
    *taken = {};
    if (!g_cfg.udp_cha.must_lock)
        return 0;
    lock_path path{};
    if (!mk_lock_path(__func__, lid, &path))
        return -1;
    if (const int rc = check_and_expire(path.data(), STALE_LOCK_SEC); rc != 0)
        return rc;
    const int fd = open(path.data(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, LOCK_MODE);
    if (fd >= 0) {
        struct stat st {
        };
        if (fstat(fd, &st) == 0)
            *taken = st.st_mtim;
        W_close(__func__, fd);
        LOG_DEBUG("%s: [%s] locked\n", __func__, lid);
        return 0;
    }
    if (errno == EEXIST) /* another holder was quicker */
        return EBUSY;
    LOG_ERRNO("%s: open(%s,...)", __func__, path.data());
    return -1;
}

void lid_unlock(const char* lid, const timespec& taken) noexcept
{
    if (!g_cfg.udp_cha.must_lock)
        return;
    lock_path path{};
    if (!mk_lock_path(__func__, lid, &path))
        return;
    struct stat st {
    };
    const bool is_known = taken.tv_sec != 0; /* else its file could not be looked at when it was made */
    if (is_known && stat(path.data(), &st) == 0 &&
        (st.st_mtim.tv_sec != taken.tv_sec || st.st_mtim.tv_nsec != taken.tv_nsec)) {
        LOG_INFO("%s: [%s] has been taken over by another order\n", __func__, lid);
        return;
    }
    LOG_DEBUG("%s: %s at [%s]\n", __func__, lid, path.data());
    W_unlink(__func__, path.data());
}
