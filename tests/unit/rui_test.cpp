/* The listeners' small parts: tracking tags, and the set of descriptors that have been accepted. */
#include "rq.h"
#include "rui_internal.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

TEST(TrackingTags, StartAgainAfterTheirLimit)
{
    const struct {
        decltype(&mk_trk_tag) make;
        size_t before;
        size_t max;
        const char* tag;
    } cases[] = {
        {rui_mk_trknum, 0, 10000, "T0001"},     {rui_mk_trknum, 9999, 10000, "T10000"},
        {rui_mk_trknum, 10000, 10000, "T0001"}, {rui_mk_trknum, 99999, 200000, "T10000"},
        {mk_trk_tag, 9999, 10000, "u10000"},    {mk_trk_tag, 10000, 10000, "u1"},
    };
    n64_tag tag{};
    for (const auto& c : cases) {
        size_t counter = c.before;
        c.make(&counter, &tag, c.tag[0], c.max);
        n64_tag expected{};
        memcpy(expected.sym8, c.tag, strlen(c.tag));
        EXPECT_EQ(tag.num64, expected.num64) << tag.sym8 << ", not " << c.tag << ": nothing is left of a longer one";
    }
    size_t counter = 1000000;
    EXPECT_DEATH(mk_trk_tag(&counter, &tag, 'u', 10000000), "digits.size");
}

TEST(Descriptors, ASetOfThemGrows)
{
    rui_fdset set{};
    for (const int fd : {0, 63, 64, 100000}) {
        EXPECT_FALSE(rui_fdset_test(&set, fd)) << fd;
        EXPECT_TRUE(rui_fdset_mark(&set, fd) && rui_fdset_test(&set, fd)) << fd;
    }
    free(set.words);
}
