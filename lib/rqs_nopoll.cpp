/* Descriptors that epoll refuses: they count as always ready and are served once in every round. */
#include "rqs_internal.h"

#include "log.h"

#include <sys/epoll.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t NOPOLL_ROOM = 20;
constexpr size_t NOPOLL_GROWBLK = 10;

static nopoll_ref* ref_at(size_t j) noexcept
{
    return static_cast<nopoll_ref*>(g_rqs.nopoll.data) + j;
}

void rqs_init_nopoll() noexcept
{
    if (xvlst_reserve(&g_rqs.nopoll, NOPOLL_ROOM, sizeof(nopoll_ref), NOPOLL_GROWBLK) != 0 ||
        xvec_reserve(&g_rqs.nopoll_rm, NOPOLL_ROOM, sizeof(ssize_t), NOPOLL_GROWBLK) != 0)
        PANIC("%s: cannot reserve memory for g_rqs.nopoll/rm\n", "rqs_init");
}

static int add_nopoll(const char* fn, uint32_t events, int fd, ssize_t* index, void* udata) noexcept
{
    const ssize_t j = xvlst_add(&g_rqs.nopoll, sizeof(nopoll_ref), NOPOLL_GROWBLK);
    if (j < 0)
        return static_cast<int>(j);
    *ref_at(static_cast<size_t>(j)) = {events, fd, udata, index};
    if (index)
        *index = j;
    LOG_DEBUG("%s[%ld]: fd%d, events=0x%lx, udata=%p, total=%ld events.\n", fn, static_cast<long>(j), fd,
              static_cast<unsigned long>(events), udata, static_cast<long>(g_rqs.nopoll.len));
    return 0;
}

int rqs_add_nopoll_reader(int fd, ssize_t* index, void* udata) noexcept
{
    return add_nopoll(__func__, EPOLLIN, fd, index, udata);
}

int rqs_add_nopoll_writer(int fd, ssize_t* index, void* udata) noexcept
{
    return add_nopoll(__func__, EPOLLOUT, fd, index, udata);
}

int rqs_rm_nopoll(ssize_t j) noexcept
{
    const int rc = xvlst_del(&g_rqs.nopoll, static_cast<size_t>(j), nullptr); /* leaves the entry's bytes */
    if (rc != 0)
        return rc;
    if (ssize_t* index = ref_at(static_cast<size_t>(j))->index)
        *index = -1;
    return 0;
}

void rqs_pprm_nopoll(ssize_t j) noexcept
{
    ASSERT(j >= 0);
    xvec& rm = g_rqs.nopoll_rm;
    if (xvec_reserve(&rm, rm.len + 1, sizeof(ssize_t), NOPOLL_GROWBLK) != 0)
        PANIC("%s: cannot add an item to nopoll_rm\n", __func__);
    static_cast<ssize_t*>(rm.data)[rm.len++] = j;
    LOG_DEBUG("%s: added no-poll event[%ld] at pos=%ld, total: %ld no-poll events.\n", __func__, static_cast<long>(j),
              static_cast<long>(rm.len - 1), static_cast<long>(g_rqs.nopoll.len));
}

void rqs_prepare_nopoll_rm() noexcept
{
    if (xvec_reserve(&g_rqs.nopoll_rm, g_rqs.nopoll.len, sizeof(ssize_t), NOPOLL_GROWBLK) != 0)
        PANIC("Failed to reserve %ld elements for nopoll_rm container.\n", static_cast<long>(g_rqs.nopoll.len));
    g_rqs.nopoll_rm.len = 0;
}

static int service_one(void* /*data*/, size_t j) noexcept
{
    const nopoll_ref ref = *ref_at(j);
    LOG_DEBUG("%s: idx=%ld fd=%d udata=%p\n", __func__, static_cast<long>(j), ref.fd, ref.udata);
    if (ref.events & EPOLLIN)
        return g_rqs_cfg.cb.read(ref.fd, 0, ref.udata, nullptr);
    if (ref.events & EPOLLOUT)
        return g_rqs_cfg.cb.write(ref.fd, 0, ref.udata, nullptr);
    LOG_ERR("%s: unrecognized event mask: 0x%lx\n", __func__, static_cast<unsigned long>(ref.events));
    return -1;
}

int rqs_service_nopoll() noexcept
{
    if (g_rqs.nopoll.len == 0)
        return 0;
    size_t stop = 0;
    const int rc = xvlst_each(&g_rqs.nopoll, service_one, &stop);
    if (rc != 0)
        LOG_ERR("%s: FAILED(%d)\n", __func__, rc);
    return rc;
}

int rqs_purge_nopoll() noexcept
{
    xvec& rm = g_rqs.nopoll_rm;
    for (size_t i = 0; i < rm.len; ++i) {
        const ssize_t j = static_cast<const ssize_t*>(rm.data)[i];
        ASSERT(j >= 0);
        const nopoll_ref ref = *ref_at(static_cast<size_t>(j));
        LOG_DEBUG("%s: fd=%d, udata=%p (j=%ld)\n", __func__, ref.fd, ref.udata, static_cast<long>(j));
        if (ref.index)
            *ref.index = -1;
        if (xvlst_del(&g_rqs.nopoll, static_cast<size_t>(j), nullptr) != 0)
            PANIC("%s: failed to remove j=%ld\n", __func__, static_cast<long>(j));
    }
    rm.len = 0;
    return 0;
}
