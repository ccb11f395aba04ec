/* Chained hash tables with string keys (skht_*) or long keys (nkht_*). An entry maps a key to a pointer that the table
   never owns. Duplicate keys are refused. Released entries are kept for reuse, so a table that has reached its size
   allocates nothing. */
#pragma once

#include <cstddef>

constexpr size_t HT_MAX_SKEY = 255; /* storage of a string key: 254 characters are kept */
constexpr size_t HT_MAX_CAP = 5000000;

struct ht_tag;
using skht_t = ht_tag*;
using nkht_t = ht_tag*;

/* key is a const char* for string tables, the long itself for long tables, cast to uintptr-sized long. */
using ht_hash_fn = unsigned long (*)(long key, unsigned long seed) noexcept;
using ht_data_fn = void (*)(void* data) noexcept;

unsigned long plHash(long key, unsigned long seed) noexcept; /* string keys: h = h * 101 + character */

/* A table in *handle for so many entries (more make longer chains). 0; EOVERFLOW capacity beyond HT_MAX_CAP; ENOMEM.
   hash may be null: plHash for strings, the key itself for longs. klst are klen keys to begin with, without data; null:
   none. */
[[nodiscard]] int skht_create(skht_t* handle, size_t capacity, ht_hash_fn hash, const char* const* klst,
                              size_t klen) noexcept;
[[nodiscard]] int nkht_create(nkht_t* handle, size_t capacity, ht_hash_fn hash) noexcept;

/* 0; EBUSY present (*data gets the present entry's data); ENOMEM; EINVAL no slots. data may be null: none is stored. A
   text key is cut to its storage; it is then found by the cut text only. */
[[nodiscard]] int skht_add(skht_t tbl, const char* key, void** data) noexcept;
/* 0 with *data (may be null) set; ESRCH absent; EINVAL no slots. rm takes the entry out. */
[[nodiscard]] int skht_get(skht_t tbl, const char* key, void** data) noexcept;
[[nodiscard]] int skht_rm(skht_t tbl, const char* key, void** data) noexcept;

/* Calls callback (may be null) on every entry's data and frees the table. */
void skht_destroy(skht_t tbl, ht_data_fn callback) noexcept;
void nkht_destroy(nkht_t tbl, ht_data_fn callback) noexcept;

/* ---- offered, not called here ---- */

unsigned long elfHash(long key, unsigned long seed) noexcept;  /* string keys */
unsigned long tw_shift(long key, unsigned long seed) noexcept; /* long keys */
/* As for text keys. */
[[nodiscard]] int nkht_add(nkht_t tbl, long key, void** data) noexcept;
[[nodiscard]] int nkht_get(nkht_t tbl, long key, void** data) noexcept;
[[nodiscard]] int nkht_rm(nkht_t tbl, long key, void** data) noexcept;
[[nodiscard]] size_t skht_count(skht_t tbl) noexcept;
