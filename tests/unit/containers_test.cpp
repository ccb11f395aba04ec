/* Containers: a random walk for each, compared with a standard one after every step, then the limits. */
#include "dlep.h"
#include "gkh.h"
#include "xvdat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <string>
#include <vector>

static std::mt19937 g_random(20261122); /* the same walk in every run */

static size_t below(size_t n)
{
    return g_random() % n;
}

TEST(Containers, AListKeepsTheOrderOfItsElements)
{
    std::array<dlep_elem, 20> elems{};
    std::vector<dlep_elem*> model;
    dlep_list* l = dlep_create(nullptr);
    for (int step = 0; step < 2000; ++step) {
        dlep_elem* e = &elems[below(elems.size())];
        if (const auto at = std::find(model.begin(), model.end(), e); at != model.end()) {
            EXPECT_EQ(dlep_rm(l, e), e);
            EXPECT_TRUE(!e->prev && !e->next);
            model.erase(at);
        } else {
            EXPECT_EQ(dlep_append(l, e), e);
            model.push_back(e);
        }
        std::vector<dlep_elem*> forward;
        const dlep_elem* prev = nullptr;
        for (dlep_elem* x = dlep_tail(l); x; prev = x, x = x->next) {
            ASSERT_EQ(x->prev, prev);
            forward.push_back(x);
        }
        ASSERT_EQ(l->head, prev);
        ASSERT_EQ(forward, model);
        ASSERT_EQ(dlep_count(l), model.size());
    }
    dlep_destroy(l, nullptr);
}

static constexpr size_t SZ = sizeof(long);

TEST(Containers, ASlotListTakesTheLowestFreeSlot)
{
    xvlst l{};
    std::map<size_t, long> model;
    size_t last = 0;
    const auto at = [&l](size_t i) -> long& { return static_cast<long*>(l.data)[i]; };
    const xv_match_fn is = [](void* data, size_t i, void* wanted) noexcept {
        return static_cast<long*>(data)[i] == *static_cast<long*>(wanted) ? 7 : 0;
    };
    for (long step = 1; step < 3000; ++step) {
        if (below(100) < (step / 500 % 2 ? 40U : 60U)) { /* it grows and shrinks by turns */
            size_t lowest = 0;
            while (model.contains(lowest))
                ++lowest;
            const bool is_new = lowest >= l.max_len;
            ASSERT_EQ(xvlst_add(&l, SZ, 4), static_cast<ssize_t>(lowest));
            ASSERT_TRUE(!is_new || at(lowest) == 0);
            at(lowest) = model[lowest] = step;
            last = std::max(last, lowest);
        } else {
            const size_t i = below(last + 3);
            const bool is_taken = model.erase(i) > 0;
            const int expected = is_taken ? 0 : i > last || l.max_len == 0 ? 34 : 114;
            ASSERT_EQ(xvlst_del(&l, i, nullptr), expected) << i;
        }
        ASSERT_EQ(l.len, model.size());
        for (const auto& [i, value] : model)
            ASSERT_EQ(at(i), value);
        long wanted = 1 + static_cast<long>(below(static_cast<size_t>(step)));
        size_t found = SIZE_MAX;
        const auto holder =
            std::find_if(model.begin(), model.end(), [&wanted](const auto& e) { return e.second == wanted; });
        ASSERT_EQ(xvlst_find(&l, &wanted, is, &found), holder == model.end() ? 0 : 7);
        ASSERT_EQ(found, holder == model.end() ? SIZE_MAX : holder->first);
        if (step % 10 == 0 && holder != model.end()) {
            ASSERT_EQ(xvlst_rmif(&l, &wanted, is, nullptr), 1);
            model.erase(holder);
        }
    }
    EXPECT_EQ(xvlst_reserve(&l, SIZE_MAX / SZ + 2, SZ, 4), -1) << "too large is a failure, not an overflow";
    l.flags = XV_FIXED_SIZE;
    EXPECT_EQ(xvlst_reserve(&l, l.max_len, SZ, 4), 0);
    EXPECT_EQ(xvlst_reserve(&l, l.max_len + 1, SZ, 4), ERR_XV_FIXED);
    l.flags = 0;
    xvlst_reset(&l);
}

static xvlst g_list;
static std::vector<size_t> g_seen;

TEST(Containers, AWalkOverASlotListMayDelete)
{
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(xvlst_add(&g_list, SZ, 4), i);
    const xv_elem_fn see = [](void*, size_t i) noexcept {
        g_seen.push_back(i);
        return i == 3 ? 3 : 0;
    };
    size_t stop = 99;
    EXPECT_EQ(xvlst_each(&g_list, see, &stop), 3);
    EXPECT_EQ(stop, 3U);
    EXPECT_EQ(xvlst_each(&g_list, see, nullptr), 0) << "the last call's result";
    g_seen.clear();
    xvlst_purge_all(&g_list, [](void*, size_t i) noexcept {
        g_seen.push_back(i);
        xvlst_del(&g_list, i, nullptr);
        if (i == 1)
            xvlst_del(&g_list, 3, nullptr);
        return 0;
    });
    EXPECT_EQ(g_seen, (std::vector<size_t>{0, 1, 2, 4})) << "slot 3 was released before its turn";
    EXPECT_EQ(g_list.len, 0U);
    EXPECT_EQ(g_list.max_len, 8U);
    EXPECT_EQ(xvlst_add(&g_list, SZ, 4), 0);
    EXPECT_EQ(g_list.last, 0U);
    xvlst_reset(&g_list);
}

TEST(Containers, AMappedSlotListNeverMovesNorGrows)
{
    xvlst l{};
    ASSERT_EQ(xvlst_mmap_fixed(&l, 1 << 20, 1 << 12), 0) << "4 GiB of address space";
    void* const data = l.data;
    for (ssize_t i = 0; i < 1 << 20; ++i)
        ASSERT_EQ(xvlst_add(&l, 1 << 12, 1), i);
    EXPECT_EQ(xvlst_add(&l, 1 << 12, 1), ERR_XV_FIXED);
    EXPECT_EQ(l.data, data);
    static_cast<char*>(l.data)[(size_t(1) << 32) - 1] = 1;
    xvlst_reset(&l);
    for (const size_t n : {SIZE_MAX, SIZE_MAX / 2, size_t(0)})
        EXPECT_EQ(xvlst_mmap_fixed(&l, n, 4096), -1);
}

TEST(Containers, ATextTableIsAMapOfItsCutKeys)
{
    std::array<std::string, 60> keys;
    for (size_t i = 0; i < keys.size(); ++i)
        keys[i] = std::string(i % 3 ? 1 : 253, 'k') + std::to_string(i / 2); /* some differ behind their storage */
    for (const size_t capacity : {1U, 50U}) {                                /* all in one chain; and spread */
        skht_t t = nullptr;
        ASSERT_EQ(skht_create(&t, capacity, nullptr, nullptr, 0), 0);
        std::map<std::string, void*> model;
        for (int step = 0; step < 3000; ++step) {
            const std::string& key = keys[below(keys.size())];
            const bool is_cut = key.size() > HT_MAX_SKEY - 1; /* added by its beginning, found by nothing else */
            void* data = below(9) ? &keys[below(keys.size())] : nullptr;
            void* const added = data;
            const auto at = model.find(key.substr(0, HT_MAX_SKEY - 1));
            const int there = at == model.end() || is_cut ? 3 : 0;
            switch (below(3)) {
            case 0:
                ASSERT_EQ(skht_add(t, key.c_str(), data ? &data : nullptr), at == model.end() ? 0 : 16);
                ASSERT_TRUE(at == model.end() || !added || data == at->second) << "a duplicate is handed the holder's";
                model.try_emplace(key.substr(0, HT_MAX_SKEY - 1), added);
                break;
            case 1:
                ASSERT_EQ(skht_get(t, key.c_str(), &data), there) << key;
                ASSERT_EQ(data, there == 0 ? at->second : added);
                break;
            default:
                ASSERT_EQ(skht_rm(t, key.c_str(), &data), there);
                ASSERT_EQ(data, there == 0 ? at->second : added);
                if (there == 0)
                    model.erase(at);
            }
            ASSERT_EQ(skht_count(t), model.size());
        }
        skht_destroy(t, nullptr);
    }
}

TEST(Containers, FaultsOfCallersStopThem)
{
    dlep_elem e{};
    dlep_list* l = dlep_create(nullptr);
    EXPECT_DEATH(dlep_rm(l, &e), "l->tail == le");
    dlep_destroy(l, nullptr);
    xvlst slots{};
    EXPECT_DEATH((void)xvlst_expand(&slots, 1, SZ, 0), "growblk");
}
