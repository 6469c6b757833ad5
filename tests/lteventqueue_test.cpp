//===- lteventqueue_test.cpp - Events on the running select loop ----------===//
#include "lteventqueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lteventmask.h"
#include "ltclock.h"
#include "ltlinuxselectmainloop.h"

namespace {

using M = ltEventMask;

struct TestLoop : ltLinuxSelectMainLoop {
    using ltLinuxSelectMainLoop::ltLinuxSelectMainLoop;
};

// What the handlers saw and which objects were deleted, from any thread.
struct Recorder {
    struct Call {
        std::string handler;
        unsigned key2;
        int reason;
        std::thread::id thread;
    };
    std::mutex m;
    std::condition_variable cv;
    std::vector<Call> calls;
    std::map<unsigned, int> eventsDeleted;       // by key2
    std::map<std::string, int> handlersDeleted;  // by name

    template <class F> void update(F f)
    {
        {
            std::lock_guard<std::mutex> lock(m);
            f();
        }
        cv.notify_all();
    }
    template <class P> bool waitUntil(P pred)
    {
        std::unique_lock<std::mutex> lock(m);
        return cv.wait_for(lock, std::chrono::seconds(20), pred);
    }
    int countLocked(const std::string& name, int reason) const  // caller holds m
    {
        int n = 0;
        for (const Call& c : calls)
            n += c.handler == name && c.reason == reason;
        return n;
    }
};

struct CountedEvent : ltEvent {
    CountedEvent(Recorder& r, unsigned k1, unsigned k2) : ltEvent(k1, k2, 0, 0, nullptr, 0), rec(r) {}
    ~CountedEvent() override { rec.update([this] { ++rec.eventsDeleted[key2]; }); }
    Recorder& rec;
};

// A handler that records each invocation and its own deletion; owns its mask.
struct Probe : ltEventHandler {
    using Result = int (*)(const ltEvent*);
    Probe(Recorder& r, const char* n, ltEventMask* m, int f, Result res)
        : ltEventHandler(m, nullptr, nullptr, f | kOwnsMask), rec(r), name(n), result(res)
    {
    }
    ~Probe() override { rec.update([this] { ++rec.handlersDeleted[name]; }); }
    int invoke(ltEventQueue&, ltEvent* e, int reason) override
    {
        rec.update([&] {
            rec.calls.push_back({name, e ? e->key2 : 0, reason, std::this_thread::get_id()});
        });
        return result(e);
    }
    Recorder& rec;
    std::string name;
    Result result;
};

int goOn(const ltEvent*) { return 1; }
int keep(const ltEvent*) { return 0; }
int stop(const ltEvent*) { return -1; }
int keepEven(const ltEvent* e) { return e->key2 % 2 == 0 ? 0 : 1; }

M* key1Is(unsigned v) { return new M(M::kMaskNone, 1, M::kKeyEqual, v, 0); }
M* key1AtMost(unsigned v) { return new M(M::kMaskNone, 1, M::kKeyGreaterEqual, v, 0); }

// A queue registered with a loop that exec() runs on its own thread. The loop runs until the
// process ends, so a road and everything it reaches is never freed.
struct Road {
    TestLoop* loop = new TestLoop();
    ltEventQueue* queue = new ltEventQueue(*loop);
    Recorder* rec = new Recorder();
    std::thread::id loopThread;

    // Handlers are added before this: afterwards only the loop thread may touch them.
    void run()
    {
        ASSERT_NE(0, loop->registerMainLoopMember(*queue));
        auto started = std::make_shared<std::promise<std::thread::id>>();
        std::future<std::thread::id> id = started->get_future();
        TestLoop* l = loop;
        std::thread([l, started] {
            started->set_value(std::this_thread::get_id());
            l->exec();
        }).detach();
        loopThread = id.get();
    }
    void post(unsigned key1, unsigned key2, unsigned ttlMs = 0)
    {
        ASSERT_EQ(0, queue->post(*new CountedEvent(*rec, key1, key2), ttlMs));
    }
    bool waitDeleted(unsigned key2)
    {
        return rec->waitUntil([&] { return rec->eventsDeleted.count(key2) != 0; });
    }
};

Road& newRoad()
{
    static auto* roads = new std::vector<Road*>();  // never destroyed, so never a leak
    roads->push_back(new Road());
    return *roads->back();
}

TEST(QueueAdmission, LimitIsStrictlyGreaterAndOwnedObjectsAreRefused)
{
    TestLoop loop;  // not run: this thread plays the loop thread
    ltEventQueue queue(loop);
    Recorder rec;
    errno = 0;
    EXPECT_EQ(-1, queue.processNextEvent());
    EXPECT_EQ(EAGAIN, errno);

    queue.setMaxQueueSize(2);
    CountedEvent* e[4];
    for (unsigned i = 0; i < 4; ++i)
        e[i] = new CountedEvent(rec, 1, i);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(0, queue.post(*e[i], 0)) << i;  // one past the limit is accepted
    EXPECT_EQ(-1, queue.post(*e[3], 0));
    EXPECT_EQ(EAGAIN, errno);
    queue.setMaxQueueSize(0);
    EXPECT_EQ(-1, queue.post(*e[0], 0));
    EXPECT_EQ(EBUSY, errno);

    auto* sink = new Probe(rec, "sink", nullptr, ltEventHandler::kPersistent, goOn);
    EXPECT_EQ(2u, queue.addEventHandler(sink));  // the counter starts at 1
    EXPECT_EQ(0u, queue.addEventHandler(5, sink));
    EXPECT_EQ(EBUSY, errno);
    while (queue.processNextEvent() == 0) {
    }
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(3, rec.countLocked("sink", 0));
    for (unsigned i = 0; i < 3; ++i)
        EXPECT_EQ(1, rec.eventsDeleted[i]);
    delete e[3];  // never accepted: still the caller's
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, sink, true));
    EXPECT_EQ(1, rec.handlersDeleted["sink"]);
}

TEST(HandlerRemoval, MatchesByGroupIdAndHandlerAndDeletesOnlyWhenAsked)
{
    TestLoop loop;
    ltEventQueue queue(loop);
    Recorder rec;
    const char* names[] = {"any", "seven", "eight", "seven-too"};
    const int groups[] = {0, 7, 8, 7};
    Probe* h[4];
    for (int i = 0; i < 4; ++i) {
        h[i] = new Probe(rec, names[i], key1Is(1), ltEventHandler::kPersistent, goOn);
        h[i]->groupTag = groups[i];
        ASSERT_NE(0u, queue.addEventHandler(h[i]));
    }
    EXPECT_EQ(3, queue.removeEventHandlers(0, 7, nullptr, false));  // group 0 matches every group
    EXPECT_EQ(0, queue.removeEventHandlers(h[2]->id + 1, 0, nullptr, true));
    EXPECT_EQ(1, queue.removeEventHandlers(h[2]->id, 0, nullptr, true));
    EXPECT_EQ(1, rec.handlersDeleted["eight"]);
    EXPECT_TRUE(rec.handlersDeleted.count("seven") == 0);
    for (int i : {0, 1, 3})
        delete h[i];

    // kNotOwned: removed after its one invocation, id reset, not deleted, and still owned.
    auto* borrowed = new Probe(rec, "borrowed", nullptr, ltEventHandler::kNotOwned, goOn);
    ASSERT_NE(0u, queue.addEventHandler(borrowed));
    ASSERT_EQ(0, queue.post(*new CountedEvent(rec, 1, 1), 0));
    EXPECT_EQ(0, queue.processNextEvent());
    EXPECT_EQ(1, rec.countLocked("borrowed", 0));
    EXPECT_EQ(0u, borrowed->id);
    EXPECT_EQ(1, rec.eventsDeleted[1]);
    EXPECT_EQ(0u, queue.addEventHandler(borrowed));
    EXPECT_EQ(EBUSY, errno);
    delete borrowed;
}

TEST(EventRoad, PostsFromSeveralThreadsRunOnTheLoopThreadByPriority)
{
    Road& road = newRoad();
    Recorder& rec = *road.rec;
    const int f = ltEventHandler::kPersistent;
    road.queue->addEventHandler(5, new Probe(rec, "mid-a", key1AtMost(2), f, goOn));
    road.queue->addEventHandler(0, new Probe(rec, "low", key1AtMost(2), f, goOn));
    road.queue->addEventHandler(10, new Probe(rec, "high", key1AtMost(2), f, goOn));
    road.queue->addEventHandler(5, new Probe(rec, "mid-b", key1AtMost(2), f, goOn));
    road.queue->addEventHandler(7, new Probe(rec, "stop", key1Is(2), f, stop));
    road.run();

    constexpr unsigned kThreads = 4, kPerThread = 25;
    std::vector<std::thread> posters;
    for (unsigned t = 0; t < kThreads; ++t) {
        posters.emplace_back([&road, t] {
            for (unsigned i = 0; i < kPerThread; ++i)
                road.post(i % 5 == 0 ? 2 : 1, t * 1000 + i);  // every fifth is stopped
        });
    }
    for (std::thread& p : posters)
        p.join();
    ASSERT_TRUE(rec.waitUntil([&] { return rec.eventsDeleted.size() == kThreads * kPerThread; }));

    std::lock_guard<std::mutex> lock(rec.m);
    std::map<unsigned, std::vector<std::string>> order;  // by key2
    for (const Recorder::Call& c : rec.calls) {
        EXPECT_EQ(road.loopThread, c.thread);
        order[c.key2].push_back(c.handler);
    }
    const std::vector<std::string> passed = {"high", "mid-a", "mid-b", "low"};
    const std::vector<std::string> stopped = {"high", "stop"};
    for (unsigned t = 0; t < kThreads; ++t) {
        for (unsigned i = 0; i < kPerThread; ++i) {
            const unsigned key2 = t * 1000 + i;
            EXPECT_EQ(i % 5 == 0 ? stopped : passed, order[key2]) << key2;
            EXPECT_EQ(1, rec.eventsDeleted[key2]) << key2;
        }
    }
}

TEST(EventRoad, KeptEventIsNotOfferedAgainWhileTheQueueNeverEmpties)
{
    Road& road = newRoad();
    Recorder& rec = *road.rec;
    road.queue->addEventHandler(new Probe(rec, "keeper", key1Is(3), ltEventHandler::kPersistent, keep));
    road.queue->addEventHandler(new Probe(rec, "finisher", key1Is(4), ltEventHandler::kPersistent, goOn));
    road.run();

    road.post(3, 1);
    ASSERT_TRUE(rec.waitUntil([&] { return rec.countLocked("keeper", 0) == 1; }));
    for (unsigned k = 2; k < 5; ++k) {  // passes run, but the kept event stays queued
        road.post(4, k);
        ASSERT_TRUE(road.waitDeleted(k));
    }
    std::lock_guard<std::mutex> lock(rec.m);
    EXPECT_EQ(1, rec.countLocked("keeper", 0));
    EXPECT_EQ(3, rec.countLocked("finisher", 0));
    EXPECT_EQ(0u, rec.eventsDeleted.count(1));
}

TEST(EventRoad, LethalTimeInvokesHandlersWithReasonOne)
{
    Road& road = newRoad();
    Recorder& rec = *road.rec;
    const ltTime lethal = ltTimeAdd(road.queue->getKnownTime(), ltTimeFromMs(50));
    for (int flags : {0, ltEventHandler::kPersistent}) {
        auto* h = new Probe(rec, flags == 0 ? "mortal" : "immortal", key1Is(6), flags, goOn);
        h->setLethalTime(lethal);
        road.queue->addEventHandler(h);
    }
    road.run();

    ASSERT_TRUE(rec.waitUntil([&] { return rec.countLocked("immortal", 1) == 1 && rec.handlersDeleted.size() == 1; }));
    road.post(6, 1);  // the persistent one stays after its lethal time
    ASSERT_TRUE(road.waitDeleted(1));
    std::lock_guard<std::mutex> lock(rec.m);
    EXPECT_EQ(1, rec.countLocked("mortal", ltEventHandler::kReasonLethalTime));
    EXPECT_EQ(1, rec.handlersDeleted["mortal"]);
    EXPECT_EQ(1, rec.countLocked("immortal", ltEventHandler::kReasonEvent));
    EXPECT_EQ(0, rec.countLocked("mortal", ltEventHandler::kReasonEvent));
    for (const Recorder::Call& c : rec.calls)
        EXPECT_EQ(road.loopThread, c.thread);
}

// Posting with a TTL arms the timer before the event is appended; the expiry must still only
// ever see queued events. Run under the sanitizers, this catches a use after free. The kept
// (even) events can only be ended by their TTL.
TEST(TtlRace, EveryEventPostedWithATtlFromSeveralThreadsIsDeletedExactlyOnce)
{
    Road& road = newRoad();
    Recorder& rec = *road.rec;
    // Even events are kept (only their TTL ends them), odd ones finished by the handler.
    road.queue->addEventHandler(new Probe(rec, "parity", nullptr, ltEventHandler::kPersistent, keepEven));
    road.run();

    constexpr unsigned kThreads = 4, kPerThread = 1000;
    std::vector<std::thread> posters;
    for (unsigned t = 0; t < kThreads; ++t) {
        posters.emplace_back([&road, t] {
            for (unsigned i = 0; i < kPerThread; ++i)
                road.post(1, t * 1000 + i, 1 + i % 20);
        });
    }
    for (std::thread& p : posters)
        p.join();
    ASSERT_TRUE(rec.waitUntil([&] { return rec.eventsDeleted.size() == kThreads * kPerThread; }));
    std::lock_guard<std::mutex> lock(rec.m);
    for (const auto& d : rec.eventsDeleted)
        EXPECT_EQ(1, d.second) << d.first;
}

// An application's own loop: records what the queue asks of it and fires timers on demand.
struct AppLoop : ltMainLoop {
    struct Timer {
        ltTimerCallback callback;
        void* userData;
    };
    std::map<int, Timer> timers;
    std::vector<int> removed;  // removeTimer() arguments, in order
    int nextId = 100;

    int registerMainLoopMember(const ltMainLoopMember&) override { return 1; }
    int unregisterMainLoopMember(int, const ltMainLoopMember&) override { return 0; }
    void wakeupEventLoop() override {}
    void removeIOHandle(int) override {}
    int addObjectTimer(timerFlags_t, const ltTime&, const ltTime&, void*) override { return 0; }
    void removeTimer(int id) override
    {
        removed.push_back(id);
        timers.erase(id);
    }
    void exec() override {}
    ltTime getNextWakeupTime() override { return ltTime(0, 0); }
    void processTimeouts() override {}
    int doAddTimer(timerFlags_t, const ltTime&, const ltTime&, ltTimerCallback cb, void* userData) override
    {
        timers[++nextId] = {cb, userData};
        return nextId;
    }
    int doAddIOHandle(handleType_t, handleFlags_t, int, ltIOHandleCallback, void*) override { return 0; }

    int timerOf(const void* userData) const
    {
        for (const auto& t : timers) {
            if (t.second.userData == userData)
                return t.first;
        }
        return 0;
    }
    bool wasRemoved(int id) const { return std::find(removed.begin(), removed.end(), id) != removed.end(); }
    // Fires a one-shot timer as a loop does: out of the table first, then its callback.
    void fire(int id)
    {
        const Timer t = timers.at(id);
        timers.erase(id);
        (void)t.callback(id, ltTime(0, 0), t.userData);
    }
};

Probe* mortal(Recorder& rec, const char* name, int flags, Probe::Result result)
{
    auto* h = new Probe(rec, name, key1Is(1), flags, result);
    h->setLethalTime(ltTime(1, 0));
    return h;
}

// Lethal timers: only a handler the queue deletes loses its timer (it would fire on freed
// memory). One that leaves and survives keeps it, and at its lethal time is invoked with
// reason 1 and then dropped like one still queued.
TEST(LethalTimers, OnlyHandlersTheQueueDeletesLoseTheirTimer)
{
    AppLoop loop;
    ltEventQueue queue(loop);
    Recorder rec;
    Probe* once = mortal(rec, "once", 0, goOn);                           // deleted after its call
    Probe* borrowed = mortal(rec, "borrowed", ltEventHandler::kNotOwned, goOn);  // survives its call
    Probe* released = mortal(rec, "released", ltEventHandler::kPersistent, goOn);
    Probe* kept = mortal(rec, "kept", ltEventHandler::kPersistent, goOn);
    Probe* dropped = mortal(rec, "dropped", ltEventHandler::kPersistent, goOn);
    for (Probe* h : {once, borrowed, released, kept, dropped})
        ASSERT_NE(0u, queue.addEventHandler(h));
    const int onceTimer = loop.timerOf(once), borrowedTimer = loop.timerOf(borrowed),
              releasedTimer = loop.timerOf(released), keptTimer = loop.timerOf(kept),
              droppedTimer = loop.timerOf(dropped);
    ASSERT_EQ(5u, loop.timers.size());

    // "borrowed" moves into the index of "once" and is skipped for the first event: kept.
    for (unsigned key2 : {1u, 2u}) {
        ASSERT_EQ(0, queue.post(*new CountedEvent(rec, 1, key2), 0));
        ASSERT_EQ(0, queue.processNextEvent());
    }
    EXPECT_EQ(1, rec.handlersDeleted["once"]);
    EXPECT_TRUE(loop.wasRemoved(onceTimer));
    EXPECT_EQ(0u, borrowed->id);
    EXPECT_FALSE(loop.wasRemoved(borrowedTimer));
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, released, false));
    EXPECT_FALSE(loop.wasRemoved(releasedTimer));
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, dropped, true));
    EXPECT_TRUE(loop.wasRemoved(droppedTimer));
    EXPECT_EQ(1, rec.handlersDeleted["dropped"]);

    // The surviving handlers' timers fire: each is invoked with reason 1; the persistent one
    // that was released stays; the one not owned gets its id reset (already 0) and lives on.
    released->flags &= ~ltEventHandler::kPersistent;  // now it is dropped at its lethal time
    loop.fire(borrowedTimer);
    loop.fire(releasedTimer);
    loop.fire(keptTimer);
    EXPECT_EQ(1, rec.countLocked("borrowed", ltEventHandler::kReasonLethalTime));
    EXPECT_EQ(1, rec.countLocked("released", ltEventHandler::kReasonLethalTime));
    EXPECT_EQ(1, rec.countLocked("kept", ltEventHandler::kReasonLethalTime));
    EXPECT_EQ(0, rec.handlersDeleted.count("borrowed"));
    EXPECT_EQ(1, rec.handlersDeleted["released"]);  // left without being deleted: deleted now
    EXPECT_EQ(0, rec.handlersDeleted.count("kept"));
    EXPECT_EQ(2u, loop.removed.size());  // once's and dropped's: none twice, none by mistake
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, kept, true));
    EXPECT_EQ(2u, loop.removed.size());  // kept's timer has fired: nothing left to remove
    delete borrowed;
}

// The TTL expiry removes the event's timer on the loop the queue was given, whatever the
// loop did with it, and deletes the event once; one that expires while it is being
// dispatched is deleted when its dispatch ends, and reaches no further handler.
TEST(EventTtl, ExpiryRemovesTheTimerOnTheGivenLoopAndDeletesOnce)
{
    AppLoop loop;
    ltEventQueue queue(loop);
    Recorder rec;
    auto* e = new CountedEvent(rec, 1, 1);
    ASSERT_EQ(0, queue.post(*e, 5));
    const int ttl = loop.timerOf(e);
    ASSERT_NE(0, ttl);
    loop.fire(ttl);
    EXPECT_EQ(std::vector<int>{ttl}, loop.removed);
    EXPECT_EQ(1, rec.eventsDeleted[1]);
    EXPECT_EQ(-1, queue.processNextEvent());

    struct Expirer : ltEventHandler {
        Expirer(AppLoop& l) : ltEventHandler(nullptr, nullptr, nullptr, kPersistent), loop(l) {}
        int invoke(ltEventQueue&, ltEvent* event, int) override
        {
            loop.fire(loop.timerOf(event));  // as if the handler ran the loop's timers
            return 0;                        // would keep it
        }
        AppLoop& loop;
    };
    ASSERT_NE(0u, queue.addEventHandler(5, new Expirer(loop)));
    auto* after = new Probe(rec, "after", nullptr, ltEventHandler::kPersistent, goOn);
    ASSERT_NE(0u, queue.addEventHandler(0, after));
    ASSERT_EQ(0, queue.post(*new CountedEvent(rec, 1, 2), 5));
    loop.removed.clear();
    EXPECT_EQ(0, queue.processNextEvent());
    EXPECT_EQ(1, rec.eventsDeleted[2]);
    EXPECT_EQ(0, rec.countLocked("after", 0));
    EXPECT_EQ(1u, loop.removed.size());  // by the expiry; not again with a stale id
    EXPECT_EQ(-1, queue.processNextEvent());
    EXPECT_EQ(2, queue.removeEventHandlers(0, 0, nullptr, true));
}

// A handler that runs processNextEvent() itself on a queue holding nothing else finds it
// empty, so the known time is renewed: the event it then keeps carries the old known time and
// is offered again on the next call, not left queued for ever.
TEST(PutBack, EventKeptAfterTheQueueWasFoundEmptyIsOfferedAgain)
{
    TestLoop loop;  // not run: this thread plays the loop thread
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
        int calls = 0;
        int inner = 0;
        int innerErrno = 0;
    };
    auto* nested = new Nested();
    ASSERT_NE(0u, queue.addEventHandler(nested));
    ASSERT_EQ(0, queue.post(*new CountedEvent(rec, 1, 1), 0));
    EXPECT_EQ(0, queue.processNextEvent());
    EXPECT_EQ(-1, nested->inner);
    EXPECT_EQ(EAGAIN, nested->innerErrno);
    EXPECT_EQ(0, rec.eventsDeleted.count(1));
    EXPECT_EQ(0, queue.processNextEvent());  // offered again, and finished
    EXPECT_EQ(2, nested->calls);
    EXPECT_EQ(1, rec.eventsDeleted[1]);
    EXPECT_EQ(-1, queue.processNextEvent());
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, nullptr, true));
}

// Handlers that leave during their own invocation: one deleted by removeEventHandlers() is not
// touched again; one removed without being deleted is still done with as a non-persistent
// handler is (deleted); the list keeps every other handler.
TEST(HandlerRemoval, HandlersLeavingDuringTheirOwnCall)
{
    TestLoop loop;
    ltEventQueue queue(loop);
    Recorder rec;
    struct Leaver : Probe {
        Leaver(Recorder& r, const char* n, bool d) : Probe(r, n, nullptr, 0, goOn), destroy(d) {}
        int invoke(ltEventQueue& q, ltEvent* e, int reason) override
        {
            (void)Probe::invoke(q, e, reason);
            return q.removeEventHandlers(0, 0, this, destroy) == 1 ? 1 : -1;  // may delete this
        }
        bool destroy;
    };
    ASSERT_NE(0u, queue.addEventHandler(3, new Leaver(rec, "deleter", true)));
    ASSERT_NE(0u, queue.addEventHandler(2, new Leaver(rec, "releaser", false)));
    ASSERT_NE(0u, queue.addEventHandler(1, new Probe(rec, "last", nullptr, ltEventHandler::kPersistent, goOn)));
    ASSERT_EQ(0, queue.post(*new CountedEvent(rec, 1, 1), 0));
    EXPECT_EQ(0, queue.processNextEvent());
    EXPECT_EQ(1, rec.handlersDeleted["deleter"]);
    // "releaser" moved into the index of "deleter" and was skipped for this event: kept.
    EXPECT_EQ(0, rec.countLocked("releaser", 0));
    EXPECT_EQ(1, rec.countLocked("last", 0));
    ASSERT_EQ(0, queue.post(*new CountedEvent(rec, 1, 2), 0));
    EXPECT_EQ(0, queue.processNextEvent());
    EXPECT_EQ(1, rec.countLocked("releaser", 0));
    EXPECT_EQ(1, rec.handlersDeleted["releaser"]);
    EXPECT_EQ(1, rec.handlersDeleted["deleter"]);
    EXPECT_EQ(1, rec.eventsDeleted[1]);
    EXPECT_EQ(1, rec.eventsDeleted[2]);
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, nullptr, true));
}

// ---- Opt-in: TTLs and lethal times measured from now ----------------------------------------

int recordLethal(ltEventQueue&, ltEvent*, int reason, void* user)
{
    auto* rec = static_cast<Recorder*>(user);
    rec->update([&] { rec->calls.push_back({"function", 0, reason, std::this_thread::get_id()}); });
    return 1;
}

TEST(MonotonicTimeouts, TtlsAndLethalTimesRunFromNowWhereTheKeptOnesEndAtOnce)
{
    Road& road = newRoad();
    Recorder& rec = *road.rec;
    road.queue->useMonotonicTimeouts();
    auto* dying = new Probe(rec, "mortal", key1Is(9), 0, goOn);
    dying->setLethalTime(ltTime(1, 0));  // a duration from the add
    ASSERT_NE(0u, road.queue->addEventHandler(dying));
    ASSERT_NE(0u, road.queue->addEventHandlerFunction(recordLethal, key1Is(9), &rec, 1000, ltEventHandler::kOwnsMask));
    road.run();
    const auto start = std::chrono::steady_clock::now();
    road.post(1, 1, 1000);  // matched by no handler: only its TTL ends it
    road.queue->useMonotonicTimeouts(false);
    road.post(1, 2, 1000);  // the kept behaviour: ended on the next pass
    ASSERT_TRUE(road.waitDeleted(2));
    {
        std::lock_guard<std::mutex> lock(rec.m);
        if (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(900)) {  // unless stalled
            EXPECT_EQ(0u, rec.eventsDeleted.count(1));
            EXPECT_EQ(0, rec.countLocked("mortal", ltEventHandler::kReasonLethalTime));
            EXPECT_EQ(0, rec.countLocked("function", ltEventHandler::kReasonLethalTime));
        }
    }
    EXPECT_TRUE(rec.waitUntil([&] {
        return rec.eventsDeleted.count(1) != 0 && rec.handlersDeleted.count("mortal") != 0 &&
               rec.countLocked("function", ltEventHandler::kReasonLethalTime) == 1;
    }));

    // Any other kind of loop is given the wall-clock time at which the duration ends.
    struct WallLoop : AppLoop {
        std::vector<std::pair<timerFlags_t, ltTime>> added;
        int doAddTimer(timerFlags_t f, const ltTime& first, const ltTime& period, ltTimerCallback cb,
                       void* user) override
        {
            added.emplace_back(f, first);
            return AppLoop::doAddTimer(f, first, period, cb, user);
        }
    } loop;
    ltEventQueue queue(loop);
    queue.useMonotonicTimeouts();
    Recorder local;
    const ltTime before = lt_internal::wallClockNow();
    auto* e = new CountedEvent(local, 1, 3);
    ASSERT_EQ(0, queue.post(*e, 2500));
    auto* far = new Probe(local, "far", nullptr, ltEventHandler::kPersistent, goOn);
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
    loop.fire(loop.timerOf(e));
    EXPECT_EQ(1, local.eventsDeleted[3]);
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, far, true));
}

}  // namespace
