// The select pass: dispatch, set rebuilds, unwatchable descriptors, wake-ups, run() and quit().
#include "ltlinuxselectmainloop.h"

#include <gtest/gtest.h>

#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include "drivenloop.h"
#include "ltclock.h"

namespace {

struct Pipe {
    int fd[2] = {-1, -1};
    const int &r = fd[0], &w = fd[1];
    Pipe() { EXPECT_EQ(0, pipe(fd)); }
    ~Pipe() { for (int f : fd) close(f); }
    void put() { ASSERT_EQ(1, write(w, "x", 1)); }
};

int pendingBytes(int fd) { int n = -1; return ioctl(fd, FIONREAD, &n) == 0 ? n : -1; }

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
    if (c->addFd >= 0)
        c->addedId = c->loop->doAddIOHandle(handleRead, handleNoFlags, std::exchange(c->addFd, -1), onReady, c);
    return 0;
}

class SelectPass : public ::testing::Test {
protected:
    int watch(int fd, handleType_t type = handleRead) { return loop.doAddIOHandle(type, handleNoFlags, fd, onReady, &calls); }
    void change() { loop.removeIOHandle(watch(-9)); }  // the next pass rebuilds the sets

    DrivenLoop loop;
    Calls calls;
};

// Descriptors outside 0 .. FD_SETSIZE - 1 are stored, never watched or counted for nfds; type 3
// is counted, never watched. 300 passes outrun the byte-wide handle generation; fd 0 watched for
// writing sets a bit just past a read set.
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
    for (int fd : {savedStdin, 200, FD_SETSIZE}) close(fd);
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

struct Handle : ltIOHandleReceiver {
    int calls = 0;
    int ioReady(int, int fd) override { char byte; EXPECT_EQ(1, read(fd, &byte, 1)); return ++calls, 0; }
};

struct Member : ltMainLoopMember {
    int calls = 0;
    int processNextEvent() override { return ++calls % 4 == 0 ? 1 : 0; }
};

// Ready descriptors are dispatched only from sets rebuilt after a change (a handle a callback
// adds waits for it). Members run until idle on every pass until removed.
TEST_F(SelectPass, DescriptorsAreDispatchedFromSetsRebuiltAfterAChange)
{
    Member member;
    const int memberId = loop.registerMainLoopMember(member);
    ASSERT_NE(0, memberId);
    Pipe a, b, c;
    Handle handle;
    ASSERT_NE(0, loop.addObjectIOHandle(handleRead, c.r, &handle));
    a.put(), b.put(), c.put();
    calls.loop = &loop, calls.addFd = b.r;
    const int first = watch(a.r);
    loop.pass();  // rebuilt: a dispatched, b added but not yet in the sets
    ASSERT_EQ(std::vector<int>{first}, calls.ids);
    ASSERT_NE(0, calls.addedId);
    EXPECT_EQ(4, member.calls);  // 0, 0, 0, then non-zero
    EXPECT_EQ(1, handle.calls);
    loop.pass();  // rebuilt after the add
    EXPECT_EQ((std::vector<int>{first, first, calls.addedId}), calls.ids);
    loop.pass();  // both still readable, but no change: only the wake-up pipe is watched
    EXPECT_EQ(3u, calls.ids.size());
    change();
    loop.pass();
    EXPECT_EQ(5u, calls.ids.size());
    EXPECT_EQ(16, member.calls);
    EXPECT_EQ(-1, loop.unregisterMainLoopMember(0, member));
    EXPECT_EQ(0, loop.unregisterMainLoopMember(memberId, member));
    EXPECT_EQ(0, loop.unregisterMainLoopMember(memberId, member));  // unknown now: still 0
    loop.pass();
    EXPECT_EQ(16, member.calls);
}

TEST(SelectWakeup, ManyWakeupsAreWrittenAsOneByte)
{
    DrivenLoop loop(/*started=*/false);
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

    ltLinuxSelectMainLoop* single = ltLinuxSelectMainLoop::getMainLoop();
    EXPECT_TRUE(single != nullptr && single == ltLinuxSelectMainLoop::getMainLoop());
}

// A persistent handle is dispatched on every pass until removed; a plain one after a rebuild.
TEST_F(SelectPass, PersistentHandleIsDispatchedOnEveryPassUntilRemoved)
{
    Pipe plainPipe, keptPipe;
    Calls kept;
    const int plainId = watch(plainPipe.r);
    const int keptId = loop.addPersistentIOHandle(handleRead, keptPipe.r, onReady, &kept);
    ASSERT_NE(0, keptId);
    EXPECT_EQ(0, loop.addPersistentIOHandle(handleRead, -1, onReady, &kept));
    ASSERT_NE(0, loop.addPersistentIOHandle(handleRead, FD_SETSIZE, onReady, &kept));  // never watched
    plainPipe.put(), keptPipe.put();  // neither is read: both stay ready
    loop.pass();     // rebuilt: both
    loop.pass();     // no change: the persistent one only
    EXPECT_LT(loop.state.highestFd, FD_SETSIZE);
    {  // another loop's rebuild moves the process-wide handle generation on
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

struct Nested { ltLinuxSelectMainLoop* loop; int result; };

TEST(RunAndQuit, RunReturnsAfterQuitFromAnyThreadWhileExecIgnoresIt)
{
    DrivenLoop loop(false);
    loop.quit();  // kept until run(): it returns after one pass and consumes it
    EXPECT_EQ(0, loop.run());
    // From a callback on the loop thread (a request still kept would end run() before it fires).
    Nested nested = {&loop, 1};
    ASSERT_NE(0, loop.addOneShotTimer(ltTime(0, 100000), [](int, const ltTime&, void* p) {
        auto* n = static_cast<Nested*>(p);
        n->result = n->loop->run();  // already running: refused
        n->loop->quit();
        return 0;
    }, &nested));
    EXPECT_EQ(0, loop.run());
    EXPECT_EQ(-1, nested.result);
    // From another thread to a run() blocked in select(): a timer added there fires on the loop thread.
    std::thread::id runner;
    std::future<int> running = std::async(std::launch::async, [&] {
        runner = std::this_thread::get_id();
        return loop.run();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::promise<std::thread::id> timerThread;
    ASSERT_NE(0, loop.doAddTimer(timerAbsolute, lt_internal::wallClockNow(), ltTime::noTime, [](int, const ltTime&, void* p) {
        static_cast<std::promise<std::thread::id>*>(p)->set_value(std::this_thread::get_id());
        return 0;
    }, &timerThread));
    auto firing = timerThread.get_future();
    ASSERT_EQ(std::future_status::ready, firing.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(runner, firing.get());
    loop.quit();
    ASSERT_EQ(std::future_status::ready, running.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(0, running.get());

    // exec() ignores the request: it still fires a timer added after it.
    auto* forever = new DrivenLoop(false);  // exec() never returns: the loop outlives the test
    std::thread([forever] { forever->exec(); }).detach(), forever->quit();
    std::promise<void> fired;
    ASSERT_NE(0, forever->addOneShotTimer(ltTime(0, 100000), [](int, const ltTime&, void* p) {
        static_cast<std::promise<void>*>(p)->set_value();
        return 0;
    }, &fired));
    EXPECT_EQ(std::future_status::ready, fired.get_future().wait_for(std::chrono::seconds(10)));
}

}  // namespace
