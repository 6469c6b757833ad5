#include "lttime.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

// Every pair of values near 0 and at the ends of the 32-bit range: both operations wrap the
// seconds as a 32-bit adder does (no undefined behaviour: run under UBSan) and carry whole
// seconds out of the microseconds; a difference also gives them the sign of the seconds.
TEST(TimeArithmetic, ResultsAreInNormalFormAndWrapAtTheEndsOfTheRange)
{
    const int32_t secs[] = {INT32_MIN, INT32_MIN + 1, -3, -1, 0, 1, 2, INT32_MAX - 1, INT32_MAX};
    const int32_t usecs[] = {INT32_MIN, INT32_MIN + 1, -1900000, -1000000, -999999, -500000, -1, 0,
                             1, 500000, 999999, 1000000, 1900000, INT32_MAX - 1, INT32_MAX};
    auto wrap = [](int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(v))); };
    auto check = [&](int64_t as, int64_t bs, int32_t usec, const ltTime& r, bool sameSign) {
        ASSERT_LT(r.usec < 0 ? -int64_t{r.usec} : r.usec, 1000000);
        ASSERT_EQ(0, (int64_t{usec} - r.usec) % 1000000);
        ASSERT_EQ(wrap(as + bs + (int64_t{usec} - r.usec) / 1000000), r.sec);
        if (sameSign && r.sec != 0 && r.usec != 0) {
            ASSERT_EQ(r.sec < 0, r.usec < 0);
        }
    };
    for (int32_t as : secs)
        for (int32_t au : usecs)
            for (int32_t bs : secs)
                for (int32_t bu : usecs) {
                    SCOPED_TRACE(testing::Message() << as << "," << au << " and " << bs << "," << bu);
                    ltTime d(as, au);
                    d -= ltTime(bs, bu);
                    check(as, -int64_t{bs}, wrap(int64_t{au} - bu), d, true);
                    check(as, bs, wrap(int64_t{au} + bu), ltTimeAdd(ltTime(as, au), ltTime(bs, bu)), false);
                }
}

TEST(NoTime, MatchesOnlyWhenBothFieldsAreAllOnes)
{
    EXPECT_TRUE(ltTime::noTime.isNoTime());
    EXPECT_FALSE(ltTime(-1, 0).isNoTime() || ltTime(0, -1).isNoTime());
    EXPECT_EQ(ltTime(-2147483, -648000), ltTimeFromMs(INT32_MIN));
}

}  // namespace
