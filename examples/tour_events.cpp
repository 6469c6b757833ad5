// tour_events.cpp - the event road: a queue on the loop, handlers chosen by masks, events
// posted from a worker thread, a time to live and a lethal time.
#include <chrono>
#include <cstdio>
#include <thread>

#include "ltevent.h"
#include "lteventmask.h"
#include "lteventqueue.h"
#include "ltlinuxselectmainloop.h"
#include "tour.h"

namespace {

using Mask = ltEventMask;

// key1 of the tour's events: what happened.
enum : unsigned { kChannelChange = 1, kVolume = 2, kStandby = 3, kEpgUpdate = 4, kSleepTimer = 9 };

// An event that says when the queue deletes it. Its text is a literal: not owned.
struct TourEvent : ltEvent {
    TourEvent(unsigned what, unsigned value, const char* text)
        : ltEvent(what, value, 0, 0, text, ltEvent::kDataNotOwned)
    {
    }
    ~TourEvent() override
    {
        std::printf("  event \"%s\" deleted\n", data);
        std::fflush(stdout);
    }
};

// One callback for every handler of the tour: user data says who it is and what it returns.
struct Role {
    const char* name;
    int result;
    const char* why;
};

int onEvent(ltEventQueue&, ltEvent* e, int reason, void* userData)
{
    const Role* role = static_cast<const Role*>(userData);
    if (reason == ltEventHandler::kReasonLethalTime)
        std::printf("  %s: lethal time reached (reason 1); not persistent, so the queue drops it\n", role->name);
    else
        std::printf("  %s got \"%s\" (key2 %u) -> returns %d: %s\n", role->name, e->data, e->key2, role->result,
                    role->why);
    std::fflush(stdout);
    return role->result;
}

const Role kZapper = {"zapper   [prio 10, key1 == 1]", 1, "positive, the event goes on"};
const Role kLogger = {"logger   [prio 0, text starts \"ch\", any case]", 1, "goes on; nobody left"};
const Role kGuard = {"guard    [prio 20, key1 == 3]", -1, "negative, lower handlers never see it"};
const Role kVolumeOsd = {"osd      [prio 5, key1 == 2, one-shot]", 1, "not persistent, so it is removed"};
const Role kEpgCache = {"epg      [prio 5, key1 == 4]", 0, "zero, the queue keeps the event"};
const Role kSleeper = {"sleep    [lethal time 3000 ms]", 1, "-"};

Mask* key1Is(unsigned what) { return new Mask(Mask::kMaskNone, 1, Mask::kKeyEqual, what, 0); }

void add(ltEventQueue& queue, int prio, Mask* mask, int flags, const Role& role)
{
    auto* h = new ltCallbackEventHandler(mask, const_cast<Role*>(&role), nullptr,
                                         flags | ltEventHandler::kOwnsMask, onEvent);
    queue.addEventHandler(prio, h);
}

void post(ltEventQueue& queue, TourEvent* e, unsigned ttlMs, const char* what)
{
    if (ttlMs != 0)
        std::printf("worker posts \"%s\" with a %u ms TTL\n    (%s)\n", e->data, ttlMs, what);
    else
        std::printf("worker posts \"%s\"\n    (%s)\n", e->data, what);
    std::fflush(stdout);
    if (queue.post(*e, ttlMs) != 0)
        delete e;  // refused: still ours
}

}  // namespace

void tourEvents(ltLinuxSelectMainLoop& loop)
{
    tourHeading("Events: a queue on the loop, handlers with masks, TTL and lethal time");
    std::printf("A worker thread posts events; the loop thread offers each one to the handlers\n"
                "whose masks match, highest priority first, and deletes it once none keeps it.\n");

    // Never deleted: the loop runs it until the process ends.
    auto* queue = new ltEventQueue(loop);
    loop.registerMainLoopMember(*queue);

    const int persistent = ltEventHandler::kPersistent;
    add(*queue, 10, key1Is(kChannelChange), persistent, kZapper);
    add(*queue, 0, new Mask(Mask::kMaskNone, 5, Mask::kDataPrefix | Mask::kDataNoCase, "ch", 0), persistent,
        kLogger);
    add(*queue, 20, key1Is(kStandby), persistent, kGuard);
    add(*queue, 5, key1Is(kVolume), 0, kVolumeOsd);
    add(*queue, 5, key1Is(kEpgUpdate), persistent, kEpgCache);
    queue->addEventHandlerFunction(onEvent, key1Is(kSleepTimer), const_cast<Role*>(&kSleeper), 3000,
                                   ltEventHandler::kOwnsMask);
    std::printf("  six handlers added; the sleep handler's lethal time is 3000 ms after the queue's\n"
                "  known time. That time is monotonic but armed as a wall-clock timer, which is\n"
                "  long past: the handler meets its lethal time on the loop's first pass.\n");

    // Handlers were added before the loop runs; from now on only the worker touches the queue,
    // through post(), which any thread may call.
    std::thread([queue] {
        const auto gap = std::chrono::milliseconds(250);
        std::this_thread::sleep_for(gap);
        post(*queue, new TourEvent(kChannelChange, 7, "Channel 7"), 0, "zapper first, then the logger");
        std::this_thread::sleep_for(gap);
        post(*queue, new TourEvent(kStandby, 0, "channel off"), 0,
             "the logger's mask matches too, but the guard stops it");
        std::this_thread::sleep_for(gap);
        post(*queue, new TourEvent(kVolume, 12, "volume 12"), 0, "the one-shot OSD handler takes it");
        std::this_thread::sleep_for(gap);
        post(*queue, new TourEvent(kEpgUpdate, 1, "epg update"), 2000,
             "its TTL timer is due at once, like the lethal time above: the event is deleted\n"
             "     on the next pass, usually before the epg handler can keep it");
        std::this_thread::sleep_for(gap);
        post(*queue, new TourEvent(kVolume, 13, "volume 13"), 0,
             "the OSD handler is gone and no mask matches: the queue puts it back and does not\n"
             "     offer it again while it is not empty, so it stays queued");
    }).detach();
}
