//===- clockstep_test.cpp - The wall clock stepped under an armed loop ----===//
// A TV sets its wall clock from the broadcast long after boot, by years either way: armed expiries
// stay put and the loop neither spins nor stalls. libfaketime (preloaded by CTest) steps the clock.
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "drivenloop.h"
#include "ltcallbackeventhandler.h"
#include "ltevent.h"
#include "lteventmask.h"
#include "lteventqueue.h"

namespace {

constexpr long long kUsec = 1000000, kHour = 3600, kYear = 365 * 24 * kHour;
constexpr int kPassBudget = 60;               // a few passes per wait; a spinning loop runs thousands
constexpr long long kPatienceUs = 8 * kUsec;  // far beyond every expiry armed here

long long monoUs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * kUsec + ts.tv_nsec / 1000;
}

long long wallUs()
{
    timeval tv;
    gettimeofday(&tv, nullptr);
    return tv.tv_sec * kUsec + tv.tv_usec;
}

long long us(const ltTime& t) { return t.sec * kUsec + t.usec; }
ltTime fromUs(long long v) { return ltTime(static_cast<int32_t>(v / kUsec), static_cast<int32_t>(v % kUsec)); }

// A loop driven pass by pass under a wall clock of real time plus the offset in libfaketime's file.
class WallClockStep : public ::testing::Test {
protected:
    void SetUp() override
    {
        step(0);
        const long long before = wallUs();
        const bool stepped = step(kYear) && std::llabs(wallUs() - before - kYear * kUsec) < 60 * kUsec;
        if (!step(0) || !stepped)
            GTEST_SKIP() << "no libfaketime with FAKETIME_TIMESTAMP_FILE (CTest preloads it on native builds)";
        loop.begin();
    }
    void TearDown() override { step(0); }

    bool step(long long offsetSec)
    {
        FILE* f = file_ != nullptr ? std::fopen(file_, "w") : nullptr;
        return f != nullptr && (std::fprintf(f, "%+lld\n", offsetSec), std::fclose(f) == 0);
    }

    // Runs passes until done() holds, while a helper thread applies steps() after a short while
    // (the loop most likely blocked in select()). False when the loop spun (more passes than the
    // budget) or stalled (out of patience; a watchdog wakes a loop blocked for good).
    bool runUntil(const std::function<bool()>& done, const std::function<void()>& steps = nullptr)
    {
        std::atomic<bool> finished{false}, timedOut{false};
        const long long deadline = monoUs() + kPatienceUs;
        std::thread helper([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (steps)
                steps();
            for (; !finished.load(); std::this_thread::sleep_for(std::chrono::milliseconds(20)))
                if (monoUs() > deadline)
                    timedOut.store(true), loop.wakeupEventLoop();
        });
        int passes = 0;
        for (; !done() && !timedOut.load() && passes <= kPassBudget; ++passes)
            loop.waitingPass();
        finished.store(true);
        helper.join();
        EXPECT_LE(passes, kPassBudget) << "the loop spins";
        EXPECT_FALSE(timedOut.load()) << "the loop stalled";
        return done();
    }

    const char* file_ = std::getenv("FAKETIME_TIMESTAMP_FILE");
    DrivenLoop loop{false};
};

// A timer's firings, an event's deletions or a handler's lethal times, and when the last was. Each
// wakes the loop, so runUntil() sees the news even when no timer is left to end the select().
struct Seen {
    explicit Seen(ltMainLoop& l) : loop(l) {}
    void count()
    {
        ++n;
        atMonoUs = monoUs();
        loop.wakeupEventLoop();
    }
    ltMainLoop& loop;
    int n = 0, offered = 0;
    long long atMonoUs = 0;
};

int countFiring(int, const ltTime&, void* seen)
{
    static_cast<Seen*>(seen)->count();
    return 0;
}

TEST_F(WallClockStep, RelativeTimerKeepsItsMonotonicExpiry)
{
    Seen seen(loop);
    const ltTime period(0, 400000);
    const int id = loop.doAddTimer(timerPeriodic, ltTime::noTime, period, countFiring, &seen);
    ASSERT_NE(0, id);
    const ltTime armed = loop.getNextWakeupTime();
    for (long long offset : {10 * kYear, -20 * kYear, 6 * kHour}) {  // before the pass, and during the wait
        step(offset);
        EXPECT_EQ(us(armed), us(loop.getNextWakeupTime())) << "offset " << offset;
    }
    ASSERT_TRUE(runUntil([&] { return seen.n == 1; }, [&] { step(-7 * kYear); }));
    EXPECT_GE(seen.atMonoUs, us(armed));
    // Re-armed from the monotonic time of the firing pass, whatever the wall clock says.
    const ltTime rearmed = loop.getNextWakeupTime();
    EXPECT_GE(us(rearmed), us(armed) + us(period));
    EXPECT_LE(us(rearmed), seen.atMonoUs + us(period));
    ASSERT_TRUE(runUntil([&] { return seen.n == 2; }, [&] { step(25 * kYear); }));
    EXPECT_GE(seen.atMonoUs, us(rearmed));
    loop.removeTimer(id);
    EXPECT_EQ(kLtTimeNever, loop.getNextWakeupTime().sec);
}

TEST_F(WallClockStep, AbsoluteTimeIsTurnedIntoMonotonicTimeOnceWhenAdded)
{
    step(3 * kYear);
    Seen late(loop), soon(loop), periodic(loop), past(loop), barrier(loop);
    const long long monoBefore = monoUs(), wall = wallUs();
    const int lateId = loop.doAddTimer(timerAbsolute, fromUs(wall + kHour * kUsec), ltTime::noTime, countFiring, &late);
    ASSERT_NE(0, lateId);
    ASSERT_NE(0, loop.doAddTimer(timerAbsolute, fromUs(wall + 300000), ltTime::noTime, countFiring, &soon));
    const int periodicId = loop.doAddTimer(timerAbsolute | timerPeriodic, fromUs(wall + 200000),
                                           ltTime(0, 250000), countFiring, &periodic);
    ASSERT_NE(0, periodicId);
    // The earliest is the periodic timer: 200 ms after the wall clock was read, in monotonic time.
    const long long monoAfter = monoUs(), first = us(loop.getNextWakeupTime());
    EXPECT_GE(first, monoBefore + 200000 - 1);
    EXPECT_LE(first, monoAfter + 200000);

    // An hour forward makes the late timer's wall-clock time past; ten years back makes every
    // time far future. Neither moves an armed expiry.
    step(3 * kYear + kHour + 60);
    EXPECT_EQ(first, us(loop.getNextWakeupTime()));
    ASSERT_TRUE(runUntil([&] { return soon.n == 1 && periodic.n >= 2; }, [&] { step(-10 * kYear); }));
    EXPECT_EQ(0, late.n) << "an armed absolute timer followed the wall clock";

    // Added after the step, a wall-clock time one day past is due at once and fires once.
    ASSERT_NE(0, loop.doAddTimer(timerAbsolute, fromUs(wallUs() - 24 * kHour * kUsec), ltTime::noTime,
                                 countFiring, &past));
    ASSERT_TRUE(runUntil([&] { return past.n == 1; }));
    loop.removeTimer(periodicId);
    const int settled = periodic.n;
    // Passes after another timer due at once: nothing else fires again.
    ASSERT_NE(0, loop.doAddTimer(timerAbsolute, fromUs(wallUs()), ltTime::noTime, countFiring, &barrier));
    ASSERT_TRUE(runUntil([&] { return barrier.n == 1; }));
    EXPECT_EQ(std::make_tuple(1, 1, settled, 0), std::make_tuple(past.n, soon.n, periodic.n, late.n));
    // The late timer, an hour away in monotonic time, is the only one left.
    EXPECT_GT(us(loop.getNextWakeupTime()), monoUs() + (kHour - 60) * kUsec);
    loop.removeTimer(lateId);
    EXPECT_EQ(kLtTimeNever, loop.getNextWakeupTime().sec);
}

struct CountedEvent : ltEvent {
    CountedEvent(unsigned key, Seen& seen) : ltEvent(key, 0, 0, 0, nullptr, 0), seen(seen) {}
    ~CountedEvent() override { seen.count(); }
    Seen& seen;
};

// Keeps every event offered (it stays queued until its TTL removes it); counts lethal times.
int keepEvent(ltEventQueue&, ltEvent* event, int reason, void* seen)
{
    if (reason == ltEventHandler::kReasonLethalTime)
        static_cast<Seen*>(seen)->count();
    else if (event != nullptr)
        ++static_cast<Seen*>(seen)->offered;
    return reason == ltEventHandler::kReasonLethalTime ? 1 : 0;
}

ltEventMask* key1Is(unsigned key) { return new ltEventMask(ltEventMask::kMaskNone, 1, 4, key, 0); }

// TTL and lethal timers are absolute times computed from the queue's monotonic known time: their
// monotonic expiry is known + ttl - (wall - mono) at the moment they are armed.
TEST_F(WallClockStep, TtlAndLethalTimeKeepTheExpiryTheyWereArmedWith)
{
    ltEventQueue queue(loop);
    const int member = loop.registerMainLoopMember(queue);
    ASSERT_NE(0, member);
    Seen keep(loop), lethal(loop);
    ASSERT_NE(0u, queue.addEventHandlerFunction(keepEvent, key1Is(1), &keep, 0,
                                                ltEventHandler::kPersistent | ltEventHandler::kOwnsMask));

    // With today's wall clock the expiry lies decades before the monotonic now: the event expires
    // on the next pass, before the queue could offer it.
    ASSERT_EQ(0, queue.post(*new CountedEvent(1, keep), 60000));
    EXPECT_LT(loop.getNextWakeupTime().sec, 0);
    loop.waitingPass();
    EXPECT_EQ(std::make_tuple(1, 0), std::make_tuple(keep.n, keep.offered));

    // With the wall clock about a second behind the monotonic one, they lie in the future. The
    // bracketed difference of the two clocks holds until the next step.
    step(0);
    step(-1 - (wallUs() - monoUs()) / kUsec);
    const long long m1 = monoUs(), w = wallUs(), m2 = monoUs();
    const ltTime known = queue.getKnownTime();
    const long long beforePost = monoUs();
    ASSERT_EQ(0, queue.post(*new CountedEvent(1, keep), 500));
    // The post reads the wall clock, then the monotonic one: the time between them adds.
    const long long ttlLow = us(known) + 500000 - (w - m1);
    const long long ttlHigh = us(known) + 500000 - (w - m2) + (monoUs() - beforePost);
    EXPECT_GE(us(loop.getNextWakeupTime()), ttlLow - 1);
    EXPECT_LE(us(loop.getNextWakeupTime()), ttlHigh + 1);
    const unsigned long long lethalId =
        queue.addEventHandlerFunction(keepEvent, key1Is(2), &lethal, 800, ltEventHandler::kOwnsMask);
    ASSERT_NE(0u, lethalId);
    const long long lethalLow = us(queue.getKnownTime()) + 800000 - (w - m1);
    const ltTime armed = loop.getNextWakeupTime();

    for (long long offset : {7 * kYear, -25 * kYear, -5 * kHour})
        step(offset);
    EXPECT_EQ(us(armed), us(loop.getNextWakeupTime()));
    ASSERT_TRUE(runUntil([&] { return keep.n == 2 && lethal.n == 1; }, [&] { step(11 * kYear); }));
    EXPECT_EQ(1, keep.offered);  // offered once, kept, expired
    EXPECT_GE(keep.atMonoUs, ttlLow);
    EXPECT_GE(lethal.atMonoUs, lethalLow);
    EXPECT_EQ(0, queue.removeEventHandlers(lethalId, 0, nullptr, true));  // dropped after its lethal time
    EXPECT_EQ(kLtTimeNever, loop.getNextWakeupTime().sec);
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, nullptr, true));
    EXPECT_EQ(0, loop.unregisterMainLoopMember(member, queue));
}

}  // namespace
