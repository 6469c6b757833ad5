//===- lteventqueue.cpp - Events dispatched to handlers on the main loop ---===//
#include "lteventqueue.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "ltclock.h"
#include "lteventmask.h"
#include "lteventring.h"
#include "ltresult.h"

using lt_internal::EventRing;
using lt_internal::kFailed;
using lt_internal::kNoId;
using lt_internal::kOk;

namespace {

constexpr int kDepthAtRest = -1;
constexpr uint64_t kFirstCounter = 1;  // incremented before use: the first id is 2
constexpr int kPrefetchAhead = 2;      // claimed events fetched ahead of their dispatch

ltEventHandler* handlerAt(const lfcVector& v, int i) { return static_cast<ltEventHandler*>(v.elementAt(i)); }

bool isPersistent(const ltEventHandler& h) { return (h.flags & ltEventHandler::kPersistent) != 0; }

// Holds the queue's mutex for a scope. Its holders keep it for a few dozen instructions, so a
// contended lock is first retried for a moment: sleeping in the kernel and being woken again
// would cost the poster or the loop thread far more than the wait.
class QueueLock {
public:
    explicit QueueLock(pthread_mutex_t& m) : m_(m)
    {
        for (int i = 0; i < kSpinTries; ++i) {
            if (pthread_mutex_trylock(&m_) == 0)
                return;
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#endif
        }
        (void)pthread_mutex_lock(&m_);  // default mutex: cannot fail when used correctly
    }
    ~QueueLock()
    {
        if (held_)
            (void)pthread_mutex_unlock(&m_);
    }
    void unlock()
    {
        (void)pthread_mutex_unlock(&m_);
        held_ = false;
    }
    QueueLock(const QueueLock&) = delete;
    QueueLock& operator=(const QueueLock&) = delete;

private:
    static constexpr int kSpinTries = 200;  // a few microseconds at most
    pthread_mutex_t& m_;
    bool held_ = true;
};

}  // namespace

ltEventQueue::ltEventQueue(ltMainLoop& loop)
    : dispatchDepth_(kDepthAtRest),
      events_(kVectorInitialCapacity, kVectorGrowBy),
      maxQueueSize_(kDefaultMaxQueueSize),
      handlers_(kVectorInitialCapacity, kVectorGrowBy),
      knownTimeValid_(0),
      knownTime_(0, 0),
      handlerIdCounter_(kFirstCounter),
      loop_(loop),
      eventsHead_(0),
      claimBound_(0)
{
    (void)pthread_mutex_init(&mutex_, nullptr);  // default attributes: cannot fail on Linux
    claim_.left.store(0, std::memory_order_relaxed);
    claim_.next = 0;
    claim_.count = 0;
    claim_.known = ltTime(0, 0);
}

ltEventQueue::~ltEventQueue()
{
    (void)pthread_mutex_destroy(&mutex_);
}

int ltEventQueue::getMaxQueueSize() const
{
    return maxQueueSize_.load(std::memory_order_relaxed);
}

void ltEventQueue::setMaxQueueSize(int size)
{
    maxQueueSize_.store(size, std::memory_order_relaxed);
}

ltTime ltEventQueue::knownTimeLocked() const
{
    if (knownTimeValid_ == 0) {
        knownTime_ = lt_internal::monotonicNow();
        knownTimeValid_ = 1;
    }
    return knownTime_;
}

// Events queued in all, or more: the claimed ones are counted as at their last claim. Caller
// holds mutex_.
int ltEventQueue::queuedBoundLocked() const
{
    return events_.getSize() + static_cast<int>(eventsPutBack_.size()) + claimBound_;
}

// Events queued in all. Caller holds mutex_; the loop thread may take a claimed event at any
// moment, and this is the count as it stood when 'left' was read.
int ltEventQueue::queuedExactLocked() const
{
    return events_.getSize() + static_cast<int>(eventsPutBack_.size()) +
           claim_.left.load(std::memory_order_acquire);
}

// Adds a put-back event, growing the array as if it were appended to the event vector. Caller
// holds mutex_.
int ltEventQueue::putBackLocked(ltEvent& event)
{
    int queued = queuedBoundLocked();
    if (queued >= events_.capacity)
        queued = queuedExactLocked();
    if (EventRing(events_, eventsHead_).reserveFor(queued) != kOk)
        return lt_internal::kNoMemory;
    try {
        eventsPutBack_.push_back(&event);
    } catch (const std::bad_alloc&) {
        return lt_internal::kNoMemory;
    }
    return kOk;
}

// The oldest event not put back at the known time, taken out of the queue, with that known
// time; null when there is none. Loop thread. Claims a batch of events under one lock and
// hands them out one by one.
ltEvent* ltEventQueue::takeNext(ltTime& known)
{
    for (;;) {
        while (claim_.next < claim_.count) {
            ltEvent* event = claim_.events[claim_.next];
            // The events were written on the posting thread: fetch the next ones while this
            // one is dispatched.
            for (int ahead = claim_.next + 1; ahead < claim_.count && ahead <= claim_.next + kPrefetchAhead; ++ahead)
                __builtin_prefetch(claim_.events[ahead]);
            if (event->deferralTime != claim_.known) {
                claim_.next += 1;
                claim_.left.store(claim_.count - claim_.next, std::memory_order_release);
                known = claim_.known;
                return event;
            }
            // Posted with its deferral time already equal to the known time: skipped like a
            // put-back event, so it joins them.
            QueueLock lock(mutex_);
            claim_.next += 1;
            claim_.left.store(claim_.count - claim_.next, std::memory_order_release);
            if (putBackLocked(*event) != kOk) {
                lock.unlock();
                finish(event);
            }
        }

        QueueLock lock(mutex_);
        EventRing ring(events_, eventsHead_);
        if (ring.size() == 0) {
            // The one place the known time is renewed, so put-back events wait for an empty
            // queue. Kept: callers rely on it.
            if (eventsPutBack_.empty())
                knownTimeValid_ = 0;
            claim_.next = claim_.count = 0;
            claimBound_ = 0;
            return nullptr;
        }
        claim_.known = knownTimeLocked();
        claim_.count = ring.takeFront(claim_.events, kClaimBatch);
        claim_.next = 0;
        claimBound_ = claim_.count;
        claim_.left.store(claim_.count, std::memory_order_release);
    }
}

// Takes event out of the claimed batch; false when it is not there. Loop thread.
bool ltEventQueue::unclaim(const ltEvent* event)
{
    for (int i = claim_.next; i < claim_.count; ++i) {
        if (claim_.events[i] != event)
            continue;
        std::memmove(&claim_.events[i], &claim_.events[i + 1],
                     static_cast<size_t>(claim_.count - i - 1) * sizeof(ltEvent*));
        claim_.count -= 1;
        claim_.left.store(claim_.count - claim_.next, std::memory_order_release);
        return true;
    }
    return false;
}

ltTime ltEventQueue::getKnownTime() const
{
    QueueLock lock(mutex_);
    return knownTimeLocked();
}

int ltEventQueue::post(ltEvent& event, unsigned int ttlMs)
{
    QueueLock lock(mutex_);
    EventRing ring(events_, eventsHead_);
    const int max = maxQueueSize_.load(std::memory_order_relaxed);
    // Strictly greater: one event past the limit is accepted. Kept: callers rely on it.
    if (max > 0 && queuedBoundLocked() > max && queuedExactLocked() > max) {
        errno = EAGAIN;
        return kFailed;
    }
    if (event.owner != nullptr) {
        errno = EBUSY;
        return kFailed;
    }
    // Room for the append below is made first, so that no timer is ever armed for an event
    // that then cannot be queued.
    int queued = queuedBoundLocked();
    if (queued >= events_.capacity)
        queued = queuedExactLocked();
    if (ring.reserveFor(queued) != kOk) {
        errno = ENOMEM;
        return kFailed;
    }

    event.timeStamp = knownTimeLocked();
    event.owner = this;
    if (ttlMs != 0) {
        event.setTTL(static_cast<int>(ttlMs));
        // Armed while the mutex is held: the expiry callback takes the mutex as well, so it
        // cannot see the event before the append below has queued it. The lethal time is
        // monotonic but armed as a wall-clock time; kept, see the header.
        const int id = loop_.doAddTimer(timerAbsolute, event.lethalTime, ltTime::noTime, cbEventTimeOut, &event);
        if (id == kNoId)
            return kFailed;  // errno untouched, the owner stays set: kept as it always was
        event.ttlTimerId = id;
    } else {
        event.ttlTimerId = 0;
    }
    ring.push(&event);         // room was made above
    lock.unlock();             // from here the loop may take, expire and delete the event

    loop_.wakeupEventLoop();
    return kOk;
}

int ltEventQueue::processNextEvent()
{
    ltTime known;
    ltEvent* event = takeNext(known);
    if (event == nullptr) {
        errno = EAGAIN;
        return kFailed;
    }

    dispatchDepth_ += 1;
    if (handlers_.getSize() == 0) {
        dispatchDepth_ -= 1;
        putBack(*event, known);
        return kOk;
    }
    const bool keep = dispatch(*event);
    dispatchDepth_ -= 1;
    if (keep)
        putBack(*event, known);
    else
        finish(event);
    return kOk;
}

// Offers the event to every matching handler in order. Returns whether it is to be kept.
bool ltEventQueue::dispatch(ltEvent& event)
{
    bool keep = false;
    bool matched = false;  // some mask matched: the last mask result is then 1
    const int count = handlers_.getSize();
    for (int i = 0; i < count; ++i) {
        if (i >= handlers_.getSize())
            continue;
        ltEventHandler* h = handlerAt(handlers_, i);
        if (h == nullptr || (h->mask != nullptr && !h->mask->matches(event)))
            continue;
        matched = true;
        const int r = h->invoke(*this, &event, ltEventHandler::kReasonEvent);
        if (r == 0)
            keep = true;
        // The handler may have changed the list, or left it (and been deleted) itself.
        const int at = handlerIndex(h, i);
        if (r < 0) {
            if (at >= 0 && !isPersistent(*h))
                dropHandler(at, h, (h->flags & ltEventHandler::kNotOwned) == 0);
            return keep;  // stopped: the event reaches no further handler
        }
        if (at < 0 || isPersistent(*h))
            continue;
        // The handler that moves into index i is not offered this event. Kept: existing
        // handler chains rely on it.
        dropHandler(at, h, (h->flags & ltEventHandler::kNotOwned) == 0);
    }
    // Run to its end: an event that no handler matched is kept as well.
    return keep || !matched;
}

void ltEventQueue::putBack(ltEvent& event, const ltTime& known)
{
    event.deferralTime = known;
    QueueLock lock(mutex_);
    // Only fails out of memory, with the event lost to the queue: it is finished instead.
    if (putBackLocked(event) == kOk)
        return;
    lock.unlock();
    finish(&event);
}

void ltEventQueue::finish(ltEvent* event)
{
    if (event->ttlTimerId > 0)
        loop_.removeTimer(event->ttlTimerId);
    delete event;
}

// Index of h in the handler list, trying hint first; -1 when h is not there. Compares
// addresses only: h may have been deleted.
int ltEventQueue::handlerIndex(const ltEventHandler* h, int hint) const
{
    const int size = handlers_.getSize();
    if (hint >= 0 && hint < size && handlers_.elementAt(hint) == h)
        return hint;
    for (int i = 0; i < size; ++i) {
        if (handlers_.elementAt(i) == h)
            return i;
    }
    return kFailed;
}

// Takes the handler at index out of the list; deletes it when destroy is set, else resets
// its id when it is kNotOwned.
void ltEventQueue::dropHandler(int index, ltEventHandler* h, bool destroy)
{
    (void)handlers_.remove(index, 1);
    disarmLethalTimer(h, /*removeTimer=*/true);
    // The owner stays set, so the handler cannot join a queue again. Kept as it always was.
    if (destroy)
        delete h;
    else if ((h->flags & ltEventHandler::kNotOwned) != 0)
        h->id = 0;
}

void ltEventQueue::disarmLethalTimer(const ltEventHandler* h, bool removeTimer)
{
    for (size_t i = 0; i < lethalTimers_.size(); ++i) {
        if (lethalTimers_[i].first != h)
            continue;
        if (removeTimer)
            loop_.removeTimer(lethalTimers_[i].second);
        lethalTimers_[i] = lethalTimers_.back();
        lethalTimers_.pop_back();
        return;
    }
}

unsigned long long ltEventQueue::addEventHandler(int prio, ltEventHandler* h)
{
    if (h == nullptr) {
        errno = EINVAL;
        return kNoId;
    }
    if (h->owner != nullptr) {
        errno = EBUSY;
        return kNoId;
    }
    handlerIdCounter_ += 1;
    h->id = handlerIdCounter_;
    h->owner = this;
    if (h->lethalTime.sec != -1) {
        // Monotonic time armed as a wall-clock time: expires on the next pass. Kept, see the
        // header.
        const int timer = loop_.doAddTimer(timerAbsolute, h->lethalTime, ltTime::noTime, cbEventHandlerTimeOut, h);
        if (timer != kNoId) {
            try {
                lethalTimers_.emplace_back(h, timer);
            } catch (const std::bad_alloc&) {
                // Not tracked: the timer still fires; only its disarming on removal is lost.
            }
        }
    }
    h->priority = prio;

    // After the last handler of priority prio or more; at the front when there is none.
    int at = 0;
    for (int i = handlers_.getSize() - 1; i >= 0; --i) {
        const ltEventHandler* other = handlerAt(handlers_, i);
        if (other != nullptr && other->priority >= prio) {
            at = i + 1;
            break;
        }
    }
    if (handlers_.insert(*h, at) != kOk) {
        disarmLethalTimer(h, /*removeTimer=*/true);
        h->owner = nullptr;
        h->id = 0;
        errno = ENOMEM;
        return kNoId;
    }
    return h->id;
}

unsigned long long ltEventQueue::addEventHandlerFunction(ltEventHandlerCallback cb, ltEventMask* mask,
                                                         void* userData, unsigned int lethalMs, int flags)
{
    auto* h = new (std::nothrow) ltCallbackEventHandler(mask, userData, nullptr, flags, cb);
    if (h == nullptr) {
        errno = ENOMEM;
        return kNoId;
    }
    if (lethalMs != 0)
        h->setLethalTime(ltTimeAdd(getKnownTime(), ltTimeFromMs(static_cast<int>(lethalMs))));
    const unsigned long long id = addEventHandler(0, h);
    if (id == kNoId) {
        h->flags &= ~ltEventHandler::kOwnsMask;  // the caller keeps its mask on failure
        delete h;
    }
    return id;
}

int ltEventQueue::removeEventHandlers(unsigned long long id, int group, ltEventHandler* handler, bool destroy)
{
    int removed = 0;
    int i = 0;
    while (i < handlers_.getSize()) {
        ltEventHandler* h = handlerAt(handlers_, i);
        const bool match = h != nullptr && (handler == nullptr || h == handler) &&
                           (group == 0 || h->groupTag == 0 || h->groupTag == group) &&
                           (id == 0 || h->id == id);
        if (!match) {
            ++i;
            continue;
        }
        // The walk stays at i, where the next entry has moved.
        (void)handlers_.remove(i, 1);
        disarmLethalTimer(h, /*removeTimer=*/true);
        ++removed;
        if (destroy)
            delete h;
    }
    return removed;
}

int ltEventQueue::cbEventTimeOut(int id, const ltTime& /*expiry*/, void* p)
{
    auto* event = static_cast<ltEvent*>(p);
    ltEventQueue* queue = event->owner;  // written by post before it armed this timer
    if (queue == nullptr)
        return 0;
    if (!queue->unclaim(event)) {
        // Waits for a post still appending this event.
        QueueLock lock(queue->mutex_);
        EventRing ring(queue->events_, queue->eventsHead_);
        std::vector<ltEvent*>& putBack = queue->eventsPutBack_;
        const auto at = std::find(putBack.begin(), putBack.end(), event);
        if (at != putBack.end()) {
            *at = putBack.back();  // their order does not matter: they are never taken again
            putBack.pop_back();
        } else if (!ring.remove(event)) {
            return 0;  // not queued, so not this callback's to delete
        }
    }
    // The timer that fired is one-shot and already gone; removing its id once more could hit
    // a newer timer that took over the slot, so only a different TTL timer is removed.
    if (event->ttlTimerId != id)
        queue->loop_.removeTimer(event->ttlTimerId);
    delete event;
    return 0;
}

int ltEventQueue::cbEventHandlerTimeOut(int /*id*/, const ltTime& /*expiry*/, void* p)
{
    auto* h = static_cast<ltEventHandler*>(p);
    ltEventQueue* queue = h->owner;
    if (queue == nullptr)
        return 0;
    queue->disarmLethalTimer(h, /*removeTimer=*/false);  // it has fired
    const bool wasQueued = queue->handlerIndex(h, -1) >= 0;
    (void)h->invoke(*queue, nullptr, ltEventHandler::kReasonLethalTime);
    const int at = queue->handlerIndex(h, -1);
    if (wasQueued && at < 0)
        return 0;  // it left the queue during its invocation, perhaps deleted
    if (isPersistent(*h))
        return 0;
    if (at >= 0) {
        queue->dropHandler(at, h, (h->flags & ltEventHandler::kNotOwned) == 0);
        return 0;
    }
    // Not in the list (left it before its timer could be disarmed): dropped all the same.
    if ((h->flags & ltEventHandler::kNotOwned) != 0)
        h->id = 0;
    else
        delete h;
    return 0;
}
