// Admission, dispatch order, handler removal, TTL and lethal timers, on the test's own thread.
#include "lteventqueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "drivenloop.h"
#include "ltclock.h"
#include "lteventmask.h"

namespace {

using M = ltEventMask;

struct Recorder {
    struct Call { std::string handler; unsigned key2; int reason; };
    std::vector<Call> calls;
    std::map<unsigned, int> eventsDeleted;       // by key2
    std::map<std::string, int> handlersDeleted;  // by name
    int count(const std::string& name, int reason) const
    {
        return static_cast<int>(std::count_if(calls.begin(), calls.end(), [&](const Call& c) { return c.handler == name && c.reason == reason; }));
    }
};

struct CountedEvent : ltEvent {
    CountedEvent(Recorder& r, unsigned k1, unsigned k2) : ltEvent(k1, k2, 0, 0, nullptr, 0), rec(r) {}
    ~CountedEvent() override { ++rec.eventsDeleted[key2]; }
    Recorder& rec;
};

struct Probe : ltEventHandler {
    Probe(Recorder& r, const char* n, ltEventMask* m, int f, int (*res)(const ltEvent*))
        : ltEventHandler(m, nullptr, nullptr, f | kOwnsMask), rec(r), name(n), result(res) {}
    ~Probe() override { ++rec.handlersDeleted[name]; }
    int invoke(ltEventQueue&, ltEvent* e, int reason) override
    {
        rec.calls.push_back({name, e ? e->key2 : 0, reason});
        return result(e);
    }
    Recorder& rec;
    std::string name;
    int (*result)(const ltEvent*);
};

int goOn(const ltEvent*) { return 1; }
int stop(const ltEvent*) { return -1; }

M* key1Is(unsigned v) { return new M(M::kMaskNone, 1, M::kKeyEqual, v, 0); }
M* key1AtMost(unsigned v) { return new M(M::kMaskNone, 1, M::kKeyGreaterEqual, v, 0); }

void post(ltEventQueue& q, Recorder& rec, unsigned key1, unsigned key2, unsigned ttlMs = 0)
{
    ASSERT_EQ(0, q.post(*new CountedEvent(rec, key1, key2), ttlMs));
}

TEST(QueueAdmission, LimitIsStrictlyGreaterAndOwnedOrNullObjectsAreRefused)
{
    DrivenLoop loop;  // never run: this thread plays the loop thread
    ltEventQueue queue(loop);
    Recorder rec;
    errno = 0;
    EXPECT_EQ(-1, queue.processNextEvent());
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(0u, queue.addEventHandler(5, nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, queue.removeEventHandlers(~0ull, INT_MIN, nullptr, true));

    queue.setMaxQueueSize(2);
    CountedEvent* e[] = {new CountedEvent(rec, 1, 0), new CountedEvent(rec, 1, 1), new CountedEvent(rec, 1, 2),
                         new CountedEvent(rec, 1, 3)};
    for (int i = 0; i < 3; ++i)  // one past the limit is accepted; a TTL at the end of the range is only arithmetic
        EXPECT_EQ(0, queue.post(*e[i], i == 0 ? UINT_MAX : 0)) << i;
    EXPECT_EQ(-1, queue.post(*e[3], 0));
    EXPECT_EQ(EAGAIN, errno);
    queue.setMaxQueueSize(INT_MIN);  // 0 or less: unbounded
    EXPECT_EQ(-1, queue.post(*e[0], 0));
    EXPECT_EQ(EBUSY, errno);  // already queued
    for (unsigned i = 10; i < 610; ++i)
        post(queue, rec, 1, i, i == 10 ? 0x80000000u : 0);

    auto* sink = new Probe(rec, "sink", nullptr, ltEventHandler::kPersistent, goOn);
    EXPECT_EQ(2u, queue.addEventHandler(sink));  // the counter starts at 1
    EXPECT_EQ(0u, queue.addEventHandler(5, sink));
    EXPECT_EQ(EBUSY, errno);
    // No callback: keeps what it matches; a lethal time of UINT_MAX ms wraps and is due at once.
    EXPECT_NE(0u, queue.addEventHandlerFunction(nullptr, key1Is(99), nullptr, UINT_MAX, ltEventHandler::kOwnsMask));
    int taken = 0;
    while (queue.processNextEvent() == 0)
        ++taken;
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(603, taken);
    EXPECT_EQ(603, rec.count("sink", 0));
    EXPECT_EQ(603u, rec.eventsDeleted.size());
    delete e[3];  // never accepted: still the caller's
    loop.processTimeouts();  // the lethal time: invoked once more and dropped
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, nullptr, true));
    EXPECT_EQ(1, rec.handlersDeleted["sink"]);
}

// A loop pass runs the queue until idle; handlers by priority, then insertion order, until one
// stops. Removal matches by group (0 matches every group), id and handler; deletes when asked.
TEST(EventDispatch, HandlersRunByPriorityInInsertionOrderUntilOneStops)
{
    DrivenLoop loop;
    ltEventQueue queue(loop);
    Recorder rec;
    ASSERT_NE(0, loop.registerMainLoopMember(queue));
    const char* names[] = {"mid-a", "low", "high", "mid-b", "stop"};
    const int priorities[] = {5, 0, 10, 5, 7};
    Probe* h[5];
    for (int i = 0; i < 5; ++i) {
        h[i] = new Probe(rec, names[i], i == 4 ? key1Is(2) : key1AtMost(2), ltEventHandler::kPersistent, i == 4 ? stop : goOn);
        h[i]->groupTag = i == 1 ? 0 : i % 3 == 0 ? 7 : 8;
        ASSERT_NE(0u, queue.addEventHandler(priorities[i], h[i]));
    }
    for (unsigned i = 0; i < 10; ++i)
        post(queue, rec, i % 5 == 0 ? 2 : 1, i);  // every fifth is stopped
    loop.pass();

    std::map<unsigned, std::vector<std::string>> order;  // by key2
    for (const Recorder::Call& c : rec.calls)
        order[c.key2].push_back(c.handler);
    for (unsigned i = 0; i < 10; ++i) {
        EXPECT_EQ((i % 5 == 0 ? std::vector<std::string>{"high", "stop"} : std::vector<std::string>{"high", "mid-a", "mid-b", "low"}), order[i]) << i;
        EXPECT_EQ(1, rec.eventsDeleted[i]) << i;
    }
    EXPECT_EQ(3, queue.removeEventHandlers(0, 7, nullptr, false));  // mid-a, low, mid-b
    EXPECT_EQ(0, queue.removeEventHandlers(h[4]->id + 1, 0, nullptr, true));
    EXPECT_EQ(1, queue.removeEventHandlers(h[2]->id, 0, nullptr, true));
    EXPECT_EQ((std::map<std::string, int>{{"high", 1}}), rec.handlersDeleted);
    for (int i : {0, 1, 3})
        delete h[i];
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, nullptr, true));
}

// An application's own loop: records what the queue asks of it and fires timers on demand.
struct AppLoop : ltMainLoop {
    std::map<int, std::pair<ltTimerCallback, void*>> timers;
    std::vector<int> removed;  // removeTimer() arguments, in order
    std::vector<std::pair<timerFlags_t, ltTime>> added;  // doAddTimer() flags and first expiry
    int nextId = 100;

    int registerMainLoopMember(const ltMainLoopMember&) override { return 1; }
    int unregisterMainLoopMember(int, const ltMainLoopMember&) override { return 0; }
    void wakeupEventLoop() override {}
    void removeIOHandle(int) override {}
    void exec() override {}
    void processTimeouts() override {}
    int addObjectTimer(timerFlags_t, const ltTime&, const ltTime&, void*) override { return 0; }
    void removeTimer(int id) override { removed.push_back(id), timers.erase(id); }
    ltTime getNextWakeupTime() override { return ltTime(0, 0); }
    int doAddTimer(timerFlags_t f, const ltTime& first, const ltTime&, ltTimerCallback cb, void* userData) override
    {
        added.emplace_back(f, first);
        timers[++nextId] = {cb, userData};
        return nextId;
    }
    int doAddIOHandle(handleType_t, handleFlags_t, int, ltIOHandleCallback, void*) override { return 0; }

    int timerOf(const void* userData) const
    {
        auto t = std::find_if(timers.begin(), timers.end(), [&](const auto& t) { return t.second.second == userData; });
        return t == timers.end() ? 0 : t->first;
    }
    bool wasRemoved(int id) const { return std::find(removed.begin(), removed.end(), id) != removed.end(); }
    void fire(int id)  // as a loop fires a one-shot timer: out of the table first, then its callback
    {
        const auto t = timers.at(id);
        timers.erase(id);
        (void)t.first(id, ltTime(0, 0), t.second);
    }
};

template <class H = Probe, class... A>
H* mortal(Recorder& rec, const char* name, A... args)
{
    auto* h = new H(rec, name, args...);
    h->setLethalTime(ltTime(1, 0));
    return h;
}

// Only a handler the queue deletes loses its lethal timer; a survivor is invoked with reason 1 at it.
TEST(LethalTimers, OnlyHandlersTheQueueDeletesLoseTheirTimer)
{
    AppLoop loop;
    ltEventQueue queue(loop);
    Recorder rec;
    const int persistent = ltEventHandler::kPersistent;
    Probe* once = mortal(rec, "once", key1Is(1), 0, goOn);  // deleted after its call
    Probe* borrowed = mortal(rec, "borrowed", key1Is(1), ltEventHandler::kNotOwned, goOn);  // survives its call
    Probe* released = mortal(rec, "released", key1Is(1), persistent, goOn);
    Probe* kept = mortal(rec, "kept", key1Is(1), persistent, goOn);
    Probe* dropped = mortal(rec, "dropped", key1Is(1), persistent, goOn);
    for (Probe* h : {once, borrowed, released, kept, dropped})
        ASSERT_NE(0u, queue.addEventHandler(h));
    const int onceTimer = loop.timerOf(once), borrowedTimer = loop.timerOf(borrowed), releasedTimer = loop.timerOf(released),
              keptTimer = loop.timerOf(kept), droppedTimer = loop.timerOf(dropped);
    ASSERT_EQ(5u, loop.timers.size());

    // "borrowed" moves into the index of "once" and is skipped for the first event: kept.
    for (unsigned key2 : {1u, 2u}) {
        post(queue, rec, 1, key2);
        ASSERT_EQ(0, queue.processNextEvent());
    }
    EXPECT_TRUE(loop.wasRemoved(onceTimer));
    EXPECT_EQ(0u, borrowed->id);
    EXPECT_EQ(0u, queue.addEventHandler(borrowed));  // removed, not deleted, and still owned
    EXPECT_EQ(EBUSY, errno);
    EXPECT_FALSE(loop.wasRemoved(borrowedTimer));
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, released, false));
    EXPECT_FALSE(loop.wasRemoved(releasedTimer));
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, dropped, true));
    EXPECT_TRUE(loop.wasRemoved(droppedTimer));

    released->flags &= ~ltEventHandler::kPersistent;  // now it is dropped at its lethal time
    for (int id : {borrowedTimer, releasedTimer, keptTimer})
        loop.fire(id);
    for (const char* name : {"borrowed", "released", "kept"})
        EXPECT_EQ(1, rec.count(name, ltEventHandler::kReasonLethalTime)) << name;
    // "released" left without being deleted: deleted now; "borrowed" and "kept" live on.
    EXPECT_EQ((std::map<std::string, int>{{"dropped", 1}, {"once", 1}, {"released", 1}}), rec.handlersDeleted);
    EXPECT_EQ(2u, loop.removed.size());  // once's and dropped's: none twice, none by mistake
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, kept, true));
    EXPECT_EQ(2u, loop.removed.size());  // kept's timer has fired: nothing left to remove
    delete borrowed;
}

// A nested processNextEvent() finds the queue empty and renews the known time: the event then
// kept carries the old one and is offered again, not left queued for ever.
TEST(PutBack, EventKeptAfterTheQueueWasFoundEmptyIsOfferedAgain)
{
    DrivenLoop loop;
    ltEventQueue queue(loop);
    Recorder rec;
    struct Nested : ltEventHandler {
        Nested() : ltEventHandler(nullptr, nullptr, nullptr, kPersistent) {}
        int invoke(ltEventQueue& q, ltEvent*, int) override
        {
            if (++calls > 1)
                return 1;  // finished the second time
            const ltTime known = q.getKnownTime();
            inner = q.processNextEvent();
            innerErrno = errno;
            while (lt_internal::monotonicNow() == known) {  // the next known time differs
            }
            return 0;
        }
        int calls = 0, inner = 0, innerErrno = 0;
    };
    auto* nested = new Nested();
    ASSERT_NE(0u, queue.addEventHandler(nested));
    post(queue, rec, 1, 1);
    EXPECT_EQ(0, queue.processNextEvent());
    EXPECT_EQ(-1, nested->inner);
    EXPECT_EQ(EAGAIN, nested->innerErrno);
    EXPECT_EQ(0u, rec.eventsDeleted.count(1));
    EXPECT_EQ(0, queue.processNextEvent());  // offered again, and finished
    EXPECT_EQ(2, nested->calls);
    EXPECT_EQ(1, rec.eventsDeleted[1]);
    EXPECT_EQ(-1, queue.processNextEvent());
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, nullptr, true));
}

struct Leaver : Probe {
    Leaver(Recorder& r, const char* n, bool d) : Probe(r, n, nullptr, 0, goOn), destroy(d) {}
    int invoke(ltEventQueue& q, ltEvent* e, int reason) override
    {
        (void)Probe::invoke(q, e, reason);
        return q.removeEventHandlers(0, 0, this, destroy) == 1 ? 1 : -1;  // may delete this
    }
    bool destroy;
};

struct Expirer : ltEventHandler {
    Expirer(AppLoop& l) : ltEventHandler(nullptr, nullptr, nullptr, kPersistent), loop(l) {}
    int invoke(ltEventQueue&, ltEvent* event, int) override
    {
        loop.fire(loop.timerOf(event));  // as if the handler ran the loop's timers
        return 0;                        // would keep it
    }
    AppLoop& loop;
};

// Handlers leaving during their own call: one deleted is not touched again; one only removed is
// still deleted as non-persistent. An event expiring in its dispatch is deleted when that ends.
TEST(HandlerRemoval, HandlersLeavingDuringTheirOwnCall)
{
    AppLoop loop;
    ltEventQueue queue(loop);
    Recorder rec;
    ASSERT_NE(0u, queue.addEventHandler(3, new Leaver(rec, "deleter", true)));
    ASSERT_NE(0u, queue.addEventHandler(2, new Leaver(rec, "releaser", false)));
    ASSERT_NE(0u, queue.addEventHandler(1, new Probe(rec, "last", nullptr, ltEventHandler::kPersistent, goOn)));
    post(queue, rec, 1, 1);
    EXPECT_EQ(0, queue.processNextEvent());
    EXPECT_EQ(1, rec.handlersDeleted["deleter"]);
    // "releaser" moved into the index of "deleter" and was skipped for this event: kept.
    EXPECT_EQ(0, rec.count("releaser", 0));
    EXPECT_EQ(1, rec.count("last", 0));
    post(queue, rec, 1, 2);
    EXPECT_EQ(0, queue.processNextEvent());
    EXPECT_EQ(1, rec.count("releaser", 0));
    EXPECT_EQ(1, rec.handlersDeleted["releaser"]);

    Leaver* atLethalTime[] = {mortal<Leaver>(rec, "lethal-deleter", true), mortal<Leaver>(rec, "lethal-releaser", false)};
    for (Leaver* h : atLethalTime) {
        ASSERT_NE(0u, queue.addEventHandler(h));
        loop.fire(loop.timerOf(h));
    }
    for (const char* name : {"deleter", "releaser", "lethal-deleter", "lethal-releaser"})
        EXPECT_EQ(1, rec.handlersDeleted[name]) << name;
    EXPECT_EQ(1, rec.count("lethal-deleter", ltEventHandler::kReasonLethalTime));

    ASSERT_NE(0u, queue.addEventHandler(5, new Expirer(loop)));
    post(queue, rec, 1, 3, 5);
    loop.removed.clear();
    EXPECT_EQ(0, queue.processNextEvent());
    EXPECT_EQ((std::map<unsigned, int>{{1, 1}, {2, 1}, {3, 1}}), rec.eventsDeleted);
    EXPECT_EQ(1, rec.count("last", 0));  // skipped for the second event, not reached by this one
    EXPECT_EQ(1u, loop.removed.size());  // by the expiry; not again with a stale id
    EXPECT_EQ(-1, queue.processNextEvent());
    EXPECT_EQ(2, queue.removeEventHandlers(0, 0, nullptr, true));
}

int recordLethal(ltEventQueue&, ltEvent*, int reason, void* user) { return static_cast<Recorder*>(user)->calls.push_back({"function", 0, reason}), 1; }

TEST(MonotonicTimeouts, TtlsAndLethalTimesRunFromNowWhereTheKeptOnesEndAtOnce)
{
    DrivenLoop driven;
    ltEventQueue road(driven);
    const int member = driven.registerMainLoopMember(road);
    ASSERT_NE(0, member);
    Recorder rec;
    road.useMonotonicTimeouts();
    auto* mortal = new Probe(rec, "mortal", key1Is(9), 0, goOn);
    mortal->setLethalTime(ltTime(0, 300000));  // a duration from the add
    ASSERT_NE(0u, road.addEventHandler(mortal));
    ASSERT_NE(0u, road.addEventHandlerFunction(recordLethal, key1Is(9), &rec, 300, ltEventHandler::kOwnsMask));
    const ltTime start = lt_internal::monotonicNow();
    post(road, rec, 1, 1, 300);  // matched by no handler: only its TTL ends it
    road.useMonotonicTimeouts(false);
    post(road, rec, 1, 2, 300);  // the kept behaviour: ended on the next pass
    driven.pass();
    EXPECT_EQ(1, rec.eventsDeleted[2]);
    if (ltTimeNotAfter(lt_internal::monotonicNow(), ltTimeAdd(start, ltTime(0, 250000)))) {  // unless stalled
        EXPECT_EQ(0u, rec.eventsDeleted.count(1));
        EXPECT_TRUE(rec.calls.empty());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    driven.pass();
    EXPECT_EQ(1, rec.eventsDeleted[1]);
    EXPECT_EQ(1, rec.count("mortal", ltEventHandler::kReasonLethalTime));
    EXPECT_EQ(1, rec.count("function", ltEventHandler::kReasonLethalTime));
    EXPECT_EQ(1, rec.handlersDeleted["mortal"]);
    driven.unregisterMainLoopMember(member, road);

    // Any other kind of loop is given the wall-clock time at which the duration ends.
    AppLoop loop;
    ltEventQueue queue(loop);
    queue.useMonotonicTimeouts();
    const ltTime before = lt_internal::wallClockNow();
    auto* e = new CountedEvent(rec, 1, 3);
    ASSERT_EQ(0, queue.post(*e, 2500));
    const int ttl = loop.timerOf(e);
    auto* far = new Probe(rec, "far", nullptr, ltEventHandler::kPersistent, goOn);
    far->setLethalTime(ltTime(3, 0));
    ASSERT_NE(0u, queue.addEventHandler(far));
    const ltTime after = lt_internal::wallClockNow();
    ASSERT_EQ(2u, loop.added.size());
    const ltTime durations[] = {ltTime(2, 500000), ltTime(3, 0)};
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(timerAbsolute, loop.added[i].first);
        EXPECT_TRUE(ltTimeNotAfter(ltTimeAdd(before, durations[i]), loop.added[i].second)) << i;
        EXPECT_TRUE(ltTimeNotAfter(loop.added[i].second, ltTimeAdd(after, durations[i]))) << i;
    }
    loop.fire(ttl);
    EXPECT_EQ(std::vector<int>{ttl}, loop.removed);  // on the loop it was armed on
    EXPECT_EQ(1, rec.eventsDeleted[3]);
    EXPECT_EQ(-1, queue.processNextEvent());
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, far, true));
}

}  // namespace
