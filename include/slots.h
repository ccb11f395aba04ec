/* Slot lists of one type over xvlst of xvdat.h: the element's type gives the size, and a callback gets the element
   itself. Results are those of the xvlst_ function of the same name; an index is what slots_add gave. All zero is an
   empty list. */
#pragma once

#include "xvdat.h"

#include <type_traits>

/* A slot list of T that grows by GROWBLK slots. */
template <class T, size_t GROWBLK = 1>
struct slots {
    static_assert(std::is_trivially_copyable_v<T>, "elements are moved and reused byte by byte");
    xvlst raw;
};

template <class T, size_t G>
[[nodiscard]] size_t slots_len(const slots<T, G>& s) noexcept
{
    return s.raw.len;
}

template <class T, size_t G>
[[nodiscard]] bool slots_full(const slots<T, G>& s) noexcept
{
    return s.raw.len >= s.raw.max_len;
}

template <class T, size_t G>
[[nodiscard]] T* slots_at(slots<T, G>* s, ssize_t i) noexcept
{
    return static_cast<T*>(s->raw.data) + i;
}

template <class T, size_t G>
[[nodiscard]] int slots_reserve(slots<T, G>* s, size_t n) noexcept
{
    return xvlst_reserve(&s->raw, n, sizeof(T), G);
}

template <class T, size_t G>
[[nodiscard]] int slots_mmap_fixed(slots<T, G>* s, size_t n) noexcept
{
    return xvlst_mmap_fixed(&s->raw, n, sizeof(T));
}

template <class T, size_t G>
[[nodiscard]] ssize_t slots_add(slots<T, G>* s) noexcept
{
    return xvlst_add(&s->raw, sizeof(T), G);
}

/* Takes a slot for a copy of elem. */
template <class T, size_t G>
[[nodiscard]] ssize_t slots_put(slots<T, G>* s, const T& elem) noexcept
{
    const ssize_t i = slots_add(s);
    if (i >= 0)
        *slots_at(s, i) = elem;
    return i;
}

template <class T, size_t G>
int slots_del(slots<T, G>* s, ssize_t i) noexcept
{
    return xvlst_del(&s->raw, static_cast<size_t>(i), nullptr);
}

template <class T, size_t G>
void slots_reset(slots<T, G>* s) noexcept
{
    xvlst_reset(&s->raw);
}

/* F is int (T* elem, size_t idx) noexcept. */
template <auto F, class T, size_t G>
int slots_each(slots<T, G>* s, size_t* stop) noexcept
{
    return xvlst_each(
        &s->raw, [](void* data, size_t i) noexcept -> int { return F(static_cast<T*>(data) + i, i); }, stop);
}

template <auto F, class T, size_t G>
void slots_purge_all(slots<T, G>* s) noexcept
{
    xvlst_purge_all(&s->raw, [](void* data, size_t i) noexcept -> int { return F(static_cast<T*>(data) + i, i); });
}

/* All slots are free again; most lists that are cleared in every round are empty. */
template <class T, size_t G>
void slots_clear(slots<T, G>* s) noexcept
{
    if (s->raw.len > 0)
        xvlst_purge_all(&s->raw, nullptr);
}

/* The first element for which F, bool (const T* elem, const A* arg) noexcept, is true; null when there is none. */
template <auto F, class T, size_t G, class A>
[[nodiscard]] T* slots_find(slots<T, G>* s, const A* arg) noexcept
{
    size_t found = 0;
    const auto match = [](void* data, size_t i, void* a) noexcept -> int {
        return F(static_cast<const T*>(data) + i, static_cast<const A*>(a));
    };
    return xvlst_find(&s->raw, const_cast<A*>(arg), match, &found) ? slots_at(s, static_cast<ssize_t>(found)) : nullptr;
}

/* For lists of pointers: whether p is listed; and its removal, with the number of slots that held it. */
template <class T, size_t G>
[[nodiscard]] bool slots_hold(slots<T*, G>* s, const T* p) noexcept
{
    return xvlst_find(&s->raw, const_cast<T*>(p), is_ptr_match, nullptr) != 0;
}

template <class T, size_t G>
int slots_rm(slots<T*, G>* s, const T* p) noexcept
{
    return xvlst_rmif(&s->raw, const_cast<T*>(p), is_ptr_match, nullptr);
}
