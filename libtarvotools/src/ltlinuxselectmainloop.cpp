//===- ltlinuxselectmainloop.cpp - One select() pass after another ---------===//
#include "ltlinuxselectmainloop.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "ltdebug.h"
#include "ltmutexlock.h"
#include "ltprobes.h"

using lt_internal::MutexLock;

namespace {

constexpr uint16_t kWakeupByte = 1;
constexpr int kPassCounterModulo = 255;

// Process-wide bytes. The pass counter runs 1..255 and is never 0; nothing reads it. The
// handle generation stamps the handles of the last descriptor-set rebuild.
std::atomic<uint8_t> passCounter{0};
std::atomic<uint8_t> handleGeneration{0};

}  // namespace

ltLinuxSelectMainLoop* ltLinuxSelectMainLoop::singleton_ = nullptr;

ltLinuxSelectMainLoop* ltLinuxSelectMainLoop::getMainLoop()
{
    if (singleton_ == nullptr)
        singleton_ = new ltLinuxSelectMainLoop();
    return singleton_;
}

ltLinuxSelectMainLoop::ltLinuxSelectMainLoop() : wakeupPending_(kWakeupByte), pipeRead_(-1), pipeWrite_(-1)
{
    int fds[2] = {-1, -1};
    (void)pipe(fds);  // not checked: a loop without a pipe still runs its timers
    pipeRead_ = fds[0];
    pipeWrite_ = fds[1];
}

ltLinuxSelectMainLoop::~ltLinuxSelectMainLoop() = default;

void ltLinuxSelectMainLoop::wakeupEventLoop()
{
    // One byte collapses every wake-up until select() returns. The exchange pairs with the
    // one after select() in runOnePass: either this call finds the flag cleared and writes,
    // or the loop's next exchange reads this one and so sees the change the caller made
    // before calling (a plain load and store could miss both ways).
    if (__atomic_exchange_n(&wakeupPending_, kWakeupByte, __ATOMIC_ACQ_REL) != 0)
        return;
    const char byte = static_cast<char>(kWakeupByte & 0xFF);
    (void)!write(pipeWrite_, &byte, 1);  // not checked: a full pipe already wakes the loop
}

void ltLinuxSelectMainLoop::exec()
{
    PassState s;
    beginExec(s);
    for (;;)
        runOnePass(s);
}

void ltLinuxSelectMainLoop::beginExec(PassState& s)
{
    __atomic_store_n(&wakeupPending_, 0, __ATOMIC_RELAXED);
    if (hasFlags(kNowStale))
        (void)refreshNow();
    FD_ZERO(&s.builtRead);
    FD_ZERO(&s.builtWrite);
    FD_ZERO(&s.builtException);
    s.highestFd = -1;  // kept from pass to pass unless a rebuild recomputes it
}

void ltLinuxSelectMainLoop::runOnePass(PassState& s)
{
    passCounter.store(static_cast<uint8_t>(passCounter.load(std::memory_order_relaxed) % kPassCounterModulo + 1),
                      std::memory_order_relaxed);
    const ltTime now = refreshNow();         // 'now' is not re-read while timers fire
    LT_PROBE(loop__pass, this, now.sec, now.usec);
    const ltTime next = fireDueTimers(now);
    runMembersUntilIdle();
    rebuildDescriptorSetsIfDirty(s);

    fd_set readSet = s.builtRead, writeSet = s.builtWrite, exceptionSet = s.builtException;
    timeval timeout;
    timeval* wait = nullptr;                 // null: block until a descriptor or a wake-up
    if (next.sec != kLtTimeNever) {
        ltTime left = next;
        left -= now;
        timeout.tv_sec = left.sec;
        timeout.tv_usec = left.usec;
        wait = &timeout;
    }
    FD_SET(pipeRead_, &readSet);
    s.highestFd = std::max(s.highestFd, pipeRead_);

    int ready = select(s.highestFd + 1, &readSet, &writeSet, &exceptionSet, wait);
    LT_PROBE(loop__select, this, ready, ready < 0 ? errno : 0);
    (void)__atomic_exchange_n(&wakeupPending_, 0, __ATOMIC_ACQ_REL);  // see wakeupEventLoop()
    if (hasFlags(kNowStale))
        (void)refreshNow();
    if (ready < 1)
        return;                              // time-out, EINTR and errors alike
    ready -= drainWakeupPipe(readSet);
    dispatchReadyDescriptors(ready, readSet, writeSet, exceptionSet);
}

ltTime ltLinuxSelectMainLoop::fireDueTimers(const ltTime& now)
{
    ltTime next;
    do {
        processTimeouts();
        next = getNextWakeupTime();
    } while (ltTimeNotAfter(next, now));
    return next;
}

void ltLinuxSelectMainLoop::runMembersUntilIdle()
{
    MutexLock lock(membersMutex_);
    const int capacity = members_.capacity;
    for (int i = 0; i < capacity; ++i) {
        const auto* e = static_cast<const MemberEntry*>(members_.slotFor(i));
        if (members_.isFree(e))
            continue;
        auto* member = reinterpret_cast<ltMainLoopMember*>(e->member & ~kMemberLive);
        lock.unlock();                       // the member may (un)register members
        while (member->processNextEvent() == 0) {
        }
        lock.lock();
    }
}

void ltLinuxSelectMainLoop::rebuildDescriptorSetsIfDirty(PassState& s)
{
    // Cleared on every pass but refilled only after the handle table changed: on other
    // passes select() watches just the pipe. Kept: applications rely on this behaviour.
    FD_ZERO(&s.builtRead);
    FD_ZERO(&s.builtWrite);
    FD_ZERO(&s.builtException);
    if (!hasFlags(kHandlesChanged))
        return;

    const uint8_t generation = static_cast<uint8_t>(handleGeneration.load(std::memory_order_relaxed) + 1);
    handleGeneration.store(generation, std::memory_order_relaxed);
    fd_set* sets[3] = {&s.builtRead, &s.builtWrite, &s.builtException};
    {
        MutexLock lock(ioMutex_);
        s.highestFd = -1;
        for (int i = 0; i < ioHandles_.capacity; ++i) {
            auto* e = static_cast<IOEntry*>(ioHandles_.slotFor(i));
            if (e->fd < 0)
                continue;                    // free (-1) or invalid
            if (e->fd >= FD_SETSIZE) {
                // Past what an fd_set holds: setting it would write outside the set. Stored,
                // never watched; said on every rebuild so that the owner finds out.
                LT_DEBUG(kLtDebugLevelDefault, "exec", "Descriptor %d of handle %d is not below FD_SETSIZE (%d): not watched.\n",
                         e->fd, e->id, FD_SETSIZE);
                continue;
            }
            s.highestFd = std::max(s.highestFd, e->fd);
            const unsigned type = e->type & 3u;
            if (type == 3)
                continue;                    // stored, counted for nfds, never watched
            FD_SET(e->fd, sets[type]);
            e->stamp = generation;
        }
        // Cleared before the mutex is released: a handle added just after the walk sets the
        // flag again and is watched from the next pass on, not lost until another change.
        clearFlags(kHandlesChanged);
    }
}

int ltLinuxSelectMainLoop::drainWakeupPipe(fd_set& readSet)
{
    if (!FD_ISSET(pipeRead_, &readSet))
        return 0;
    char byte;
    (void)!read(pipeRead_, &byte, 1);        // one byte per pass; spare bytes wait for the next
    FD_CLR(pipeRead_, &readSet);
    return 1;
}

void ltLinuxSelectMainLoop::dispatchReadyDescriptors(int ready, const fd_set& r, const fd_set& w,
                                                     const fd_set& x)
{
    const fd_set* sets[3] = {&r, &w, &x};
    const uint8_t generation = handleGeneration.load(std::memory_order_relaxed);
    MutexLock lock(ioMutex_);
    if (ioHandles_.capacity == 0 || ready < 1)
        return;
    const int capacity = ioHandles_.capacity;
    for (int i = 0; i < capacity && ready >= 1; ++i) {
        const IOEntry e = *static_cast<const IOEntry*>(ioHandles_.slotFor(i));  // copy: the callback may change the table
        if (e.fd == -1 || e.stamp != generation || e.fd < 0 || e.type > handleException)
            continue;
        if (e.fd >= FD_SETSIZE)
            continue;                        // never watched; its stamp may match after a wrap
        if (!FD_ISSET(e.fd, sets[e.type]))
            continue;
        ready -= 1;
        lock.unlock();
        LT_PROBE(loop__io, this, e.id, e.fd, e.type, e.callback, e.userData);
        if (e.callback != nullptr)
            (void)e.callback(e.id, e.fd, e.userData);
        else
            (void)static_cast<ltIOHandleReceiver*>(e.userData)->ioReady(e.id, e.fd);
        lock.lock();
    }
}
