//===- ltlinuxselectmainloop.cpp - One select() pass after another ---------===//
#include "ltlinuxselectmainloop.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <new>
#include <vector>

#include "ltdebug.h"
#include "ltmutexlock.h"
#include "ltprobes.h"
#include "ltresult.h"
#include "ltsidetable.h"

using lt_internal::MutexLock;

namespace {

constexpr uint16_t kWakeupByte = 1;
constexpr int kPassCounterModulo = 255;

// Process-wide bytes. The pass counter runs 1..255 and is never 0; nothing reads it. The
// handle generation stamps the handles of the last descriptor-set rebuild.
std::atomic<uint8_t> passCounter{0};
std::atomic<uint8_t> handleGeneration{0};

// A handle added by addPersistentIOHandle(), known by id and fd together, so that a handle
// that later takes over its slot is not taken for it.
struct PersistentHandle {
    int32_t id;
    int32_t fd;
};

// What a loop keeps beyond its fields: applications allocate loops with the size their headers
// give, so this lives in a side table, found by the loop's address.
struct SelectExt {
    std::vector<PersistentHandle> persistent;  // under ioMutex_; only live handles
    // The persistent handles' share of the last rebuild, copied into the built sets on the
    // passes that do not rebuild. Loop thread.
    fd_set read, write, exception;
    int highestFd = -1;
    bool watched = false;  // some persistent handle is in the sets above
    std::atomic<bool> quitRequested{false};
    std::atomic<bool> running{false};
};

// Whether any loop ever had a persistent handle: until then a pass looks nothing up. Set under
// the I/O mutex of the loop that got one, and read under it where the answer must be current.
std::atomic<bool> anyPersistent{false};

// Built in place and never destroyed, so that a loop destroyed during exit still finds it.
lt_internal::SideTable<SelectExt>& selectExts()
{
    alignas(lt_internal::SideTable<SelectExt>) static unsigned char storage[sizeof(lt_internal::SideTable<SelectExt>)];
    static auto* const table = new (storage) lt_internal::SideTable<SelectExt>;
    return *table;
}

pthread_mutex_t extMakeMutex = PTHREAD_MUTEX_INITIALIZER;  // serialises making an ext afresh

SelectExt* extOf(const void* loop) { return selectExts().find(loop); }

// The loop's ext, made now if the constructor could not; null without memory. Any thread.
SelectExt* makeExt(const void* loop)
{
    if (SelectExt* x = extOf(loop))
        return x;
    MutexLock lock(extMakeMutex);
    if (SelectExt* x = extOf(loop))
        return x;
    auto* x = new (std::nothrow) SelectExt;
    if (x != nullptr && !selectExts().bind(loop, x)) {
        delete x;
        x = nullptr;
    }
    return x;
}

// True when the table still holds handle p. Caller holds the I/O mutex.
bool holds(const ltIdTable& table, const PersistentHandle& p)
{
    const auto* e = static_cast<const ltAbstractMainLoop::IOEntry*>(table.slotFor(p.id));
    return e->id == p.id && e->fd == p.fd;
}

// Forgets the persistent handles that have left the table. Caller holds the I/O mutex.
void forgetRemoved(SelectExt& x, const ltIdTable& table)
{
    auto gone = [&table](const PersistentHandle& p) { return !holds(table, p); };
    x.persistent.erase(std::remove_if(x.persistent.begin(), x.persistent.end(), gone), x.persistent.end());
}

// Whether the entry is a persistent handle. Caller holds the I/O mutex.
bool isPersistent(const SelectExt* x, const ltAbstractMainLoop::IOEntry& e)
{
    if (x == nullptr)
        return false;
    for (const PersistentHandle& p : x->persistent) {
        if (p.id == e.id && p.fd == e.fd)
            return true;
    }
    return false;
}

// Builds the persistent handles' sets from the handle table, as a rebuild builds the others.
// Loop thread; caller holds the I/O mutex.
void rebuildPersistentSets(SelectExt& x, const ltIdTable& table)
{
    forgetRemoved(x, table);
    FD_ZERO(&x.read);
    FD_ZERO(&x.write);
    FD_ZERO(&x.exception);
    fd_set* sets[3] = {&x.read, &x.write, &x.exception};
    x.highestFd = -1;
    x.watched = false;
    for (const PersistentHandle& p : x.persistent) {
        const auto* e = static_cast<const ltAbstractMainLoop::IOEntry*>(table.slotFor(p.id));
        if (e->fd < 0 || e->fd >= FD_SETSIZE)
            continue;                        // stored, never watched, as any other handle
        x.highestFd = std::max(x.highestFd, e->fd);
        const unsigned type = e->type & 3u;
        if (type == 3)
            continue;                        // counted for nfds, never watched
        FD_SET(e->fd, sets[type]);
        x.watched = true;
    }
}

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
    (void)makeExt(this);  // without memory now, made by the first call that needs it
}

ltLinuxSelectMainLoop::~ltLinuxSelectMainLoop()
{
    if (SelectExt* x = extOf(this)) {
        selectExts().unbind(this);
        delete x;
    }
}

int ltLinuxSelectMainLoop::addPersistentIOHandle(handleType_t type, int fd, ltIOHandleCallback callback,
                                                 void* userData)
{
    SelectExt* x = makeExt(this);
    if (x == nullptr)
        return 0;
    IOEntry entry = {fd, userData, callback, 0, /*stamp=*/0, static_cast<uint8_t>(type)};
    int id = 0;
    {
        // Put and recorded under one lock, so that no rebuild sees the handle as a plain one.
        MutexLock lock(ioMutex_);
        forgetRemoved(*x, ioHandles_);
        try {
            x->persistent.reserve(x->persistent.size() + 1);
        } catch (const std::bad_alloc&) {
            return 0;
        }
        id = ioHandles_.putMember(&entry);
        if (id != 0) {
            static_cast<IOEntry*>(ioHandles_.slotFor(id))->id = id;
            x->persistent.push_back({id, fd});  // room was made above
            anyPersistent.store(true, std::memory_order_relaxed);
            setFlags(kHandlesChanged);
        }
    }
    wakeupEventLoop();
    return id;
}

int ltLinuxSelectMainLoop::run()
{
    SelectExt* x = makeExt(this);
    if (x == nullptr)
        return lt_internal::kNoMemory;
    if (x->running.exchange(true))
        return lt_internal::kFailed;
    setFlags(kHandlesChanged);  // the first pass rebuilds the sets, as a new loop's does
    PassState s;
    beginExec(s);
    if (x->quitRequested.load())
        wakeupEventLoop();  // a request made before run(): its one pass must not block
    do {
        runOnePass(s);
    } while (!x->quitRequested.exchange(false));
    x->running.store(false);
    return lt_internal::kOk;
}

void ltLinuxSelectMainLoop::quit()
{
    // Stored before the wake-up: the loop either sees the request at the end of the pass
    // under way or is woken into another pass that does (see wakeupEventLoop()).
    if (SelectExt* x = makeExt(this))
        x->quitRequested.store(true);
    wakeupEventLoop();
}

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
    if (SelectExt* x = extOf(this))
        x->running.store(true);  // for good: a run() on this loop is refused
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
    if (!hasFlags(kHandlesChanged)) {
        // The sets below are written by this thread's rebuilds only.
        const SelectExt* x = anyPersistent.load(std::memory_order_relaxed) ? extOf(this) : nullptr;
        if (x != nullptr && x->watched) {
            // Persistent handles are watched on every pass.
            s.builtRead = x->read;
            s.builtWrite = x->write;
            s.builtException = x->exception;
            s.highestFd = std::max(s.highestFd, x->highestFd);
        }
        return;
    }

    const uint8_t generation = static_cast<uint8_t>(handleGeneration.load(std::memory_order_relaxed) + 1);
    handleGeneration.store(generation, std::memory_order_relaxed);
    fd_set* sets[3] = {&s.builtRead, &s.builtWrite, &s.builtException};
    {
        MutexLock lock(ioMutex_);
        SelectExt* x = anyPersistent.load(std::memory_order_relaxed) ? extOf(this) : nullptr;
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
        if (x != nullptr)
            rebuildPersistentSets(*x, ioHandles_);
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
                                                     const fd_set& xs)
{
    const fd_set* sets[3] = {&r, &w, &xs};
    const uint8_t generation = handleGeneration.load(std::memory_order_relaxed);
    MutexLock lock(ioMutex_);
    const SelectExt* x = anyPersistent.load(std::memory_order_relaxed) ? extOf(this) : nullptr;
    if (ioHandles_.capacity == 0 || ready < 1)
        return;
    const int capacity = ioHandles_.capacity;
    for (int i = 0; i < capacity && ready >= 1; ++i) {
        const IOEntry e = *static_cast<const IOEntry*>(ioHandles_.slotFor(i));  // copy: the callback may change the table
        if (e.fd < 0 || e.type > handleException)
            continue;
        // The generation is shared by every loop of the process: another loop's rebuild
        // moves it on, but a persistent handle stays watched, so it is dispatched anyway.
        if (e.stamp != generation && !isPersistent(x, e))
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
