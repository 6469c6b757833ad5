//===- stress_test.cpp - Eight threads adding and removing timers and descriptors ===//
//
// The loop runs on a thread of its own while eight threads add and remove timers and
// descriptors. Nothing may be lost: every readable descriptor is dispatched once, on the loop
// thread; every due timer fires once; a removed timer fires no more. A bounded wait that runs
// out means a lost wake-up; no timing is asserted. Events under load are the soak's (soak.cpp).
//
//===----------------------------------------------------------------------===//
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ltclock.h"
#include "ltlinuxselectmainloop.h"
#include "runningloop.h"

namespace {

// Sanitized and 32-bit builds (run under emulation in CI) do a tenth of the work: the
// interleavings matter there, not the volume.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define LT_SANITIZED 1
#endif
#endif
#if defined(LT_SANITIZED) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || UINTPTR_MAX == 0xFFFFFFFFu
constexpr int kScale = 10;
#else
constexpr int kScale = 1;
#endif

// Runs body(t) for t in 0 .. 7, each on a thread of its own, and joins them.
template <typename Body>
void onEightThreads(Body body)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
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
    onEightThreads([&](int t) {
        Readable& r = readable[t];
        r.loop = &loop;
        for (int i = 0; i < rounds && lost.load() == 0; ++i) {
            int fds[2];
            ASSERT_EQ(0, pipe2(fds, O_NONBLOCK));
            ASSERT_EQ(1, write(fds[1], "x", 1));
            const int before = r.dispatched.load();
            const int id = loop.doAddIOHandle(handleRead, handleNoFlags, fds[0], drainOne, &r);
            ASSERT_NE(0, id);
            lost.fetch_add(waitFor([&] { return r.dispatched.load() > before; }) ? 0 : 1);
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

int countFiring(int, const ltTime&, void* counter)
{
    static_cast<std::atomic<int>*>(counter)->fetch_add(1);
    return 0;
}

// Adds a one-shot timer that is due at once and waits until it has fired; false on time-out.
// Once it has fired, every callback that was under way before it has returned.
bool barrier(RunningLoop& loop, TimerCounts& c)
{
    const int before = c.oneShots.load();
    return loop.doAddTimer(timerAbsolute, lt_internal::wallClockNow(), ltTime::noTime, countFiring, &c.oneShots) != 0 &&
           waitFor([&] { return c.oneShots.load() > before; });
}

TEST(LoopStress, TimersAddedAndRemovedFromEightThreadsFireAndStopFiring)
{
    const int rounds = 1000 / kScale;
    RunningLoop loop;
    loop.start();
    std::vector<TimerCounts> counts(8);
    std::atomic<int> lost{0}, refused{0};
    onEightThreads([&](int t) {
        TimerCounts& c = counts[t];
        std::minstd_rand random(static_cast<unsigned>(t) + 1);
        std::vector<int> periodic;
        for (int i = 0; i < rounds && lost.load() == 0; ++i) {
            // A due one-shot timer must wake the loop, blocked in select() or not.
            lost.fetch_add(barrier(loop, c) ? 0 : 1);
            // Short periodic timers come and go, some removed before they could ever fire.
            // Each id is removed once only: a stale id could name another thread's new timer.
            const int id = loop.doAddTimer(timerPeriodic, ltTime::noTime,
                                           ltTime(0, 1000 + static_cast<int>(random() % 5000)), countFiring, &c.periodic);
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

}  // namespace
