// The select pass: readable descriptors dispatched, wake-ups collapsed into one byte, type 3
// handles never dispatched, descriptor sets refilled only after a change, and a loop blocked
// in select() woken by a timer added from another thread.
#include "ltlinuxselectmainloop.h"

#include <gtest/gtest.h>

#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "ltclock.h"

namespace {

struct TestLoop : ltLinuxSelectMainLoop {
    using ltLinuxSelectMainLoop::beginExec;
    using ltLinuxSelectMainLoop::pipeReadFd;
    using ltLinuxSelectMainLoop::runOnePass;
    using PassState = ltLinuxSelectMainLoop::PassState;
};

struct Pipe {
    int r = -1, w = -1;
    Pipe()
    {
        int fds[2];
        EXPECT_EQ(0, pipe(fds));
        r = fds[0];
        w = fds[1];
    }
    ~Pipe()
    {
        close(r);
        close(w);
    }
    void put() { ASSERT_EQ(1, write(w, "x", 1)); }
};

int pendingBytes(int fd)
{
    int n = -1;
    ioctl(fd, FIONREAD, &n);
    return n;
}

struct Calls {
    std::vector<int> ids;
    TestLoop* loop = nullptr;
    int addFd = -1;  // when set, the first callback adds a read handle on it
    int addedId = 0;
};

int onReady(int id, int /*fd*/, void* user)
{
    auto* c = static_cast<Calls*>(user);
    c->ids.push_back(id);
    if (c->addFd >= 0) {
        c->addedId = c->loop->doAddIOHandle(handleRead, handleNoFlags, c->addFd, onReady, c);
        c->addFd = -1;
    }
    return 0;
}

TEST(SelectPass, ReadableDescriptorIsDispatchedOnlyAfterARebuild)
{
    TestLoop loop;
    TestLoop::PassState s;
    loop.beginExec(s);
    Pipe p;
    Calls calls;
    const int id = loop.doAddIOHandle(handleRead, handleNoFlags, p.r, onReady, &calls);
    p.put();
    loop.runOnePass(s);  // the add marked the table changed: sets rebuilt, fd dispatched
    ASSERT_EQ(std::vector<int>{id}, calls.ids);

    // The byte is still unread, but the sets are refilled only after the next table change,
    // so this pass (woken through the pipe) watches just the wake-up pipe.
    loop.wakeupEventLoop();
    loop.runOnePass(s);
    EXPECT_EQ(1u, calls.ids.size());

    loop.removeIOHandle(loop.doAddIOHandle(handleWrite, handleNoFlags, p.w, nullptr, nullptr));
    loop.runOnePass(s);  // a change: the read handle is watched again
    EXPECT_EQ(2u, calls.ids.size());
}

TEST(SelectPass, ManyWakeupsAreWrittenAsOneByte)
{
    TestLoop loop;
    for (int i = 0; i < 5; ++i)
        loop.wakeupEventLoop();  // before exec(): nothing is written
    EXPECT_EQ(0, pendingBytes(loop.pipeReadFd()));

    TestLoop::PassState s;
    loop.beginExec(s);
    for (int i = 0; i < 10; ++i)
        loop.wakeupEventLoop();
    EXPECT_EQ(1, pendingBytes(loop.pipeReadFd()));
    loop.runOnePass(s);  // the byte is drained, and the next wake-up writes again
    EXPECT_EQ(0, pendingBytes(loop.pipeReadFd()));
    loop.wakeupEventLoop();
    EXPECT_EQ(1, pendingBytes(loop.pipeReadFd()));
}

TEST(SelectPass, TypeThreeHandleIsNeverDispatchedButCountsForNfds)
{
    TestLoop loop;
    TestLoop::PassState s;
    loop.beginExec(s);
    Pipe p;
    p.put();
    const int high = dup2(p.r, 200);
    ASSERT_EQ(200, high);
    Calls calls;
    ASSERT_NE(0, loop.doAddIOHandle(static_cast<handleType_t>(3), handleNoFlags, high, onReady, &calls));
    loop.runOnePass(s);  // woken by the add's own wake-up byte
    EXPECT_TRUE(calls.ids.empty());
    EXPECT_EQ(200, s.highestFd);
    close(high);
}

// The handle generation is a byte: after 256 rebuilds it comes round to earlier values. A
// watched descriptor is stamped afresh on every rebuild, so it is dispatched on each pass.
TEST(SelectPass, HandleGenerationWrapsWithoutLosingADescriptor)
{
    TestLoop loop;
    TestLoop::PassState s;
    loop.beginExec(s);
    Pipe p;
    p.put();  // stays readable: never read
    Calls calls;
    ASSERT_NE(0, loop.doAddIOHandle(handleRead, handleNoFlags, p.r, onReady, &calls));
    for (int pass = 0; pass < 600; ++pass) {
        loop.removeIOHandle(loop.doAddIOHandle(handleWrite, handleNoFlags, p.w, nullptr, nullptr));  // a change
        loop.runOnePass(s);
        ASSERT_EQ(static_cast<size_t>(pass) + 1, calls.ids.size());
    }
}

// select() cannot take a descriptor at or past FD_SETSIZE: its handle is stored but never put
// into a set (which would write past it), dispatched or counted for nfds.
TEST(SelectPass, DescriptorPastFdSetSizeIsStoredButNeverWatched)
{
    rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    if (limit.rlim_cur <= FD_SETSIZE + 1) {
        rlimit raised = limit;
        raised.rlim_cur = std::min<rlim_t>(limit.rlim_max, FD_SETSIZE + 16);
        if (raised.rlim_cur <= FD_SETSIZE + 1 || setrlimit(RLIMIT_NOFILE, &raised) != 0)
            GTEST_SKIP() << "cannot open a descriptor past FD_SETSIZE here";
    }
    Pipe p;
    p.put();
    const int high = dup2(p.r, FD_SETSIZE + 1);
    ASSERT_EQ(FD_SETSIZE + 1, high);

    TestLoop loop;
    TestLoop::PassState s;
    loop.beginExec(s);
    Calls calls;
    const int id = loop.doAddIOHandle(handleRead, handleNoFlags, high, onReady, &calls);
    EXPECT_NE(0, id);
    const int low = loop.doAddIOHandle(handleRead, handleNoFlags, p.r, onReady, &calls);  // the same pipe, watchable
    loop.runOnePass(s);
    EXPECT_EQ(std::vector<int>{low}, calls.ids);
    EXPECT_LT(s.highestFd, FD_SETSIZE);
    close(high);
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(SelectPass, HandleAddedDuringAPassWaitsForTheRebuild)
{
    TestLoop loop;
    TestLoop::PassState s;
    loop.beginExec(s);
    Pipe a, b;
    a.put();
    b.put();
    Calls calls;
    calls.loop = &loop;
    calls.addFd = b.r;
    const int first = loop.doAddIOHandle(handleRead, handleNoFlags, a.r, onReady, &calls);
    loop.runOnePass(s);
    ASSERT_EQ(std::vector<int>{first}, calls.ids);  // b is ready but not yet in the sets
    ASSERT_NE(0, calls.addedId);
    char byte;
    ASSERT_EQ(1, read(a.r, &byte, 1));
    loop.runOnePass(s);
    EXPECT_EQ((std::vector<int>{first, calls.addedId}), calls.ids);
}

struct Handle : ltIOHandleReceiver {
    int calls = 0;
    int ioReady(int, int fd) override
    {
        char byte;
        EXPECT_EQ(1, read(fd, &byte, 1));
        ++calls;
        return 0;
    }
};

struct Member : ltMainLoopMember {
    int calls = 0;
    int processNextEvent() override { return ++calls % 4 == 0 ? 1 : 0; }
};

TEST(SelectPass, MembersRunUntilIdleAndReceiversAreCalled)
{
    TestLoop loop;
    TestLoop::PassState s;
    loop.beginExec(s);
    Member member;
    ASSERT_NE(0, loop.registerMainLoopMember(member));
    Pipe p;
    Handle handle;
    ASSERT_NE(0, loop.addObjectIOHandle(handleRead, p.r, &handle));
    p.put();
    loop.runOnePass(s);
    EXPECT_EQ(4, member.calls);  // 0, 0, 0, then non-zero
    EXPECT_EQ(1, handle.calls);
}

int fulfil(int, const ltTime&, void* user)
{
    static_cast<std::promise<std::thread::id>*>(user)->set_value(std::this_thread::get_id());
    return 0;
}

TEST(SelectLoop, TimerAddedFromAnotherThreadWakesABlockedLoop)
{
    auto* loop = new TestLoop;  // exec() never returns: the loop outlives the test
    std::promise<std::thread::id> fired;
    std::thread runner([loop] { loop->exec(); });
    const std::thread::id loopThread = runner.get_id();
    runner.detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // let it block in select()

    ltTime due = lt_internal::wallClockNow();
    ASSERT_NE(0, loop->doAddTimer(timerAbsolute, due, ltTime::noTime, fulfil, &fired));
    auto result = fired.get_future();
    ASSERT_EQ(std::future_status::ready, result.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(loopThread, result.get());  // callbacks run on the loop thread
}

TEST(SelectLoop, SingletonIsCreatedOnce)
{
    ltLinuxSelectMainLoop* a = ltLinuxSelectMainLoop::getMainLoop();
    EXPECT_NE(nullptr, a);
    EXPECT_EQ(a, ltLinuxSelectMainLoop::getMainLoop());
    EXPECT_EQ(a, ltLinuxSelectMainLoop::singleton_);
}

// ---- Opt-ins: persistent descriptors, run() and quit() --------------------------------------

TEST(PersistentHandle, IsDispatchedOnEveryPassUntilRemovedWhileAPlainOneIsNot)
{
    TestLoop loop;
    TestLoop::PassState s;
    loop.beginExec(s);
    // Bounds every select(): a descriptor left unwatched costs a pass, not a hang.
    ASSERT_NE(0, loop.doAddTimer(timerPeriodic, ltTime::noTime, ltTime(0, 50000),
                                 [](int, const ltTime&, void*) { return 0; }, nullptr));
    Pipe plainPipe, keptPipe;
    Calls plain, kept;
    const int plainId = loop.doAddIOHandle(handleRead, handleNoFlags, plainPipe.r, onReady, &plain);
    const int keptId = loop.addPersistentIOHandle(handleRead, keptPipe.r, onReady, &kept);
    ASSERT_NE(0, keptId);
    EXPECT_NE(plainId, keptId);
    EXPECT_EQ(0, loop.addPersistentIOHandle(handleRead, -1, onReady, &kept));
    plainPipe.put();
    keptPipe.put();      // neither is read: both stay ready
    loop.runOnePass(s);  // rebuilt: both
    loop.runOnePass(s);  // no change: the persistent one only
    {
        // Another loop's rebuild moves the process-wide handle generation on.
        TestLoop other;
        TestLoop::PassState os;
        other.beginExec(os);
        Pipe otherPipe;
        Calls otherCalls;
        ASSERT_NE(0, other.doAddIOHandle(handleRead, handleNoFlags, otherPipe.r, onReady, &otherCalls));
        otherPipe.put();
        other.runOnePass(os);
        ASSERT_EQ(1u, otherCalls.ids.size());
    }
    loop.runOnePass(s);
    EXPECT_EQ(std::vector<int>{plainId}, plain.ids);
    EXPECT_EQ(std::vector<int>(3, keptId), kept.ids);

    loop.removeIOHandle(keptId);
    loop.runOnePass(s);  // rebuilt without it: the plain one once more
    loop.runOnePass(s);
    EXPECT_EQ(3u, kept.ids.size());
    EXPECT_EQ(2u, plain.ids.size());
}

struct Nested {
    ltLinuxSelectMainLoop* loop;
    int result;
};

int runNestedThenQuit(int, const ltTime&, void* user)
{
    auto* n = static_cast<Nested*>(user);
    n->result = n->loop->run();  // already running: refused
    n->loop->quit();
    return 0;
}

TEST(RunAndQuit, RunReturnsAfterQuitFromAnyThreadWhileExecIgnoresIt)
{
    TestLoop loop;
    // A request made before run() is kept: run() returns after one pass, and consumes it.
    loop.quit();
    EXPECT_EQ(0, loop.run());
    // From a callback on the loop thread. Were the request above still kept, run() would
    // return after its first pass, before the timer fires.
    Nested nested = {&loop, 1};
    ASSERT_NE(0, loop.addOneShotTimer(ltTime(0, 100000), runNestedThenQuit, &nested));
    EXPECT_EQ(0, loop.run());
    EXPECT_EQ(-1, nested.result);
    // From another thread, to a run() blocked in select() with nothing to wait for.
    std::future<int> running = std::async(std::launch::async, [&loop] { return loop.run(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    loop.quit();
    ASSERT_EQ(std::future_status::ready, running.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(0, running.get());

    // exec() ignores the request: it still fires a timer added after it.
    auto* forever = new TestLoop;  // exec() never returns: the loop outlives the test
    std::thread([forever] { forever->exec(); }).detach();
    forever->quit();
    std::promise<std::thread::id> fired;
    ASSERT_NE(0, forever->addOneShotTimer(ltTime(0, 100000), fulfil, &fired));
    EXPECT_EQ(std::future_status::ready, fired.get_future().wait_for(std::chrono::seconds(10)));
}

}  // namespace
