/* Vector and slot list. The invariant that makes "lowest free slot first" cheap: avail is always the lowest free slot,
   or -1 when every slot is taken. last is only an upper bound of the slots that were ever taken since the last purge:
   it spares the walks the rest of the map, and is not lowered by a deletion.
   A callback may delete slots of the list that is being walked, its own too; it may add some as well, which moves the
   block: nothing here keeps a pointer to an element across a callback. */
#include "xvdat.h"

#include "log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

uint32_t xvdat_flags = 0;

/* The one way out of a failed allocation: the process's choice between an abort and an answer. */
static int no_memory() noexcept
{
    ASSERT(!(xvdat_flags & XV_ABORT_ENOMEM));
    return -1;
}

/* Grows *block from old_n to new_n elements with the new ones zeroed; left as it was on failure. A first block comes
   from calloc, so that the untouched pages of a large reservation cost nothing. */
static bool grow_block(void** block, size_t old_n, size_t new_n, size_t size) noexcept
{
    size_t bytes = 0;
    if (__builtin_mul_overflow(new_n, size, &bytes))
        return false;
    if (!*block) {
        *block = calloc(new_n, size);
        return *block != nullptr;
    }
    void* p = realloc(*block, bytes);
    if (!p)
        return false;
    memset(static_cast<char*>(p) + old_n * size, 0, (new_n - old_n) * size);
    *block = p;
    return true;
}

/* n rounded up to a multiple of growblk; false on overflow. */
static bool round_up(size_t n, size_t growblk, size_t* out) noexcept
{
    return !__builtin_add_overflow(n, (growblk - n % growblk) % growblk, out);
}

/* Grows even where there is room for exactly n: the strict comparison is part of the interface. */
int xvec_reserve(xvec* v, size_t n, size_t size, size_t growblk) noexcept
{
    ASSERT(v && (growblk > 0));
    if (v->max_len > n)
        return 0;
    if (v->flags & XV_FIXED_SIZE)
        return ERR_XV_FIXED;
    size_t cap = 0;
    if (!round_up(n, growblk, &cap))
        return no_memory();
    if (cap <= v->max_len)
        return 0;
    if (!grow_block(&v->data, v->max_len, cap, size))
        return no_memory();
    v->max_len = cap;
    return 0;
}

/* A block that is not owned stays with its owner, and its capacity stays known. */
void xvec_reset(xvec* v) noexcept
{
    if (!(v->flags & XV_FIXED_SIZE)) {
        free(v->data);
        v->data = nullptr;
        v->max_len = 0;
    }
    v->len = 0;
}

/* Grows the block first and the map after it: should the second fail, the list is as it was, with a block that is
   larger than it knows. */
int xvlst_reserve(xvlst* l, size_t n, size_t size, size_t growblk) noexcept
{
    ASSERT(l && (growblk > 0));
    if (l->max_len >= n)
        return 0;
    if (l->flags & XV_FIXED_SIZE)
        return ERR_XV_FIXED;
    size_t cap = 0;
    if (!round_up(n, growblk, &cap))
        return no_memory();
    const size_t old = l->max_len;
    if (!grow_block(&l->data, old, cap, size)) /* larger than max_len says until the map has grown, too */
        return no_memory();
    void* map = l->taken;
    if (!grow_block(&map, old, cap, 1))
        return no_memory();
    l->taken = static_cast<uint8_t*>(map);
    l->max_len = cap;
    if (l->avail < 0)
        l->avail = static_cast<ssize_t>(old);
    return 0;
}

/* One slot more than asked for: releasing counts it, too. NORESERVE, since most of a large table is never touched. */
int xvlst_mmap_fixed(xvlst* l, size_t n, size_t size) noexcept
{
    ASSERT(l && !l->data && size);
    size_t slots = 0;
    size_t bytes = 0;
    if (n == 0 || __builtin_add_overflow(n, 1, &slots) || __builtin_mul_overflow(slots, size, &bytes))
        return no_memory();
    auto* taken = static_cast<uint8_t*>(calloc(n, 1)); /* large: untouched pages cost nothing here either */
    if (!taken)
        return no_memory();
    void* data = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (data == MAP_FAILED) {
        free(taken);
        return no_memory();
    }
    *l = xvlst{};
    l->data = data;
    l->taken = taken;
    l->max_len = n;
    l->flags = XV_FIXED_SIZE | XV_MMAP;
    l->meta.num = size;
    return 0;
}

int xvlst_expand(xvlst* l, size_t plus, size_t size, size_t growblk) noexcept
{
    ASSERT(l && plus && size && growblk);
    return xvlst_reserve(l, l->len + plus, size, growblk);
}

/* The element's bytes stay those of the slot's last user: whoever takes it fills it. */
ssize_t xvlst_add(xvlst* l, size_t size, size_t growblk) noexcept
{
    ASSERT((0 == l->max_len) || (l->avail < (ssize_t)l->max_len));
    if (const int rc = xvlst_expand(l, 1, size, growblk))
        return rc;
    if (l->avail < 0)
        return -1;
    const auto i = static_cast<size_t>(l->avail);
    l->taken[i] = 1;
    const size_t next = i + 1;
    if (i > l->last)
        l->last = i;
    if (next >= l->max_len) {
        l->avail = -1;
    } else if (!l->taken[next]) { /* always so above the last one */
        l->avail = static_cast<ssize_t>(next);
    } else {
        ASSERT(i != l->last);
        const void* p = memchr(l->taken + next, 0, l->max_len - next);
        l->avail = p ? static_cast<const uint8_t*>(p) - l->taken : -1;
    }
    ++l->len;
    return static_cast<ssize_t>(i);
}

/* The callback finds the slot free already, and not yet the next one to be taken. */
int xvlst_del(xvlst* l, size_t i, xv_elem_fn callback) noexcept
{
    if (i > l->last || i >= l->max_len)
        return ERANGE;
    if (!l->taken[i])
        return EALREADY;
    l->taken[i] = 0;
    if (callback)
        callback(l->data, i);
    if (l->avail < 0 || l->avail > static_cast<ssize_t>(i))
        l->avail = static_cast<ssize_t>(i);
    ASSERT(l->len > 0);
    --l->len;
    return 0;
}

/* Whether slot i is taken; the walks below ask again in every step, since a callback may delete slots. */
static bool is_taken(const xvlst* l, size_t i) noexcept
{
    return i < l->max_len && l->taken[i];
}

/* Up to last, which a callback may raise on the way: what is added behind the walk's place is met in the same walk. */
int xvlst_each(xvlst* l, xv_elem_fn f, size_t* stop) noexcept
{
    int rc = 0;
    if (!l->data)
        return 0;
    for (size_t i = 0; i <= l->last; ++i) {
        if (!is_taken(l, i))
            continue;
        rc = f(l->data, i);
        if (rc != 0 && stop) {
            *stop = i;
            return rc;
        }
    }
    return rc;
}

/* The match's own value comes back, so that it may tell more than a yes. */
int xvlst_find(xvlst* l, void* arg, xv_match_fn match, size_t* found) noexcept
{
    if (l->len == 0)
        return 0;
    for (size_t i = 0; i <= l->last; ++i) {
        if (!is_taken(l, i))
            continue;
        if (const int rc = match(l->data, i, arg)) {
            if (found)
                *found = i;
            return rc;
        }
    }
    return 0;
}

int is_ptr_match(void* data, size_t idx, void* ptr) noexcept
{
    return static_cast<void**>(data)[idx] == ptr;
}

/* A match that deletes the slot itself is told by the failing deletion. */
int xvlst_rmif(xvlst* l, void* arg, xv_match_fn match, size_t* err) noexcept
{
    int ndeleted = 0;
    for (size_t i = 0; l->data && i <= l->last; ++i) {
        if (!is_taken(l, i) || !match(l->data, i, arg))
            continue;
        if (xvlst_del(l, i, nullptr) != 0) {
            if (err)
                *err = i;
            return -1;
        }
        ++ndeleted;
    }
    return ndeleted;
}

/* The map is cleared at once afterwards, whatever the callback has left taken. */
void xvlst_purge_all(xvlst* l, xv_elem_fn f) noexcept
{
    ASSERT(l);
    if (l->len == 0)
        return;
    if (f) {
        ASSERT(l->taken);
        for (size_t i = 0; i <= l->last; ++i) {
            if (is_taken(l, i))
                f(l->data, i);
        }
    }
    if (l->taken)
        memset(l->taken, 0, l->last + 1); /* no slot above last was taken since the map was clear */
    l->last = l->len = 0;
    l->avail = l->max_len > 0 ? 0 : -1;
}

/* A mapping that cannot be given back means that the record is broken: going on would lose more than the process. */
void xvlst_reset(xvlst* l) noexcept
{
    if (!(l->flags & XV_FIXED_SIZE)) {
        free(l->data);
        free(l->taken);
    } else if (l->flags & XV_MMAP) {
        ASSERT(l->meta.num);
        if (munmap(l->data, l->meta.num * (l->max_len + 1)) != 0)
            PANIC("%s: munmap FAILED\n", __func__);
        free(l->taken);
    }
    *l = xvlst{};
}
