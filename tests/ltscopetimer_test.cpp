#include "ltscopetimer.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ltscopeclock.h"
#include "ltscopemeter.h"

namespace {

timespec ts(long sec, long nsec) { timespec t{}; return t.tv_sec = sec, t.tv_nsec = nsec, t; }

bool operator==(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }
bool notBefore(const timespec& a, const timespec& b) { return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec >= b.tv_nsec); }
bool isDuration(const timespec& d) { return d.tv_sec >= 0 && d.tv_nsec >= 0 && d.tv_nsec < 1000000000; }

void feed(ltScopeMeter& m, std::initializer_list<timespec> ds) { for (const timespec& d : ds) m.scopeDurationMeasured(&d); }

TEST(ScopeMeterTotal, CarriesOnlyAboveOneSecondAndFillsWhatIsAskedFor)
{
    ltScopeMeter meter(CLOCK_MONOTONIC);
    feed(meter, {ts(0, 500000000), ts(0, 500000000)});
    EXPECT_TRUE(meter.total == ts(0, 1000000000));  // exactly 1 s is not carried (kept behaviour)
    meter.scopeDurationMeasured(nullptr);
    feed(meter, {ts(0, 500000000)});
    EXPECT_TRUE(meter.total == ts(1, 500000000));
    feed(meter, {ts(2, 700000000)});
    EXPECT_TRUE(meter.total == ts(4, 200000000) && meter.last == ts(2, 700000000));

    timespec total = ts(-1, -1), first = ts(-1, -1), second = ts(-1, -1);
    meter.getTimers(nullptr, nullptr);  // nothing to fill, nothing to crash on
    meter.getTimers(&total, &first);
    meter.getTimers(nullptr, &second);
    EXPECT_TRUE(total == ts(4, 200000000));
    EXPECT_TRUE(isDuration(first));
    EXPECT_TRUE(notBefore(second, first));  // the same reset time, a later clock reading

    meter.resetTimers();
    EXPECT_TRUE(meter.total == ts(0, 0) && meter.last == ts(0, 0));

    using lt_internal::scopeElapsed;  // a difference borrows one second
    EXPECT_TRUE(scopeElapsed(ts(3, 100), ts(5, 900)) == ts(2, 800));
    EXPECT_TRUE(scopeElapsed(ts(3, 900000000), ts(5, 100)) == ts(1, 100000100));
    EXPECT_TRUE(scopeElapsed(ts(3, 5), ts(3, 5)) == ts(0, 0));

    struct RecordingMeter : ltScopeMeter {
        void scopeDurationMeasured(const timespec* d) override { seen.push_back(*d); }
        std::vector<timespec> seen;
    };
    struct ThrowingMeter : ltScopeMeter {
        void scopeDurationMeasured(const timespec*) override { throw std::runtime_error("meter"); }
    } throwing;
    EXPECT_NO_THROW({
        ltScopeTimer withoutMeter;  // measures, reports to no one
        ltScopeTimer failing(&throwing, CLOCK_REALTIME);
    });

    RecordingMeter recording;
    {
        ltScopeTimer outer(&recording);
        { ltScopeTimer inner(&recording, CLOCK_MONOTONIC); }
        ASSERT_EQ(1u, recording.seen.size());  // the inner one, at the end of its scope
    }
    ASSERT_EQ(2u, recording.seen.size());
    const timespec inner = recording.seen[0], outer = recording.seen[1];
    EXPECT_TRUE(isDuration(inner) && isDuration(outer));
    EXPECT_TRUE(notBefore(outer, inner));  // the outer scope encloses the inner one
}

template <class T>
std::string printed(T&& meterOrTimer)
{
    testing::internal::CaptureStderr(), meterOrTimer.print();
    return testing::internal::GetCapturedStderr();
}

TEST(ScopeTimerPrint, WritesSecondsAndNinePlacesOfNanoseconds)
{
    unsetenv("CSP_DEBUG_QUIET");  // read once, at the first message: nothing printed yet
    ltScopeMeter meter;
    feed(meter, {ts(1, 5000)});
    EXPECT_EQ("ltScopeTimer(): 1.000005000sec.\n", printed(meter));
    meter.resetTimers();
    feed(meter, {ts(0, 500000000), ts(0, 500000000)});
    EXPECT_EQ("ltScopeTimer(): 0.1000000000sec.\n", printed(meter));  // uncarried: ten digits (kept)

    const std::string text = printed(ltScopeTimer());
    EXPECT_TRUE(testing::internal::RE::FullMatch(text, "ltScopeTimer\\(\\): [0-9]+\\.[0-9]{9}sec\\.\n")) << text;
}

}  // namespace
