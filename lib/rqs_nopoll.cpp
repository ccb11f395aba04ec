/* Descriptors that epoll refuses: they count as always ready and are served once in every round. Such a descriptor is a
   regular file, which never keeps a reader waiting.
   Removal comes in two steps, like that of everything else that has events: a handler lists the slot, and the loop
   takes it out when the walk over the slots is done. The owner's index variable is told when the slot is gone. */
#include "rqs_internal.h"

#include "log.h"

#include <sys/epoll.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

/* The slot's number is also in the owner's variable, who needs it for the removal. */
static int add_nopoll(const char* fn, uint32_t events, int fd, ssize_t* index, void* udata) noexcept
{
    const ssize_t j = slots_put(&g_rqs.nopoll, {events, fd, udata, index});
    if (j < 0)
        return static_cast<int>(j);
    if (index)
        *index = j;
    LOG_DEBUG("%s[%zd]: fd%d, events=0x%x, udata=%p, total=%zu events.\n", fn, j, fd, events, udata,
              slots_len(g_rqs.nopoll));
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
    const int rc = slots_del(&g_rqs.nopoll, j); /* leaves the entry's bytes */
    if (rc != 0)
        return rc;
    if (ssize_t* index = slots_at(&g_rqs.nopoll, j)->index)
        *index = -1;
    return 0;
}

/* Listing must not fail, since the owner forgets the slot with it: without memory the process ends. */
void rqs_pprm_nopoll(ssize_t j) noexcept
{
    ASSERT(j >= 0);
    const ssize_t pos = slots_put(&g_rqs.nopoll_rm, j);
    if (pos < 0)
        PANIC("%s: cannot add an item to nopoll_rm\n", __func__);
    LOG_DEBUG("%s: added no-poll event[%zd] at pos=%zd, total: %zu no-poll events.\n", __func__, j, pos,
              slots_len(g_rqs.nopoll));
}

static int service_one(nopoll_ref* at, size_t j) noexcept
{
    const nopoll_ref ref = *at; /* a handler may add others, which moves the list */
    LOG_DEBUG("%s: idx=%zu fd=%d udata=%p\n", __func__, j, ref.fd, ref.udata);
    if (ref.events & EPOLLIN)
        return g_rqs_cfg.cb.read(ref.fd, 0, ref.udata, nullptr);
    if (ref.events & EPOLLOUT)
        return g_rqs_cfg.cb.write(ref.fd, 0, ref.udata, nullptr);
    LOG_ERR("%s: unrecognized event mask: 0x%x\n", __func__, ref.events);
    return -1;
}

/* All of them may be listed for removal in this round: there is room for that before the first handler runs. */
int rqs_service_nopoll() noexcept
{
    slots_clear(&g_rqs.nopoll_rm);
    const size_t n = slots_len(g_rqs.nopoll);
    if (n == 0)
        return 0;
    if (slots_reserve(&g_rqs.nopoll_rm, n) != 0)
        PANIC("Failed to reserve %zu elements for nopoll_rm container.\n", n);
    size_t stop = 0;
    const int rc = slots_each<service_one>(&g_rqs.nopoll, &stop);
    if (rc != 0)
        LOG_ERR("%s: FAILED(%d)\n", __func__, rc);
    return rc;
}

/* A slot that was listed twice, or never taken, is a fault of the program: nothing is read behind it. */
void rqs_purge_nopoll() noexcept
{
    auto& rm = g_rqs.nopoll_rm;
    /* Nothing leaves the list singly, so that its slots are taken from the front. */
    for (size_t i = 0; i < slots_len(rm); ++i) {
        const ssize_t j = *slots_at(&rm, static_cast<ssize_t>(i));
        ASSERT(j >= 0);
        if (rqs_rm_nopoll(j) != 0)
            PANIC("%s: failed to remove j=%zd\n", __func__, j);
        const nopoll_ref& ref = *slots_at(&g_rqs.nopoll, j);
        LOG_DEBUG("%s: fd=%d, udata=%p (j=%zd)\n", __func__, ref.fd, ref.udata, j);
    }
    slots_clear(&rm);
}
