#include "dlep.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

static std::vector<int> g_seen;

/* Tags from the oldest to the newest, after checking the links backwards as well. */
static std::vector<int> tags(const dlep_list* l)
{
    std::vector<int> out;
    const dlep_elem* prev = nullptr;
    for (const dlep_elem* e = dlep_tail(l); e; prev = e, e = e->next) {
        EXPECT_EQ(e->prev, prev);
        out.push_back(e->typeid_);
    }
    EXPECT_EQ(l->head, prev);
    EXPECT_EQ(dlep_count(l), out.size());
    return out;
}

struct DList : testing::Test {
    dlep_elem e[3] = {{1, nullptr, nullptr}, {2, nullptr, nullptr}, {3, nullptr, nullptr}};
    dlep_list* l = dlep_create(nullptr);
    ~DList() override { dlep_destroy(l, nullptr); }
};

TEST_F(DList, RemovesFromAnyPlace)
{
    const struct {
        int rm;
        std::vector<int> left;
    } cases[] = {{0, {2, 3}}, {1, {1, 3}}, {2, {1, 2}}};
    for (const auto& c : cases) {
        for (auto& x : e)
            EXPECT_EQ(dlep_append(l, &x), &x);
        EXPECT_EQ(tags(l), (std::vector<int>{1, 2, 3}));
        EXPECT_EQ(dlep_rm(l, &e[c.rm]), &e[c.rm]);
        EXPECT_EQ(e[c.rm].prev, nullptr);
        EXPECT_EQ(e[c.rm].next, nullptr);
        EXPECT_EQ(tags(l), c.left);
        dlep_rm(l, dlep_tail(l));
        EXPECT_EQ(tags(l), std::vector<int>{c.left[1]});
        dlep_rm(l, dlep_tail(l));
        EXPECT_EQ(tags(l), std::vector<int>{});
    }
}

TEST_F(DList, RefusesWhatIsNotThere)
{
    EXPECT_DEATH((void)dlep_count(nullptr), "l");
    EXPECT_DEATH(dlep_append(l, nullptr), "l && d");
    EXPECT_DEATH(dlep_rm(l, nullptr), "l && le");
    dlep_append(l, &e[0]);
    EXPECT_DEATH(dlep_rm(l, &e[1]), "l->tail == le");
}

TEST(DListDestroy, VisitsEachElementOnceOldestFirst)
{
    g_seen.clear();
    dlep_list* l = dlep_create(nullptr);
    for (const int tag : {7, 8, 9})
        dlep_append(l, new dlep_elem{tag, nullptr, nullptr});
    dlep_destroy(l, [](dlep_elem* x) noexcept {
        g_seen.push_back(x->typeid_);
        delete x;
    });
    EXPECT_EQ(g_seen, (std::vector<int>{7, 8, 9}));
}
