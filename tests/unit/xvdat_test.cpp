#include "xvdat.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

static constexpr size_t SZ = sizeof(long);
static xvlst* g_list;
static std::vector<size_t> g_seen;

static long& at(xvlst& l, size_t i)
{
    return static_cast<long*>(l.data)[i];
}

struct SlotList : testing::Test {
    xvlst l{};
    SlotList()
    {
        g_list = &l;
        g_seen.clear();
    }
    ~SlotList() override { xvlst_reset(&l); }
    /* Takes slots up to n and stores each one's number in it. */
    void fill(size_t n, size_t growblk = 4)
    {
        while (l.len < n) {
            const ssize_t i = xvlst_add(&l, SZ, growblk);
            ASSERT_GE(i, 0);
            at(l, size_t(i)) = i;
        }
    }
};

TEST_F(SlotList, ReusesTheLowestFreeSlot)
{
    ASSERT_EQ(xvlst_reserve(&l, 3, SZ, 1), 0);
    fill(3, 1);
    EXPECT_EQ(l.avail, -1);
    EXPECT_EQ(xvlst_del(&l, 1, nullptr), 0);
    EXPECT_EQ(xvlst_add(&l, SZ, 1), 1);
    EXPECT_EQ(l.max_len, 3u);
    EXPECT_EQ(xvlst_add(&l, SZ, 1), 3) << "a fourth slot grows the list";
    EXPECT_EQ(l.max_len, 4u);
    EXPECT_EQ(at(l, 2), 2) << "growth keeps the elements";
    EXPECT_EQ(at(l, 3), 0) << "new slots are zeroed";
    for (const size_t i : {3u, 0u, 2u})
        xvlst_del(&l, i, nullptr);
    for (const ssize_t i : {0, 2, 3})
        EXPECT_EQ(xvlst_add(&l, SZ, 1), i);
}

TEST_F(SlotList, DeletionTellsWhyNot)
{
    EXPECT_EQ(xvlst_del(&l, 0, nullptr), 34) << "an empty list has no slot 0";
    fill(3);
    EXPECT_EQ(xvlst_del(&l, 3, nullptr), 34);
    EXPECT_EQ(xvlst_del(&l, 2, nullptr), 0);
    EXPECT_EQ(xvlst_del(&l, 2, nullptr), 114) << "last is not lowered";
    EXPECT_EQ(at(l, 2), 2) << "the bytes stay";
    EXPECT_EQ(l.len, 2u);
}

TEST_F(SlotList, AFixedListNeverGrows)
{
    fill(4);
    l.flags = XV_FIXED_SIZE;
    EXPECT_EQ(xvlst_reserve(&l, 4, SZ, 4), 0);
    EXPECT_EQ(xvlst_reserve(&l, 5, SZ, 4), ERR_XV_FIXED);
    EXPECT_EQ(xvlst_add(&l, SZ, 4), ERR_XV_FIXED);
    l.flags = 0;
}

TEST_F(SlotList, TooLargeIsAFailureNotAnOverflow)
{
    fill(2);
    EXPECT_EQ(xvlst_reserve(&l, SIZE_MAX / 4, SZ, 4), -1);
    EXPECT_EQ(xvlst_reserve(&l, SIZE_MAX, 1, 4), -1);
    EXPECT_EQ(l.max_len, 4u);
    fill(9);
    EXPECT_EQ(at(l, 1), 1);
}

TEST_F(SlotList, WalksTakenSlotsInOrder)
{
    fill(6);
    xvlst_del(&l, 2, nullptr);
    const xv_elem_fn see = [](void* data, size_t i) noexcept {
        g_seen.push_back(i);
        return static_cast<long*>(data)[i] >= 3 ? int(i) : 0;
    };
    EXPECT_EQ(xvlst_each(&l, see, nullptr), 5) << "the last call's result";
    EXPECT_EQ(g_seen, (std::vector<size_t>{0, 1, 3, 4, 5}));
    size_t stop = 99;
    EXPECT_EQ(xvlst_each(&l, see, &stop), 3);
    EXPECT_EQ(stop, 3u);

    long wanted = 4;
    size_t found = 99;
    const xv_match_fn is = [](void* data, size_t i, void* arg) noexcept {
        return static_cast<long*>(data)[i] == *static_cast<long*>(arg) ? 7 : 0;
    };
    EXPECT_EQ(xvlst_find(&l, &wanted, is, &found), 7);
    EXPECT_EQ(found, 4u);
    EXPECT_EQ(xvlst_rmif(&l, &wanted, is, nullptr), 1);
    EXPECT_EQ(l.len, 4u);
    wanted = 2;
    EXPECT_EQ(xvlst_find(&l, &wanted, is, nullptr), 0) << "slot 2 still holds a 2, but is free";
}

TEST_F(SlotList, PurgeLetsItsCallbackDelete)
{
    fill(5);
    xvlst_purge_all(&l, [](void*, size_t i) noexcept {
        g_seen.push_back(i);
        xvlst_del(g_list, i, nullptr);
        if (i == 1)
            xvlst_del(g_list, 3, nullptr);
        return 0;
    });
    EXPECT_EQ(g_seen, (std::vector<size_t>{0, 1, 2, 4})) << "slot 3 was released before its turn";
    EXPECT_EQ(l.len, 0u);
    EXPECT_EQ(l.max_len, 8u);
    EXPECT_EQ(xvlst_add(&l, SZ, 4), 0);
    EXPECT_EQ(l.last, 0u);
}

TEST_F(SlotList, MappedOnesNeverMoveNorGrow)
{
    ASSERT_EQ(xvlst_mmap_fixed(&l, 1 << 20, 1 << 12), 0) << "4 GiB of address space";
    EXPECT_EQ(l.meta.num, 1u << 12);
    EXPECT_EQ(l.flags, XV_FIXED_SIZE | XV_MMAP);
    void* const data = l.data;
    for (ssize_t i = 0; i < 1 << 20; ++i)
        ASSERT_EQ(xvlst_add(&l, 1 << 12, 1), i);
    EXPECT_EQ(xvlst_add(&l, 1 << 12, 1), ERR_XV_FIXED);
    EXPECT_EQ(l.data, data);
    xvlst_del(&l, 7, nullptr);
    EXPECT_EQ(xvlst_add(&l, 1 << 12, 1), 7);
    static_cast<char*>(l.data)[(size_t(1) << 32) - 1] = 1;
    xvlst_reset(&l);
    EXPECT_EQ(l.data, nullptr);
    for (const size_t n : {SIZE_MAX, SIZE_MAX / 2, size_t(0)})
        EXPECT_EQ(xvlst_mmap_fixed(&l, n, 4096), -1);
}

TEST_F(SlotList, ExpandNeedsAllItsArguments)
{
    EXPECT_DEATH((void)xvlst_expand(&l, 1, SZ, 0), "growblk");
    EXPECT_DEATH(xvlst_purge_all(nullptr, nullptr), "l");
}

TEST(Vector, GrowsInBlocksAndKeepsItsElements)
{
    xvec v{};
    ASSERT_EQ(xvec_reserve(&v, 11, SZ, 10), 0);
    EXPECT_EQ(v.max_len, 20u);
    static_cast<long*>(v.data)[19] = 5;
    ASSERT_EQ(xvec_reserve(&v, 21, SZ, 10), 0);
    EXPECT_EQ(v.max_len, 30u);
    EXPECT_EQ(static_cast<long*>(v.data)[19], 5);
    EXPECT_EQ(static_cast<long*>(v.data)[29], 0);
    EXPECT_EQ(xvec_reserve(&v, SIZE_MAX / 2, SZ, 10), -1);
    v.flags = XV_FIXED_SIZE;
    EXPECT_EQ(xvec_reserve(&v, 29, SZ, 10), 0);
    EXPECT_EQ(xvec_reserve(&v, 30, SZ, 10), ERR_XV_FIXED) << "only a count strictly below the capacity is met";
    v.flags = 0;
    xvec_reset(&v);
    EXPECT_EQ(v.data, nullptr);
    EXPECT_DEATH((void)xvec_reserve(&v, 1, SZ, 0), "growblk > 0");
}
