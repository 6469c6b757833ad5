// The timer index against a walk over the slots, with expiries across both fields' signed range.
#include "lttimerindex.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <vector>

namespace {

using lt_internal::TimerIndex;
using Slots = std::vector<std::optional<ltTime>>;

int walkFirstDue(const Slots& slots, int from, const ltTime& now)
{
    for (int i = from; i < static_cast<int>(slots.size()); ++i)
        if (slots[i] && ltTimeNotAfter(*slots[i], now))
            return i;
    return static_cast<int>(slots.size());
}

TEST(TimerIndexModel, FindsWhatAWalkOverTheSlotsFinds)
{
    std::mt19937 random(11);
    // Near values, so that equal times are common, and the extremes.
    const std::vector<int32_t> secs = {1, 2, 3, -1, INT32_MIN, INT32_MAX - 1, INT32_MAX};
    const std::vector<int32_t> usecs = {0, 1, 999999, -999999, -1, INT32_MIN, INT32_MAX - 1};
    auto anyTime = [&] { return ltTime(secs[random() % secs.size()], usecs[random() % usecs.size()]); };

    for (int size : {1, 2, 64, 256}) {
        SCOPED_TRACE(size);
        TimerIndex index;
        ASSERT_TRUE(index.reset(size));
        Slots slots(size);
        for (int step = 0; step < 4000; ++step) {
            const int slot = static_cast<int>(random() % size);
            if (random() % 3 == 0) {
                index.clear(slot);
                slots[slot].reset();
            } else {
                const ltTime t = anyTime();
                index.set(slot, t);
                slots[slot] = t;
            }
            const ltTime now = anyTime();
            const int from = static_cast<int>(random() % (size + 1));
            ASSERT_EQ(walkFirstDue(slots, from, now), index.firstDue(from, now));

            std::optional<ltTime> least;
            for (const auto& s : slots)
                least = s && (!least || ltTimeBefore(*s, *least)) ? s : least;
            ltTime earliest(0, 0);
            ASSERT_EQ(least.has_value(), index.earliest(earliest));
            ASSERT_EQ(least.value_or(earliest), earliest);
        }

        TimerIndex rebuilt;  // from the slots: the same answers as the updates gave
        ASSERT_TRUE(rebuilt.reset(size));
        rebuilt.rebuild([&](int slot) { return slots[slot] ? &*slots[slot] : nullptr; });
        for (int from = 0; from <= size; ++from)
            ASSERT_EQ(index.firstDue(from, ltTime(2, 0)), rebuilt.firstDue(from, ltTime(2, 0)));
    }
}

// (INT32_MAX, INT32_MAX) packs to the empty key: kept one microsecond earlier, never lost.
TEST(TimerIndexModel, LatestExpiryIsKeptAndNothingIsDueFromPastTheLastSlot)
{
    void* block = std::malloc(4 * 2 * sizeof(uint64_t));  // filled, so that a read past the end shows
    std::memset(block, 0xFF, malloc_usable_size(block));
    asm volatile("" : : "r"(block) : "memory");  // the fill is not dropped as a dead store
    std::free(block);
    TimerIndex index;
    ASSERT_TRUE(index.reset(4));
    index.set(3, ltTime(INT32_MAX, INT32_MAX));
    EXPECT_EQ(4, index.firstDue(0, ltTime(INT32_MAX, INT32_MAX - 2)));
    EXPECT_EQ(3, index.firstDue(0, ltTime(INT32_MAX, INT32_MAX - 1)));
    EXPECT_EQ(3, index.firstDue(0, ltTime(INT32_MAX, INT32_MAX)));
    ltTime earliest;
    ASSERT_TRUE(index.earliest(earliest));
    EXPECT_EQ(ltTime(INT32_MAX, INT32_MAX - 1), earliest);
    const ltTime least(INT32_MIN, INT32_MIN);
    index.set(1, least);
    EXPECT_EQ(1, index.firstDue(0, least));
    EXPECT_EQ(4, index.firstDue(4, least));

    EXPECT_FALSE(index.reset(3));  // not a power of two: covers nothing
    EXPECT_EQ(0, index.slots());
    EXPECT_FALSE(index.earliest(earliest));
    EXPECT_EQ(0, index.firstDue(0, ltTime(INT32_MAX, INT32_MAX)));
}

}  // namespace
