/* Intrusive doubly linked list. */
#include "dlep.h"

#include "log.h"

#include <cerrno>
#include <cstdlib>

dlep_list* dlep_create(int* err) noexcept
{
    auto* l = static_cast<dlep_list*>(calloc(1, sizeof(dlep_list)));
    if (!l && err)
        *err = ENOMEM;
    return l;
}

size_t dlep_count(const dlep_list* l) noexcept
{
    ASSERT(l);
    return l->count;
}

dlep_elem* dlep_tail(const dlep_list* l) noexcept
{
    ASSERT(l);
    return l->tail;
}

dlep_elem* dlep_append(dlep_list* l, dlep_elem* d) noexcept
{
    ASSERT(l && d);
    d->next = nullptr;
    d->prev = l->head;
    if (l->head) {
        l->head->next = d;
    } else {
        ASSERT_AS(l->tail == nullptr, "((void *)0) == l->tail");
        l->tail = d;
    }
    l->head = d;
    ++l->count;
    return d;
}

dlep_elem* dlep_rm(dlep_list* l, dlep_elem* le) noexcept
{
    ASSERT(l && le);
    if (le->prev) {
        le->prev->next = le->next;
    } else {
        ASSERT(l->tail == le);
        l->tail = le->next;
    }
    if (le->next) {
        le->next->prev = le->prev;
    } else {
        ASSERT(l->head == le);
        l->head = le->prev;
    }
    if (!l->head)
        ASSERT(1 == l->count);
    --l->count;
    le->prev = le->next = nullptr;
    return le;
}

void dlep_destroy(dlep_list* l, dlep_fn callback) noexcept
{
    ASSERT(l);
    for (dlep_elem* e = callback ? l->tail : nullptr; e;) {
        dlep_elem* next = e->next;
        callback(e);
        e = next;
    }
    *l = dlep_list{};
    free(l);
}
