//===- stress_test.cpp - Eight threads adding and removing timers and descriptors ===//
// Under a running loop, every readable descriptor is dispatched once, on the loop thread; every
// due timer fires once; a removed timer fires no more. A bounded wait that runs out is a lost wake-up.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ltclock.h"
#include "runningloop.h"

namespace {

// Sanitized and 32-bit (emulated in CI) builds do a tenth of the work: the interleavings matter there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || UINTPTR_MAX == 0xFFFFFFFFu
constexpr int kScale = 10;
#elif defined(__has_feature)
constexpr int kScale = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) ? 10 : 1;
#else
constexpr int kScale = 1;
#endif

struct Counts {  // what one of the eight threads saw
    std::atomic<int> dispatched{0}, wrongThread{0}, oneShots{0}, periodic{0};
};
RunningLoop* theLoop = nullptr;

int drainOne(int, int fd, void* counts)
{
    auto* c = static_cast<Counts*>(counts);
    char byte;
    (void)!read(fd, &byte, 1);  // the byte goes before the count, so no later pass sees it ready
    c->wrongThread.fetch_add(theLoop->onLoopThread() ? 0 : 1);
    c->dispatched.fetch_add(1);
    return 0;
}

int countFiring(int, const ltTime&, void* counter)
{
    static_cast<std::atomic<int>*>(counter)->fetch_add(1);
    return 0;
}

class LoopStress : public ::testing::Test {
protected:
    // Runs body(t, counts[t]) for t in 0 .. 7, each on a thread of its own, under the running loop.
    template <typename Body>
    void onEightThreads(Body body)
    {
        theLoop = &loop;
        loop.start();
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t)
            threads.emplace_back([&, t] { body(t, counts[t]); });
        for (std::thread& th : threads)
            th.join();
        loop.stop();
        EXPECT_EQ(0, lost.load()) << "a readable descriptor or a due timer was never dispatched";
    }
    // Adds a one-shot timer due at once and waits until it fired (false on time-out): then every
    // callback under way before it has returned.
    bool barrier(Counts& c)
    {
        const int before = c.oneShots.load();
        return loop.doAddTimer(timerAbsolute, lt_internal::wallClockNow(), ltTime::noTime, countFiring, &c.oneShots) &&
               waitFor([&] { return c.oneShots.load() > before; });
    }

    RunningLoop loop;
    Counts counts[8];
    std::atomic<int> lost{0};
};

TEST_F(LoopStress, DescriptorsAddedAndRemovedFromEightThreadsAreEachDispatched)
{
    const int rounds = 2000 / kScale;
    onEightThreads([&](int, Counts& c) {
        for (int i = 0; i < rounds && lost.load() == 0; ++i) {
            int fds[2];
            ASSERT_EQ(0, pipe2(fds, O_NONBLOCK));
            ASSERT_EQ(1, write(fds[1], "x", 1));
            const int before = c.dispatched.load();
            const int id = loop.doAddIOHandle(handleRead, handleNoFlags, fds[0], drainOne, &c);
            ASSERT_NE(0, id);
            lost.fetch_add(waitFor([&] { return c.dispatched.load() > before; }) ? 0 : 1);
            loop.removeIOHandle(id);
            // An idle handle on the write end: added and removed at once, never waited for.
            loop.removeIOHandle(loop.doAddIOHandle(handleException, handleNoFlags, fds[1], drainOne, &c));
            (void)close(fds[0]);
            (void)close(fds[1]);
        }
    });
    for (const Counts& c : counts) {
        EXPECT_EQ(rounds, c.dispatched.load());  // once each: the byte was read at once
        EXPECT_EQ(0, c.wrongThread.load());
    }
}

TEST_F(LoopStress, TimersAddedAndRemovedFromEightThreadsFireAndStopFiring)
{
    const int rounds = 1000 / kScale;
    onEightThreads([&](int t, Counts& c) {
        std::minstd_rand random(static_cast<unsigned>(t) + 1);
        std::vector<int> periodic;
        for (int i = 0; i < rounds && lost.load() == 0; ++i) {
            lost.fetch_add(barrier(c) ? 0 : 1);  // a due timer wakes the loop, in select() or not
            // Short periodic timers come and go, some removed before they could fire. Each id is
            // removed once only: a stale id could name another thread's new timer.
            const ltTime period(0, 1000 + static_cast<int>(random() % 5000));
            const int id = loop.doAddTimer(timerPeriodic, ltTime::noTime, period, countFiring, &c.periodic);
            EXPECT_NE(0, id);
            if (id != 0)
                random() % 2 == 0 ? loop.removeTimer(id) : periodic.push_back(id);
            for (; periodic.size() > 4; periodic.erase(periodic.begin()))
                loop.removeTimer(periodic.front());
        }
        if (lost.load() != 0)
            return;
        for (int id : periodic)
            loop.removeTimer(id);
        // Removed is removed: once a barrier has passed, no periodic callback is left.
        lost.fetch_add(barrier(c) ? 0 : 1);
        const int settled = c.periodic.load();
        lost.fetch_add(barrier(c) && barrier(c) ? 0 : 1);
        EXPECT_EQ(settled, c.periodic.load()) << "a removed timer fired";
    });
    for (const Counts& c : counts)
        EXPECT_EQ(rounds + 3, c.oneShots.load());  // every one-shot timer fired exactly once
}

}  // namespace
