//===- ltmainloop.h - The main loop interface -----------------------------===//
///
/// \file
/// ltMainLoop is the interface of a single-threaded event loop that fires timers, watches
/// file descriptors and runs registered members on every pass. Any thread may add and remove
/// timers, descriptors and members; only the loop thread (the one in exec(), or in run() of
/// ltLinuxSelectMainLoop) runs callbacks, and it never holds a loop mutex while doing so.
///
/// Ids of timers, descriptors and members are non-zero (negative once the generation in their
/// top bits has grown that far); 0 means failure. Ids are meaningful only within their own
/// kind, and unique among the entries a table holds.
///
/// The order of the virtual operations is part of the interface: every main loop keeps it.
///
/// The loop owns nothing it is given: members, receivers and user data stay the caller's and
/// must outlive their registration.
///
//===----------------------------------------------------------------------===//
#ifndef LTMAINLOOP_H
#define LTMAINLOOP_H

#include "ltexport.h"
#include "ltmainloopmember.h"
#include "lttime.h"

/// Timer flags, combined with |.
enum timerFlags_t {
    timerAbsolute = 0x1,  ///< 'first' is an absolute wall-clock time (as from gettimeofday)
    timerPeriodic = 0x2,  ///< the timer repeats every 'period'
};

/// What a watched descriptor is watched for.
enum handleType_t {
    handleRead = 0,       ///< ready for reading
    handleWrite = 1,      ///< ready for writing
    handleException = 2,  ///< an exceptional condition
    // 3 is accepted and stored, but such a handle is never watched.
};

/// Accepted and ignored; not stored.
enum handleFlags_t {
    handleNoFlags = 0,  ///< the only value callers pass
};

/// A timer callback: (timer id, the expiry that fired, user data). The result is ignored.
typedef int (*ltTimerCallback)(int id, const ltTime& expiry, void* userData);
/// A descriptor callback: (handle id, fd, user data). The result is ignored.
typedef int (*ltIOHandleCallback)(int id, int fd, void* userData);

/// Receiver of a timer added without a callback: its user data points to one of these, and
/// the loop calls its first virtual operation.
class LT_EXPORT ltTimerReceiver {
public:
    /// Called on the loop thread with the timer's id and the expiry that fired; the result is
    /// ignored. Must stay the first virtual operation: the loop calls that slot.
    virtual int timerExpired(int id, const ltTime& expiry) = 0;
    virtual ~ltTimerReceiver();
};

/// Receiver of a descriptor added without a callback.
class LT_EXPORT ltIOHandleReceiver {
public:
    /// Called on the loop thread with the handle's id and fd; the result is ignored. Must stay
    /// the first virtual operation: the loop calls that slot.
    virtual int ioReady(int id, int fd) = 0;
    virtual ~ltIOHandleReceiver();
};

/// The main loop interface; see the file comment. ltLinuxSelectMainLoop is the one loop.
class LT_EXPORT ltMainLoop {
public:
    /// Calls, notifies and frees nothing that was registered.
    virtual ~ltMainLoop();

    /// Registers a member to be run on every pass. Returns its id, or 0. Does not wake the
    /// loop. Any thread.
    virtual int registerMainLoopMember(const ltMainLoopMember& member) = 0;
    /// Removes a member; the member argument is not used. -1 for id 0, else 0 whether or not
    /// the id was known. Any thread.
    virtual int unregisterMainLoopMember(int id, const ltMainLoopMember& member) = 0;
    /// Makes a loop blocked in its wait start a new pass. Any thread.
    virtual void wakeupEventLoop() = 0;
    /// Stops watching a descriptor; unknown ids and 0 are ignored. No wake-up. Any thread.
    virtual void removeIOHandle(int id) = 0;
    /// A timer without a callback: receiver is an ltTimerReceiver. Any thread; wakes the loop.
    virtual int addObjectTimer(timerFlags_t flags, const ltTime& first, const ltTime& period,
                               void* receiver) = 0;
    /// Removes a timer; unknown ids and 0 are ignored. No wake-up. Any thread.
    virtual void removeTimer(int id) = 0;
    /// Runs the loop on the calling thread. Never returns.
    virtual void exec() = 0;
    /// Earliest armed expiry (monotonic), or (kLtTimeNever, 0). Loop thread only.
    virtual ltTime getNextWakeupTime() = 0;
    /// Fires every expired timer once, in slot order, not expiry order; a one-shot timer is
    /// removed first. A periodic timer is re-armed one period after the current time, not
    /// after its last expiry, so late firings shift its schedule instead of catching up
    /// (kept: callers rely on it). Loop thread only.
    virtual void processTimeouts() = 0;
    /// Adds a timer. flags: timerAbsolute with 'first' a wall-clock time (one-shot, or
    /// periodic with timerPeriodic and a period), or timerPeriodic alone (first expiry one
    /// period from now). Returns the id, or 0 for a rejected combination, a noTime argument
    /// or a full table. Any thread; wakes the loop, even when the timer was rejected.
    virtual int doAddTimer(timerFlags_t flags, const ltTime& first, const ltTime& period,
                           ltTimerCallback callback, void* userData) = 0;
    /// Watches fd (not -1) for 'type'. callback may be null: userData is then an
    /// ltIOHandleReceiver. flags are ignored. Returns the id, or 0. Any thread; wakes the loop.
    virtual int doAddIOHandle(handleType_t type, handleFlags_t flags, int fd,
                              ltIOHandleCallback callback, void* userData) = 0;

    /// doAddTimer() under its usual name.
    int addTimer(timerFlags_t flags, const ltTime& first, const ltTime& period,
                 ltTimerCallback callback, void* userData)
    {
        return doAddTimer(flags, first, period, callback, userData);
    }
    /// doAddIOHandle() with no flags and a callback.
    int addIOHandle(handleType_t type, int fd, ltIOHandleCallback callback, void* userData)
    {
        return doAddIOHandle(type, handleNoFlags, fd, callback, userData);
    }
    /// doAddIOHandle() with no flags and a receiver instead of a callback.
    int addObjectIOHandle(handleType_t type, int fd, ltIOHandleReceiver* receiver)
    {
        return doAddIOHandle(type, handleNoFlags, fd, nullptr, receiver);
    }
};

/// Combines timer flags: timerAbsolute | timerPeriodic.
inline timerFlags_t operator|(timerFlags_t a, timerFlags_t b)
{
    return static_cast<timerFlags_t>(static_cast<int>(a) | static_cast<int>(b));
}

#endif // LTMAINLOOP_H
