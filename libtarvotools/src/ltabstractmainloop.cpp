//===- ltabstractmainloop.cpp - Tables, timers and dirty flags of a loop --===//
#include "ltabstractmainloop.h"

#include <cstring>

#include "ltclock.h"
#include "ltmutexlock.h"

using lt_internal::MutexLock;

namespace {

// Table geometry: initial and largest sizes as powers of two.
constexpr int kMemberBits = 3, kMemberMaxBits = 12;  // 8 .. 4096
constexpr int kTimerBits = 6, kTimerMaxBits = 14;    // 64 .. 16384
constexpr int kIOBits = 2, kIOMaxBits = 12;          // 4 .. 4096

template <typename Entry>
Entry* entryAt(const ltIdTable& table, int idOrIndex)
{
    return static_cast<Entry*>(table.slotFor(idOrIndex));
}

}  // namespace

ltTime ltAbstractMainLoop::CachedTime::load() const
{
    const uint64_t bits = bits_.load(std::memory_order_relaxed);
    ltTime t;
    std::memcpy(&t, &bits, sizeof t);
    return t;
}

void ltAbstractMainLoop::CachedTime::store(const ltTime& t)
{
    uint64_t bits;
    std::memcpy(&bits, &t, sizeof bits);
    bits_.store(bits, std::memory_order_relaxed);
}

ltAbstractMainLoop::ltAbstractMainLoop()
    : members_(sizeof(MemberEntry), kMemberBits, kMemberMaxBits, /*freeIsZero=*/true),
      timers_(sizeof(TimerEntry), kTimerBits, kTimerMaxBits, /*freeIsZero=*/true),
      ioHandles_(sizeof(IOEntry), kIOBits, kIOMaxBits, /*freeIsZero=*/false),
      flags_(kInitialFlags),
      now_(ltTime(0, 0)),
      nextWakeup_(kLtTimeNever, 0),
      timerInUse_()
{
    // Default attributes: pthread_mutex_init cannot fail on Linux, so there is nothing to
    // undo. A table whose allocation failed hands out no ids.
    (void)pthread_mutex_init(&membersMutex_, nullptr);
    (void)pthread_mutex_init(&timerMutex_, nullptr);
    (void)pthread_mutex_init(&ioMutex_, nullptr);
}

ltAbstractMainLoop::~ltAbstractMainLoop()
{
    (void)pthread_mutex_destroy(&ioMutex_);
    (void)pthread_mutex_destroy(&timerMutex_);
    (void)pthread_mutex_destroy(&membersMutex_);
}

void ltAbstractMainLoop::markTimerSlot(int id, bool inUse)
{
    const uint32_t slot = static_cast<uint32_t>(id) & (timers_.capacity - 1u);
    const uint64_t bit = uint64_t{1} << (slot % 64);
    if (inUse)
        timerInUse_[slot / 64] |= bit;
    else
        timerInUse_[slot / 64] &= ~bit;
}

// The first slot in use at or after 'from', or 'capacity' when there is none.
int ltAbstractMainLoop::nextTimerInUse(int from, int capacity) const
{
    if (from >= capacity)
        return capacity;
    int word = from / 64;
    uint64_t bits = timerInUse_[word] & (~uint64_t{0} << (from % 64));
    const int words = (capacity + 63) / 64;
    while (bits == 0) {
        if (++word >= words)
            return capacity;
        bits = timerInUse_[word];
    }
    const int slot = word * 64 + __builtin_ctzll(bits);
    return slot < capacity ? slot : capacity;
}

ltTime ltAbstractMainLoop::refreshNow()
{
    const ltTime now = lt_internal::monotonicNow();
    now_.store(now);
    clearFlags(kNowStale);
    return now;
}

int ltAbstractMainLoop::registerMainLoopMember(const ltMainLoopMember& member)
{
    MemberEntry entry = {reinterpret_cast<uintptr_t>(&member) | kMemberLive, 0, 0};
    MutexLock lock(membersMutex_);
    const int id = members_.putMember(&entry);
    if (id != 0) {
        entryAt<MemberEntry>(members_, id)->id = id;
        setFlags(kMembersChanged);
    }
    return id;
}

int ltAbstractMainLoop::unregisterMainLoopMember(int id, const ltMainLoopMember& /*member*/)
{
    if (id == 0)
        return -1;
    MutexLock lock(membersMutex_);
    // The flag is set only when the removal fails: kept as it always was, nothing reads it.
    if (members_.removeMember(id) != 0)
        setFlags(kMembersChanged);
    return 0;
}

void ltAbstractMainLoop::removeIOHandle(int id)
{
    if (id == 0)
        return;
    MutexLock lock(ioMutex_);
    if (ioHandles_.removeMember(id) == 0)
        setFlags(kHandlesChanged);
}

void ltAbstractMainLoop::removeTimer(int id)
{
    if (id == 0)
        return;
    MutexLock lock(timerMutex_);
    if (timers_.removeMember(id) == 0) {
        markTimerSlot(id, false);
        setFlags(kTimersChanged | kWakeupStale);
    }
}

int ltAbstractMainLoop::doAddTimer(timerFlags_t flags, const ltTime& first, const ltTime& period,
                                   ltTimerCallback callback, void* userData)
{
    const bool absolute = (flags & timerAbsolute) != 0;
    const bool periodic = (flags & timerPeriodic) != 0;
    ltTime expiry;
    if (absolute) {
        if (first.isNoTime() || (periodic && period.isNoTime()))
            return 0;
        ltTime rel = first;
        rel -= lt_internal::wallClockNow();
        // The cached now is not touched here.
        expiry = ltTimeAdd(lt_internal::monotonicNow(), rel);
    } else {
        if (!periodic || period.isNoTime())
            return 0;  // there is no relative one-shot timer: such callers pass an absolute time
        expiry = ltTimeAdd(refreshNow(), period);
    }

    TimerEntry entry = {expiry, periodic || !absolute ? period : ltTime::noTime, userData, callback, 0};
    int id;
    {
        MutexLock lock(timerMutex_);
        id = timers_.putMember(&entry);
        if (id != 0) {
            entryAt<TimerEntry>(timers_, id)->id = id;
            markTimerSlot(id, true);
            setFlags(kTimersChanged | kWakeupStale);
        }
    }
    wakeupEventLoop();  // even on failure: harmless, and the caller sees no difference
    return id;
}

int ltAbstractMainLoop::doAddIOHandle(handleType_t type, handleFlags_t /*flags*/, int fd,
                                      ltIOHandleCallback callback, void* userData)
{
    IOEntry entry = {fd, userData, callback, 0, /*stamp=*/0, static_cast<uint8_t>(type)};
    int id;
    {
        MutexLock lock(ioMutex_);
        id = ioHandles_.putMember(&entry);
        if (id != 0) {
            entryAt<IOEntry>(ioHandles_, id)->id = id;
            setFlags(kHandlesChanged);
        }
    }
    wakeupEventLoop();
    return id;
}

ltTime ltAbstractMainLoop::getNextWakeupTime()
{
    if (!hasFlags(kWakeupStale))
        return nextWakeup_;
    ltTime next(kLtTimeNever, 0);
    MutexLock lock(timerMutex_);
    const int capacity = timers_.capacity;
    for (int i = nextTimerInUse(0, capacity); i < capacity; i = nextTimerInUse(i + 1, capacity)) {
        const TimerEntry* e = entryAt<TimerEntry>(timers_, i);
        if (ltTimeBefore(e->expiry, next))
            next = e->expiry;
    }
    nextWakeup_ = next;
    clearFlags(kWakeupStale);
    return next;
}

void ltAbstractMainLoop::processTimeouts()
{
    const ltTime now = now_.load();
    // While the cached next wake-up is valid it is the earliest expiry in the table: nothing
    // can have expired before it.
    if (!hasFlags(kWakeupStale) && ltTimeBefore(now, nextWakeup_))
        return;

    MutexLock lock(timerMutex_);
    if (timers_.count == 0 || timers_.capacity == 0)
        return;
    const int capacity = timers_.capacity;  // slots added while firing wait for the next call
    for (int i = nextTimerInUse(0, capacity); i < capacity; i = nextTimerInUse(i + 1, capacity)) {
        TimerEntry* e = entryAt<TimerEntry>(timers_, i);  // re-read: a callback may have moved the table
        if (!ltTimeNotAfter(e->expiry, now))
            continue;
        const TimerEntry fired = *e;
        if (fired.period.isNoTime()) {
            (void)timers_.removeMember(fired.id);  // the slot is in use: cannot fail
            markTimerSlot(fired.id, false);
            setFlags(kTimersChanged | kWakeupStale);
        } else {
            // Re-armed from now, not from the old expiry: a late timer shifts its schedule
            // instead of catching up. Kept: callers rely on it.
            e->expiry = ltTimeAdd(now, fired.period);
            setFlags(kWakeupStale);
        }
        lock.unlock();  // the callback may add or remove timers, its own included
        if (fired.callback != nullptr)
            (void)fired.callback(fired.id, fired.expiry, fired.userData);  // result ignored
        else
            (void)static_cast<ltTimerReceiver*>(fired.userData)->timerExpired(fired.id, fired.expiry);
        lock.lock();
    }
}
