//===- soak.cpp - Months of a TV's life, compressed into minutes ----------===//
//
// Usage: soak MINUTES (a fraction of a minute is fine; `make soak` runs it under ASan, CTest for
// 20 seconds). One loop runs on a thread of its own with one event queue. 16 posters post
// events (a third with a TTL, retrying while the queue is full), add one-shot timers due at
// once, add and remove short periodic timers and write into pipes the loop watches; a periodic
// timer on the loop thread adds and removes handlers (persistent or not, owned by the queue or
// not, with and without lethal times) and re-adds the pipes' read handles. Each check below is
// printed, and the exit status is 0 when all held: every event's end came exactly once, every
// one-shot timer fired, every byte was read, no handler is left, lfcUtilMallocUsed is back at
// its start, and neither the resident memory nor the heap grew after the warm-up (the first
// quarter of the run, at least five seconds).
//
//===----------------------------------------------------------------------===//
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "lfcutil.h"
#include "ltcallbackeventhandler.h"
#include "ltclock.h"
#include "ltevent.h"
#include "lteventmask.h"
#include "lteventqueue.h"
#include "runningloop.h"

// Freed memory waits in AddressSanitizer's quarantine before it is reused; a small quarantine
// fills during the warm-up, so the resident memory after it says something about leaks.
extern "C" const char* __asan_default_options() { return "quarantine_size_mb=16"; }
// The bytes the program has allocated and not freed, as the sanitizer's allocator counts them.
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPosters = 16;
constexpr int kPipes = 8;

std::atomic<long long> constructedEvents{0}, destroyedEvents{0}, dispatchedDeleted{0}, expiredDeleted{0};
std::atomic<long long> posted{0}, gaveUp{0}, refused{0}, brokenEvents{0}, offeredNotOnce{0};
std::atomic<long long> handlersAlive{0}, calledTwice{0}, wrongThread{0};
std::atomic<long long> oneShotsAdded{0}, oneShotsFired{0}, bytesWritten{0}, bytesRead{0};

RunningLoop* theLoop = nullptr;

void checkLoopThread() { wrongThread.fetch_add(theLoop->onLoopThread() ? 0 : 1); }

// Knows what became of it: delivered (and kept or not by the last handler that saw it), then
// deleted by the queue once. A second deletion or a stray write shows in the magic word.
class SoakEvent : public ltEvent {
public:
    static constexpr unsigned kAlive = 0x50A4E7E7u, kDead = 0xDEADE7E7u;

    SoakEvent(unsigned poster, unsigned seq, bool ttl) : ltEvent(poster, seq, ttl ? 1 : 0, 0, nullptr, 0)
    {
        constructedEvents.fetch_add(1);
    }
    ~SoakEvent() override
    {
        brokenEvents.fetch_add(magic_ != kAlive ? 1 : 0);
        magic_ = kDead;
        if (!refusedByQueue)
            (delivered > 0 && !kept ? dispatchedDeleted : expiredDeleted).fetch_add(1);
        // Nobody keeps an event without a TTL: the counter sees it once, and it is finished.
        offeredNotOnce.fetch_add(!refusedByQueue && key3 == 0 && delivered != 1 ? 1 : 0);
        destroyedEvents.fetch_add(1);
    }

    int delivered = 0;  // loop thread only, after the post
    bool kept = false;  // a handler asked to keep it
    bool refusedByQueue = false;

private:
    unsigned magic_ = kAlive;
};

// The counter (every event, first) counts each offer and passes the event on; the keeper
// (events with a TTL, last) keeps them: they stay queued until their TTL timer removes them;
// transient handlers stop some events and pass others on.
enum Role { kCounter, kKeeper, kTransient };

class SoakHandler : public ltCallbackEventHandler {
public:
    SoakHandler(ltEventMask* mask, int flags, Role role, ltTime* lethal = nullptr);
    ~SoakHandler() override
    {
        calledTwice.fetch_add(calls > 1 && (flags & kPersistent) == 0 ? 1 : 0);  // its first call is its last
        handlersAlive.fetch_sub(1);
    }

    const Role role;
    int calls = 0;  // loop thread only
};

int handle(ltEventQueue&, ltEvent* e, int reason, void* handler)
{
    checkLoopThread();
    auto* h = static_cast<SoakHandler*>(handler);
    h->calls += 1;
    if (reason == ltEventHandler::kReasonLethalTime)
        return 1;
    auto* event = static_cast<SoakEvent*>(e);
    switch (h->role) {
    case kCounter:
        event->delivered += 1;
        event->kept = false;  // the handlers of this offer decide
        return 1;
    case kKeeper:
        event->kept = true;
        return 0;
    default:
        return e->key2 % 3 == 0 ? -1 : 1;
    }
}

SoakHandler::SoakHandler(ltEventMask* mask, int flags, Role role, ltTime* lethal)
    : ltCallbackEventHandler(mask, this, lethal, flags | kOwnsMask, handle), role(role)
{
    handlersAlive.fetch_add(1);
}

struct Pipes {
    int r[kPipes], w[kPipes], handle[kPipes] = {};
};

int drainPipe(int, int fd, void*)
{
    checkLoopThread();
    char buf[256];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        bytesRead.fetch_add(n);
    return 0;
}

// The loop thread's own work, from a periodic timer: handlers and read handles come and go.
struct Manager {
    ltEventQueue* queue = nullptr;
    Pipes* pipes = nullptr;
    std::minstd_rand random{42};
    std::deque<unsigned long long> persistent;  // ids of persistent transient handlers
    std::vector<SoakHandler*> notOwned;          // handlers the queue never deletes
    unsigned tick = 0;

    void run()
    {
        checkLoopThread();
        ++tick;
        // A one-shot handler for some events, and a persistent one at a random priority (removed
        // again later), each with or without a lethal time that is due at once.
        ltTime lethal = queue->getKnownTime();
        add(0, new SoakHandler(someEvents(), 0, kTransient, random() % 2 ? &lethal : nullptr));
        if (const unsigned long long id = add(static_cast<int>(random() % 20) - 10,
                                              new SoakHandler(someEvents(), ltEventHandler::kPersistent, kTransient,
                                                              random() % 2 ? &lethal : nullptr)))
            persistent.push_back(id);
        while (persistent.size() > 12) {
            queue->removeEventHandlers(persistent.front(), 0, nullptr, true);
            persistent.pop_front();
        }
        // One the queue does not own: dropped after its first invocation, deleted here.
        auto* mine = new SoakHandler(someEvents(), ltEventHandler::kNotOwned, kTransient);
        if (add(static_cast<int>(random() % 5), mine) != 0)
            notOwned.push_back(mine);
        reapNotOwned(false);
        // A read handle removed and added again: the descriptor sets are rebuilt.
        const int p = static_cast<int>(tick % kPipes);
        theLoop->removeIOHandle(pipes->handle[p]);
        pipes->handle[p] = theLoop->doAddIOHandle(handleRead, handleNoFlags, pipes->r[p], drainPipe, nullptr);
    }

    ltEventMask* someEvents() { return new ltEventMask(ltEventMask::kMaskNone, 2, 7, 1u << (random() % 16), 0); }

    unsigned long long add(int priority, SoakHandler* h)  // deletes a handler the queue refused
    {
        const unsigned long long id = queue->addEventHandler(priority, h);
        if (id == 0)
            delete h;
        return id;
    }

    // Deletes the handlers the queue has dropped (id 0); with all, takes the others out of the
    // queue (which leaves their ids alone) and deletes them too.
    void reapNotOwned(bool all)
    {
        auto dropped = [&](SoakHandler* h) {
            if (h->id != 0 && !all)
                return false;
            if (h->id != 0)
                queue->removeEventHandlers(h->id, 0, nullptr, false);
            delete h;
            return true;
        };
        notOwned.erase(std::remove_if(notOwned.begin(), notOwned.end(), dropped), notOwned.end());
    }
};

int managerTick(int, const ltTime&, void* m)
{
    static_cast<Manager*>(m)->run();
    return 0;
}

int timerFired(int, const ltTime&, void* counter)
{
    checkLoopThread();
    if (counter != nullptr)
        static_cast<std::atomic<long long>*>(counter)->fetch_add(1);
    return 0;
}

void poster(int p, ltEventQueue& queue, Pipes& pipes, const std::atomic<bool>& stop)
{
    std::minstd_rand random(static_cast<unsigned>(p) * 7919 + 1);
    std::deque<int> periodic;
    for (unsigned seq = 0; !stop.load(); ++seq) {
        const bool ttl = random() % 3 == 0;
        auto* e = new SoakEvent(static_cast<unsigned>(p), seq, ttl);
        for (errno = 0; queue.post(*e, ttl ? 1 + random() % 2000 : 0) != 0; errno = 0) {
            if (errno == EAGAIN && !stop.load()) {  // full: the loop drains it
                std::this_thread::yield();
                continue;
            }
            e->refusedByQueue = true;  // still ours
            (errno == EAGAIN ? gaveUp : refused).fetch_add(1);  // full when the time was up, or refused
            delete e;
            e = nullptr;
            break;
        }
        posted.fetch_add(e != nullptr ? 1 : 0);
        if (seq % 64 != 0)
            continue;
        if (theLoop->doAddTimer(timerAbsolute, lt_internal::wallClockNow(), ltTime::noTime, timerFired,
                                &oneShotsFired) != 0)
            oneShotsAdded.fetch_add(1);
        const int id = theLoop->doAddTimer(timerPeriodic, ltTime::noTime,
                                           ltTime(0, 1000 + static_cast<int>(random() % 20000)), timerFired, nullptr);
        if (id != 0)
            periodic.push_back(id);
        if (periodic.size() > 3) {
            theLoop->removeTimer(periodic.front());
            periodic.pop_front();
        }
        if (write(pipes.w[p % kPipes], "s", 1) == 1)
            bytesWritten.fetch_add(1);
    }
    for (int id : periodic)
        theLoop->removeTimer(id);
}

long residentKiB()
{
    long size = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &size, &resident) != 2)
            resident = 0;
        std::fclose(f);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Heap in use: what grows when something keeps memory it no longer needs, while the resident
// memory also moves with the allocator's caches.
long heapKiB()
{
    if (__sanitizer_get_current_allocated_bytes != nullptr)
        return static_cast<long>(__sanitizer_get_current_allocated_bytes() / 1024);
    return static_cast<long>(mallinfo2().uordblks / 1024);
}

int failures = 0;

void check(bool ok, const char* what)
{
    std::printf("  %-62s %s\n", what, ok ? "ok" : "FAILED");
    failures += ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    const double minutes = argc > 1 ? std::atof(argv[1]) : 1.0;
    if (argc > 2 || minutes <= 0) {
        std::fprintf(stderr, "usage: %s MINUTES\n", argv[0]);
        return 2;
    }
    const auto runFor = std::chrono::milliseconds(static_cast<long long>(minutes * 60000));
    const auto warmUp = std::max<Clock::duration>(std::chrono::seconds(5), runFor / 4);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    const int32_t mallocAtStart = lfcUtilMallocUsed;
    long rssAfterWarmUp = 0, rssAtEnd = 0, heapAfterWarmUp = 0, heapAtEnd = 0;
    [[maybe_unused]] long long postedAfterWarmUp = 0;  // the ASan allowance counts from here
    int32_t mallocAtEnd = 0;
    bool drained = false, timersSettled = false, bytesSettled = false, queueGrew = false;
    const auto started = Clock::now();
    {
        RunningLoop loop;
        theLoop = &loop;
        Pipes pipes;
        for (int i = 0; i < kPipes; ++i) {
            int fds[2];
            if (pipe2(fds, O_NONBLOCK) != 0) {
                std::perror("pipe2");
                return 2;
            }
            pipes.r[i] = fds[0];
            pipes.w[i] = fds[1];
        }
        {
            ltEventQueue queue(loop);
            const int member = loop.registerMainLoopMember(queue);
            // The counter first, the keeper last: the keeper's 0 decides for TTL events.
            queue.addEventHandler(100, new SoakHandler(new ltEventMask(ltEventMask::kMaskNone, 0),
                                                       ltEventHandler::kPersistent, kCounter));
            queue.addEventHandler(-100, new SoakHandler(new ltEventMask(ltEventMask::kMaskNone, 3, 4, 1, 0),
                                                        ltEventHandler::kPersistent, kKeeper));
            Manager manager;
            manager.queue = &queue;
            manager.pipes = &pipes;
            const int managerTimer = loop.doAddTimer(timerPeriodic, ltTime::noTime, ltTime(0, 10000), managerTick,
                                                     &manager);
            loop.start();

            std::atomic<bool> stop{false};
            std::vector<std::thread> posters;
            for (int p = 0; p < kPosters; ++p)
                posters.emplace_back(poster, p, std::ref(queue), std::ref(pipes), std::cref(stop));
            std::this_thread::sleep_for(warmUp);
            rssAfterWarmUp = residentKiB();
            heapAfterWarmUp = heapKiB();
            postedAfterWarmUp = posted.load();
            std::this_thread::sleep_until(started + runFor);
            stop.store(true);
            for (std::thread& t : posters)
                t.join();

            // Everything in flight comes to its end while the loop still runs.
            const std::chrono::seconds patience(60);
            drained = waitFor([] { return destroyedEvents.load() == constructedEvents.load(); }, patience);
            timersSettled = waitFor([] { return oneShotsFired.load() == oneShotsAdded.load(); }, patience);
            bytesSettled = waitFor([] { return bytesRead.load() == bytesWritten.load(); }, patience);
            // Drained, the queue's vectors hold no more than twice what its limit of events needs.
            queueGrew = lfcUtilMallocUsed - mallocAtStart >
                        2 * (queue.getMaxQueueSize() + 1) * static_cast<int32_t>(sizeof(ltEvent*));
            rssAtEnd = residentKiB();
            heapAtEnd = heapKiB();
            loop.stop();

            loop.removeTimer(managerTimer);
            manager.reapNotOwned(true);
            queue.removeEventHandlers(0, 0, nullptr, true);
            for (int i = 0; i < kPipes; ++i)
                loop.removeIOHandle(pipes.handle[i]);
            loop.unregisterMainLoopMember(member, queue);
        }
        mallocAtEnd = lfcUtilMallocUsed;  // the queue and its vectors are gone
        for (int i = 0; i < kPipes; ++i) {
            close(pipes.r[i]);
            close(pipes.w[i]);
        }
        theLoop = nullptr;
    }
    long tolerance = std::max(rssAfterWarmUp / 10, 8192L);
#if defined(__SANITIZE_ADDRESS__)
    // AddressSanitizer's own bookkeeping grows by up to 0.2 bytes per event posted (and falls
    // back later) while the heap in use stays flat: an eighth of a byte per event after the
    // warm-up is allowed here; the heap check below (and LeakSanitizer at exit) is the strict one.
    tolerance += static_cast<long>((posted.load() - postedAfterWarmUp) / 8192);
#endif
    std::printf("soak: %.2f minutes; events: %lld posted, %lld dispatched, %lld expired, %lld full at the end; "
                "resident KiB: %ld after warm-up, %ld at end (tolerance %ld); heap KiB: %ld, %ld\n",
                std::chrono::duration<double>(Clock::now() - started).count() / 60, posted.load(),
                dispatchedDeleted.load(), expiredDeleted.load(), gaveUp.load(), rssAfterWarmUp, rssAtEnd,
                tolerance, heapAfterWarmUp, heapAtEnd);

    check(drained, "every event came to its end");
    check(brokenEvents.load() == 0, "no event deleted twice or overwritten");
    check(refused.load() == 0, "no post refused but for a full queue");
    check(destroyedEvents.load() == posted.load() + gaveUp.load() + refused.load(), "every event deleted exactly once");
    check(dispatchedDeleted.load() + expiredDeleted.load() == posted.load(),
          "every posted event dispatched and deleted, or expired and deleted");
    check(dispatchedDeleted.load() > 0 && expiredDeleted.load() > 0, "both ends taken");
    check(offeredNotOnce.load() == 0, "every event without a TTL offered exactly once");
    check(timersSettled, "every one-shot timer fired once");
    check(bytesSettled, "every byte written into a pipe was read");
    check(handlersAlive.load() == 0, "no handler left");
    check(calledTwice.load() == 0, "no one-shot handler called twice");
    check(wrongThread.load() == 0, "callbacks and handlers ran on the loop thread only");
    check(!queueGrew, "the drained queue's vectors within its limit");
    check(mallocAtEnd == mallocAtStart, "lfcUtilMallocUsed back at its start value");
    check(rssAtEnd <= rssAfterWarmUp + tolerance, "resident memory did not grow after the warm-up");
    // Drained at the end, so below what was in flight after the warm-up, give or take 1 MiB.
    check(heapAtEnd <= heapAfterWarmUp + 1024, "heap in use did not grow after the warm-up");
    return failures == 0 ? 0 : 1;
}
