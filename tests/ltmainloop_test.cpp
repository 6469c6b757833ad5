// The loop core: flag rules, the next wake-up, timers firing in slot order and re-arming from
// now, callbacks changing the tables, the walk used without the timer index, and members.
// Driven directly, without select().
#include "ltabstractmainloop.h"

#include <gtest/gtest.h>

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <new>
#include <random>
#include <vector>

#include "ltclock.h"

namespace {

using TimerEntry = ltAbstractMainLoop::TimerEntry;
const ltTime kNever(kLtTimeNever, 0);

struct CoreLoop : ltAbstractMainLoop {
    std::atomic<int> wakeups{0};
    void wakeupEventLoop() override { ++wakeups; }
    void exec() override {}
    void setNow(const ltTime& t)
    {
        pthread_mutex_lock(&timerMutex_);
        now_ = t;
        pthread_mutex_unlock(&timerMutex_);
    }
    // Fires the timers due at t, as a pass that read t from the clock does.
    void fireAt(const ltTime& t)
    {
        setNow(t);
        processTimeouts();
    }
    TimerEntry& timer(int idOrSlot) { return *static_cast<TimerEntry*>(timers_.slotFor(idOrSlot)); }
    // The earliest expiry of an armed slot (second 0 is the free key), by a walk.
    ltTime walkEarliest()
    {
        ltTime earliest = kNever;
        for (int i = 0; i < timers_.capacity; ++i)
            if (timer(i).expiry.sec != 0 && ltTimeBefore(timer(i).expiry, earliest))
                earliest = timer(i).expiry;
        return earliest;
    }
    using ltAbstractMainLoop::members_;
    using ltAbstractMainLoop::timers_;
};

struct Fired {
    int id;
    ltTime expiry;
};

struct Recorder {
    std::vector<Fired> fired;
    CoreLoop* loop = nullptr;
    bool removeSelf = false;
    bool addAnother = false;
    std::vector<int> ids() const
    {
        std::vector<int> v;
        for (const Fired& f : fired)
            v.push_back(f.id);
        return v;
    }
};

int record(int id, const ltTime& expiry, void* user)
{
    auto* r = static_cast<Recorder*>(user);
    r->fired.push_back({id, expiry});
    if (r->removeSelf)
        r->loop->removeTimer(id);
    if (r->addAnother) {
        r->addAnother = false;
        EXPECT_NE(0, r->loop->doAddTimer(timerPeriodic, ltTime::noTime, ltTime(100, 0), record, r));
    }
    return 0;
}

ltTime mono() { return lt_internal::monotonicNow(); }

// A wall-clock time offset from now by the given seconds.
ltTime wallIn(int seconds)
{
    ltTime t = lt_internal::wallClockNow();
    t.sec += seconds;
    return t;
}

int slotOf(int id) { return id & ((1 << 14) - 1); }  // ids carry a generation above the slot

TEST(TimerFlagRules, RefusedCombinationsAddNothingAndTheEndsOfTheRangeAreAccepted)
{
    CoreLoop loop;
    Recorder r;
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

TEST(NextWakeup, IsTheEarliestExpiryOnTheMonotonicClockAndNeverWithoutTimers)
{
    CoreLoop loop;
    Recorder r;
    EXPECT_EQ(kNever, loop.getNextWakeupTime());
    const ltTime before = mono();
    const int late = loop.doAddTimer(timerPeriodic, ltTime::noTime, ltTime(50, 0), record, &r);
    const int soon = loop.doAddTimer(timerAbsolute, wallIn(20), ltTime::noTime, record, &r);
    const ltTime after = mono();
    ASSERT_NE(0, late);
    ASSERT_NE(0, soon);
    EXPECT_TRUE(ltTimeNotAfter(ltTimeAdd(before, ltTime(19, 0)), loop.getNextWakeupTime()));
    EXPECT_TRUE(ltTimeNotAfter(loop.getNextWakeupTime(), ltTimeAdd(after, ltTime(21, 0))));
    loop.removeTimer(soon);  // the cached wake-up is computed again
    EXPECT_TRUE(ltTimeNotAfter(ltTimeAdd(before, ltTime(50, 0)), loop.getNextWakeupTime()));
    EXPECT_TRUE(ltTimeNotAfter(loop.getNextWakeupTime(), ltTimeAdd(after, ltTime(50, 0))));
    loop.removeTimer(late);
    EXPECT_EQ(kNever, loop.getNextWakeupTime());
}

struct TimerObject : ltTimerReceiver {
    std::vector<int> ids;
    int timerExpired(int id, const ltTime&) override
    {
        ids.push_back(id);
        return 0;
    }
};

// Callbacks run with no mutex held: a periodic timer removes itself and adds another.
TEST(TimerFiring, CallbacksMayRemoveThemselvesAndAddTimers)
{
    CoreLoop loop;
    Recorder r;
    r.loop = &loop;
    r.removeSelf = true;
    r.addAnother = true;
    const int id = loop.doAddTimer(timerPeriodic, ltTime::noTime, ltTime(1, 0), record, &r);
    TimerObject object;  // without a callback, userData is the receiver
    const int objectId = loop.addObjectTimer(timerAbsolute, wallIn(-1), ltTime::noTime, &object);
    loop.fireAt(ltTimeAdd(mono(), ltTime(2, 0)));
    EXPECT_EQ(std::vector<int>{id}, r.ids());
    EXPECT_EQ(std::vector<int>{objectId}, object.ids);
    EXPECT_EQ(1, loop.timers_.count);  // the timer the callback added
    loop.fireAt(ltTimeAdd(mono(), ltTime(3, 0)));
    EXPECT_EQ(1u, r.fired.size());
}

struct Burst {
    CoreLoop* loop;
    std::vector<int> fired;
    std::vector<int> added;
    int toAdd = 0;
};

// Records the firing; the first call adds 'toAdd' timers that are already due.
int fireAndAdd(int id, const ltTime&, void* user)
{
    auto* b = static_cast<Burst*>(user);
    b->fired.push_back(id);
    for (; b->toAdd > 0; --b->toAdd)
        b->added.push_back(b->loop->doAddTimer(timerAbsolute, wallIn(-100), ltTime::noTime, fireAndAdd, b));
    return 0;
}

std::vector<int> bySlot(std::vector<int> ids)
{
    std::sort(ids.begin(), ids.end(), [](int a, int b) { return slotOf(a) < slotOf(b); });
    return ids;
}

// Many timers, some removed, and a callback that adds due timers while the pass runs, so that
// the table grows under it: a timer added behind the pass, or beyond the capacity the pass
// started with, waits for the next one.
TEST(TimerFiring, ManyTimersFireInSlotOrderWhileCallbacksGrowTheTable)
{
    CoreLoop loop;
    std::mt19937 random(5);
    Burst b{&loop, {}, {}, 0};
    std::vector<int> due;
    for (int i = 0; i < 200; ++i) {
        const bool isDue = random() % 2 == 0;
        const int seconds = isDue ? -1 - static_cast<int>(random() % 50) : 60 + static_cast<int>(random() % 50);
        const int id = loop.doAddTimer(timerAbsolute, wallIn(seconds), ltTime::noTime, fireAndAdd, &b);
        ASSERT_NE(0, id);
        if (i % 5 == 4)
            loop.removeTimer(id);
        else if (isDue)
            due.push_back(id);
    }
    ASSERT_EQ(256, loop.timers_.capacity);
    due = bySlot(due);
    b.toAdd = 100;  // 160 + 100 entries: the table grows to 512 slots during the pass

    loop.fireAt(mono());
    ASSERT_EQ(512, loop.timers_.capacity);
    std::vector<int> first = due, second;
    for (int id : b.added) {
        ASSERT_NE(0, id);
        const bool ahead = slotOf(id) > slotOf(due[0]) && slotOf(id) < 256;
        (ahead ? first : second).push_back(id);
    }
    EXPECT_EQ(bySlot(first), b.fired);
    b.fired.clear();
    loop.fireAt(mono());
    EXPECT_EQ(bySlot(second), b.fired);
    // Only the timers that are not due are left; the next wake-up is the earliest of them.
    EXPECT_EQ(loop.walkEarliest(), loop.getNextWakeupTime());
    EXPECT_TRUE(ltTimeBefore(mono(), loop.getNextWakeupTime()));
}

struct NowMover {
    CoreLoop* loop;
    ltTime moveTo;
    std::vector<int> fired;
};

int moveNow(int id, const ltTime&, void* user)
{
    auto* m = static_cast<NowMover*>(user);
    m->fired.push_back(id);
    m->loop->setNow(m->moveTo);  // renews the cached now, as adding a relative timer does
    return 0;
}

TEST(TimerFiring, CachedNowRenewedByACallbackCountsForLaterSlots)
{
    CoreLoop loop;
    const ltTime now = mono();
    NowMover m{&loop, ltTimeAdd(now, ltTime(20, 0)), {}};
    const int first = loop.doAddTimer(timerAbsolute, wallIn(-1), ltTime::noTime, moveNow, &m);
    const int later = loop.doAddTimer(timerAbsolute | timerPeriodic, wallIn(10), ltTime(5, 0), moveNow, &m);
    ASSERT_LT(slotOf(first), slotOf(later));
    loop.fireAt(now);
    EXPECT_EQ((std::vector<int>{first, later}), m.fired);
    EXPECT_EQ(ltTimeAdd(now, ltTime(25, 0)), loop.getNextWakeupTime());  // re-armed from the new now
}

// What the loop does must be what a walk over its timer table does: the earliest armed expiry
// as the next wake-up; every armed slot whose expiry is not later than now fired once, in slot
// order (not expiry order), the callback seeing the old expiry; one-shots removed, periodic
// ones re-armed at now + period, missed periods not caught up. Random periods and nows around
// second 0 and below it, so that re-armed expiries land in second 0 and at negative times.
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
            // First expiry at a monotonic time of a few seconds either side of 0, never in second 0.
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
            // The walk, on a copy of the table taken before the pass.
            std::vector<int> due;
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
            r.fired.clear();
            loop.fireAt(now);
            ASSERT_EQ(due.size(), r.fired.size());
            ASSERT_EQ(count - oneShots, loop.timers_.count);  // one-shots leave the table
            for (size_t k = 0; k < due.size(); ++k) {
                const TimerEntry& old = before[static_cast<size_t>(due[k])];
                ASSERT_EQ(old.id, r.fired[k].id);
                ASSERT_EQ(old.expiry, r.fired[k].expiry);
                const ltTime expected = old.period.isNoTime() ? ltTime(0, old.expiry.usec) : ltTimeAdd(now, old.period);
                ASSERT_EQ(expected, loop.timer(due[k]).expiry);
            }
        }
        ASSERT_EQ(loop.walkEarliest(), loop.getNextWakeupTime()) << "step " << step;
    }
}

// When a growth of the table finds no memory for the index, the loop walks the table until an
// add finds it: the same timers fire, in the same order, and the same wake-up is found. An
// entry put into the table directly leaves the index behind in the same way.
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
    ASSERT_NE(0, extraId);
    ASSERT_EQ(128, loop.timers_.capacity);
    loop.timer(extraId).id = extraId;
    loop.removeTimer(pending[5]);  // a free slot among the armed ones
    pending.erase(pending.begin() + 5);

    EXPECT_EQ(loop.walkEarliest(), loop.getNextWakeupTime());
    loop.fireAt(mono());
    EXPECT_EQ(due, r.ids());
    EXPECT_EQ(static_cast<int>(pending.size()) + 1, loop.timers_.count);
    EXPECT_EQ(loop.walkEarliest(), loop.getNextWakeupTime());
    loop.removeTimer(pending.back());  // due the soonest
    EXPECT_EQ(loop.walkEarliest(), loop.getNextWakeupTime());
}

int countFired(int, const ltTime&, void* user)
{
    ++*static_cast<int*>(user);
    return 0;
}

// A table at its 16384-slot limit, then remove/add cycles with the probe cursor passing 2^31
// and 2^32 (ids carry its wraps above the slot): every id names its own slot, removal by id
// keeps working, and at the end each live timer fires exactly once.
TEST(TimerTable, FullTableKeepsWorkingThroughCursorWraps)
{
    CoreLoop loop;
    int fired = 0;
    constexpr int kSlots = 16384;
    std::vector<int> idOfSlot(kSlots, 0);
    int added = 0;
    for (int id; (id = loop.doAddTimer(timerPeriodic, ltTime::noTime, ltTime(100, 0), countFired, &fired)) != 0; ++added)
        idOfSlot[static_cast<size_t>(slotOf(id))] = id;
    ASSERT_EQ(kSlots - 1, added);  // 16384 slots at most, slot 0 never used

    for (uint32_t start : {0x7FFFF000u, 0xFFFFF000u}) {
        loop.timers_.cursor = static_cast<int32_t>(start);
        for (int cycle = 0; cycle < 8192; ++cycle) {
            // Free the slot the probe reaches next, so that each add finds it at once.
            int slot = static_cast<int>((static_cast<uint32_t>(loop.timers_.cursor) + 1) & (kSlots - 1));
            if (slot == 0)
                slot = 1;
            loop.removeTimer(idOfSlot[static_cast<size_t>(slot)]);
            const int id = loop.doAddTimer(timerPeriodic, ltTime::noTime, ltTime(100, 0), countFired, &fired);
            ASSERT_EQ(slot, slotOf(id));
            ASSERT_EQ(id, loop.timer(id).id);
            idOfSlot[static_cast<size_t>(slot)] = id;
        }
        ASSERT_EQ(kSlots - 1, loop.timers_.count);
    }
    loop.fireAt(ltTimeAdd(mono(), ltTime(1000, 0)));
    EXPECT_EQ(kSlots - 1, fired);
}

struct CountingMember : ltMainLoopMember {
    int processNextEvent() override { return 1; }
};

TEST(Members, RegistrationCodesAndAddressesWithAZeroLowHalf)
{
    CoreLoop loop;
    CountingMember m;
    const int id = loop.registerMainLoopMember(m);
    ASSERT_NE(0, id);
    EXPECT_EQ(0, loop.wakeups.load());  // registration does not wake the loop
    EXPECT_EQ(-1, loop.unregisterMainLoopMember(0, m));
    EXPECT_EQ(0, loop.unregisterMainLoopMember(id, m));
    EXPECT_EQ(0, loop.members_.count);
    EXPECT_EQ(0, loop.unregisterMainLoopMember(id, m));  // unknown now: still 0

    // A member whose address has a zero low half is not a free slot.
    if (sizeof(void*) == 4)
        GTEST_SKIP() << "only a 64-bit address can have a zero low half";
    void* at = reinterpret_cast<void*>(static_cast<uintptr_t>(uint64_t{1} << 36));
    void* p = mmap(at, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    if (p != at)
        GTEST_SKIP() << "could not map a page at 2^36";
    auto* high = new (p) CountingMember;
    const int highId = loop.registerMainLoopMember(*high);
    EXPECT_NE(0, highId);
    EXPECT_FALSE(loop.members_.isFree(loop.members_.slotFor(highId)));
    high->~CountingMember();
    munmap(p, 4096);
}

// ---- Opt-in: the relative one-shot timer ----------------------------------------------------

TEST(OneShotTimer, FiresOnceADelayAfterTheAddOnTheMonotonicClock)
{
    CoreLoop loop;
    Recorder r;
    EXPECT_EQ(0, loop.addOneShotTimer(ltTime::noTime, record, &r));
    const ltTime before = mono();
    const int id = loop.addOneShotTimer(ltTime(1, 500000), record, &r);
    const ltTime after = mono();
    ASSERT_NE(0, id);
    EXPECT_EQ(1, loop.wakeups.load());
    const ltTime due = loop.getNextWakeupTime();
    EXPECT_TRUE(ltTimeNotAfter(ltTimeAdd(before, ltTime(1, 500000)), due));
    EXPECT_TRUE(ltTimeNotAfter(due, ltTimeAdd(after, ltTime(1, 500000))));

    loop.fireAt(ltTimeAdd(due, ltTime(0, -1)));
    EXPECT_TRUE(r.fired.empty());
    loop.fireAt(due);
    loop.fireAt(ltTimeAdd(due, ltTime(10, 0)));
    ASSERT_EQ(1u, r.fired.size());  // once: it left the table when it fired
    EXPECT_EQ(id, r.fired[0].id);
    EXPECT_EQ(due, r.fired[0].expiry);
    EXPECT_EQ(0, loop.timers_.count);

    // Removed first, it never fires; without a callback its receiver is called; a delay of
    // zero or less is due on the next pass.
    loop.removeTimer(loop.addOneShotTimer(ltTime(0, 0), record, &r));
    TimerObject object;
    const int objectId = loop.addOneShotTimer(ltTime(-1, 0), nullptr, &object);
    loop.fireAt(mono());
    EXPECT_EQ(1u, r.fired.size());
    EXPECT_EQ(std::vector<int>{objectId}, object.ids);
    EXPECT_EQ(0, loop.timers_.count);
}

}  // namespace
