/* Growable arrays of fixed-size elements stored by value: the vector xvec, filled from the front, and the slot list
   xvlst, whose slots are taken and released in any order, always the lowest free one first. Element size and growth
   block are given with every call. All-zero records are empty and valid. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

constexpr uint32_t XV_ABORT_ENOMEM = 1; /* in xvdat_flags: an allocation failure aborts */
constexpr uint32_t XV_FIXED_SIZE = 2;   /* the block is not owned and never grows */
constexpr uint32_t XV_MMAP = 4;         /* the block is an anonymous mapping */
constexpr int ERR_XV_FIXED = -11;       /* a fixed list would have to grow */

extern uint32_t xvdat_flags;

struct xvec {
    void* data;
    size_t len;     /* elements in use */
    size_t max_len; /* capacity in elements */
    uint32_t flags;
};

struct xvlst {
    void* data;
    size_t len;     /* taken slots */
    size_t max_len; /* capacity in slots */
    uint32_t flags;
    uint8_t* taken; /* 1 taken, 0 free, one for each slot */
    size_t last;    /* highest slot taken since the last purge; not lowered by deletion */
    ssize_t avail;  /* lowest free slot, -1 when full */
    union {
        uint64_t num;
        void* ptr;
        char sym[8];
    } meta; /* spare; the element size of a mapped fixed list */
};

/* Callbacks get the element block and the slot: the element is at data + idx * element size. */
using xv_elem_fn = int (*)(void* data, size_t idx) noexcept;
using xv_match_fn = int (*)(void* data, size_t idx, void* arg) noexcept;

/* Room for n elements, new ones zeroed. 0, -1 no memory, ERR_XV_FIXED; a fixed vector refuses unless max_len > n. */
[[nodiscard]] int xvec_reserve(xvec* v, size_t n, size_t size, size_t growblk) noexcept;
void xvec_reset(xvec* v) noexcept;

/* Room for n slots. 0, -1 no memory, ERR_XV_FIXED. */
[[nodiscard]] int xvlst_reserve(xvlst* l, size_t n, size_t size, size_t growblk) noexcept;
/* Makes an empty list a fixed one of n slots in a mapping that costs address space, and memory only where elements are
   used: they never move. 0, or -1 no memory. */
[[nodiscard]] int xvlst_mmap_fixed(xvlst* l, size_t n, size_t size) noexcept;
/* Takes the lowest free slot: its index, or a negative failure. The element's bytes are left as they are. */
[[nodiscard]] ssize_t xvlst_add(xvlst* l, size_t size, size_t growblk) noexcept;
/* Releases slot i, then calls callback (may be null). 0; ERANGE beyond the last slot; EALREADY not taken. */
int xvlst_del(xvlst* l, size_t i, xv_elem_fn callback) noexcept;
/* Calls f on taken slots in order. With stop, the first non-zero result ends the walk, stores the slot and is returned.
   Without, the last call's result. */
int xvlst_each(xvlst* l, xv_elem_fn f, size_t* stop) noexcept;
/* First slot for which match is non-zero: that value, the slot in *found (may be null); 0 when none. */
[[nodiscard]] int xvlst_find(xvlst* l, void* arg, xv_match_fn match, size_t* found) noexcept;
/* A match for a list of pointers: the slot holds the pointer ptr. */
int is_ptr_match(void* data, size_t idx, void* ptr) noexcept;
/* Deletes every matching slot. Their number, or -1 with the slot in *err (may be null). */
int xvlst_rmif(xvlst* l, void* arg, xv_match_fn match, size_t* err) noexcept;
/* Calls f (may be null, may delete slots of this list) on every taken slot, then empties the list, keeping its
   capacity. */
void xvlst_purge_all(xvlst* l, xv_elem_fn f) noexcept;
/* Releases the storage and zeroes the record. */
void xvlst_reset(xvlst* l) noexcept;

/* ---- offered, called in this room only ---- */

/* As xvlst_reserve, of plus slots more than are taken. */
[[nodiscard]] int xvlst_expand(xvlst* l, size_t plus, size_t size, size_t growblk) noexcept;
