//===- lttimerqueue.cpp - Shared timers ordered by expiry -----------------===//
//
// The queue is a std::list of shared pointers in non-decreasing timeout order. Elements are
// moved between the queue and a one-element list with splice(), so rescheduling and re-arming
// never allocate and the only allocation (a new element) happens before the queue changes.
//
//===----------------------------------------------------------------------===//
#include "lttimerqueue.h"

#include <new>

#include "ltprobes.h"
#include "ltresult.h"

ltTimerQueue::ltTimerQueue() = default;

ltTimerQueue::~ltTimerQueue() = default;

void ltTimerQueue::detachOrMakeNode(const boost::shared_ptr<ltTimer>& timer, TimerList& node)
{
    for (TimerList::iterator it = timers.begin(); it != timers.end(); ++it) {
        if (it->get() == timer.get()) {
            node.splice(node.end(), timers, it);  // the active flag is not touched here
            return;
        }
    }
    node.push_back(timer);
}

int ltTimerQueue::insertSorted(TimerList& node)
{
    const _cspOsalTime_struct& due = node.front()->timeout;
    int position = 0;
    TimerList::iterator it = timers.begin();
    // Step over every timer due at the same time or earlier: equal timeouts leave first set,
    // first out; kept, callers rely on that order.
    for (; it != timers.end(); ++it, ++position) {
        if (cspOsalCompareTime(&due, &(*it)->timeout) < 0)
            break;
    }
    timers.splice(it, node);
    return position;
}

int ltTimerQueue::setTimer(boost::shared_ptr<ltTimer>& timer, const _cspOsalTime_struct& timeout,
                           const _cspOsalTime_struct& period)
{
    if (!timer)
        timer = ltTimer::create();  // the caller's pointer receives the new timer
    if (!timer)
        return lt_internal::kNoMemory;

    TimerList node;
    try {
        detachOrMakeNode(timer, node);
    } catch (const std::bad_alloc&) {
        return lt_internal::kNoMemory;
    }

    timer->timeout = timeout;  // absolute: no current time is added
    timer->period = period;
    timer->active = true;
    return insertSorted(node);
}

int ltTimerQueue::removeTimer(boost::shared_ptr<ltTimer> timer)
{
    int position = 0;
    for (TimerList::iterator it = timers.begin(); it != timers.end(); ++it, ++position) {
        if (it->get() != timer.get())
            continue;
        timer->active = false;
        timers.erase(it);  // drops the queue's reference; 'timer' still holds one
        return position;
    }
    return lt_internal::kNotFoundOrLate;
}

int ltTimerQueue::removeAll()
{
    // 1 for an empty queue and 0 after removing: kept, existing callers rely on it.
    if (timers.empty())
        return 1;
    while (!timers.empty()) {
        timers.front()->active = false;
        timers.pop_front();
    }
    return lt_internal::kOk;
}

int ltTimerQueue::getExpired(const _cspOsalTime_struct& now, boost::shared_ptr<ltTimer>& out)
{
    out.reset();
    if (timers.empty())
        return 0;

    const boost::shared_ptr<ltTimer>& head = timers.front();
    if (cspOsalCompareTime(&head->timeout, &now) > 0)
        return 0;  // not due yet; a timeout equal to 'now' is due
    out = head;
    const bool repeating = out->isReoccuring();
    // Seconds as a long: a probe argument is at most a register wide on every target.
    LT_PROBE(timerqueue__expired, this, out.get(), static_cast<long>(out->timeout.sec), out->timeout.nsec, repeating);

    if (repeating) {
        // Fire once, then skip every missed period: the next expiry is the first period
        // boundary strictly after 'now'. This also guarantees that a drain at 'now' ends.
        while (cspOsalCompareTime(&out->timeout, &now) <= 0)
            cspOsalAddTime(&out->timeout, &out->period);
        TimerList node;
        node.splice(node.end(), timers, timers.begin());
        insertSorted(node);  // stays queued and active
        return 1;
    }

    // One-shot: it leaves the queue and lives on through 'out'.
    out->active = false;
    timers.pop_front();
    return 1;
}

int ltTimerQueue::getFirst(boost::shared_ptr<ltTimer>& out) const
{
    out.reset();
    if (timers.empty())
        return 0;
    out = timers.front();
    return 1;
}

bool ltTimerQueue::isInQueue(boost::shared_ptr<ltTimer> timer) const
{
    for (const boost::shared_ptr<ltTimer>& queued : timers) {
        if (queued.get() == timer.get())
            return true;
    }
    return false;
}
