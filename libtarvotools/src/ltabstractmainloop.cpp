//===- ltabstractmainloop.cpp - Tables, timers and dirty flags of a loop --===//
#include "ltabstractmainloop.h"

#include <cstring>
#include <new>

#include "ltclock.h"
#include "ltmutexlock.h"
#include "lttimerindex.h"

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
      timerIndex_(new (std::nothrow) lt_internal::TimerIndex)
{
    // Default attributes: pthread_mutex_init cannot fail on Linux, so there is nothing to
    // undo. A table whose allocation failed hands out no ids.
    (void)pthread_mutex_init(&membersMutex_, nullptr);
    (void)pthread_mutex_init(&timerMutex_, nullptr);
    (void)pthread_mutex_init(&ioMutex_, nullptr);
    syncTimerIndex();
}

ltAbstractMainLoop::~ltAbstractMainLoop()
{
    (void)pthread_mutex_destroy(&ioMutex_);
    (void)pthread_mutex_destroy(&timerMutex_);
    (void)pthread_mutex_destroy(&membersMutex_);
    delete timerIndex_;
}

// True when the index covers exactly the timer table's slots. Caller holds timerMutex_.
bool ltAbstractMainLoop::timerIndexCurrent() const
{
    return timerIndex_ != nullptr && timers_.capacity != 0 && timerIndex_->slots() == timers_.capacity;
}

// Rebuilds the index after the table was built or grew (or after an earlier attempt found no
// memory). Caller holds timerMutex_, or is the constructor.
void ltAbstractMainLoop::syncTimerIndex()
{
    if (timerIndex_ == nullptr || timers_.capacity == 0 || timerIndex_->slots() == timers_.capacity)
        return;
    if (!timerIndex_->reset(timers_.capacity))
        return;  // walked without it until a later addition finds the memory
    timerIndex_->rebuild([this](int slot) -> const ltTime* {
        const TimerEntry* e = entryAt<TimerEntry>(timers_, slot);
        return e->expiry.sec != 0 ? &e->expiry : nullptr;
    });
}

// Records slot's entry (null: the slot is free) in the index. Caller holds timerMutex_.
void ltAbstractMainLoop::indexTimer(int slot, const TimerEntry* entry)
{
    if (!timerIndexCurrent())
        return;
    if (entry != nullptr)
        timerIndex_->set(slot, entry->expiry);
    else
        timerIndex_->clear(slot);
}

// The first slot at or after 'from' holding a timer that has expired at 'now', or 'capacity'
// when there is none below it. Caller holds timerMutex_.
int ltAbstractMainLoop::nextDueTimer(int from, int capacity, const ltTime& now) const
{
    if (timerIndexCurrent()) {
        const int slot = timerIndex_->firstDue(from, now);
        return slot < capacity ? slot : capacity;
    }
    for (int slot = from; slot < capacity; ++slot) {
        const TimerEntry* e = entryAt<TimerEntry>(timers_, slot);
        if (e->expiry.sec != 0 && ltTimeNotAfter(e->expiry, now))
            return slot;
    }
    return capacity;
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
        indexTimer(id & (timers_.capacity - 1), nullptr);
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
            TimerEntry* e = entryAt<TimerEntry>(timers_, id);
            e->id = id;
            syncTimerIndex();  // the table may have grown
            indexTimer(id & (timers_.capacity - 1), e);
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
    if (timerIndexCurrent()) {
        ltTime earliest;
        if (timerIndex_->earliest(earliest) && ltTimeBefore(earliest, next))
            next = earliest;
    } else {
        for (int i = 0; i < timers_.capacity; ++i) {
            const TimerEntry* e = entryAt<TimerEntry>(timers_, i);
            if (e->expiry.sec != 0 && ltTimeBefore(e->expiry, next))
                next = e->expiry;
        }
    }
    nextWakeup_ = next;
    clearFlags(kWakeupStale);
    return next;
}

void ltAbstractMainLoop::processTimeouts()
{
    // While the cached next wake-up is valid it is the earliest expiry in the table: nothing
    // can have expired before it.
    if (!hasFlags(kWakeupStale) && ltTimeBefore(now_.load(), nextWakeup_))
        return;

    MutexLock lock(timerMutex_);
    if (timers_.count == 0 || timers_.capacity == 0)
        return;
    const int capacity = timers_.capacity;  // slots added while firing wait for the next call
    // The cached now is read afresh for every slot: a callback adding a relative timer renews it.
    for (int i = 0;; ++i) {
        const ltTime now = now_.load();
        i = nextDueTimer(i, capacity, now);
        if (i >= capacity)
            break;
        TimerEntry* e = entryAt<TimerEntry>(timers_, i);  // re-read: a callback may have moved the table
        if (e->expiry.sec == 0 || !ltTimeNotAfter(e->expiry, now))
            continue;  // the index rounds one expiry down by a microsecond: it only proposes
        const TimerEntry fired = *e;
        if (fired.period.isNoTime()) {
            (void)timers_.removeMember(fired.id);  // the slot is in use: cannot fail
            indexTimer(i, nullptr);
            setFlags(kTimersChanged | kWakeupStale);
        } else {
            // Re-armed from now, not from the old expiry: a late timer shifts its schedule
            // instead of catching up. Kept: callers rely on it.
            e->expiry = ltTimeAdd(now, fired.period);
            indexTimer(i, e);
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
