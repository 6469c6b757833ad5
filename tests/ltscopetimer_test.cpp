//===- ltscopetimer_test.cpp - Scope timers reporting to meters -----------===//
#include "ltscopetimer.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ltscopeclock.h"
#include "ltscopemeter.h"

namespace {

timespec ts(long sec, long nsec)
{
    timespec t{};
    t.tv_sec = sec;
    t.tv_nsec = nsec;
    return t;
}

bool operator==(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool notBefore(const timespec& a, const timespec& b)
{
    return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec >= b.tv_nsec);
}

bool isDuration(const timespec& d)
{
    return d.tv_sec >= 0 && d.tv_nsec >= 0 && d.tv_nsec < 1000000000;
}

// Remembers every duration it is given, on top of the usual bookkeeping.
class RecordingMeter : public ltScopeMeter {
public:
    void scopeDurationMeasured(const timespec* d) override
    {
        ltScopeMeter::scopeDurationMeasured(d);
        seen.push_back(*d);
    }
    std::vector<timespec> seen;
};

TEST(ScopeMeterTotal, CarriesOnlyAboveOneSecond)
{
    ltScopeMeter meter;
    const timespec half = ts(0, 500000000);
    meter.scopeDurationMeasured(&half);
    meter.scopeDurationMeasured(&half);
    // Exactly 1000000000 ns is not carried (kept behaviour).
    EXPECT_TRUE(meter.total == ts(0, 1000000000));
    meter.scopeDurationMeasured(&half);
    EXPECT_TRUE(meter.total == ts(1, 500000000));
    meter.scopeDurationMeasured(nullptr);
    EXPECT_TRUE(meter.total == ts(1, 500000000));

    const timespec longer = ts(2, 700000000);
    meter.scopeDurationMeasured(&longer);
    EXPECT_TRUE(meter.total == ts(4, 200000000));
    EXPECT_TRUE(meter.last == longer);

    meter.resetTimers();
    EXPECT_TRUE(meter.total == ts(0, 0));
    EXPECT_TRUE(meter.last == ts(0, 0));
}

TEST(ScopeMeterTotal, GetTimersFillsWhatIsAskedFor)
{
    ltScopeMeter meter(CLOCK_MONOTONIC);
    const timespec d = ts(3, 250);
    meter.scopeDurationMeasured(&d);
    meter.getTimers(nullptr, nullptr);  // nothing to fill, nothing to crash on

    timespec total = ts(-1, -1);
    timespec first = ts(-1, -1);
    timespec second = ts(-1, -1);
    meter.getTimers(&total, &first);
    meter.getTimers(nullptr, &second);
    EXPECT_TRUE(total == d);
    EXPECT_TRUE(isDuration(first));
    EXPECT_TRUE(notBefore(second, first));  // the same reset time, a later clock reading
}

TEST(ScopeTimerClock, DifferenceBorrowsOneSecond)
{
    using lt_internal::scopeElapsed;
    EXPECT_TRUE(scopeElapsed(ts(3, 100), ts(5, 900)) == ts(2, 800));
    EXPECT_TRUE(scopeElapsed(ts(3, 900000000), ts(5, 100)) == ts(1, 100000100));
    EXPECT_TRUE(scopeElapsed(ts(3, 5), ts(3, 5)) == ts(0, 0));
}

TEST(ScopeTimerReport, TimersReportOnceEachToTheirMeter)
{
    RecordingMeter meter;
    {
        ltScopeTimer outer(&meter);
        {
            ltScopeTimer inner(&meter, CLOCK_MONOTONIC);
        }
        ASSERT_EQ(1u, meter.seen.size());  // the inner one, at the end of its scope
    }
    ASSERT_EQ(2u, meter.seen.size());
    const timespec inner = meter.seen[0];
    const timespec outer = meter.seen[1];
    EXPECT_TRUE(isDuration(inner));
    EXPECT_TRUE(isDuration(outer));
    EXPECT_TRUE(notBefore(outer, inner));  // the outer scope encloses the inner one
    EXPECT_TRUE(meter.last == outer);

    // Compared in nanoseconds, the total is the sum of both whichever way it carried.
    const long long sum = (inner.tv_sec + outer.tv_sec) * 1000000000LL + inner.tv_nsec + outer.tv_nsec;
    EXPECT_EQ(sum, meter.total.tv_sec * 1000000000LL + meter.total.tv_nsec);
}

TEST(ScopeTimerReport, NoExceptionLeavesTheDestructor)
{
    struct ThrowingMeter : ltScopeMeter {
        void scopeDurationMeasured(const timespec*) override { throw std::runtime_error("meter"); }
    };
    ThrowingMeter throwing;
    EXPECT_NO_THROW({
        ltScopeTimer withoutMeter;  // measures, reports to no one
        ltScopeTimer failing(&throwing, CLOCK_REALTIME);
    });
}

TEST(ScopeTimerPrint, WritesSecondsAndNinePlacesOfNanoseconds)
{
    unsetenv("CSP_DEBUG_QUIET");  // read once, at the first message: nothing printed yet
    ltScopeMeter meter;
    const timespec d = ts(1, 5000);
    meter.scopeDurationMeasured(&d);

    testing::internal::CaptureStderr();
    meter.print();
    EXPECT_EQ("ltScopeTimer(): 1.000005000sec.\n", testing::internal::GetCapturedStderr());

    // The uncarried total shows as ten digits of nanoseconds (kept behaviour).
    meter.resetTimers();
    const timespec half = ts(0, 500000000);
    meter.scopeDurationMeasured(&half);
    meter.scopeDurationMeasured(&half);
    testing::internal::CaptureStderr();
    meter.print();
    EXPECT_EQ("ltScopeTimer(): 0.1000000000sec.\n", testing::internal::GetCapturedStderr());

    ltScopeTimer timer;
    testing::internal::CaptureStderr();
    timer.print();
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(testing::internal::RE::FullMatch(text, "ltScopeTimer\\(\\): [0-9]+\\.[0-9]{9}sec\\.\n"))
        << text;
}

}  // namespace
