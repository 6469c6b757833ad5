// A process stopped in a known state for the debugger scripts: it first runs every probed step
// once, then stops in lt_gdb_checkpoint() mid-dispatch; the main thread drives the loop passes.
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <future>

#include <boost/shared_ptr.hpp>

#include "csp_osal.h"
#include "ltcallbackeventhandler.h"
#include "ltevent.h"
#include "lteventmask.h"
#include "lteventqueue.h"
#include "ltlinuxselectmainloop.h"
#include "ltpointerlist.h"
#include "ltserialexecutor.h"
#include "ltsortedlist.h"
#include "lttimerqueue.h"
#include "lturi.h"

// What the scripts check against.
struct TargetState {
    ltLinuxSelectMainLoop* loop;
    ltEventQueue* queue;
    int memberId;
    int periodicTimer, alarmTimer, objectTimer;  // every 60 s; once, in an hour; every 30 s
    int readHandle, writeHandle;
    int readFd, writeFd;
    ltEvent* held;                 // kept by handler a, put back: waits for the queue to empty
    ltEvent* e1, *e2, *e3, *e4;    // e1 being dispatched, e2 and e3 claimed, e4 in the ring
    ltEventHandler* a, *b, *c;     // priorities 10, 5, 0; b invoked now; c has a lethal time
    ta::tarvotools::uri::LtUri* uri;
    ltPointerList* triple;         // three pointers
    ltPointerList* array;          // five pointers
    ltSortedList* sorted;          // 3, 1, 2 added
};
TargetState lt_gdb_target;

// Where the scripts stop. Not inlined, and not folded into another empty function.
extern "C" __attribute__((noinline, used)) void lt_gdb_checkpoint()
{
    asm volatile("" ::: "memory");
}

namespace {

class TargetLoop : public ltLinuxSelectMainLoop {
public:
    TargetLoop() { beginExec(state_); }
    void pass() { wakeupEventLoop(), runOnePass(state_); }  // never blocks: a wake-up is pending

private:
    PassState state_;
};

struct Receiver : ltTimerReceiver {
    int timerExpired(int, const ltTime&) override { return 0; }
} receiver;

int onTick(int, const ltTime&, void*) { return 0; }
int onAlarm(int, const ltTime&, void*) { return 0; }
int onReadable(int, int fd, void*) { char byte; return static_cast<int>(read(fd, &byte, 1)); }
int onWritable(int, int, void*) { return 0; }

int keep(ltEventQueue&, ltEvent*, int, void*) { return 0; }
int passOn(ltEventQueue&, ltEvent*, int, void*) { return 1; }
int stopHere(ltEventQueue& queue, ltEvent*, int, void*)
{
    (void)queue.post(*lt_gdb_target.e4, 0);
    lt_gdb_checkpoint();
    return 1;
}

ltEventMask* key1Is(unsigned key)
{
    return new ltEventMask(ltEventMask::kMaskNone, ltEventMask::kFieldKey1, ltEventMask::kKeyEqual, key, 0);
}

ltEvent* event(unsigned key1, unsigned key2, const char* data, unsigned short prio)
{
    auto* e = new ltEvent(key1, key2, 0, 0, data, ltEvent::kDataNotOwned);
    e->setPrio(prio);
    return e;
}

bool fail(const char* what) { return std::fprintf(stderr, "target: %s\n", what), false; }

// Every probe point once, leaving the queue and the loop as they were found.
bool runTheRoad(TargetLoop& loop, ltEventQueue& queue)
{
    (void)queue.addEventHandlerFunction(passOn, key1Is(0x10), nullptr, 0, 0);  // not persistent
    (void)queue.addEventHandlerFunction(passOn, key1Is(0x30), nullptr, 1, 0);  // dropped at its lethal time
    ltEvent* handled = event(0x10, 0, nullptr, 0);
    if (queue.post(*handled, 0) != 0)
        return fail("post");
    if (queue.post(*handled, 0) != -1 || errno != EBUSY)  // posted already
        return fail("refused post");
    if (queue.post(*event(0x20, 0, nullptr, 0), 1) != 0)  // expires on the next pass
        return fail("post with a TTL");
    loop.pass();  // the TTL and the lethal time, then the dispatch; the descriptors' first pass
    loop.pass();

    ltSerialExecutor executor;
    std::promise<void> ran;
    executor.post([&ran] { ran.set_value(); });
    ran.get_future().wait();

    ltTimerQueue timers;
    boost::shared_ptr<ltTimer> timer, expired;
    cspOsalTime_t now, once = {0, 0};
    cspOsalGetTime(&now);
    (void)timers.setTimer(timer, now, once);
    if (timers.getExpired(now, expired) != 1)
        return fail("timer queue");
    return true;
}

}  // namespace

int main()
{
    auto* loop = new TargetLoop;
    ltLinuxSelectMainLoop::singleton_ = loop;  // what getMainLoop() and the scripts find
    ltEventQueue& queue = *new ltEventQueue(*loop);
    TargetState& s = lt_gdb_target;
    s.loop = loop, s.queue = &queue;
    s.memberId = loop->registerMainLoopMember(queue);

    int pipeFds[2];
    if (pipe(pipeFds) != 0 || write(pipeFds[1], "x", 1) != 1)
        return 1;
    s.readFd = pipeFds[0], s.writeFd = pipeFds[1];
    s.readHandle = loop->addIOHandle(handleRead, s.readFd, onReadable, nullptr);
    s.writeHandle = loop->addIOHandle(handleWrite, s.writeFd, onWritable, nullptr);
    if (!runTheRoad(*loop, queue))
        return 1;

    timeval wall;
    gettimeofday(&wall, nullptr);
    s.periodicTimer = loop->addTimer(timerPeriodic, ltTime::noTime, ltTime(60, 0), onTick, &s);
    s.alarmTimer = loop->addTimer(timerAbsolute, ltTime(static_cast<int32_t>(wall.tv_sec) + 3600, 0),
                                  ltTime::noTime, onAlarm, nullptr);
    s.objectTimer = loop->addObjectTimer(timerPeriodic, ltTime::noTime, ltTime(30, 0), &receiver);

    // a keeps the event it matches: put back at the known time, it is then held.
    s.a = new ltCallbackEventHandler(key1Is(7), nullptr, nullptr,
                                     ltEventHandler::kOwnsMask | ltEventHandler::kPersistent, keep);
    (void)queue.addEventHandler(10, s.a);
    s.held = event(7, 0, nullptr, 1);
    (void)queue.post(*s.held, 0);
    loop->pass();

    auto* chan = new ltEventMask(ltEventMask::kMaskNone, ltEventMask::kFieldKey1, ltEventMask::kKeyEqual, 0x100u,
                                 ltEventMask::kFieldData, ltEventMask::kDataPrefix, "chan", 0);
    s.b = new ltCallbackEventHandler(chan, &s, nullptr,
                                     ltEventHandler::kOwnsMask | ltEventHandler::kPersistent | ltEventHandler::kNotOwned,
                                     stopHere);
    s.b->groupTag = 3;
    (void)queue.addEventHandler(5, s.b);
    ltTime lethal = ltTimeAdd(queue.getKnownTime(), ltTime(60, 0));
    s.c = new ltCallbackEventHandler(nullptr, nullptr, &lethal, 0, passOn);
    (void)queue.addEventHandler(0, s.c);

    s.uri = new ta::tarvotools::uri::LtUri("rec://servicelist/dvbt?onid=1&tsid=2&sid=3#now");
    s.triple = new ltPointerList;
    s.array = new ltPointerList;
    static int targets[5];
    for (int i = 0; i < 5; ++i) {
        if (i < 3)
            (void)s.triple->addPointer(&targets[i]);
        (void)s.array->addPointer(&targets[i]);
    }
    s.sorted = new ltSortedList(sizeof(int), 4, 0, 4);
    for (int v : {3, 1, 2})
        (void)s.sorted->add(&v);

    s.e1 = event(0x100, 1, "channel 5", 3);
    s.e2 = event(0x200, 2, nullptr, 9);
    s.e3 = event(0x300, 3, nullptr, 0);
    s.e4 = event(0x400, 4, nullptr, 0);  // posted by b while e1 is dispatched
    (void)queue.post(*s.e1, 0);
    (void)queue.post(*s.e2, 0);
    (void)queue.post(*s.e3, 5000);
    // Not by a pass: no timer fires first, so e3's TTL and c's lethal time stay armed.
    (void)queue.processNextEvent();
    return 0;
}
