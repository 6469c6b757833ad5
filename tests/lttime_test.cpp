// Time arithmetic: the normalising difference, the carry rule and noTime.
#include "lttime.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

struct DiffCase {
    ltTime a, b, expected;
};

TEST(TimeDifference, NormalisesSignsAndKeepsWholeSeconds)
{
    const DiffCase cases[] = {
        {{5, 200000}, {3, 700000}, {1, 500000}},
        {{3, 700000}, {5, 200000}, {-1, -500000}},   // not (-2, 500000)
        {{0, 100000}, {0, 600000}, {0, -500000}},
        {{2, 0}, {0, 1000000}, {1, 0}},              // early stop: never (0, 1000000)
        {{4, -2500000}, {0, 0}, {1, 500000}},        // two carries, then the final borrow
        {{0, 0}, {0, 0}, {0, 0}},
        {{-3, 0}, {0, 250000}, {-3, -250000}},
        {{1, 999999}, {-1, -999999}, {3, 999998}},
        {{0, 2500000}, {0, 0}, {2, 500000}},
        {{-1, 500000}, {0, 0}, {0, -500000}},        // positive usec under a negative sec
        {{10, 0}, {10, 1}, {0, -1}},
    };
    for (const DiffCase& c : cases) {
        ltTime r = c.a;
        ltTime& ret = (r -= c.b);
        EXPECT_EQ(&ret, &r);
        EXPECT_EQ(c.expected.sec, r.sec) << c.a.sec << "," << c.a.usec << " - " << c.b.sec << "," << c.b.usec;
        EXPECT_EQ(c.expected.usec, r.usec) << c.a.sec << "," << c.a.usec << " - " << c.b.sec << "," << c.b.usec;
    }
}

TEST(TimeDifference, ResultIsAlwaysInNormalForm)
{
    for (int as = -3; as <= 3; ++as)
        for (int au = -1900000; au <= 1900000; au += 300000)
            for (int bs = -2; bs <= 2; ++bs)
                for (int bu = -999999; bu <= 999999; bu += 333333) {
                    ltTime r(as, au);
                    r -= ltTime(bs, bu);
                    const long long total = (long long)(as - bs) * 1000000 + (au - bu);
                    EXPECT_EQ(total, (long long)r.sec * 1000000 + r.usec);
                    EXPECT_LT(r.usec < 0 ? -r.usec : r.usec, 1000000);
                    if (r.sec != 0 && r.usec != 0) {
                        EXPECT_EQ(r.sec < 0, r.usec < 0);
                    }
                }
}

TEST(TimeAddition, CarriesTowardZero)
{
    EXPECT_EQ(ltTime(3, 300000), ltTimeAdd(ltTime(1, 800000), ltTime(1, 500000)));
    EXPECT_EQ(ltTime(2, 0), ltTimeAdd(ltTime(1, 500000), ltTime(0, 500000)));
    EXPECT_EQ(ltTime(0, -1), ltTimeAdd(ltTime(1, -1), ltTime(-1, 0)));
    EXPECT_EQ(ltTime(-2, -300000), ltTimeAdd(ltTime(-1, -800000), ltTime(0, -500000)));
    EXPECT_EQ(ltTime(1, 500000), ltTimeFromMs(1500));
    EXPECT_EQ(ltTime(0, 999000), ltTimeFromMs(999));
}

// At the ends of the 32-bit range both operations wrap the seconds as a 32-bit adder does (no
// undefined behaviour: run under UBSan), and still carry whole seconds out of the microseconds.
TEST(TimeArithmetic, EndsOfTheRangeWrapAndStillCarry)
{
    const int32_t ends[] = {INT32_MIN, INT32_MIN + 1, -1000000, -1, 0, 1, 999999, INT32_MAX - 1, INT32_MAX};
    auto wrap = [](int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(v))); };
    for (int32_t as : ends)
        for (int32_t au : ends)
            for (int32_t bs : ends)
                for (int32_t bu : ends) {
                    const ltTime a(as, au), b(bs, bu);
                    ltTime d = a;
                    d -= b;
                    const int32_t du = wrap(int64_t{au} - bu);  // microseconds before the carry
                    ASSERT_LT(d.usec < 0 ? -int64_t{d.usec} : d.usec, 1000000);
                    ASSERT_EQ(0, (int64_t{du} - d.usec) % 1000000);
                    ASSERT_EQ(wrap(int64_t{as} - bs + (int64_t{du} - d.usec) / 1000000), d.sec);

                    const ltTime sum = ltTimeAdd(a, b);
                    const int32_t su = wrap(int64_t{au} + bu);
                    ASSERT_LT(sum.usec < 0 ? -int64_t{sum.usec} : sum.usec, 1000000);
                    ASSERT_EQ(0, (int64_t{su} - sum.usec) % 1000000);
                    ASSERT_EQ(wrap(int64_t{as} + bs + (int64_t{su} - sum.usec) / 1000000), sum.sec);
                }
    EXPECT_EQ(ltTime(-2147483, -648000), ltTimeFromMs(INT32_MIN));
    EXPECT_EQ(ltTime(2147483, 647000), ltTimeFromMs(INT32_MAX));
}

TEST(TimeOrder, ComparesSecondsThenMicroseconds)
{
    EXPECT_TRUE(ltTimeBefore(ltTime(1, 999999), ltTime(2, 0)));
    EXPECT_FALSE(ltTimeBefore(ltTime(2, 0), ltTime(2, 0)));
    EXPECT_TRUE(ltTimeNotAfter(ltTime(2, 0), ltTime(2, 0)));
    EXPECT_FALSE(ltTimeNotAfter(ltTime(2, 1), ltTime(2, 0)));
}

TEST(NoTime, MatchesOnlyWhenBothFieldsAreAllOnes)
{
    EXPECT_TRUE(ltTime(-1, -1).isNoTime());
    EXPECT_FALSE(ltTime(-1, 0).isNoTime());
    EXPECT_FALSE(ltTime(0, -1).isNoTime());
    EXPECT_EQ(-1, ltTime::noTime.sec);
    EXPECT_EQ(-1, ltTime::noTime.usec);
}

}  // namespace
