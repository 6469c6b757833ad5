//===- lteventqueue_test.cpp - Events on the running select loop ----------===//
#include "lteventqueue.h"

#include <gtest/gtest.h>

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

TEST(EventRoad, NonPersistentHandlerLeavesAfterOneInvocation)
{
    Road& road = newRoad();
    Recorder& rec = *road.rec;
    road.queue->addEventHandler(10, new Probe(rec, "once", nullptr, 0, goOn));
    road.queue->addEventHandler(5, new Probe(rec, "next", nullptr, ltEventHandler::kPersistent, goOn));
    road.run();

    road.post(1, 1);
    ASSERT_TRUE(road.waitDeleted(1));
    road.post(1, 2);
    ASSERT_TRUE(road.waitDeleted(2));
    std::lock_guard<std::mutex> lock(rec.m);
    // "next" moved into the index of "once" and was skipped for the first event: kept.
    ASSERT_EQ(2u, rec.calls.size());
    EXPECT_EQ("once", rec.calls[0].handler);
    EXPECT_EQ("next", rec.calls[1].handler);
    EXPECT_EQ(2u, rec.calls[1].key2);
    EXPECT_EQ(1, rec.handlersDeleted["once"]);
    EXPECT_EQ(1, rec.eventsDeleted[1]);
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

}  // namespace
