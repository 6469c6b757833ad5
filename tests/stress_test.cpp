//===- stress_test.cpp - Many threads against one running loop ------------===//
//
// The loop runs on a thread of its own (the passes of exec(), with a way out so the test can
// end), while other threads add and remove timers and descriptors and post events. Nothing
// may be lost: every descriptor made readable is dispatched, every due timer fires, every
// event is either dispatched or expired, exactly once, and every object is deleted.
//
// Every wait is bounded; a wait that runs out means a lost wake-up and fails the test. No
// timing is asserted. Under the sanitizers the counts are scaled down (see kScale) so that
// the suite stays fast; the interleavings are what matter there, not the volume.
//
//===----------------------------------------------------------------------===//
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "lfcutil.h"
#include "ltcallbackeventhandler.h"
#include "ltclock.h"
#include "lteventmask.h"
#include "lteventqueue.h"
#include "ltlinuxselectmainloop.h"

namespace {

// Sanitized builds, and 32-bit builds (run under user-mode emulation in CI), do a tenth of
// the work.
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

// A loop whose passes run on a thread of its own until stop() is called.
class RunningLoop : public ltLinuxSelectMainLoop {
public:
    void start()
    {
        thread_ = std::thread([this] {
            PassState s;
            beginExec(s);
            while (!stopping_.load())
                runOnePass(s);
        });
    }
    void stop()
    {
        stopping_.store(true);
        wakeupEventLoop();  // out of select()
        thread_.join();
    }
    bool onLoopThread() const { return std::this_thread::get_id() == thread_.get_id(); }

private:
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

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

// -- descriptors ----------------------------------------------------------------------

struct Readable {
    std::atomic<int> dispatched{0};
    std::atomic<int> wrongThread{0};
    RunningLoop* loop = nullptr;
};

int drainOne(int /*id*/, int fd, void* user)
{
    auto* r = static_cast<Readable*>(user);
    char byte;
    (void)!read(fd, &byte, 1);  // the byte goes before the count, so no later pass sees it ready
    if (!r->loop->onLoopThread())
        r->wrongThread.fetch_add(1);
    r->dispatched.fetch_add(1);
    return 0;
}

TEST(LoopStress, DescriptorsAddedAndRemovedFromEightThreadsAreEachDispatched)
{
    constexpr int kThreads = 8;
    const int rounds = 2000 / kScale;
    RunningLoop loop;
    loop.start();
    std::vector<Readable> readable(kThreads);
    std::atomic<int> lost{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Readable& r = readable[t];
            r.loop = &loop;
            for (int i = 0; i < rounds; ++i) {
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
                if (lost.load() != 0)
                    return;
            }
        });
    }
    for (std::thread& th : threads)
        th.join();
    loop.stop();
    EXPECT_EQ(0, lost.load()) << "a readable descriptor was never dispatched";
    for (const Readable& r : readable) {
        EXPECT_EQ(rounds, r.dispatched.load());  // once each: the byte was read at once
        EXPECT_EQ(0, r.wrongThread.load());
    }
}

// -- timers -----------------------------------------------------------------------------

struct TimerCounts {
    std::atomic<int> oneShots{0};
    std::atomic<int> periodic{0};
};

int countOneShot(int, const ltTime&, void* user)
{
    static_cast<TimerCounts*>(user)->oneShots.fetch_add(1);
    return 0;
}

int countPeriodic(int, const ltTime&, void* user)
{
    static_cast<TimerCounts*>(user)->periodic.fetch_add(1);
    return 0;
}

// Adds a one-shot timer that is due at once and waits until it has fired; false on time-out.
// Once it has fired, every callback that was under way before it has returned.
bool barrier(RunningLoop& loop, TimerCounts& c)
{
    const int before = c.oneShots.load();
    if (loop.doAddTimer(timerAbsolute, lt_internal::wallClockNow(), ltTime::noTime, countOneShot, &c) == 0)
        return false;
    return waitFor([&] { return c.oneShots.load() > before; });
}

TEST(LoopStress, TimersAddedAndRemovedFromEightThreadsFireAndStopFiring)
{
    constexpr int kThreads = 8;
    const int rounds = 1000 / kScale;
    RunningLoop loop;
    loop.start();
    std::vector<TimerCounts> counts(kThreads);
    std::atomic<int> lost{0};
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            TimerCounts& c = counts[t];
            std::minstd_rand random(static_cast<unsigned>(t) + 1);
            std::vector<int> periodic;
            for (int i = 0; i < rounds; ++i) {
                // A due one-shot timer must wake the loop, blocked in select() or not.
                if (!barrier(loop, c))
                    lost.fetch_add(1);
                // Periodic timers with short periods come and go; some are removed before they
                // could ever fire, some after a few rounds.
                const int id = loop.doAddTimer(timerPeriodic, ltTime::noTime,
                                               ltTime(0, 1000 + static_cast<int>(random() % 5000)), countPeriodic, &c);
                if (id == 0)
                    refused.fetch_add(1);
                else
                    periodic.push_back(id);
                if (id != 0 && random() % 2 == 0) {
                    // Each id is removed once only: a stale id could name another thread's
                    // timer that took over the slot.
                    loop.removeTimer(periodic.back());
                    periodic.pop_back();
                }
                if (periodic.size() > 4) {
                    loop.removeTimer(periodic.front());
                    periodic.erase(periodic.begin());
                }
                if (lost.load() != 0)
                    return;
            }
            for (int id : periodic)
                loop.removeTimer(id);
            // Removed is removed: once a barrier has passed, no periodic callback is left.
            if (!barrier(loop, c))
                lost.fetch_add(1);
            const int settled = c.periodic.load();
            if (!barrier(loop, c) || !barrier(loop, c))
                lost.fetch_add(1);
            EXPECT_EQ(settled, c.periodic.load()) << "a removed timer fired";
        });
    }
    for (std::thread& th : threads)
        th.join();
    loop.stop();
    EXPECT_EQ(0, lost.load()) << "a due timer did not fire";
    EXPECT_EQ(0, refused.load());
    for (const TimerCounts& c : counts)
        EXPECT_EQ(rounds + 3, c.oneShots.load());  // every one-shot timer fired exactly once
}

// -- events -------------------------------------------------------------------------------

constexpr int kPosters = 16;
const int kEventsPerPoster = 100000 / kScale;

// What became of each event, by its number (key1 * kEventsPerPoster + key2).
struct Fates {
    std::vector<std::atomic<uint8_t>> dispatched;
    std::vector<std::atomic<uint8_t>> destroyed;
    Fates() : dispatched(kPosters * kEventsPerPoster), destroyed(kPosters * kEventsPerPoster) {}
};

Fates* fates = nullptr;
std::atomic<int> liveEvents{0};
std::atomic<int> liveHandlers{0};
std::atomic<int> destroyedEvents{0};

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
    std::atomic<int> invoked{0};
    std::atomic<int> wrongThread{0};
    std::atomic<int> secondCalls{0};  // invocations of the handler that is dropped after one
};

int countEvent(ltEventQueue&, ltEvent* event, int reason, void* user)
{
    auto* d = static_cast<Dispatch*>(user);
    if (!d->loop->onLoopThread())
        d->wrongThread.fetch_add(1);
    if (reason != ltEventHandler::kReasonEvent || event == nullptr)
        return 0;
    d->invoked.fetch_add(1);
    fates->dispatched[event->key1 * kEventsPerPoster + event->key2].fetch_add(1);
    return 1;  // on to the next handler; nobody keeps the event
}

// The second handler: not persistent, so its first invocation (an event, or its lethal time)
// is its last.
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
        // The counting handler comes first (higher priority): the handler after it is not
        // persistent and is dropped after its first invocation or its lethal time, which must
        // not cost the counter an event.
        ASSERT_NE(0u, queue.addEventHandler(10, new CountedHandler(countEvent, &d, ltEventHandler::kPersistent)));
        ltTime soon = queue.getKnownTime();
        ASSERT_NE(0u, queue.addEventHandler(0, new CountedHandler(countOnce, &d, 0, &soon)));
        loop.start();

        std::atomic<int> refused{0};
        std::vector<std::thread> posters;
        for (int p = 0; p < kPosters; ++p) {
            posters.emplace_back([&, p] {
                std::minstd_rand random(static_cast<unsigned>(p) + 7);
                for (int seq = 0; seq < kEventsPerPoster; ++seq) {
                    auto* e = new CountedEvent(static_cast<unsigned>(p), static_cast<unsigned>(seq));
                    const unsigned ttl = random() % 3 == 0 ? 1 + random() % 2000 : 0;
                    for (;;) {
                        errno = 0;
                        if (queue.post(*e, ttl) == 0)
                            break;
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
        }
        for (std::thread& t : posters)
            t.join();
        const int total = kPosters * kEventsPerPoster;
        const bool drained = waitFor([&] { return destroyedEvents.load() == total; });
        loop.stop();

        EXPECT_TRUE(drained) << destroyedEvents.load() << " of " << total << " events finished";
        EXPECT_EQ(0, refused.load());
        EXPECT_EQ(0, d.wrongThread.load());
        EXPECT_EQ(1, d.secondCalls.load());
        int dispatched = 0, expired = 0, twice = 0;
        for (int i = 0; i < total; ++i) {
            const int destroyed = fateTable.destroyed[i].load();
            const int seen = fateTable.dispatched[i].load();
            if (destroyed != 1 || seen > 1)
                ++twice;
            (seen == 1 ? dispatched : expired) += 1;
        }
        EXPECT_EQ(0, twice) << "an event was dispatched or deleted more than once, or never";
        EXPECT_EQ(total, dispatched + expired);
        // Both ends are taken: a third of the events carry a TTL, and such an event is due on
        // the loop's next pass, so nearly all of them expire.
        EXPECT_GT(dispatched, 0);
        EXPECT_GT(expired, 0);
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
