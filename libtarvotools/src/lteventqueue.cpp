//===- lteventqueue.cpp - Events dispatched to handlers on the main loop ---===//
#include "lteventqueue.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <typeinfo>
#include <utility>
#include <vector>

#include "ltabstractmainloop.h"
#include "ltcallbackeventhandler.h"
#include "ltclock.h"
#include "lteventmask.h"
#include "lteventring.h"
#define LT_PROBE_SEMAPHORES
#include "ltprobes.h"
#include "ltresult.h"
#include "ltsidetable.h"

using lt_internal::EventRing;
using lt_internal::kFailed;
using lt_internal::kNoId;
using lt_internal::kOk;

// The probes of this source, on the path of every event: they fire only while a tool is attached.
LT_PROBE_SEMAPHORE(event__posted);
LT_PROBE_SEMAPHORE(event__refused);
LT_PROBE_SEMAPHORE(event__expired);
LT_PROBE_SEMAPHORE(event__deleted);
LT_PROBE_SEMAPHORE(handler__invoke);
LT_PROBE_SEMAPHORE(handler__return);
LT_PROBE_SEMAPHORE(handler__lethal);

// Applications allocate queues with the size their headers give: nothing of the queue's own
// bookkeeping may widen it.
#if defined(__arm__)
static_assert(sizeof(ltEventQueue) == 104 && alignof(ltEventQueue) == 8,
              "an event queue is 104 bytes aligned to 8 on armhf");
#endif

namespace {

constexpr int kDepthAtRest = -1;
constexpr uint64_t kFirstCounter = 1;  // incremented before use: the first id is 2
constexpr int kPrefetchAhead = 2;      // claimed events fetched ahead of their dispatch

ltEventHandler* handlerAt(const lfcVector& v, int i) { return static_cast<ltEventHandler*>(v.elementAt(i)); }

bool isPersistent(const ltEventHandler& h) { return (h.flags & ltEventHandler::kPersistent) != 0; }

// Fails a post with err in errno.
int refusePost(const ltEventQueue* q, const ltEvent* event, int err)
{
    errno = err;
    LT_PROBE(event__refused, q, event, err);
    return kFailed;
}

// The function a callback handler calls; null for any other handler. For a probe only.
__attribute__((noinline, cold)) const void* callbackOf(const ltEventHandler* h)
{
    const auto* cb = dynamic_cast<const ltCallbackEventHandler*>(h);
    return cb != nullptr ? reinterpret_cast<const void*>(cb->callback) : nullptr;
}

// Calls h, between the handler__invoke and handler__return probes. The first gives the
// handler's dynamic type name and, for a callback handler, the function it calls. Inlined, as
// the call of invoke() is without the probes.
inline __attribute__((always_inline)) int invokeHandler(ltEventQueue& q, ltEvent* event, ltEventHandler* h, int reason)
{
    LT_PROBE(handler__invoke, &q, event, h, reason, typeid(*h).name(), callbackOf(h));
    const int r = h->invoke(q, event, reason);
    LT_PROBE(handler__return, &q, event, h, reason, r);
    return r;
}

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

// The queues' Ext objects (below), by queue.
lt_internal::SideTable<void>& extTable()
{
    static lt_internal::SideTable<void> table;
    return table;
}

// An interval of ms milliseconds, for the whole unsigned range.
ltTime intervalFromMs(unsigned int ms)
{
    return ltTime(static_cast<int32_t>(ms / 1000), static_cast<int32_t>(ms % 1000 * 1000));
}

// A one-shot timer 'delay' from now. The library's own loops measure it on their monotonic
// clock; any other loop is given the wall-clock time it falls on, which it converts when the
// timer is added.
int armFromNow(ltMainLoop& loop, const ltTime& delay, ltTimerCallback callback, void* userData)
{
    if (auto* own = dynamic_cast<ltAbstractMainLoop*>(&loop))
        return own->addOneShotTimer(delay, callback, userData);
    return loop.doAddTimer(timerAbsolute, ltTimeAdd(lt_internal::wallClockNow(), delay), ltTime::noTime,
                           callback, userData);
}

}  // namespace

// What the queue keeps beyond its fields: applications allocate queues with the size their
// headers give, so this lives in a side table, found by the queue's address. Made by the
// constructor, or by the first post() or addEventHandler() that needs it when the constructor
// could not get the memory; a queue without it holds no events and no lethal timers.
struct ltEventQueue::Ext {
    // A dispatch or a lethal-time invocation under way on the loop thread, innermost first.
    // What the queue deletes, or what expires, during the invocation is marked here, so that
    // the frame does not touch it when the invocation returns.
    struct Frame {
        ltEvent* event;           // being dispatched, or null
        ltEventHandler* handler;  // being invoked, or null
        bool eventExpired;        // its TTL timer fired meanwhile: deleted when the dispatch ends
        bool handlerGone;         // deleted by the queue meanwhile
        Frame* outer;
    };

    // Pushes a frame for the scope of an invocation.
    class FrameScope {
    public:
        FrameScope(Ext& x, ltEvent* event) : x_(x), frame_{event, nullptr, false, false, x.frames} { x.frames = &frame_; }
        ~FrameScope() { x_.frames = frame_.outer; }
        Frame& operator*() { return frame_; }
        Frame* operator->() { return &frame_; }
        FrameScope(const FrameScope&) = delete;
        FrameScope& operator=(const FrameScope&) = delete;

    private:
        Ext& x_;
        Frame frame_;
    };

    static constexpr int kClaimBatch = 32;

    // The events_ array is a ring from slot 'head'; its first 'skipped' events were put back
    // at the current known time. Under mutex_.
    int head = 0;
    int skipped = 0;
    // What post() reads instead of the claim's counters below, which the loop thread writes
    // for every event: they are at least those counters, and are set under mutex_ whenever
    // the loop thread raises them. Only when they say the queue is full does post() read the
    // exact counts.
    int leftBound = 0;  // at least claim.left
    int heldBound = 0;  // at least claim.held
    // The oldest events, taken out of the ring in one go by the loop thread so that it locks
    // once per batch, not once per event. They still count as queued for the max size. On a
    // cache line of its own, away from what post() reads for every event.
    struct alignas(64) Claim {
        // Written by the loop thread only; raised only under mutex_.
        std::atomic<int> left{0};  // events[next..count) not yet taken: queued
        // Events out of the ring: claimed, or taken and not yet put back or deleted. The ring
        // keeps a slot for each, so that putting one back never needs memory.
        std::atomic<int> held{0};
        int next = 0;
        int count = 0;
        ltTime known{0, 0};        // the known time they were claimed at
        ltEvent* events[kClaimBatch];
    } claim;
    // TTLs and lethal times measured from now (useMonotonicTimeouts()). Any thread.
    std::atomic<bool> monotonic{false};
    // Lethal timers armed and not fired yet, by handler. Loop thread.
    std::vector<std::pair<const ltEventHandler*, int>> lethalTimers;
    Frame* frames = nullptr;  // loop thread

    static Ext* of(const ltEventQueue& q) { return static_cast<Ext*>(extTable().find(&q)); }

    // The queue's Ext, made and bound now if it has none; null when that needs memory there
    // is not. Callers hold mutex_ (or are the constructor), so two are never made.
    static Ext* make(const ltEventQueue& q)
    {
        if (Ext* x = of(q))
            return x;
        auto* x = new (std::nothrow) Ext();
        if (x == nullptr)
            return nullptr;
        if (!extTable().bind(&q, x)) {
            delete x;
            return nullptr;
        }
        return x;
    }

    static Ext* makeLocked(ltEventQueue& q)
    {
        QueueLock lock(q.mutex_);
        return make(q);
    }

    // Whether more than max events are queued (the ring's and the claimed ones not taken
    // yet). Caller holds mutex_.
    bool moreThanLocked(const ltEventQueue& q, int max) const
    {
        const int ring = q.events_.getSize();
        return ring + leftBound > max && ring + claim.left.load(std::memory_order_acquire) > max;
    }

    // Events the ring must have slots for: its own and those held out of it. Caller holds
    // mutex_.
    int slotsNeededLocked(const ltEventQueue& q) const
    {
        const int ring = q.events_.getSize();
        if (ring + heldBound < q.events_.capacity)
            return ring + heldBound;
        return ring + claim.held.load(std::memory_order_acquire);
    }

    // Loop thread: one event fewer held out of the ring.
    void released() { claim.held.store(claim.held.load(std::memory_order_relaxed) - 1, std::memory_order_release); }

    // The oldest event not put back at the known time, taken out of the queue, with that known
    // time; null when there is none. Loop thread. Claims a batch of events under one lock and
    // hands them out one by one.
    ltEvent* takeNext(ltEventQueue& q, ltTime& known)
    {
        for (;;) {
            while (claim.next < claim.count) {
                ltEvent* event = claim.events[claim.next];
                // The events were written on the posting thread: fetch the next ones while this
                // one is dispatched.
                for (int ahead = claim.next + 1; ahead < claim.count && ahead <= claim.next + kPrefetchAhead; ++ahead)
                    __builtin_prefetch(claim.events[ahead]);
                if (event->deferralTime != claim.known) {
                    claim.next += 1;
                    claim.left.store(claim.count - claim.next, std::memory_order_release);
                    known = claim.known;
                    return event;  // still held until put back or deleted
                }
                // Put back at this very known time: skipped, it joins the other skipped events.
                QueueLock lock(q.mutex_);
                claim.next += 1;
                claim.left.store(claim.count - claim.next, std::memory_order_release);
                EventRing(q.events_, head).pushFront(event);  // its slot was kept
                skipped += 1;
                released();
            }

            QueueLock lock(q.mutex_);
            EventRing ring(q.events_, head);
            if (ring.size() == skipped) {
                // Found empty: the one place the known time is renewed, so put-back events
                // wait for an empty queue. Kept: callers rely on it.
                if (ring.size() == 0)
                    q.knownTimeValid_ = 0;
                claim.next = claim.count = 0;
                leftBound = 0;
                heldBound = claim.held.load(std::memory_order_relaxed);
                return nullptr;
            }
            claim.known = knownTimeLocked(q);
            claim.count = ring.takeFront(claim.events, kClaimBatch, skipped);
            claim.next = 0;
            claim.left.store(claim.count, std::memory_order_release);
            leftBound = claim.count;
            heldBound = claim.held.load(std::memory_order_relaxed) + claim.count;
            claim.held.store(heldBound, std::memory_order_release);
        }
    }

    // Takes event out of the claimed batch; false when it is not there. Loop thread, under
    // mutex_ (post() reads 'left').
    bool unclaim(const ltEvent* event)
    {
        for (int i = claim.next; i < claim.count; ++i) {
            if (claim.events[i] != event)
                continue;
            std::memmove(&claim.events[i], &claim.events[i + 1],
                         static_cast<size_t>(claim.count - i - 1) * sizeof(ltEvent*));
            claim.count -= 1;
            claim.left.store(claim.count - claim.next, std::memory_order_release);
            released();
            return true;
        }
        return false;
    }

    // Appends a dispatched event again, marked with the known time of its dispatch.
    void putBack(ltEventQueue& q, ltEvent& event, const ltTime& known)
    {
        event.deferralTime = known;
        QueueLock lock(q.mutex_);
        EventRing ring(q.events_, head);
        // The ring kept a slot for the event while it was out; the reserve only ever grows an
        // array that lost it to a failed allocation, and then the event is finished instead.
        if (ring.reserveFor(ring.size()) != kOk) {
            lock.unlock();
            finish(q, &event);
            return;
        }
        ring.push(&event);
        released();
    }

    // Deletes a dispatched event, and its TTL timer.
    void finish(ltEventQueue& q, ltEvent* event)
    {
        if (event->ttlTimerId > 0)
            q.loop_.removeTimer(event->ttlTimerId);
        LT_PROBE(event__deleted, &q, event);
        delete event;
        released();
    }

    static ltTime knownTimeLocked(const ltEventQueue& q)
    {
        if (q.knownTimeValid_ == 0) {
            q.knownTime_ = lt_internal::monotonicNow();
            q.knownTimeValid_ = 1;
        }
        return q.knownTime_;
    }

    // Offers the event to every matching handler in order. Returns whether it is to be kept.
    bool dispatch(ltEventQueue& q, ltEvent& event, Frame& frame)
    {
        bool keep = false;
        bool matched = false;  // some mask matched: the last mask result is then 1
        const int count = q.handlers_.getSize();
        for (int i = 0; i < count; ++i) {
            if (i >= q.handlers_.getSize())
                continue;
            ltEventHandler* h = handlerAt(q.handlers_, i);
            if (h == nullptr || (h->mask != nullptr && !h->mask->matches(event)))
                continue;
            matched = true;
            frame.handler = h;
            frame.handlerGone = false;
            const int r = invokeHandler(q, &event, h, ltEventHandler::kReasonEvent);
            frame.handler = nullptr;
            if (r == 0)
                keep = true;
            // The handler may have left the list during its call, or been deleted with it.
            if (!frame.handlerGone && !isPersistent(*h))
                leave(q, this, h, handlerIndex(q, h, i));
            // Negative stops the event here; an event that expired meanwhile goes no further.
            if (r < 0 || frame.eventExpired)
                return keep;
            // Run on at i + 1: the handler that moved into index i is not offered this event.
            // Kept: existing handler chains rely on it.
        }
        // Run to its end: an event that no handler matched is kept as well.
        return keep || !matched;
    }

    // Index of h in the handler list, trying hint first; -1 when h is not there. Compares
    // addresses only.
    static int handlerIndex(const ltEventQueue& q, const ltEventHandler* h, int hint)
    {
        const int size = q.handlers_.getSize();
        if (hint >= 0 && hint < size && q.handlers_.elementAt(hint) == h)
            return hint;
        for (int i = 0; i < size; ++i) {
            if (q.handlers_.elementAt(i) == h)
                return i;
        }
        return kFailed;
    }

    // A handler done with: out of the list (index 'at', or -1 when it has left it already),
    // then its id reset with kNotOwned, else deleted. Removed by identity, not by the index
    // the dispatch reached, so that a list changed during the call loses the right entry.
    static void leave(ltEventQueue& q, Ext* x, ltEventHandler* h, int at)
    {
        if (at >= 0)
            (void)q.handlers_.remove(at, 1);
        // The owner stays set, so the handler cannot join a queue again. Kept as it always was.
        if ((h->flags & ltEventHandler::kNotOwned) != 0) {
            h->id = 0;  // it survives, and keeps its lethal timer
            return;
        }
        destroy(q, x, h);
    }

    // Deletes a handler the queue owns. Its lethal timer goes first, so that it never fires on
    // freed memory, and every invocation under way learns that the handler is gone.
    static void destroy(ltEventQueue& q, Ext* x, ltEventHandler* h)
    {
        if (x != nullptr) {
            for (size_t i = 0; i < x->lethalTimers.size(); ++i) {
                if (x->lethalTimers[i].first != h)
                    continue;
                q.loop_.removeTimer(x->lethalTimers[i].second);
                x->lethalTimers[i] = x->lethalTimers.back();
                x->lethalTimers.pop_back();
                break;
            }
            for (Frame* f = x->frames; f != nullptr; f = f->outer) {
                if (f->handler == h)
                    f->handlerGone = true;
            }
        }
        delete h;
    }

    // Forgets the lethal timer 'id' of h, which has fired.
    void forgetLethalTimer(const ltEventHandler* h, int id)
    {
        for (size_t i = 0; i < lethalTimers.size(); ++i) {
            if (lethalTimers[i].first != h || lethalTimers[i].second != id)
                continue;
            lethalTimers[i] = lethalTimers.back();
            lethalTimers.pop_back();
            return;
        }
    }
};

ltEventQueue::ltEventQueue(ltMainLoop& loop)
    : dispatchDepth_(kDepthAtRest),
      events_(kVectorInitialCapacity, kVectorGrowBy),
      maxQueueSize_(kDefaultMaxQueueSize),
      handlers_(kVectorInitialCapacity, kVectorGrowBy),
      knownTimeValid_(0),
      knownTime_(0, 0),
      handlerIdCounter_(kFirstCounter),
      loop_(loop)
{
    (void)pthread_mutex_init(&mutex_, nullptr);  // default attributes: cannot fail on Linux
    (void)Ext::make(*this);  // without memory now, made by the first post() that needs it
}

ltEventQueue::~ltEventQueue()
{
    if (Ext* x = Ext::of(*this)) {
        extTable().unbind(this);
        delete x;
    }
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

void ltEventQueue::useMonotonicTimeouts(bool on)
{
    QueueLock lock(mutex_);
    if (Ext* x = Ext::make(*this))
        x->monotonic.store(on, std::memory_order_relaxed);
}

ltTime ltEventQueue::getKnownTime() const
{
    QueueLock lock(mutex_);
    return Ext::knownTimeLocked(*this);
}

int ltEventQueue::post(ltEvent& event, unsigned int ttlMs)
{
    QueueLock lock(mutex_);
    Ext* x = Ext::of(*this);
    const int max = maxQueueSize_.load(std::memory_order_relaxed);
    // Strictly greater: one event past the limit is accepted. Kept: callers rely on it.
    if (max > 0 && x != nullptr && x->moreThanLocked(*this, max))
        return refusePost(this, &event, EAGAIN);
    if (event.owner != nullptr)
        return refusePost(this, &event, EBUSY);
    // The memory for the append below is had first, so that no timer is ever armed for an
    // event that then cannot be queued, and a refused event is left as it was.
    if (x == nullptr)
        x = Ext::make(*this);
    if (x == nullptr)
        return refusePost(this, &event, ENOMEM);
    EventRing ring(events_, x->head);
    if (ring.reserveFor(x->slotsNeededLocked(*this)) != kOk)
        return refusePost(this, &event, ENOMEM);

    event.timeStamp = Ext::knownTimeLocked(*this);
    event.owner = this;
    if (ttlMs != 0) {
        event.setTTL(static_cast<int>(ttlMs));
        // Armed while the mutex is held: the expiry callback takes the mutex as well, so it
        // cannot see the event before the append below has queued it. Without the opt-in the
        // lethal time is monotonic but armed as a wall-clock time; kept, see the header.
        const int id = x->monotonic.load(std::memory_order_relaxed)
                           ? armFromNow(loop_, intervalFromMs(ttlMs), cbEventTimeOut, &event)
                           : loop_.doAddTimer(timerAbsolute, event.lethalTime, ltTime::noTime, cbEventTimeOut, &event);
        if (id == kNoId) {
            LT_PROBE(event__refused, this, &event, errno);
            return kFailed;  // errno untouched, the owner stays set: kept as it always was
        }
        event.ttlTimerId = id;
    } else {
        event.ttlTimerId = 0;
    }
    ring.push(&event);         // room was made above
    // Fired before the unlock: from there on the event may be gone. The depth counts the
    // claimed events not taken yet.
    LT_PROBE(event__posted, this, &event, event.key1, event.key2, event.key3, event.key4, event.prio, ttlMs,
             ring.size() + x->claim.left.load(std::memory_order_relaxed));
    lock.unlock();             // from here the loop may take, expire and delete the event

    loop_.wakeupEventLoop();
    return kOk;
}

int ltEventQueue::processNextEvent()
{
    Ext* x = Ext::of(*this);
    if (x == nullptr) {
        // Nothing was ever posted: the queue is empty.
        QueueLock lock(mutex_);
        knownTimeValid_ = 0;
        errno = EAGAIN;
        return kFailed;
    }
    ltTime known;
    ltEvent* event = x->takeNext(*this, known);
    if (event == nullptr) {
        errno = EAGAIN;
        return kFailed;
    }

    Ext::FrameScope frame(*x, event);
    dispatchDepth_ += 1;
    const bool keep = handlers_.getSize() == 0 || x->dispatch(*this, *event, *frame);
    dispatchDepth_ -= 1;
    if (frame->eventExpired || !keep)
        x->finish(*this, event);
    else
        x->putBack(*this, *event, known);
    return kOk;
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
    // A lethal timer is recorded, so that it can be removed if the queue deletes the handler
    // first: the room for that is had before anything changes.
    Ext* x = nullptr;
    if (h->lethalTime.sec != -1) {
        x = Ext::makeLocked(*this);
        try {
            if (x != nullptr)
                x->lethalTimers.reserve(x->lethalTimers.size() + 1);
        } catch (const std::bad_alloc&) {
            x = nullptr;
        }
        if (x == nullptr) {
            errno = ENOMEM;
            return kNoId;
        }
    }

    handlerIdCounter_ += 1;
    h->id = handlerIdCounter_;
    h->owner = this;
    int timer = kNoId;
    if (x != nullptr) {
        // Without the opt-in: monotonic time armed as a wall-clock time, expiring on the next
        // pass. Kept, see the header. With it: a duration from now.
        timer = x->monotonic.load(std::memory_order_relaxed)
                    ? armFromNow(loop_, h->lethalTime, cbEventHandlerTimeOut, h)
                    : loop_.doAddTimer(timerAbsolute, h->lethalTime, ltTime::noTime, cbEventHandlerTimeOut, h);
        if (timer != kNoId)
            x->lethalTimers.emplace_back(h, timer);  // room was made above
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
        if (timer != kNoId) {
            loop_.removeTimer(timer);
            x->forgetLethalTimer(h, timer);
        }
        h->owner = nullptr;
        h->id = 0;
        errno = ENOMEM;
        return kNoId;
    }
    return h->id;
}

unsigned long long ltEventQueue::addEventHandler(ltEventHandler* h)
{
    return addEventHandler(0, h);
}

unsigned long long ltEventQueue::addEventHandlerFunction(ltEventHandlerCallback cb, ltEventMask* mask,
                                                         void* userData, unsigned int lethalMs, int flags)
{
    auto* h = new (std::nothrow) ltCallbackEventHandler(mask, userData, nullptr, flags, cb);
    if (h == nullptr) {
        errno = ENOMEM;
        return kNoId;
    }
    if (lethalMs != 0) {
        const Ext* x = Ext::of(*this);
        h->setLethalTime(x != nullptr && x->monotonic.load(std::memory_order_relaxed)
                             ? intervalFromMs(lethalMs)  // a duration from addEventHandler()
                             : ltTimeAdd(getKnownTime(), ltTimeFromMs(static_cast<int>(lethalMs))));
    }
    const unsigned long long id = addEventHandler(0, h);
    if (id == kNoId) {
        h->flags &= ~ltEventHandler::kOwnsMask;  // the caller keeps its mask on failure
        delete h;
    }
    return id;
}

int ltEventQueue::removeEventHandlers(unsigned long long id, int group, ltEventHandler* handler, bool destroy)
{
    Ext* x = Ext::of(*this);
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
        ++removed;
        if (destroy)
            Ext::destroy(*this, x, h);
    }
    return removed;
}

int ltEventQueue::cbEventTimeOut(int id, const ltTime& /*expiry*/, void* p)
{
    auto* event = static_cast<ltEvent*>(p);
    ltEventQueue* queue = event->owner;  // written by post before it armed this timer
    if (queue == nullptr)
        return 0;
    LT_PROBE(event__expired, queue, event);
    Ext* x = Ext::of(*queue);
    bool queued = false;
    if (x != nullptr) {
        // Waits for a post still appending this event.
        QueueLock lock(queue->mutex_);
        if (x->unclaim(event)) {
            queued = true;
        } else {
            const int at = EventRing(queue->events_, x->head).remove(event);
            if (at >= 0) {
                queued = true;
                if (at < x->skipped)
                    x->skipped -= 1;
            }
        }
    }
    // The library's own loops take a one-shot timer out of their table before calling it
    // back, and an id names a slot, not a timer: removing the fired id once more could remove
    // a newer timer that took over the slot (another event's TTL, which would then never end
    // it). Any other loop is asked to remove the timer.
    if (event->ttlTimerId != id || dynamic_cast<ltAbstractMainLoop*>(&queue->loop_) == nullptr)
        queue->loop_.removeTimer(event->ttlTimerId);
    if (!queued && x != nullptr) {
        for (Ext::Frame* f = x->frames; f != nullptr; f = f->outer) {
            if (f->event != event)
                continue;
            // Being dispatched: deleted when its dispatch ends, its timer already removed.
            f->eventExpired = true;
            event->ttlTimerId = 0;
            return 0;
        }
    }
    LT_PROBE(event__deleted, queue, event);
    delete event;
    return 0;
}

int ltEventQueue::cbEventHandlerTimeOut(int id, const ltTime& /*expiry*/, void* p)
{
    auto* h = static_cast<ltEventHandler*>(p);
    ltEventQueue* queue = h->owner;
    if (queue == nullptr)
        return 0;
    LT_PROBE(handler__lethal, queue, h, h->lethalTime.sec, h->lethalTime.usec);
    Ext* x = Ext::of(*queue);
    if (x == nullptr) {  // every queue that armed a lethal timer has one
        (void)invokeHandler(*queue, nullptr, h, ltEventHandler::kReasonLethalTime);
        if (!isPersistent(*h))
            Ext::leave(*queue, nullptr, h, Ext::handlerIndex(*queue, h, -1));
        return 0;
    }
    x->forgetLethalTimer(h, id);  // it has fired
    Ext::FrameScope frame(*x, nullptr);
    frame->handler = h;
    (void)invokeHandler(*queue, nullptr, h, ltEventHandler::kReasonLethalTime);
    if (frame->handlerGone || isPersistent(*h))
        return 0;
    Ext::leave(*queue, x, h, Ext::handlerIndex(*queue, h, -1));
    return 0;
}
