//===- ltabstractmainloop.cpp - Tables, timers and dirty flags of a loop --===//
#include "ltabstractmainloop.h"

#include <new>

#include "ltclock.h"
#include "ltmutexlock.h"
#include "ltprobes.h"
#include "ltsidetable.h"
#include "lttimerindex.h"

using lt_internal::MutexLock;
using lt_internal::TimerIndex;

namespace {

// Table geometry: initial and largest sizes as powers of two.
constexpr int kMemberBits = 3, kMemberMaxBits = 12;  // 8 .. 4096
constexpr int kTimerBits = 6, kTimerMaxBits = 14;    // 64 .. 16384
constexpr int kIOBits = 2, kIOMaxBits = 12;          // 4 .. 4096

using TimerEntry = ltAbstractMainLoop::TimerEntry;

template <typename Entry>
Entry* entryAt(const ltIdTable& table, int idOrIndex)
{
    return static_cast<Entry*>(table.slotFor(idOrIndex));
}

// The walk's test for a slot in use: expiry second 0 is the free key. A periodic timer
// re-armed into second 0 thus reads as free everywhere, and the index must agree.
bool armed(const TimerEntry* e) { return e->expiry.sec != 0; }

// Each loop's timer index, found by the loop's address: the loop's layout has no room for it.
// Built in place and never destroyed, so that a loop destroyed during exit still finds it.
lt_internal::SideTable<TimerIndex>& timerIndexes()
{
    alignas(lt_internal::SideTable<TimerIndex>) static unsigned char storage[sizeof(lt_internal::SideTable<TimerIndex>)];
    static auto* const table = new (storage) lt_internal::SideTable<TimerIndex>;
    return *table;
}

// The index of 'loop' when it covers exactly the timer table's slots; null when the loop has
// none or the last growth found no memory for it: the table is walked then. Caller holds the
// timer mutex.
TimerIndex* currentIndex(const void* loop, const ltIdTable& timers)
{
    TimerIndex* index = timerIndexes().find(loop);
    if (index == nullptr || timers.capacity == 0 || index->slots() != timers.capacity)
        return nullptr;
    return index;
}

// Rebuilds the index after the table was built or grew (or after an earlier attempt found no
// memory). Caller holds the timer mutex, or is the constructor.
void syncIndex(const void* loop, const ltIdTable& timers)
{
    TimerIndex* index = timerIndexes().find(loop);
    if (index == nullptr || timers.capacity == 0 || index->slots() == timers.capacity)
        return;
    if (!index->reset(timers.capacity))
        return;  // walked without it until a later addition finds the memory
    index->rebuild([&timers](int slot) -> const ltTime* {
        const TimerEntry* e = entryAt<TimerEntry>(timers, slot);
        return armed(e) ? &e->expiry : nullptr;
    });
}

// Records the state of slot's entry in the index. Caller holds the timer mutex.
void indexSlot(TimerIndex* index, const ltIdTable& timers, int slot)
{
    if (index == nullptr)
        return;
    const TimerEntry* e = entryAt<TimerEntry>(timers, slot);
    if (armed(e))
        index->set(slot, e->expiry);
    else
        index->clear(slot);
}

// The first slot at or after 'from' holding a timer that has expired at 'now', or 'capacity'
// when there is none below it. Caller holds the timer mutex.
int nextDueTimer(TimerIndex* index, const ltIdTable& timers, int from, int capacity, const ltTime& now)
{
    if (index != nullptr) {
        const int slot = index->firstDue(from, now);
        return slot < capacity ? slot : capacity;
    }
    for (int slot = from; slot < capacity; ++slot) {
        const TimerEntry* e = entryAt<TimerEntry>(timers, slot);
        if (armed(e) && ltTimeNotAfter(e->expiry, now))
            return slot;
    }
    return capacity;
}

// Puts a timer into the table and its index; returns its id, or 0. Caller holds the timer
// mutex and sets the dirty flags on success.
int putTimer(const void* loop, ltIdTable& timers, TimerEntry entry)
{
    const int id = timers.putMember(&entry);
    if (id == 0)
        return 0;
    entryAt<TimerEntry>(timers, id)->id = id;
    syncIndex(loop, timers);  // the table may have grown
    indexSlot(currentIndex(loop, timers), timers, id & (timers.capacity - 1));
    return id;
}

}  // namespace

ltAbstractMainLoop::ltAbstractMainLoop()
    : members_(sizeof(MemberEntry), kMemberBits, kMemberMaxBits, /*freeIsZero=*/true),
      timers_(sizeof(TimerEntry), kTimerBits, kTimerMaxBits, /*freeIsZero=*/true),
      ioHandles_(sizeof(IOEntry), kIOBits, kIOMaxBits, /*freeIsZero=*/false),
      flags_(kInitialFlags),
      now_(0, 0),
      nextWakeup_(kLtTimeNever, 0)
{
    // Default attributes: pthread_mutex_init cannot fail on Linux, so there is nothing to
    // undo. A table whose allocation failed hands out no ids.
    (void)pthread_mutex_init(&membersMutex_, nullptr);
    (void)pthread_mutex_init(&timerMutex_, nullptr);
    (void)pthread_mutex_init(&ioMutex_, nullptr);

    // Without its index (no memory for it) the loop walks the timer table.
    TimerIndex* index = new (std::nothrow) TimerIndex;
    if (index != nullptr && !timerIndexes().bind(this, index))
        delete index;
    syncIndex(this, timers_);
}

ltAbstractMainLoop::~ltAbstractMainLoop()
{
    TimerIndex* index = timerIndexes().find(this);
    timerIndexes().unbind(this);
    delete index;
    (void)pthread_mutex_destroy(&ioMutex_);
    (void)pthread_mutex_destroy(&timerMutex_);
    (void)pthread_mutex_destroy(&membersMutex_);
}

ltTime ltAbstractMainLoop::refreshNow()
{
    ltTime now;
    {
        // Read under the mutex, as a relative add does: the cached now never goes back, so
        // it is never earlier than the 'now' a pass fires its timers against (were it, the
        // pass would wait for timers that the cached now does not see as due).
        MutexLock lock(timerMutex_);
        now = lt_internal::monotonicNow();
        now_ = now;
    }
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
        indexSlot(currentIndex(this, timers_), timers_, id & (timers_.capacity - 1));
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
    } else if (!periodic || period.isNoTime()) {
        return 0;  // no relative one-shot timer through the flags: addOneShotTimer() is that
    }

    int id;
    {
        MutexLock lock(timerMutex_);
        if (!absolute) {
            // The clock is read under the mutex, so that the cached now never goes back (see
            // refreshNow()).
            now_ = lt_internal::monotonicNow();
            clearFlags(kNowStale);
            expiry = ltTimeAdd(now_, period);
        }
        // A first expiry in second 0 reads as a free slot: the table refuses such an entry.
        id = putTimer(this, timers_, {expiry, periodic || !absolute ? period : ltTime::noTime, userData, callback, 0});
        if (id != 0)
            setFlags(kTimersChanged | kWakeupStale);
    }
    wakeupEventLoop();  // even on failure: harmless, and the caller sees no difference
    return id;
}

int ltAbstractMainLoop::addOneShotTimer(const ltTime& delay, ltTimerCallback callback, void* userData)
{
    if (delay.isNoTime())
        return 0;
    int id;
    {
        // The cached now is left alone: the expiry is measured from this call, and the pass
        // that fires it reads the clock afresh.
        const ltTime expiry = ltTimeAdd(lt_internal::monotonicNow(), delay);
        MutexLock lock(timerMutex_);
        id = putTimer(this, timers_, {expiry, ltTime::noTime, userData, callback, 0});
        if (id != 0)
            setFlags(kTimersChanged | kWakeupStale);
    }
    wakeupEventLoop();
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
    if (TimerIndex* index = currentIndex(this, timers_)) {
        ltTime earliest;
        if (index->earliest(earliest) && ltTimeBefore(earliest, next))
            next = earliest;
    } else {
        for (int i = 0; i < timers_.capacity; ++i) {
            const TimerEntry* e = entryAt<TimerEntry>(timers_, i);
            if (armed(e) && ltTimeBefore(e->expiry, next))
                next = e->expiry;
        }
    }
    nextWakeup_ = next;
    clearFlags(kWakeupStale);
    return next;
}

void ltAbstractMainLoop::processTimeouts()
{
    MutexLock lock(timerMutex_);
    if (timers_.count == 0 || timers_.capacity == 0)
        return;
    // While the cached next wake-up is valid it is the earliest expiry in the table: nothing
    // can have expired before it.
    if (!hasFlags(kWakeupStale) && ltTimeBefore(now_, nextWakeup_))
        return;

    const int capacity = timers_.capacity;  // slots added while firing wait for the next call
    // The cached now is read afresh for every slot: a callback adding a relative timer renews it.
    for (int i = 0;; ++i) {
        const ltTime now = now_;
        TimerIndex* index = currentIndex(this, timers_);  // a callback may have grown the table
        i = nextDueTimer(index, timers_, i, capacity, now);
        if (i >= capacity)
            break;
        TimerEntry* e = entryAt<TimerEntry>(timers_, i);  // re-read: a callback may have moved the table
        if (!armed(e) || !ltTimeNotAfter(e->expiry, now))
            continue;  // the index rounds one expiry down by a microsecond: it only proposes
        const TimerEntry fired = *e;
        if (fired.period.isNoTime()) {
            (void)timers_.removeMember(fired.id);  // the slot is in use: cannot fail
            setFlags(kTimersChanged | kWakeupStale);
        } else {
            // Re-armed from now, not from the old expiry: a late timer shifts its schedule
            // instead of catching up. Kept: callers rely on it. A re-armed expiry in second 0
            // reads as a free slot from then on, as everywhere else: the timer fires no more.
            e->expiry = ltTimeAdd(now, fired.period);
            setFlags(kWakeupStale);
        }
        indexSlot(index, timers_, i);
        lock.unlock();  // the callback may add or remove timers, its own included
        LT_PROBE(loop__timer, this, fired.id, fired.expiry.sec, fired.expiry.usec, fired.callback, fired.userData);
        if (fired.callback != nullptr)
            (void)fired.callback(fired.id, fired.expiry, fired.userData);  // result ignored
        else
            (void)static_cast<ltTimerReceiver*>(fired.userData)->timerExpired(fired.id, fired.expiry);
        lock.lock();
    }
}
