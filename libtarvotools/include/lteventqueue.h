//===- lteventqueue.h - Events dispatched to handlers on the main loop -----===//
///
/// \class ltEventQueue
/// An ltEventQueue holds posted events and a priority-ordered list of handlers, and hands each
/// event to the handlers whose masks match it. It is bound to one main loop and is a member
/// of it: register it with loop.registerMainLoopMember(queue) (the queue does not register
/// itself), and the loop calls processNextEvent() on every pass until it reports that nothing
/// is left. Any thread may post; dispatch happens on the loop thread.
///
/// The road of one event: post() stamps it with the queue's known time, arms a main-loop
/// timer for its time to live if one is given, appends it and wakes the loop. On the loop
/// thread processNextEvent() takes the first event not put back at the current known time,
/// offers it to the matching handlers by priority and deletes it once no handler keeps it;
/// the TTL timer removes and deletes an event that waited too long.
///
/// Threads and locks: one mutex guards the event vector (and the known time, which changes
/// with it). It is never held while a handler, an event's destructor or any user code runs.
/// The handler list, the id counter and the dispatch depth are used without a lock: add and
/// remove handlers on the loop thread, or before the loop runs. post() holds the mutex from
/// arming an event's TTL timer until the event is in the vector, and the TTL timer callback
/// takes the mutex too, so an expiring event is always one that is queued. The loop thread
/// takes the oldest events out in batches of up to 32 under one lock and dispatches them one
/// by one; until dispatched they still count as queued for the max size.
///
/// Ownership: a posted event and an added handler belong to the queue, which deletes them
/// through their virtual destructors (a handler with kNotOwned excepted). Where the queue
/// itself deletes a handler (after an invocation, in removeEventHandlers(..., true), after its
/// lethal time), the handler's lethal timer goes with it: removed from the loop if it has not
/// fired, so that it never reaches freed memory. A handler that leaves and survives (kNotOwned,
/// or removed with destroy false) keeps its lethal timer: at its lethal time it is invoked
/// with reason 1 and then, unless persistent, deleted (id reset with kNotOwned) like one still
/// in the queue. Do not delete such a handler yourself before its lethal time has passed.
/// The destructor deletes neither events nor handlers and removes no timers: unregister the
/// queue and let its timers pass before destroying it.
///
/// Handlers may post, add and remove handlers and call processNextEvent() during their
/// invocation. After it, a non-persistent handler is taken out of the list by identity,
/// wherever the list has moved it (or not at all when it has left it), never by the index
/// it was invoked at, which may hold another handler by then. What the queue deletes meanwhile
/// is not touched again when the invocation returns: a handler deleted by removeEventHandlers()
/// from inside its own invocation is neither removed nor deleted a second time, and an event
/// whose TTL timer fires while it is being dispatched (only when a handler runs the loop's
/// timers itself) is offered to no further handler and deleted, with its timer removed, when
/// its dispatch ends.
///
/// Things a caller must know (kept: existing applications rely on them):
///   - An event that a handler keeps (result 0), or that no handler matches, is put back
///     with the known time of its dispatch and is not offered again while the known time
///     equals that time. The known time is renewed only after processNextEvent() has found
///     the queue empty, which cannot happen while the put-back event is queued: a put-back
///     event is not offered again while the queue never becomes empty, and stays until its
///     TTL expires (for ever without one). Meanwhile posted events are stamped with the old
///     known time. An event put back by a dispatch that began before the queue was found
///     empty (a handler that called processNextEvent() itself, on a queue holding nothing
///     else) carries the old time and is offered again, in its place in arrival order.
///   - TTLs and lethal times are computed from the known time, which is monotonic, but armed
///     as absolute (wall-clock) timers. The wall clock is far ahead of the monotonic one, so
///     such a timer is already due and expires on the loop's next pass, whatever its length:
///     an event posted with a TTL is deleted on the next pass unless a handler finishes it
///     first (timers fire before members run, so it usually never reaches a handler), and a
///     handler with a lethal time is invoked with reason 1 and, unless persistent, dropped.
///     useMonotonicTimeouts() makes a queue measure both from now instead.
///   - The max queue size test is strictly greater: one event beyond it is accepted.
///   - When a non-persistent handler is removed after its invocation, the handler that moves
///     into its index is not offered the current event.
///   - A handler's owner is never cleared: a removed handler cannot be added again.
///
/// The order of the virtual operations is part of the interface: processNextEvent, the
/// destructor, post, removeEventHandlers, addEventHandler(prio, h), getMaxQueueSize,
/// setMaxQueueSize.
///
//===----------------------------------------------------------------------===//
#ifndef LTEVENTQUEUE_H
#define LTEVENTQUEUE_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "lfcvector.h"
#include "ltcallbackeventhandler.h"
#include "ltevent.h"
#include "lteventhandler.h"
#include "ltexport.h"
#include "ltmainloop.h"
#include "ltmainloopmember.h"
#include "lttime.h"

class LT_EXPORT ltEventQueue : public ltMainLoopMember {
public:
    static constexpr int kDefaultMaxQueueSize = 4000;   ///< max queue size of a new queue
    static constexpr int kVectorInitialCapacity = 500;  ///< of the event and handler vectors
    static constexpr int kVectorGrowBy = 15;            ///< growth step of both vectors

    /// Binds the queue to loop; max size 4000. Does not register with the loop.
    explicit ltEventQueue(ltMainLoop& loop);

    /// Takes the first event, in arrival order, not put back at the current known time and
    /// dispatches it (see the file comment). 0 when an event was taken; -1 with errno EAGAIN
    /// when none could be taken. The known time is marked stale when the queue is found empty,
    /// so an event that a dispatch under way puts back afterwards is offered again. Loop
    /// thread only; a handler may call it for the queue that invokes it.
    int processNextEvent() override;
    /// Destroys the mutex and the vectors; queued events and handlers are not deleted and
    /// their timers not removed.
    ~ltEventQueue() override;

    /// Queues event, with a time to live of ttlMs milliseconds (0: none), and wakes the loop.
    /// 0 on success: the queue owns the event, do not touch it any more. -1 with errno EAGAIN
    /// when more than the max size are queued, EBUSY when the event already has an owner,
    /// ENOMEM when the queue cannot get the memory for it (the event is then untouched and
    /// still the caller's); -1 with errno untouched when the TTL timer cannot be added (the
    /// event then keeps this queue as its owner and cannot be posted again). Any thread.
    virtual int post(ltEvent& event, unsigned int ttlMs);
    /// Removes every handler that matches: not null, equal to handler if one is given, group
    /// tag 0 or equal to group if group is not 0, and exactly this id if id is not 0. Removed
    /// handlers are deleted when destroy is true (kNotOwned is not consulted here), and their
    /// lethal timers removed with them; with destroy false they keep their lethal timers (see
    /// the file comment). Returns how many were removed. Loop thread only.
    virtual int removeEventHandlers(unsigned long long id, int group, ltEventHandler* handler, bool destroy);
    /// Adds h with priority prio after every handler of priority prio or more, so higher
    /// priorities are invoked first and equal ones in the order added; arms a timer for its
    /// lethal time if it has one. Returns its id (the first is 2), or 0 with errno EBUSY when
    /// h already belongs to a queue (EINVAL for null, ENOMEM when the queue cannot get the
    /// memory for it; h is then not added and still the caller's). Loop thread only.
    virtual unsigned long long addEventHandler(int prio, ltEventHandler* h);
    ///@{
    /// Events queued beyond this are refused; 0 or less: unbounded. Any thread.
    virtual int getMaxQueueSize() const;
    virtual void setMaxQueueSize(int size);
    ///@}

    /// addEventHandler(0, h).
    unsigned long long addEventHandler(ltEventHandler* h);
    /// Adds an ltCallbackEventHandler(mask, userData, no lethal time, flags, cb) with priority
    /// 0; a lethalMs other than 0 sets its lethal time to the known time plus lethalMs. Returns
    /// the id, or 0 (errno ENOMEM; the mask stays the caller's). Loop thread only.
    unsigned long long addEventHandlerFunction(ltEventHandlerCallback cb, ltEventMask* mask,
                                               void* userData, unsigned int lethalMs, int flags);
    /// From this call on (on: true), TTLs and lethal times are measured from now on the
    /// loop's monotonic clock, which the wall clock and its steps do not touch:
    ///   - post(event, ttlMs) with ttlMs other than 0: the event expires ttlMs after the post()
    ///     call (not on the next pass). Its time stamp and lethal-time fields are set from the
    ///     known time as before; only the timer differs.
    ///   - addEventHandler(prio, h) with a lethal time: h's lethal time is a duration, and h
    ///     reaches it that long after addEventHandler() (a duration of zero or less: on the
    ///     next pass). Seconds -1 still mean none. addEventHandlerFunction() with lethalMs
    ///     other than 0 sets the lethal time to lethalMs as such a duration.
    /// What happens at expiry, and who deletes what, is unchanged. With on false, later posts
    /// and additions go back to the kept behaviour (see the file comment); timers armed
    /// before a change keep the meaning they were armed with.
    ///
    /// On the library's own loops (ltAbstractMainLoop and its subclasses) the timers are
    /// addOneShotTimer() timers. Any other ltMainLoop gets a timerAbsolute timer at wall-clock
    /// now plus the duration, which such a loop turns into its own clock when it is added.
    ///
    /// Any thread; takes effect for the post() and addEventHandler() calls that begin after
    /// it returns. Off for a new queue. Without memory for the queue's bookkeeping (made by
    /// the constructor, tried again here) the setting is not kept and the queue stays as it
    /// was.
    void useMonotonicTimeouts(bool on = true);

    /// The known time: the monotonic time read when it was last stale, kept until
    /// processNextEvent() finds the queue empty. Any thread.
    ltTime getKnownTime() const;

    // Timer callbacks given to the main loop.
    /// An event's TTL has passed: it is removed from its queue, its TTL timer is removed from
    /// the loop (removeTimer() with the event's timer id) and it is deleted; its handlers are
    /// not told. On the library's own loops, which have taken the fired timer out already,
    /// the timer that fired is not removed again: its id may name a newer timer by then. An
    /// event being dispatched at that moment is deleted when its dispatch ends instead.
    /// Returns 0. Loop thread.
    static int cbEventTimeOut(int id, const ltTime& expiry, void* event);
    /// A handler's lethal time has passed: it is invoked with reason 1, then, unless
    /// persistent, removed from the handler list if it is still there and deleted, or its id
    /// reset to 0 with kNotOwned. That holds also for a handler that left the queue without
    /// being deleted. A handler that the queue deletes during this invocation is not touched
    /// again. Returns 0. Loop thread.
    static int cbEventHandlerTimeOut(int id, const ltTime& expiry, void* handler);

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    struct Ext;                 // the queue's own bookkeeping, kept beside it; see the source

    // Fields, in this order.
    int dispatchDepth_;               // -1 at rest; raised while an event is dispatched
    lfcVector events_;                // posted events, its array used as a ring; under mutex_
    std::atomic<int> maxQueueSize_;   // 0 or less: unbounded
    lfcVector handlers_;              // highest priority first; loop thread
    mutable uint8_t knownTimeValid_;  // under mutex_
    mutable ltTime knownTime_;        // under mutex_; not renewed while events are queued
    uint64_t handlerIdCounter_;       // starts at 1: the first id handed out is 2
    ltMainLoop& loop_;
    mutable pthread_mutex_t mutex_;   // default attributes; guards events_ and the known time
};

static_assert(sizeof(std::atomic<int>) == sizeof(int) && alignof(std::atomic<int>) == alignof(int),
              "the max queue size is one int");

#endif // LTEVENTQUEUE_H
