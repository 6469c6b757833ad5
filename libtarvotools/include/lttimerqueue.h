//===- lttimerqueue.h - Shared timers ordered by expiry -------------------===//
///
/// \class ltTimerQueue
/// ltTimerQueue keeps ltTimer records (lttimer.h) ordered by their absolute expiry time and
/// hands out, one call at a time, the timers that have expired at a given moment. It does no
/// waiting and owns no thread: its user asks getFirst() how long to sleep, then drains the due
/// timers after waking:
/// \code
///   boost::shared_ptr<ltTimer> t;
///   while (queue.getExpired(now, t) == 1)
///       fire(t);
/// \endcode
/// Each queued timer is held through one strong reference and is in the queue at most once.
/// Timers with equal expiry times leave in the order they were set (first set, first out).
/// All time arithmetic is done with the platform's cspOsal* time functions.
///
/// No lock is taken: every call on one queue, and every change to its timers, must come from
/// one thread or be serialised by the caller (for example under an ltGuard).
///
//===----------------------------------------------------------------------===//
#ifndef LTTIMERQUEUE_H
#define LTTIMERQUEUE_H

#include <list>

#include <boost/shared_ptr.hpp>

#include "csp_osal.h"
#include "ltexport.h"
#include "lttimer.h"

class LT_EXPORT ltTimerQueue {
public:
    /// An empty queue.
    ltTimerQueue();
    /// Drops the queue's references; timers kept alive elsewhere keep their active flag.
    virtual ~ltTimerQueue();

    /// (Re)schedules 'timer' to expire at the absolute time 'timeout' (nothing is added to it)
    /// and then every 'period' after that, and marks it active. An empty 'timer' receives a
    /// new timer first. A timer already queued moves to its new place; it is never queued twice.
    /// Returns the timer's 0-based position after insertion (0: it is the new head, so a
    /// sleeper must recompute its wait), or -ENOMEM (-12) when no timer or queue element could
    /// be had; the queue and the timer's schedule are then unchanged.
    int setTimer(boost::shared_ptr<ltTimer>& timer, const _cspOsalTime_struct& timeout,
                 const _cspOsalTime_struct& period);

    /// Takes 'timer' out of the queue and clears its active flag. Returns the 0-based position
    /// it stood at, or -2 when it was not queued (its active flag is then left alone).
    int removeTimer(boost::shared_ptr<ltTimer> timer);

    /// Takes every timer out, clearing their active flags. Returns 0 when something was
    /// removed and 1 when the queue was already empty (kept the right way round for callers).
    int removeAll();

    /// Hands out the earliest timer when it has expired at 'now' (a timeout equal to 'now'
    /// counts): returns 1 with the timer in 'out'. A repeating timer is re-armed to the first
    /// period boundary strictly after 'now' (missed periods are skipped, not replayed) and stays
    /// queued and active; a one-shot timer leaves the queue inactive and lives on in 'out'.
    /// Returns 0 with 'out' empty when nothing is due. Calling it until it returns 0 drains
    /// everything due at 'now'.
    int getExpired(const _cspOsalTime_struct& now, boost::shared_ptr<ltTimer>& out);

    /// The earliest timer, left queued: returns 1 with it in 'out', or 0 with 'out' empty.
    int getFirst(boost::shared_ptr<ltTimer>& out) const;

    /// True when that very timer object (pointer identity) is queued.
    bool isInQueue(boost::shared_ptr<ltTimer> timer) const;

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    using TimerList = std::list<boost::shared_ptr<ltTimer>>;

    // Moves the element holding 'timer' out of the queue into 'node', or allocates a new
    // element there when the timer is not queued. Throws std::bad_alloc only before anything
    // has changed.
    void detachOrMakeNode(const boost::shared_ptr<ltTimer>& timer, TimerList& node);

    // Splices the one element of 'node' in front of the first queued timer that expires
    // strictly later, and returns the number of elements left ahead of it.
    int insertSorted(TimerList& node);

    // Non-decreasing timeouts; equal timeouts in the order they were set. One reference per
    // element, one element per timer object.
    TimerList timers;
};

#endif // LTTIMERQUEUE_H
