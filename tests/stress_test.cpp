//===- stress_test.cpp - Many threads against one running loop ------------===//
//
// The loop runs on a thread of its own while other threads add and remove timers and
// descriptors and post events. Nothing may be lost: every readable descriptor is dispatched,
// every due timer fires, every event is dispatched or expired exactly once, and every object
// is deleted. A bounded wait that runs out means a lost wake-up; no timing is asserted.
//
//===----------------------------------------------------------------------===//
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "lfcutil.h"
#include "ltcallbackeventhandler.h"
#include "ltclock.h"
#include "lteventmask.h"
#include "lteventqueue.h"
#include "ltlinuxselectmainloop.h"
#include "runningloop.h"

namespace {

// Sanitized and 32-bit builds (run under emulation in CI) do a tenth of the work: the
// interleavings matter there, not the volume.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || UINTPTR_MAX == 0xFFFFFFFFu
constexpr int kScale = 10;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr int kScale = 10;
#else
constexpr int kScale = 1;
#endif
#else
constexpr int kScale = 1;
#endif

constexpr auto kPatience = std::chrono::seconds(20);  // far beyond any healthy wait

// Polls until done() holds; false when kPatience runs out first.
template <typename Done>
bool waitFor(Done done)
{
    const auto until = std::chrono::steady_clock::now() + kPatience;
    while (!done()) {
        if (std::chrono::steady_clock::now() > until)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    return true;
}

// Runs body(t) for t in 0 .. n-1, each on a thread of its own, and joins them.
template <typename Body>
void onThreads(int n, Body body)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < n; ++t)
        threads.emplace_back(body, t);
    for (std::thread& th : threads)
        th.join();
}

struct Readable {
    std::atomic<int> dispatched{0}, wrongThread{0};
    RunningLoop* loop = nullptr;
};

int drainOne(int /*id*/, int fd, void* user)
{
    auto* r = static_cast<Readable*>(user);
    char byte;
    (void)!read(fd, &byte, 1);  // the byte goes before the count, so no later pass sees it ready
    r->wrongThread.fetch_add(r->loop->onLoopThread() ? 0 : 1);
    r->dispatched.fetch_add(1);
    return 0;
}

TEST(LoopStress, DescriptorsAddedAndRemovedFromEightThreadsAreEachDispatched)
{
    const int rounds = 2000 / kScale;
    RunningLoop loop;
    loop.start();
    std::vector<Readable> readable(8);
    std::atomic<int> lost{0};
    onThreads(8, [&](int t) {
        Readable& r = readable[t];
        r.loop = &loop;
        for (int i = 0; i < rounds && lost.load() == 0; ++i) {
            int fds[2];
            ASSERT_EQ(0, pipe2(fds, O_NONBLOCK));
            ASSERT_EQ(1, write(fds[1], "x", 1));
            const int before = r.dispatched.load();
            const int id = loop.doAddIOHandle(handleRead, handleNoFlags, fds[0], drainOne, &r);
            ASSERT_NE(0, id);
            if (!waitFor([&] { return r.dispatched.load() > before; }))
                lost.fetch_add(1);
            loop.removeIOHandle(id);
            // An idle handle on the write end: added and removed at once, never waited for.
            loop.removeIOHandle(loop.doAddIOHandle(handleException, handleNoFlags, fds[1], drainOne, &r));
            (void)close(fds[0]);
            (void)close(fds[1]);
        }
    });
    loop.stop();
    EXPECT_EQ(0, lost.load()) << "a readable descriptor was never dispatched";
    for (const Readable& r : readable) {
        EXPECT_EQ(rounds, r.dispatched.load());  // once each: the byte was read at once
        EXPECT_EQ(0, r.wrongThread.load());
    }
}

struct TimerCounts {
    std::atomic<int> oneShots{0}, periodic{0};
};

// Adds a one-shot timer that is due at once and waits until it has fired; false on time-out.
// Once it has fired, every callback that was under way before it has returned.
bool barrier(RunningLoop& loop, TimerCounts& c)
{
    const int before = c.oneShots.load();
    auto fired = [](int, const ltTime&, void* user) { static_cast<TimerCounts*>(user)->oneShots.fetch_add(1); return 0; };
    return loop.doAddTimer(timerAbsolute, lt_internal::wallClockNow(), ltTime::noTime, fired, &c) != 0 &&
           waitFor([&] { return c.oneShots.load() > before; });
}

TEST(LoopStress, TimersAddedAndRemovedFromEightThreadsFireAndStopFiring)
{
    const int rounds = 1000 / kScale;
    RunningLoop loop;
    loop.start();
    std::vector<TimerCounts> counts(8);
    std::atomic<int> lost{0}, refused{0};
    auto periodicFired = [](int, const ltTime&, void* user) {
        static_cast<TimerCounts*>(user)->periodic.fetch_add(1);
        return 0;
    };
    onThreads(8, [&](int t) {
        TimerCounts& c = counts[t];
        std::minstd_rand random(static_cast<unsigned>(t) + 1);
        std::vector<int> periodic;
        for (int i = 0; i < rounds && lost.load() == 0; ++i) {
            // A due one-shot timer must wake the loop, blocked in select() or not.
            lost.fetch_add(barrier(loop, c) ? 0 : 1);
            // Short periodic timers come and go, some removed before they could ever fire.
            // Each id is removed once only: a stale id could name another thread's new timer.
            const int id = loop.doAddTimer(timerPeriodic, ltTime::noTime,
                                           ltTime(0, 1000 + static_cast<int>(random() % 5000)), periodicFired, &c);
            refused.fetch_add(id == 0 ? 1 : 0);
            if (id != 0 && random() % 2 == 0)
                loop.removeTimer(id);
            else if (id != 0)
                periodic.push_back(id);
            if (periodic.size() > 4) {
                loop.removeTimer(periodic.front());
                periodic.erase(periodic.begin());
            }
        }
        if (lost.load() != 0)
            return;
        for (int id : periodic)
            loop.removeTimer(id);
        // Removed is removed: once a barrier has passed, no periodic callback is left.
        lost.fetch_add(barrier(loop, c) ? 0 : 1);
        const int settled = c.periodic.load();
        lost.fetch_add(barrier(loop, c) && barrier(loop, c) ? 0 : 1);
        EXPECT_EQ(settled, c.periodic.load()) << "a removed timer fired";
    });
    loop.stop();
    EXPECT_EQ(0, lost.load()) << "a due timer did not fire";
    EXPECT_EQ(0, refused.load());
    for (const TimerCounts& c : counts)
        EXPECT_EQ(rounds + 3, c.oneShots.load());  // every one-shot timer fired exactly once
}

constexpr int kPosters = 16;
const int kEventsPerPoster = 100000 / kScale;

// What became of each event, by its number (key1 * kEventsPerPoster + key2).
struct Fates {
    std::vector<std::atomic<uint8_t>> dispatched, destroyed;
    Fates() : dispatched(kPosters * kEventsPerPoster), destroyed(kPosters * kEventsPerPoster) {}
};

Fates* fates = nullptr;
std::atomic<int> liveEvents{0}, liveHandlers{0}, destroyedEvents{0};

class CountedEvent : public ltEvent {
public:
    CountedEvent(unsigned poster, unsigned seq) : ltEvent(poster, seq, 0, 0, nullptr, 0) { liveEvents.fetch_add(1); }
    ~CountedEvent() override
    {
        fates->destroyed[key1 * kEventsPerPoster + key2].fetch_add(1);
        liveEvents.fetch_sub(1);
        destroyedEvents.fetch_add(1);
    }
};

class CountedHandler : public ltCallbackEventHandler {
public:
    CountedHandler(ltEventHandlerCallback cb, void* user, int flags, ltTime* lethal = nullptr)
        : ltCallbackEventHandler(new ltEventMask(), user, lethal, flags | kOwnsMask, cb)
    {
        liveHandlers.fetch_add(1);
    }
    ~CountedHandler() override { liveHandlers.fetch_sub(1); }
};

struct Dispatch {
    RunningLoop* loop = nullptr;
    std::atomic<int> invoked{0}, wrongThread{0};
    std::atomic<int> secondCalls{0};  // invocations of the handler that is dropped after one
};

int countEvent(ltEventQueue&, ltEvent* event, int reason, void* user)
{
    auto* d = static_cast<Dispatch*>(user);
    d->wrongThread.fetch_add(d->loop->onLoopThread() ? 0 : 1);
    if (reason != ltEventHandler::kReasonEvent || event == nullptr)
        return 0;
    d->invoked.fetch_add(1);
    fates->dispatched[event->key1 * kEventsPerPoster + event->key2].fetch_add(1);
    return 1;  // on to the next handler; nobody keeps the event
}

// Not persistent: its first invocation (an event, or its lethal time) is its last.
int countOnce(ltEventQueue&, ltEvent*, int, void* user)
{
    static_cast<Dispatch*>(user)->secondCalls.fetch_add(1);
    return 1;
}

TEST(EventStress, SixteenPostersEveryEventDispatchedOrExpiredExactlyOnce)
{
    Fates fateTable;
    fates = &fateTable;
    const int32_t countedBefore = lfcUtilMallocUsed;
    {
        RunningLoop loop;
        ltEventQueue queue(loop);
        const int member = loop.registerMainLoopMember(queue);
        ASSERT_NE(0, member);
        Dispatch d;
        d.loop = &loop;
        // The counter comes first (higher priority): dropping the handler after it, after its
        // first invocation or at its lethal time, must not cost the counter an event.
        ASSERT_NE(0u, queue.addEventHandler(10, new CountedHandler(countEvent, &d, ltEventHandler::kPersistent)));
        ltTime soon = queue.getKnownTime();
        ASSERT_NE(0u, queue.addEventHandler(0, new CountedHandler(countOnce, &d, 0, &soon)));
        loop.start();

        std::atomic<int> refused{0};
        onThreads(kPosters, [&](int p) {
            std::minstd_rand random(static_cast<unsigned>(p) + 7);
            for (int seq = 0; seq < kEventsPerPoster; ++seq) {
                auto* e = new CountedEvent(static_cast<unsigned>(p), static_cast<unsigned>(seq));
                const unsigned ttl = random() % 3 == 0 ? 1 + random() % 2000 : 0;
                for (errno = 0; queue.post(*e, ttl) != 0; errno = 0) {
                    if (errno == EAGAIN) {  // full: the loop drains it
                        std::this_thread::yield();
                        continue;
                    }
                    refused.fetch_add(1);  // the TTL timer could not be had: still ours
                    delete e;
                    break;
                }
            }
        });
        const int total = kPosters * kEventsPerPoster;
        const bool drained = waitFor([&] { return destroyedEvents.load() == total; });
        loop.stop();

        EXPECT_TRUE(drained) << destroyedEvents.load() << " of " << total << " events finished";
        EXPECT_EQ(0, refused.load());
        EXPECT_EQ(0, d.wrongThread.load());
        EXPECT_EQ(1, d.secondCalls.load());
        int dispatched = 0, wrong = 0;
        for (int i = 0; i < total; ++i) {
            const int seen = fateTable.dispatched[i].load();
            wrong += fateTable.destroyed[i].load() != 1 || seen > 1;
            dispatched += seen == 1;
        }
        EXPECT_EQ(0, wrong) << "an event was dispatched or deleted more than once, or never";
        // Both ends are taken: a third of the events carry a TTL, and such an event is due on
        // the loop's next pass, so nearly all of them expire.
        EXPECT_GT(dispatched, 0);
        EXPECT_LT(dispatched, total);
        EXPECT_EQ(dispatched, d.invoked.load());
        EXPECT_EQ(0, liveEvents.load());

        EXPECT_EQ(1, queue.removeEventHandlers(0, 0, nullptr, true));  // the loop has stopped
        EXPECT_EQ(0, liveHandlers.load());
        EXPECT_EQ(0, loop.unregisterMainLoopMember(member, queue));
    }
    EXPECT_EQ(countedBefore, lfcUtilMallocUsed);  // the queue's vectors are gone too
    fates = nullptr;
}

}  // namespace
