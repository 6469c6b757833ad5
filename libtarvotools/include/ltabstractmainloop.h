//===- ltabstractmainloop.h - Main loop without its waiting primitive -----===//
///
/// \class ltAbstractMainLoop
/// ltAbstractMainLoop implements everything of ltMainLoop that does not depend on how the
/// loop waits: three id tables (members, timers, I/O handles), each behind its own mutex, a
/// word of dirty flags, the cached current time, the next-wake-up computation and the firing
/// of expired timers. A concrete loop (ltLinuxSelectMainLoop) adds wakeupEventLoop() and
/// exec().
///
/// Locking: no operation holds two of the three mutexes at once, and none is held while a
/// callback or member runs, so callbacks may add or remove entries of any table, their own
/// included.
///
/// Time: expiries are kept on the monotonic clock. An absolute timer's wall-clock time is
/// turned into monotonic time when it is added.
///
/// Second 0: an expiry whose seconds are 0 is the free key of the timer table. A timer whose
/// first expiry falls in second 0 is refused (id 0); a periodic timer re-armed into second 0
/// (a negative period, or a monotonic clock in its first second) reads as a free slot from
/// then on: it fires no more, is never the next wake-up, removeTimer() ignores its id, its
/// slot stays counted and a later timer may take it over. Kept: the table has no other state.
///
/// Beside the timer table the loop keeps an index of the expiries (outside the object, which
/// has no room for it), so that finding the next wake-up or the next expired timer does not
/// walk every slot; it answers exactly as the walk does. Without memory for it the table is
/// walked.
///
//===----------------------------------------------------------------------===//
#ifndef LTABSTRACTMAINLOOP_H
#define LTABSTRACTMAINLOOP_H

#include <pthread.h>

#include <cstdint>

#include "ltexport.h"
#include "ltidtable.h"
#include "ltmainloop.h"

class LT_EXPORT ltAbstractMainLoop : public ltMainLoop {
public:
    /// Dirty flags.
    enum : uint32_t {
        kMembersChanged = 0x01,   ///< set on registration, and when an unregistration fails
        kTimersChanged = 0x02,    ///< set together with kWakeupStale
        kHandlesChanged = 0x04,   ///< the descriptor sets must be rebuilt
        kNowStale = 0x08,         ///< the cached now must be read again
        kWakeupStale = 0x10,      ///< the cached next wake-up must be computed again
        kInitialFlags = 0x1E,     ///< a new loop reads the clock, the timers and the handles
    };

    /// Member table entry: 3 words on a 32-bit build. On a 64-bit build the member word
    /// carries kMemberLive in its low bit, so that its key (the low 32 bits) is never 0, even
    /// for an address whose low half is 0; on a 32-bit build it is the plain address.
    struct MemberEntry {
        uintptr_t member;  ///< the ltMainLoopMember's address, ORed with kMemberLive
        int32_t id;        ///< the member's id
        uintptr_t unused;  ///< not used
    };
    /// Low bit of a member word in use; 0 where the key is the whole address.
    static constexpr uintptr_t kMemberLive = sizeof(uintptr_t) > sizeof(uint32_t) ? 1 : 0;

    /// Timer table entry: 7 words on a 32-bit build; free when expiry.sec is 0.
    struct TimerEntry {
        ltTime expiry;             ///< monotonic
        ltTime period;             ///< ltTime::noTime for a one-shot timer
        void* userData;            ///< passed to the callback
        ltTimerCallback callback;  ///< null: userData is an ltTimerReceiver
        int32_t id;                ///< the timer's id
    };

    /// I/O table entry: 5 words on a 32-bit build; free when fd is -1 (all ones).
    struct IOEntry {
        int32_t fd;                   ///< the watched descriptor; -1 marks a free slot
        void* userData;               ///< passed to the callback
        ltIOHandleCallback callback;  ///< null: userData is an ltIOHandleReceiver
        int32_t id;                   ///< the handle's id
        uint8_t stamp;                ///< handle generation of the last descriptor-set rebuild
        uint8_t type;                 ///< handleType_t
    };

    /// Builds the three mutexes and tables; all dirty flags but kMembersChanged are set.
    ltAbstractMainLoop();
    /// Destroys tables and mutexes; calls, notifies and frees nothing that was registered.
    ~ltAbstractMainLoop() override;

    int registerMainLoopMember(const ltMainLoopMember& member) override;
    int unregisterMainLoopMember(int id, const ltMainLoopMember& member) override;
    void removeIOHandle(int id) override;
    int addObjectTimer(timerFlags_t flags, const ltTime& first, const ltTime& period,
                       void* receiver) override
    {
        return doAddTimer(flags, first, period, nullptr, receiver);
    }
    void removeTimer(int id) override;
    ltTime getNextWakeupTime() override;
    void processTimeouts() override;
    int doAddTimer(timerFlags_t flags, const ltTime& first, const ltTime& period,
                   ltTimerCallback callback, void* userData) override;
    int doAddIOHandle(handleType_t type, handleFlags_t flags, int fd,
                      ltIOHandleCallback callback, void* userData) override;

    /// A one-shot timer that fires once, 'delay' after this call on the loop's monotonic
    /// clock ("in 1500 ms, once"): the relative one-shot timer that doAddTimer() has no flags
    /// for. Neither the wall clock nor a step of it has any say. callback may be null:
    /// userData is then an ltTimerReceiver. A delay of zero or less fires on the next pass.
    ///
    /// Returns the id, or 0 when delay is ltTime::noTime, the timer table is full or cannot
    /// grow (no memory), or the expiry falls in second 0 of the monotonic clock (see the
    /// class comment). The timer leaves the table when it fires, before its callback runs,
    /// or when removeTimer(id) removes it first; after either its id means nothing (a later
    /// timer may get it again). Any thread; wakes the loop like doAddTimer(), so that the
    /// new expiry takes effect at once. The callback runs on the loop thread, with no loop
    /// mutex held. The loop owns nothing of userData.
    int addOneShotTimer(const ltTime& delay, ltTimerCallback callback, void* userData);

protected:
    /// True when any of the dirty flags in f is set. Any thread.
    bool hasFlags(uint32_t f) const { return (__atomic_load_n(&flags_, __ATOMIC_RELAXED) & f) != 0; }
    /// Sets the dirty flags in f. Any thread.
    void setFlags(uint32_t f) { (void)__atomic_fetch_or(&flags_, f, __ATOMIC_RELAXED); }
    /// Clears the dirty flags in f. Any thread.
    void clearFlags(uint32_t f) { (void)__atomic_fetch_and(&flags_, ~f, __ATOMIC_RELAXED); }
    /// Reads the monotonic clock into the cached now (under the timer mutex) and clears
    /// kNowStale. Any thread; returns the time read.
    ltTime refreshNow();

    pthread_mutex_t membersMutex_;  ///< guards members_
    ltIdTable members_;             ///< MemberEntry; 8 slots growing to 4096
    pthread_mutex_t timerMutex_;    ///< guards timers_ and now_
    ltIdTable timers_;              ///< TimerEntry; 64 slots growing to 16384
    pthread_mutex_t ioMutex_;       ///< guards ioHandles_
    ltIdTable ioHandles_;           ///< IOEntry; 4 slots growing to 4096
    /// kMembersChanged ... kWakeupStale. No common lock: read and written only through the
    /// atomic builtins above.
    uint32_t flags_;
    /// Monotonic; what processTimeouts() compares against. Written and read under timerMutex_
    /// only, so that no reader sees half of a time another thread is writing. 'now' is not
    /// updated again until the next pass, or until a relative timer is added.
    ltTime now_;
    ltTime nextWakeup_;  ///< valid while kWakeupStale is clear; loop thread only
};

static_assert(sizeof(void*) != 4 || sizeof(ltAbstractMainLoop::MemberEntry) == 3 * 4,
              "a member entry is 3 words on a 32-bit build");
static_assert(sizeof(void*) != 4 || sizeof(ltAbstractMainLoop::TimerEntry) == 7 * 4,
              "a timer entry is 7 words on a 32-bit build");
static_assert(sizeof(void*) != 4 || sizeof(ltAbstractMainLoop::IOEntry) == 5 * 4,
              "an I/O entry is 5 words on a 32-bit build");
static_assert(sizeof(void*) != 4 || (sizeof(ltAbstractMainLoop) == 168 && alignof(ltAbstractMainLoop) == 4),
              "on a 32-bit build: the vtable pointer, three mutexes and tables, flags, now, next wake-up");

#endif // LTABSTRACTMAINLOOP_H
