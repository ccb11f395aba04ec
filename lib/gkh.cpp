/* Chained hash tables. Both key kinds share one implementation; what differs is in a table of three functions. Chains
   are kept in ascending key order, so that an absent key is known at the first greater one. A text key travels as the
   address of its text in the same long as a number key does. */
#include "gkh.h"

#include "log.h"
#include "strops.h"

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

enum ht_key_kind { HT_STR = 0, HT_LONG = 1 };

/* One entry. Its kind decides what follows data: a number here, a copy of the text in s_hrec. */
struct hrec {
    hrec* next;
    void* data;
    long key;
};

struct s_hrec {
    s_hrec* next;
    void* data;
    char s_key[HT_MAX_SKEY];
};
static_assert(offsetof(hrec, next) == offsetof(s_hrec, next) && offsetof(hrec, data) == offsetof(s_hrec, data),
              "chains are walked through hrec whatever the kind");

struct ht_tag {
    ht_key_kind ktype;
    hrec** r;    /* slots, each the head of a chain */
    size_t rlen; /* slots, a power of two */
    unsigned long hseed;
    size_t count;
    ht_hash_fn icalc; /* null: the key itself */
    hrec* spare;      /* released records, for reuse */
};

/* What a key kind does: compare a record with a key, make a record, tell a record's key. */
struct htfunc {
    int (*kcmp)(const hrec* rec, long key) noexcept;
    hrec* (*mkhrec)(ht_tag* tbl, long key) noexcept;
    long (*getkey)(const hrec* rec) noexcept;
};

static const char* as_text(long key) noexcept
{
    return reinterpret_cast<const char*>(key); // NOLINT(performance-no-int-to-ptr): the key is the text's address
}

static long as_key(const char* text) noexcept
{
    return reinterpret_cast<long>(text);
}

static const s_hrec* as_str(const hrec* rec) noexcept
{
    return reinterpret_cast<const s_hrec*>(rec);
}

/* A released record or a new one; the caller of mkhrec sets its link and data. */
static hrec* take_record(ht_tag* tbl, size_t size) noexcept
{
    hrec* rec = tbl->spare;
    if (!rec)
        return static_cast<hrec*>(calloc(1, size));
    tbl->spare = rec->next;
    return rec;
}

/* Kept for the next entry instead of freed: a table that has reached its size costs no allocation an order. */
static void keep_record(ht_tag* tbl, hrec* rec) noexcept
{
    rec->next = tbl->spare;
    tbl->spare = rec;
}

/* The low 32 bits of the difference decide: keys may order oddly, and keys a multiple of 2^32 apart count as equal.
   Descriptors and counters, for which this kind is, never get there. */
static int long_cmp(const hrec* rec, long key) noexcept
{
    return static_cast<int>(static_cast<unsigned long>(rec->key) - static_cast<unsigned long>(key));
}

static hrec* long_make(ht_tag* tbl, long key) noexcept
{
    hrec* rec = take_record(tbl, sizeof(hrec));
    if (rec)
        rec->key = key;
    return rec;
}

static long long_key(const hrec* rec) noexcept
{
    return rec->key;
}

static int str_cmp(const hrec* rec, long key) noexcept
{
    return strcmp(as_str(rec)->s_key, as_text(key));
}

static hrec* str_make(ht_tag* tbl, long key) noexcept
{
    hrec* rec = take_record(tbl, sizeof(s_hrec));
    if (rec)
        cut_text(reinterpret_cast<s_hrec*>(rec)->s_key, HT_MAX_SKEY, as_text(key));
    return rec;
}

static long str_key(const hrec* rec) noexcept
{
    return as_key(as_str(rec)->s_key);
}

/* By ht_key_kind. */
static const htfunc HTFUNC[] = {
    /* HT_STR */ {.kcmp = str_cmp, .mkhrec = str_make, .getkey = str_key},
    /* HT_LONG */ {.kcmp = long_cmp, .mkhrec = long_make, .getkey = long_key},
};

/* Characters count as signed ones, whatever the compiler's own choice: the value of a key is the same on every
   machine. */
unsigned long plHash(long key, unsigned long seed) noexcept
{
    unsigned long h = seed;
    for (const char* s = as_text(key); *s; ++s)
        h = h * 101 + static_cast<unsigned long>(static_cast<long>(static_cast<signed char>(*s)));
    return h;
}

unsigned long elfHash(long key, unsigned long seed) noexcept
{
    unsigned long h = seed;
    for (const char* s = as_text(key); *s; ++s) {
        h = (h << 4) + static_cast<unsigned char>(*s);
        const unsigned long g = h & 0xf0000000UL;
        if (g)
            h ^= g >> 24;
        h &= ~g;
    }
    return h;
}

/* Mixes all bits of a number into the low ones, which choose the slot. */
unsigned long tw_shift(long key, unsigned long seed) noexcept
{
    uint64_t k = static_cast<uint64_t>(key) ^ seed;
    k = ~k + (k << 21);
    k ^= k >> 24;
    k = k + (k << 3) + (k << 8);
    k ^= k >> 14;
    k = k + (k << 2) + (k << 4);
    k ^= k >> 28;
    k += k << 31;
    return k;
}

/* The link to the first record of the chain whose key is not below key; *cmp is 0 when it is that key. */
static hrec** seek(const ht_tag* tbl, long key, int* cmp) noexcept
{
    const unsigned long h = tbl->icalc ? tbl->icalc(key, tbl->hseed) : static_cast<unsigned long>(key);
    hrec** link = &tbl->r[h & (tbl->rlen - 1)];
    *cmp = 1;
    for (; *link; link = &(*link)->next) {
        *cmp = HTFUNC[tbl->ktype].kcmp(*link, key);
        if (*cmp >= 0)
            break;
    }
    if (!*link)
        *cmp = 1;
    return link;
}

/* The record is made before its place is looked for, which is that of the key as it is kept: texts that differ only
   beyond their storage are one key. */
static int hadd(ht_tag* tbl, long key, void** data) noexcept
{
    if (!tbl->r || tbl->rlen == 0)
        return EINVAL;
    hrec* rec = HTFUNC[tbl->ktype].mkhrec(tbl, key);
    if (!rec)
        return ENOMEM;
    int cmp = 0;
    hrec** link = seek(tbl, HTFUNC[tbl->ktype].getkey(rec), &cmp);
    if (cmp == 0) {
        if (data)
            *data = (*link)->data;
        keep_record(tbl, rec);
        return EBUSY;
    }
    rec->data = data ? *data : nullptr;
    rec->next = *link;
    *link = rec;
    ++tbl->count;
    return 0;
}

static int hget(ht_tag* tbl, long key, void** data) noexcept
{
    if (!tbl->r || tbl->rlen == 0)
        return EINVAL;
    int cmp = 0;
    hrec* const* link = seek(tbl, key, &cmp);
    if (cmp != 0)
        return ESRCH;
    if (data)
        *data = (*link)->data;
    return 0;
}

/* The record goes to the spare ones; its key stays readable until it is used again, which callers may not rely on. */
static int hrm(ht_tag* tbl, long key, void** data) noexcept
{
    if (!tbl->r || tbl->rlen == 0)
        return EINVAL;
    int cmp = 0;
    hrec** link = seek(tbl, key, &cmp);
    if (cmp != 0)
        return ESRCH;
    hrec* rec = *link;
    *link = rec->next;
    if (data)
        *data = rec->data;
    keep_record(tbl, rec);
    --tbl->count;
    return 0;
}

static void free_chain(hrec* rec, ht_data_fn callback) noexcept
{
    while (rec) {
        hrec* next = rec->next;
        if (callback)
            callback(rec->data);
        free(rec);
        rec = next;
    }
}

static void hdestroy(ht_tag* tbl, ht_data_fn callback) noexcept
{
    ASSERT(tbl);
    if (tbl->r && tbl->rlen <= HT_MAX_CAP) {
        for (size_t i = 0; i < tbl->rlen; ++i)
            free_chain(tbl->r[i], callback);
        free(tbl->r);
    }
    free_chain(tbl->spare, nullptr);
    free(tbl);
}

/* The time: chains differ from start to start. */
static unsigned long calc_hseed() noexcept
{
    return static_cast<unsigned long>(time(nullptr));
}

/* The largest power of two not above n; 1 for 0. */
static size_t calc_rlen(size_t n) noexcept
{
    return n > 0 ? std::bit_floor(n) : 1;
}

/* One and a half slots an entry, or a little less: a full table has about one entry in each. */
static int hcreate_(ht_tag** ph, ht_key_kind kind, size_t capacity, ht_hash_fn hash) noexcept
{
    ASSERT(ph && capacity);
    *ph = nullptr;
    if (capacity > HT_MAX_CAP)
        return EOVERFLOW;
    auto* tbl = static_cast<ht_tag*>(calloc(1, sizeof(ht_tag)));
    if (!tbl)
        return ENOMEM;
    tbl->ktype = kind;
    tbl->hseed = calc_hseed();
    tbl->icalc = !hash && kind == HT_STR ? plHash : hash;
    tbl->rlen = calc_rlen(capacity * 3 / 2);
    tbl->r = static_cast<hrec**>(calloc(tbl->rlen, sizeof(hrec*)));
    if (!tbl->r) {
        free(tbl);
        return ENOMEM;
    }
    *ph = tbl;
    return 0;
}

/* A key that cannot be added undoes the table. */
int skht_create(skht_t* handle, size_t capacity, ht_hash_fn hash, const char* const* klst, size_t klen) noexcept
{
    ASSERT_AS(!klst || klen, "!klst || (klst && len)");
    int rc = hcreate_(handle, HT_STR, capacity, hash);
    for (size_t i = 0; rc == 0 && klst && i < klen; ++i)
        rc = skht_add(*handle, klst[i], nullptr);
    if (rc != 0 && *handle) {
        skht_destroy(*handle, nullptr);
        *handle = nullptr;
    }
    return rc;
}

int nkht_create(nkht_t* handle, size_t capacity, ht_hash_fn hash) noexcept
{
    return hcreate_(handle, HT_LONG, capacity, hash);
}

int skht_add(skht_t tbl, const char* key, void** data) noexcept
{
    ASSERT(tbl && key);
    return hadd(tbl, as_key(key), data);
}

int nkht_add(nkht_t tbl, long key, void** data) noexcept
{
    ASSERT(tbl);
    return hadd(tbl, key, data);
}

int skht_get(skht_t tbl, const char* key, void** data) noexcept
{
    ASSERT(tbl && key);
    return hget(tbl, as_key(key), data);
}

int nkht_get(nkht_t tbl, long key, void** data) noexcept
{
    ASSERT(tbl);
    return hget(tbl, key, data);
}

int skht_rm(skht_t tbl, const char* key, void** data) noexcept
{
    ASSERT(tbl && key);
    return hrm(tbl, as_key(key), data);
}

int nkht_rm(nkht_t tbl, long key, void** data) noexcept
{
    ASSERT(tbl);
    return hrm(tbl, key, data);
}

size_t skht_count(skht_t tbl) noexcept
{
    ASSERT(tbl);
    return tbl->count;
}

/* The data is the callers': without a callback it stays. */
void skht_destroy(skht_t tbl, ht_data_fn callback) noexcept
{
    hdestroy(tbl, callback);
}

void nkht_destroy(nkht_t tbl, ht_data_fn callback) noexcept
{
    hdestroy(tbl, callback);
}
