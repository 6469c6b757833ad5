// The select pass: readable descriptors dispatched, wake-ups collapsed into one byte,
// descriptors select() cannot watch stored but never watched, descriptor sets refilled only
// after a change, and a loop blocked in select() woken by a timer added from another thread.
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

#include "drivenloop.h"
#include "ltclock.h"
#include "runningloop.h"

namespace {

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
    DrivenLoop* loop = nullptr;
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

class SelectPass : public ::testing::Test {
protected:
    int watch(int fd, handleType_t type = handleRead)
    {
        return loop.doAddIOHandle(type, handleNoFlags, fd, onReady, &calls);
    }
    // A change of the handle table: the next pass rebuilds the descriptor sets.
    void change() { loop.removeIOHandle(watch(-9)); }

    DrivenLoop loop;
    Calls calls;
};

TEST_F(SelectPass, ReadableDescriptorIsDispatchedOnlyAfterARebuild)
{
    Pipe p;
    const int id = watch(p.r);
    p.put();
    loop.pass();  // the add marked the table changed: sets rebuilt, fd dispatched
    ASSERT_EQ(std::vector<int>{id}, calls.ids);

    // The byte is still unread, but the sets are refilled only after the next table change,
    // so this pass watches just the wake-up pipe.
    loop.pass();
    EXPECT_EQ(1u, calls.ids.size());
    change();
    loop.pass();
    EXPECT_EQ(2u, calls.ids.size());
}

// select() can watch only descriptors from 0 to FD_SETSIZE - 1: setting another in an fd_set
// would write outside it. Such handles are stored (they get ids) but never watched, dispatched
// or counted for nfds; type 3 handles are counted but never watched; -1 reads as a free slot.
// The passes outnumber what the byte-wide handle generation holds, so that it comes round to
// the stamp of the handles no rebuild stamped; the watchable handles, added last so that the
// dispatch reaches them after the others, are dispatched on every pass. One of them watches
// descriptor 0 for writing: a bit read just past the end of a read set is then often set.
TEST_F(SelectPass, OnlyDescriptorsSelectCanWatchAreDispatched)
{
    rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    if (limit.rlim_cur <= FD_SETSIZE) {
        rlimit raised = limit;
        raised.rlim_cur = std::min<rlim_t>(limit.rlim_max, FD_SETSIZE + 16);
        if (raised.rlim_cur <= FD_SETSIZE || setrlimit(RLIMIT_NOFILE, &raised) != 0)
            GTEST_SKIP() << "cannot open descriptor FD_SETSIZE here";
    }
    Pipe p;
    p.put();  // stays readable: never read
    ASSERT_EQ(FD_SETSIZE, dup2(p.r, FD_SETSIZE));
    ASSERT_EQ(200, dup2(p.r, 200));
    const int savedStdin = dup(0);
    ASSERT_EQ(0, dup2(p.w, 0));

    EXPECT_EQ(0, watch(-1));
    for (handleType_t type : {handleRead, handleWrite, handleException})
        EXPECT_NE(0, watch(FD_SETSIZE, type));
    for (int fd : {-7, FD_SETSIZE + 100})
        EXPECT_NE(0, watch(fd));
    EXPECT_NE(0, watch(200, static_cast<handleType_t>(3)));
    EXPECT_NE(0, watch(0, static_cast<handleType_t>(0x7f)));  // type read in two bits: 3
    Calls writable;
    ASSERT_NE(0, loop.doAddIOHandle(handleWrite, handleNoFlags, 0, onReady, &writable));
    const int id = watch(p.r);
    for (int pass = 1; pass <= 300; ++pass) {
        change();
        loop.pass();
        ASSERT_EQ(static_cast<size_t>(pass), calls.ids.size());
        ASSERT_EQ(static_cast<size_t>(pass), writable.ids.size());
        ASSERT_EQ(200, loop.state.highestFd);
    }
    EXPECT_EQ(std::vector<int>(300, id), calls.ids);
    dup2(savedStdin, 0);
    for (int fd : {savedStdin, 200, FD_SETSIZE})
        close(fd);
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(SelectPass, HandleAddedDuringAPassWaitsForTheRebuild)
{
    Pipe a, b;
    a.put();
    b.put();
    calls.loop = &loop;
    calls.addFd = b.r;
    const int first = watch(a.r);
    loop.pass();
    ASSERT_EQ(std::vector<int>{first}, calls.ids);  // b is ready but not yet in the sets
    ASSERT_NE(0, calls.addedId);
    char byte;
    ASSERT_EQ(1, read(a.r, &byte, 1));
    loop.pass();
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

TEST_F(SelectPass, MembersRunUntilIdleAndReceiversAreCalled)
{
    Member member;
    ASSERT_NE(0, loop.registerMainLoopMember(member));
    Pipe p;
    Handle handle;
    ASSERT_NE(0, loop.addObjectIOHandle(handleRead, p.r, &handle));
    p.put();
    loop.pass();
    EXPECT_EQ(4, member.calls);  // 0, 0, 0, then non-zero
    EXPECT_EQ(1, handle.calls);
}

TEST(SelectWakeup, ManyWakeupsAreWrittenAsOneByte)
{
    DrivenLoop loop(/*started=*/false);
    for (int i = 0; i < 5; ++i)
        loop.wakeupEventLoop();  // before exec(): nothing is written
    EXPECT_EQ(0, pendingBytes(loop.pipeReadFd()));

    loop.begin();
    for (int i = 0; i < 10; ++i)
        loop.wakeupEventLoop();
    EXPECT_EQ(1, pendingBytes(loop.pipeReadFd()));
    loop.waitingPass();  // the byte is drained, and the next wake-up writes again
    EXPECT_EQ(0, pendingBytes(loop.pipeReadFd()));
    loop.wakeupEventLoop();
    EXPECT_EQ(1, pendingBytes(loop.pipeReadFd()));
}

struct Firing {
    RunningLoop* loop;
    std::promise<bool> onLoopThread;
};

int fulfil(int, const ltTime&, void* user)
{
    auto* f = static_cast<Firing*>(user);
    f->onLoopThread.set_value(f->loop->onLoopThread());
    return 0;
}

TEST(SelectWakeup, TimerAddedFromAnotherThreadWakesABlockedLoop)
{
    RunningLoop loop;
    Firing firing{&loop, {}};
    auto fired = firing.onLoopThread.get_future();
    loop.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // let it block in select()
    ASSERT_NE(0, loop.doAddTimer(timerAbsolute, lt_internal::wallClockNow(), ltTime::noTime, fulfil, &firing));
    ASSERT_EQ(std::future_status::ready, fired.wait_for(std::chrono::seconds(10)));
    EXPECT_TRUE(fired.get());  // callbacks run on the loop thread
    loop.stop();
}

TEST(SelectWakeup, SingletonIsCreatedOnce)
{
    ltLinuxSelectMainLoop* a = ltLinuxSelectMainLoop::getMainLoop();
    EXPECT_NE(nullptr, a);
    EXPECT_EQ(a, ltLinuxSelectMainLoop::getMainLoop());
}

// ---- Opt-ins: persistent descriptors, run() and quit() --------------------------------------

// A persistent handle is dispatched on every pass, even one after which no descriptor set is
// rebuilt, until removed; a plain one only after a rebuild.
TEST_F(SelectPass, PersistentHandleIsDispatchedOnEveryPassUntilRemoved)
{
    Pipe plainPipe, keptPipe;
    Calls kept;
    const int plainId = watch(plainPipe.r);
    const int keptId = loop.addPersistentIOHandle(handleRead, keptPipe.r, onReady, &kept);
    ASSERT_NE(0, keptId);
    EXPECT_NE(plainId, keptId);
    EXPECT_EQ(0, loop.addPersistentIOHandle(handleRead, -1, onReady, &kept));
    plainPipe.put();
    keptPipe.put();  // neither is read: both stay ready
    loop.pass();     // rebuilt: both
    loop.pass();     // no change: the persistent one only
    {
        // Another loop's rebuild moves the process-wide handle generation on.
        DrivenLoop other;
        Pipe otherPipe;
        Calls otherCalls;
        ASSERT_NE(0, other.doAddIOHandle(handleRead, handleNoFlags, otherPipe.r, onReady, &otherCalls));
        otherPipe.put();
        other.pass();
        ASSERT_EQ(1u, otherCalls.ids.size());
    }
    loop.pass();
    EXPECT_EQ(std::vector<int>{plainId}, calls.ids);
    EXPECT_EQ(std::vector<int>(3, keptId), kept.ids);
    loop.removeIOHandle(keptId);
    loop.pass();  // rebuilt without it: the plain one once more
    loop.pass();
    EXPECT_EQ(3u, kept.ids.size());
    EXPECT_EQ(2u, calls.ids.size());
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
    DrivenLoop loop(false);
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
    auto* forever = new DrivenLoop(false);  // exec() never returns: the loop outlives the test
    std::thread([forever] { forever->exec(); }).detach();
    forever->quit();
    std::promise<void> fired;
    ASSERT_NE(0, forever->addOneShotTimer(ltTime(0, 100000), [](int, const ltTime&, void* p) {
        static_cast<std::promise<void>*>(p)->set_value();
        return 0;
    }, &fired));
    EXPECT_EQ(std::future_status::ready, fired.get_future().wait_for(std::chrono::seconds(10)));
}

}  // namespace
