// The loop core driven without select(): timer flags, firing order, re-arming, the next wake-up.
#include "ltabstractmainloop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <functional>
#include <random>
#include <vector>

#include "ltclock.h"
#include "ltmutexlock.h"

namespace {

using TimerEntry = ltAbstractMainLoop::TimerEntry;
const ltTime kNever(kLtTimeNever, 0);

struct CoreLoop : ltAbstractMainLoop {
    std::atomic<int> wakeups{0};
    void wakeupEventLoop() override { ++wakeups; }
    void exec() override {}
    void setNow(const ltTime& t) { lt_internal::MutexLock lock(timerMutex_); now_ = t; }
    void fireAt(const ltTime& t) { setNow(t), processTimeouts(); }  // a pass that read t
    TimerEntry& timer(int idOrSlot) { return *static_cast<TimerEntry*>(timers_.slotFor(idOrSlot)); }
    ltTime walkEarliest()  // of the armed slots (second 0 is the free key)
    {
        ltTime earliest = kNever;
        for (int i = 0; i < timers_.capacity; ++i)
            if (timer(i).expiry.sec != 0 && ltTimeBefore(timer(i).expiry, earliest))
                earliest = timer(i).expiry;
        return earliest;
    }
    using ltAbstractMainLoop::timers_;
};

// Records each firing, then runs 'then' (no mutex is held).
struct Recorder : ltTimerReceiver {
    std::vector<int> ids;
    std::vector<ltTime> expiries;
    std::function<void(int)> then;
    void clear() { ids.clear(), expiries.clear(); }
    int timerExpired(int id, const ltTime& expiry) override
    {
        ids.push_back(id), expiries.push_back(expiry);
        if (then)
            then(id);
        return 0;
    }
};

int record(int id, const ltTime& expiry, void* user) { return static_cast<Recorder*>(user)->timerExpired(id, expiry); }

ltTime mono() { return lt_internal::monotonicNow(); }

ltTime wallIn(int seconds) { return ltTimeAdd(lt_internal::wallClockNow(), ltTime(seconds, 0)); }

int slotOf(int id) { return id & ((1 << 14) - 1); }  // ids carry a generation above the slot

TEST(TimerFlagRules, RefusedCombinationsAddNothingAndTheEndsOfTheRangeAreAccepted)
{
    CoreLoop loop;
    Recorder r;
    EXPECT_EQ(kNever, loop.getNextWakeupTime());
    const struct {
        unsigned flags;
        ltTime first, period;
        bool accepted;
    } rows[] = {
        {0, wallIn(1), {1, 0}, false},  // there is no relative one-shot timer
        {timerPeriodic, {0, 0}, ltTime::noTime, false},
        {timerAbsolute, ltTime::noTime, {1, 0}, false},
        {timerAbsolute | timerPeriodic, wallIn(1), ltTime::noTime, false},
        {timerPeriodic, {0, 0}, {-1, 0}, true},  // not noTime: both fields must be all ones
        {timerAbsolute, wallIn(5), ltTime::noTime, true},
        {timerPeriodic, ltTime::noTime, {INT32_MAX, 999999}, true},  // no overflow (UBSan)
        {timerAbsolute, {INT32_MIN, -999999}, ltTime::noTime, true},
        {timerAbsolute | timerPeriodic, {INT32_MAX, 999999}, {INT32_MAX, INT32_MAX}, true},
    };
    int accepted = 0;
    for (const auto& row : rows) {
        const int id = loop.doAddTimer(static_cast<timerFlags_t>(row.flags), row.first, row.period, record, &r);
        EXPECT_EQ(row.accepted, id != 0) << "flags " << row.flags << " period " << row.period.sec;
        accepted += id != 0;
    }
    EXPECT_EQ(accepted, loop.timers_.count);
    EXPECT_EQ(accepted, loop.wakeups.load());  // a refused combination does not wake the loop
    EXPECT_EQ(loop.walkEarliest(), loop.getNextWakeupTime());
    loop.fireAt(mono());
}

// A callback renews the cached now and grows the table under the pass: later slots see the new
// now; a timer added behind the pass, or beyond the capacity it started with, waits.
TEST(TimerFiring, CallbacksRenewingNowAndGrowingTheTableCountForLaterSlots)
{
    CoreLoop loop;
    const ltTime now = mono();
    Recorder r;
    std::vector<int> added;
    r.then = [&](int) {
        loop.setNow(ltTimeAdd(now, ltTime(20, 0)));
        while (added.size() < 70)
            added.push_back(loop.doAddTimer(timerAbsolute, wallIn(-100), ltTime::noTime, record, &r));
    };
    const int first = loop.doAddTimer(timerAbsolute, wallIn(-1), ltTime::noTime, record, &r);
    const int later = loop.doAddTimer(timerAbsolute | timerPeriodic, wallIn(10), ltTime(5, 0), record, &r);
    ASSERT_LT(slotOf(first), slotOf(later));
    loop.fireAt(now);
    ASSERT_EQ(128, loop.timers_.capacity);
    std::vector<int> expected = {first, later}, next;
    for (int id : added)
        (slotOf(id) > slotOf(first) && slotOf(id) < 64 ? expected : next).push_back(id);
    EXPECT_EQ(expected, r.ids);
    r.clear();
    loop.fireAt(ltTimeAdd(now, ltTime(20, 0)));
    EXPECT_EQ(next, r.ids);
    EXPECT_EQ(ltTimeAdd(now, ltTime(25, 0)), loop.getNextWakeupTime());  // re-armed from the new now
}

// Against a walk over the table: the earliest armed expiry is the next wake-up; each due slot fires
// once in slot order; one-shots leave, periodic ones re-arm at now + period (nows around 0).
TEST(TimerFiring, LoopAnswersAsAWalkOverItsTable)
{
    std::mt19937 random(17);
    auto near = [&](int span) { return ltTime(static_cast<int32_t>(random() % (2 * span + 1)) - span,
                                              static_cast<int32_t>(random() % 3) * 400000); };
    CoreLoop loop;
    Recorder r;
    std::vector<int> ids;
    for (int step = 0; step < 3000; ++step) {
        const unsigned op = random() % 4;
        if (op == 0 && loop.timers_.count < 300) {
            ltTime period = near(3);
            if (period.sec < 0)
                period.usec = -period.usec;  // keep the normal form
            if (random() % 4 == 0)
                period = ltTime::noTime;
            // First expiry a few monotonic seconds either side of 0, never in second 0.
            ltTime at(static_cast<int32_t>(random() % 3) + 1, 400000);
            if (random() % 2 == 0)
                at = ltTime(-at.sec, -at.usec);
            ltTime first = lt_internal::wallClockNow();
            first -= mono();
            const int id = loop.doAddTimer(timerAbsolute | (period.isNoTime() ? static_cast<timerFlags_t>(0) : timerPeriodic),
                                           ltTimeAdd(first, at), period, record, &r);
            ASSERT_NE(0, id);
            ids.push_back(id);
        } else if (op == 1 && !ids.empty()) {
            const size_t k = random() % ids.size();
            loop.removeTimer(ids[k]);
            ids.erase(ids.begin() + static_cast<long>(k));
        } else {
            const ltTime now = near(4);
            std::vector<int> due;  // the walk, on a copy of the table taken before the pass
            std::vector<TimerEntry> before;
            int oneShots = 0;
            for (int i = 0; i < loop.timers_.capacity; ++i) {
                before.push_back(loop.timer(i));
                if (loop.timer(i).expiry.sec != 0 && ltTimeNotAfter(loop.timer(i).expiry, now)) {
                    due.push_back(i);
                    oneShots += loop.timer(i).period.isNoTime();
                }
            }
            const int count = loop.timers_.count;
            r.clear();
            loop.fireAt(now);
            ASSERT_EQ(due.size(), r.ids.size());
            ASSERT_EQ(count - oneShots, loop.timers_.count);  // one-shots leave the table
            for (size_t k = 0; k < due.size(); ++k) {
                const TimerEntry& old = before[static_cast<size_t>(due[k])];
                ASSERT_EQ(old.id, r.ids[k]);
                ASSERT_EQ(old.expiry, r.expiries[k]);
                const ltTime expected = old.period.isNoTime() ? ltTime(0, old.expiry.usec) : ltTimeAdd(now, old.period);
                ASSERT_EQ(expected, loop.timer(due[k]).expiry);
            }
        }
        ASSERT_EQ(loop.walkEarliest(), loop.getNextWakeupTime()) << "step " << step;
    }
}

// An entry put into the table directly leaves the index behind (as a failed growth does).
TEST(TimerFiring, WalkWithoutTheIndexFiresWhatTheIndexWould)
{
    CoreLoop loop;
    Recorder r;
    std::vector<int> due, pending;
    for (int i = 0; i < 63; ++i) {  // the 63 usable slots of the first 64
        const int id = loop.doAddTimer(timerAbsolute, wallIn(i % 3 == 0 ? -1 : 100 - i), ltTime::noTime, record, &r);
        ASSERT_NE(0, id);
        (i % 3 == 0 ? due : pending).push_back(id);
    }
    TimerEntry extra = {ltTimeAdd(mono(), ltTime(500, 0)), ltTime::noTime, &r, record, 0};
    const int extraId = loop.timers_.putMember(&extra);
    ASSERT_TRUE(extraId != 0 && loop.timers_.capacity == 128);
    loop.timer(extraId).id = extraId;
    loop.removeTimer(pending[5]);  // a free slot among the armed ones
    pending.erase(pending.begin() + 5);

    EXPECT_EQ(loop.walkEarliest(), loop.getNextWakeupTime());
    loop.fireAt(mono());
    EXPECT_EQ(due, r.ids);
    EXPECT_EQ(static_cast<int>(pending.size()) + 1, loop.timers_.count);
    EXPECT_EQ(loop.walkEarliest(), loop.getNextWakeupTime());
    loop.removeTimer(pending.back());  // due the soonest
    EXPECT_EQ(loop.walkEarliest(), loop.getNextWakeupTime());
}

// A table filled to its 16384-slot limit (slot 0 is never used): each timer fires once.
TEST(TimerTable, FillsToItsLimitAndFiresEachTimerOnce)
{
    CoreLoop loop;
    Recorder r;
    int added = 0;
    while (loop.doAddTimer(timerPeriodic, ltTime::noTime, ltTime(100, 0), record, &r) != 0)
        ++added;
    ASSERT_EQ(16383, added);
    loop.fireAt(ltTimeAdd(mono(), ltTime(1000, 0)));
    EXPECT_EQ(16383u, r.ids.size());
}

TEST(OneShotTimer, FiresOnceADelayAfterTheAddOnTheMonotonicClock)
{
    CoreLoop loop;
    Recorder r;
    EXPECT_EQ(0, loop.addOneShotTimer(ltTime::noTime, record, &r));
    const ltTime before = mono(), delay(1, 500000);
    const int id = loop.addOneShotTimer(delay, record, &r);
    const ltTime after = mono();
    ASSERT_NE(0, id);
    EXPECT_EQ(1, loop.wakeups.load());
    const ltTime due = loop.getNextWakeupTime();
    EXPECT_TRUE(ltTimeNotAfter(ltTimeAdd(before, delay), due) && ltTimeNotAfter(due, ltTimeAdd(after, delay)));

    loop.fireAt(ltTimeAdd(due, ltTime(0, -1)));
    EXPECT_TRUE(r.ids.empty());
    loop.fireAt(due);
    loop.fireAt(ltTimeAdd(due, ltTime(10, 0)));
    EXPECT_EQ(std::vector<int>{id}, r.ids);  // once: it left the table when it fired
    EXPECT_EQ(std::vector<ltTime>{due}, r.expiries);
    EXPECT_EQ(0, loop.timers_.count);

    // Removed, it never fires; a receiver is called without a callback; a delay <= 0 is due.
    loop.removeTimer(loop.addOneShotTimer(ltTime(0, 0), record, &r));
    Recorder object;
    const int objectId = loop.addOneShotTimer(ltTime(-1, 0), nullptr, &object);
    loop.fireAt(mono());
    EXPECT_EQ(1u, r.ids.size());
    EXPECT_EQ(std::vector<int>{objectId}, object.ids);
    EXPECT_EQ(0, loop.timers_.count);
}

}  // namespace
