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
//===----------------------------------------------------------------------===//
#ifndef LTABSTRACTMAINLOOP_H
#define LTABSTRACTMAINLOOP_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "ltexport.h"
#include "ltidtable.h"
#include "ltmainloop.h"

namespace lt_internal {
class TimerIndex;
}

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

    /// Member table entry: 3 words on a 32-bit build. The member word carries kMemberLive in
    /// its low bit, so that its key (the low 32 bits) is never 0, even for a 64-bit address
    /// whose low half is 0.
    struct MemberEntry {
        uintptr_t member;  ///< the ltMainLoopMember's address, ORed with kMemberLive
        int32_t id;        ///< the member's id
        uintptr_t unused;  ///< not used
    };
    static constexpr uintptr_t kMemberLive = 1;  ///< low bit of a member word in use

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

protected:
    /// The cached now, one 64-bit word so that a reader on the loop thread never sees half of
    /// a time written by a thread adding a timer.
    class CachedTime {
    public:
        /// Holds t.
        explicit CachedTime(const ltTime& t) { store(t); }
        /// The time last stored. Any thread.
        ltTime load() const;
        /// Replaces the time in one 64-bit store. Any thread.
        void store(const ltTime& t);

    private:
        std::atomic<uint64_t> bits_;
    };

    /// True when any of the dirty flags in f is set.
    bool hasFlags(uint32_t f) const { return (flags_.load(std::memory_order_relaxed) & f) != 0; }
    /// Sets the dirty flags in f; any thread.
    void setFlags(uint32_t f) { flags_.fetch_or(f, std::memory_order_relaxed); }
    /// Clears the dirty flags in f; any thread.
    void clearFlags(uint32_t f) { flags_.fetch_and(~f, std::memory_order_relaxed); }
    /// Reads the monotonic clock into the cached now and clears kNowStale.
    ltTime refreshNow();

    pthread_mutex_t membersMutex_;  ///< guards members_
    ltIdTable members_;             ///< MemberEntry; 8 slots growing to 4096
    pthread_mutex_t timerMutex_;    ///< guards timers_ and timerIndex_
    ltIdTable timers_;              ///< TimerEntry; 64 slots growing to 16384
    pthread_mutex_t ioMutex_;       ///< guards ioHandles_
    ltIdTable ioHandles_;           ///< IOEntry; 4 slots growing to 4096
    std::atomic<uint32_t> flags_;   ///< kMembersChanged ... kWakeupStale; no common lock
    CachedTime now_;                ///< monotonic; what processTimeouts() compares against
    ltTime nextWakeup_;             ///< valid while kWakeupStale is clear; loop thread only

    /// The earliest expiry over ranges of timer slots, kept beside the timer table under the
    /// timer mutex, so that finding the next wake-up or the next expired timer does not walk
    /// the table. Null, or covering fewer slots than the table, when its memory could not be
    /// had: the table is walked then.
    lt_internal::TimerIndex* timerIndex_;

private:
    bool timerIndexCurrent() const;
    void syncTimerIndex();
    void indexTimer(int slot, const TimerEntry* entry);
    int nextDueTimer(int from, int capacity, const ltTime& now) const;
};

static_assert(sizeof(void*) != 4 || sizeof(ltAbstractMainLoop::MemberEntry) == 3 * 4,
              "a member entry is 3 words on a 32-bit build");
static_assert(sizeof(void*) != 4 || sizeof(ltAbstractMainLoop::TimerEntry) == 7 * 4,
              "a timer entry is 7 words on a 32-bit build");
static_assert(sizeof(void*) != 4 || sizeof(ltAbstractMainLoop::IOEntry) == 5 * 4,
              "an I/O entry is 5 words on a 32-bit build");

#endif // LTABSTRACTMAINLOOP_H
