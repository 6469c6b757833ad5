//===- badinput_test.cpp - Every public operation given input it must survive ===//
//
// Null pointers, negative and oversized sizes and times, grouped per class: each call must
// give its documented answer and nothing worse. The suite also runs under the sanitizers, so
// an out-of-bounds access or an overflow fails here even where a plain build would go on.
//
//===----------------------------------------------------------------------===//
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>

#include "lteventmask.h"
#include "lteventqueue.h"
#include "ltidtable.h"
#include "ltlinuxselectmainloop.h"

namespace {

struct PassLoop : ltLinuxSelectMainLoop {
    using ltLinuxSelectMainLoop::beginExec;
    using ltLinuxSelectMainLoop::runOnePass;
    using PassState = ltLinuxSelectMainLoop::PassState;
};

int countCall(int /*id*/, int fd, void* calls)
{
    char byte;
    (void)!read(fd, &byte, 1);
    ++*static_cast<int*>(calls);
    return 0;
}

int ignoreTimer(int, const ltTime&, void*) { return 0; }

TEST(BadInputMainLoop, HandlesAndTimersNobodyCouldWatchAreHarmless)
{
    PassLoop loop;
    PassLoop::PassState s;
    loop.beginExec(s);
    int calls = 0;
    // -1 reads as a free slot and cannot be added; other negative descriptors and those past
    // what select() can watch are stored but never watched or dispatched.
    EXPECT_EQ(0, loop.doAddIOHandle(handleRead, handleNoFlags, -1, countCall, &calls));
    EXPECT_NE(0, loop.doAddIOHandle(handleRead, handleNoFlags, -7, countCall, &calls));
    const int far = loop.doAddIOHandle(handleRead, handleNoFlags, FD_SETSIZE + 100, countCall, &calls);
    EXPECT_NE(0, far);
    EXPECT_NE(0, loop.doAddIOHandle(static_cast<handleType_t>(3), handleNoFlags, FD_SETSIZE, countCall, &calls));
    EXPECT_NE(0, loop.doAddIOHandle(static_cast<handleType_t>(0x7f), handleNoFlags, 0, countCall, &calls));
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    ASSERT_EQ(1, write(fds[1], "x", 1));
    EXPECT_NE(0, loop.doAddIOHandle(handleRead, handleNoFlags, fds[0], countCall, &calls));
    // Far more rebuilds than the 8-bit handle generation holds: a never-stamped handle must
    // not come up when the generation wraps back to its stamp.
    for (int pass = 0; pass < 300; ++pass) {
        loop.removeIOHandle(loop.doAddIOHandle(handleRead, handleNoFlags, -9, countCall, &calls));
        loop.runOnePass(s);
    }
    EXPECT_EQ(1, calls);  // the pipe, once
    loop.removeIOHandle(far);
    for (int id : {0, INT_MIN})  // nonsense ids are ignored
        loop.removeIOHandle(id);
    for (int id : {0, -1, INT_MAX})
        loop.removeTimer(id);

    // Periods and times at the ends of the range: accepted (ids), no overflow.
    const int timers[] = {
        loop.doAddTimer(timerPeriodic, ltTime::noTime, ltTime(INT32_MAX, 999999), ignoreTimer, nullptr),
        loop.doAddTimer(timerAbsolute, ltTime(INT32_MIN, -999999), ltTime::noTime, ignoreTimer, nullptr),
        loop.doAddTimer(timerAbsolute | timerPeriodic, ltTime(INT32_MAX, 999999), ltTime(INT32_MAX, INT32_MAX),
                        ignoreTimer, nullptr)};
    (void)loop.getNextWakeupTime();
    loop.processTimeouts();
    for (int id : timers) {
        EXPECT_NE(0, id);
        loop.removeTimer(id);
    }
    (void)close(fds[0]);
    (void)close(fds[1]);
}

TEST(BadInputIdTable, ImpossibleGeometriesHandOutNoIdsAndNeverGrowPastTheirLimit)
{
    uint32_t record = 0x12345678;
    // Records of no bytes would read as in use everywhere; bit counts negative or beyond what
    // the 16-bit capacity holds give no table at all.
    const struct { int entrySize, bits, maxBits; bool freeIsZero; } impossible[] = {
        {0, 2, 4, true}, {0, 2, 4, false}, {-4, 2, 4, true}, {4, -1, 15, true}, {4, 16, 15, true}, {4, 40, 15, true}};
    for (const auto& g : impossible) {
        ltIdTable t(g.entrySize, g.bits, g.maxBits, g.freeIsZero);
        EXPECT_EQ(0, t.putMember(&record)) << g.entrySize << "/" << g.bits;
        EXPECT_EQ(-1, t.removeMember(1)) << g.entrySize << "/" << g.bits;
    }
    // Starting above its limit, a table fills what it has and does not grow.
    ltIdTable above(4, 4, 2, true);
    for (int i = 1; i < 16; ++i) {
        record = static_cast<uint32_t>(i);
        EXPECT_NE(0, above.putMember(&record));
    }
    EXPECT_EQ(0, above.putMember(&record));
    EXPECT_EQ(16, above.capacity);
    // A limit past 15 bits stops at 32768 slots instead of wrapping the capacity to 0.
    ltIdTable wide(4, 14, 20, true);
    int refused = 0;
    for (uint32_t i = 1; i <= 40000; ++i)
        refused += wide.putMember(&i) == 0 ? 1 : 0;
    EXPECT_EQ(32768, wide.capacity);
    EXPECT_EQ(40000 - 32767, refused);
    EXPECT_EQ(0, wide.putMember(nullptr));
    EXPECT_EQ(-2, wide.removeMember(0));
    EXPECT_EQ(-2, wide.removeMember(INT_MIN));  // index 0 in any generation
}

int finishEvent(ltEventQueue&, ltEvent*, int, void*) { return 1; }

TEST(BadInputEventQueue, RefusesWhatItCannotTakeWithTheDocumentedErrno)
{
    PassLoop loop;
    ltEventQueue queue(loop);
    errno = 0;
    EXPECT_EQ(-1, queue.processNextEvent());
    EXPECT_EQ(EAGAIN, errno);
    errno = 0;
    EXPECT_EQ(0u, queue.addEventHandler(5, nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, queue.removeEventHandlers(~0ull, INT_MIN, nullptr, true));

    // A TTL at the ends of the range is only arithmetic; the event is still queued.
    auto* far = new ltEvent(1, 2, 3, 4, nullptr, 0);
    EXPECT_EQ(0, queue.post(*far, UINT_MAX));
    errno = 0;
    EXPECT_EQ(-1, queue.post(*far, 0));  // already owned
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ(0, queue.post(*new ltEvent(0, 0, 0, 0, nullptr, 0), 0x80000000u));
    queue.setMaxQueueSize(INT_MIN);  // 0 or less: unbounded
    for (int i = 0; i < 5000; ++i)
        ASSERT_EQ(0, queue.post(*new ltEvent(0, 0, 0, 0, nullptr, 0), 0));

    // A mask with a null string operand compares it as the empty text.
    auto* mask = new ltEventMask(ltEventMask::kMaskNone, 5, ltEventMask::kDataEqual, static_cast<const char*>(nullptr), 0);
    EXPECT_TRUE(mask->matches(ltEvent(0, 0, 0, 0, "", ltEvent::kDataNotOwned)));
    EXPECT_FALSE(mask->matches(ltEvent(0, 0, 0, 0, nullptr, 0)));
    EXPECT_FALSE(ltEventMask().isSuperSetOf(*mask));
    // Without a callback the handler would keep what it matches (nothing here); its lethal
    // time, UINT_MAX milliseconds, wraps into the past and is due at once.
    EXPECT_NE(0u, queue.addEventHandlerFunction(nullptr, mask, nullptr, UINT_MAX, ltEventHandler::kOwnsMask));
    EXPECT_NE(0u, queue.addEventHandlerFunction(finishEvent, new ltEventMask(), nullptr, 0,
                                                ltEventHandler::kOwnsMask | ltEventHandler::kPersistent));
    int taken = 0;
    while (queue.processNextEvent() == 0)
        ++taken;
    EXPECT_EQ(5002, taken);  // every event finished, the two with a TTL among them
    loop.processTimeouts();  // the first handler's lethal time: invoked once more and dropped
    EXPECT_EQ(1, queue.removeEventHandlers(0, 0, nullptr, true));
}

}  // namespace
