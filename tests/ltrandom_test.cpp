#include "ltrandom.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <set>

namespace {

constexpr unsigned kRaw = UINT_MAX - 1;  // divisor UINT_MAX: get() returns rand_r's value

TEST(RandomRange, DrawsCoverTheRangeAndFollowTheObjectsOwnSeed)
{
    ltrandom r;
    std::set<unsigned> die;
    for (int i = 0; i < 2000; ++i)
        die.insert(r.get(6));
    EXPECT_EQ((std::set<unsigned>{0, 1, 2, 3, 4, 5, 6}), die);  // missing one: p < 1e-130

    // a copy carries the seed: one copy is the reference stream for the other
    ltrandom a;
    ltrandom b = a;
    const unsigned ranges[] = {0, 1, 6, 99, 1000000, kRaw};
    for (int i = 0; i < 60; ++i) {
        srand(i), (void)rand();  // the process-wide generator plays no part
        const unsigned n = ranges[i % 6], raw = b.get(kRaw);
        EXPECT_LE(raw, static_cast<unsigned>(RAND_MAX));
        EXPECT_EQ(raw % (n + 1), a.get(n)) << "draw " << i << ", n " << n;  // get(0) advances too
    }
}

}  // namespace
