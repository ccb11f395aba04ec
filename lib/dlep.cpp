/* Intrusive doubly linked list, from the oldest element (tail) by way of next to the newest (head). The elements are
   the callers' records: nothing is allocated for one, so that a client that is accepted can always be queued. What an
   assertion guards here is an element that is in no list, or in another one: its missing neighbour would silently make
   it an end of this list. */
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

/* An empty list has neither end; the first element becomes both. */
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

/* A neighbour that is missing on one side means that the element is the list's end there, and the end moves on. The
   links are cleared, so that a second removal meets the assertions instead of the neighbours' memory. */
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

/* The record is zeroed before it goes, so that a stale pointer to it shows an empty list. */
void dlep_destroy(dlep_list* l, dlep_fn callback) noexcept
{
    ASSERT(l);
    /* The callback may free the element: its successor is read before. */
    for (dlep_elem* e = callback ? l->tail : nullptr; e;) {
        dlep_elem* next = e->next;
        callback(e);
        e = next;
    }
    *l = dlep_list{};
    free(l);
}
