/* Intrusive doubly linked list: it only relinks the caller's records, which begin with the fields of dlep_elem. */
#pragma once

#include <cstddef>
#include <cstdint>

struct dlep_elem {
    int32_t typeid_; /* the caller's tag */
    dlep_elem* prev; /* older neighbour */
    dlep_elem* next; /* newer neighbour */
};

/* tail -> next ... -> head in count steps; an empty list has neither. */
struct dlep_list {
    dlep_elem* head; /* newest: appends go here */
    dlep_elem* tail; /* oldest */
    size_t count;
};

using dlep_fn = void (*)(dlep_elem* elem) noexcept;

/* A new empty list, released by dlep_destroy; null with *err = ENOMEM when there is no memory. */
[[nodiscard]] dlep_list* dlep_create(int* err) noexcept;
[[nodiscard]] size_t dlep_count(const dlep_list* list) noexcept;
[[nodiscard]] dlep_elem* dlep_tail(const dlep_list* list) noexcept;
/* Links elem in as the newest; returns it. */
dlep_elem* dlep_append(dlep_list* list, dlep_elem* elem) noexcept;
/* Unlinks elem, which must be in the list, and clears its links; returns it. */
dlep_elem* dlep_rm(dlep_list* list, dlep_elem* elem) noexcept;
/* Calls callback (may be null, may free the element) on every element, oldest first, and frees the list. */
void dlep_destroy(dlep_list* list, dlep_fn callback) noexcept;
