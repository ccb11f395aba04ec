#include "gkh.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

static int g_ndestroyed;
static std::vector<int> g_val = {10, 11};

static void* val(size_t i)
{
    return &g_val[i];
}

TEST(Hash, TextCharactersAreSigned)
{
    EXPECT_EQ(plHash(reinterpret_cast<long>("ab"), 5), (5ul * 101 + 97) * 101 + 98);
    EXPECT_EQ(plHash(reinterpret_cast<long>("\xff"), 5), 5ul * 101 - 1);
    EXPECT_EQ(plHash(reinterpret_cast<long>(""), 5), 5ul);
}

TEST(TextTable, ADuplicateHandsBackTheHolder)
{
    skht_t t = nullptr;
    ASSERT_EQ(skht_create(&t, 100, nullptr, nullptr, 0), 0);
    void* data = val(0);
    EXPECT_EQ(skht_add(t, "k", &data), 0);
    data = val(1);
    EXPECT_EQ(skht_add(t, "k", &data), 16);
    EXPECT_EQ(data, val(0));
    EXPECT_EQ(skht_add(t, "k", nullptr), 16);
    EXPECT_EQ(skht_count(t), 1u);

    data = nullptr;
    EXPECT_EQ(skht_rm(t, "k", &data), 0);
    EXPECT_EQ(data, val(0));
    EXPECT_EQ(skht_get(t, "k", &data), 3);
    EXPECT_EQ(skht_rm(t, "k", &data), 3);
    EXPECT_EQ(skht_add(t, "k", nullptr), 0) << "a removed key can come back";
    EXPECT_EQ(skht_get(t, "k", &data), 0);
    EXPECT_EQ(data, nullptr) << "a reused record has forgotten its data";
    skht_destroy(t, nullptr);
}

TEST(TextTable, LongKeysAreCutToTheirStorage)
{
    for (const size_t capacity : {1u, 1000u}) {
        skht_t t = nullptr;
        ASSERT_EQ(skht_create(&t, capacity, nullptr, nullptr, 0), 0);
        const std::string kept(254, 'k');
        EXPECT_EQ(skht_add(t, (kept + "one").c_str(), nullptr), 0);
        EXPECT_EQ(skht_add(t, (kept + "two").c_str(), nullptr), 16) << "the same key once stored";
        EXPECT_EQ(skht_get(t, (kept + "one").c_str(), nullptr), 3) << "not found by its full text";
        EXPECT_EQ(skht_rm(t, kept.c_str(), nullptr), 0);
        EXPECT_EQ(skht_count(t), 0u);
        skht_destroy(t, nullptr);
    }
}

TEST(TextTable, StartsWithAListOfKeysOrNotAtAll)
{
    const char* const good[] = {"a", "b"};
    const char* const twice[] = {"a", "a"};
    skht_t t = nullptr;
    ASSERT_EQ(skht_create(&t, 2, nullptr, good, 2), 0);
    EXPECT_EQ(skht_get(t, "b", nullptr), 0);
    skht_destroy(t, nullptr);
    EXPECT_EQ(skht_create(&t, 2, nullptr, twice, 2), 16);
    EXPECT_EQ(t, nullptr);
    EXPECT_DEATH((void)skht_create(&t, 2, nullptr, good, 0), "klst");
}

TEST(LongTable, ComparesTheLow32BitsWithinASlot)
{
    nkht_t t = nullptr;
    ASSERT_EQ(nkht_create(&t, 100, nullptr), 0);
    void* data = val(0);
    EXPECT_EQ(nkht_add(t, 5, &data), 0);
    EXPECT_EQ(nkht_get(t, 5 + 128, &data), 3) << "100 gives 128 slots; another key of the same slot";
    data = nullptr;
    EXPECT_EQ(nkht_get(t, 5 + (1L << 32), &data), 0);
    EXPECT_EQ(data, val(0));
    EXPECT_EQ(nkht_add(t, -1, nullptr), 0);
    EXPECT_EQ(nkht_rm(t, -1, nullptr), 0);
    nkht_destroy(t, nullptr);
}

TEST(LongTable, HoldsManyAndDestroysEachOnce)
{
    for (const ht_hash_fn hash : {ht_hash_fn(nullptr), ht_hash_fn(tw_shift)}) {
        nkht_t t = nullptr;
        ASSERT_EQ(nkht_create(&t, 16, hash), 0);
        for (long k = 999; k >= 0; --k) {
            void* data = val(0);
            ASSERT_EQ(nkht_add(t, k * 7 % 1000, &data), 0);
        }
        for (long k = 0; k < 1000; k += 2)
            ASSERT_EQ(nkht_rm(t, k, nullptr), 0);
        for (long k = 0; k < 1000; ++k)
            ASSERT_EQ(nkht_get(t, k, nullptr), k % 2 ? 0 : 3) << k;
        g_ndestroyed = 0;
        nkht_destroy(t, [](void* data) noexcept { g_ndestroyed += data == val(0); });
        EXPECT_EQ(g_ndestroyed, 500);
    }
}

TEST(Tables, CapacityHasALimit)
{
    nkht_t t = nullptr;
    EXPECT_EQ(nkht_create(&t, HT_MAX_CAP + 1, nullptr), 75);
    EXPECT_EQ(t, nullptr);
    ASSERT_EQ(nkht_create(&t, HT_MAX_CAP, nullptr), 0);
    nkht_destroy(t, nullptr);
    EXPECT_DEATH((void)nkht_create(&t, 0, nullptr), "ph && capacity");
    EXPECT_DEATH((void)skht_add(nullptr, "k", nullptr), "tbl && key");
}
