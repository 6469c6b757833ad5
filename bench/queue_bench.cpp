//===- queue_bench.cpp - Dispatch cost of ltEventQueue by handlers and depth ===//
//
// Single-threaded: the queue sits on a loop that never runs exec(), so post() writes no
// wake-up byte and every figure is the queue's own work (plus new/delete of the event).
//   - QueueHandlers/H: H persistent handlers whose masks (key1 == i) all differ; only the
//     last one added matches, so every event is tested against all H masks. One iteration
//     is a batch of 100 posts (not timed) and their dispatch (timed).
//   - QueueDepth/K: K events stay queued; one iteration posts one more event and dispatches
//     the oldest one, so the queue holds K events throughout (up to the default max, 4000).
//   - QueuePastKept/D: D events that no handler matches have been put back (they wait for
//     the queue to run empty, which it never does here); one iteration posts and dispatches
//     one fresh event behind them.
// items_per_second is events dispatched per second.
//
//===----------------------------------------------------------------------===//
#include <cstdint>

#include <benchmark/benchmark.h>

#include "ltevent.h"
#include "lteventmask.h"
#include "lteventqueue.h"
#include "ltlinuxselectmainloop.h"

namespace {

// A loop that is never run: its wake-up flag stays pending, so post() makes no system call.
struct IdleLoop : ltLinuxSelectMainLoop {
    IdleLoop() = default;
};

IdleLoop& idleLoop()
{
    static IdleLoop* loop = new IdleLoop();
    return *loop;
}

int countEvent(ltEventQueue&, ltEvent*, int, void* counter)
{
    ++*static_cast<uint64_t*>(counter);
    return 1;  // go on: the event is finished and deleted
}

constexpr int kPersistentOwning = ltEventHandler::kPersistent | ltEventHandler::kOwnsMask;

ltEventMask* key1Equals(unsigned value)
{
    return new ltEventMask(ltEventMask::kMaskNone, 1, ltEventMask::kKeyEqual, value, 0);
}

// Adds handlers for key1 == 1000 + i (never posted), then the one for key1 == 1.
void addHandlers(ltEventQueue& queue, int nonMatching, uint64_t& counter)
{
    for (int i = 0; i < nonMatching; ++i)
        (void)queue.addEventHandlerFunction(&countEvent, key1Equals(1000u + static_cast<unsigned>(i)), &counter, 0,
                                            kPersistentOwning);
    (void)queue.addEventHandlerFunction(&countEvent, key1Equals(1), &counter, 0, kPersistentOwning);
}

void drain(ltEventQueue& queue)
{
    while (queue.processNextEvent() == 0) {
    }
}

void QueueHandlers(benchmark::State& state)
{
    constexpr int kBatchEvents = 100;
    auto* queue = new ltEventQueue(idleLoop());
    uint64_t handled = 0;
    addHandlers(*queue, static_cast<int>(state.range(0)) - 1, handled);
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < kBatchEvents; ++i)
            (void)queue->post(*new ltEvent(1, 0, 0, 0, nullptr, 0), 0);
        state.ResumeTiming();
        drain(*queue);
    }
    state.SetItemsProcessed(state.iterations() * kBatchEvents);
    state.counters["handled"] = static_cast<double>(handled);
    (void)queue->removeEventHandlers(0, 0, nullptr, true);
    delete queue;
}

void QueueDepth(benchmark::State& state)
{
    const int depth = static_cast<int>(state.range(0));
    auto* queue = new ltEventQueue(idleLoop());
    uint64_t handled = 0;
    addHandlers(*queue, 0, handled);
    for (int i = 0; i < depth; ++i)
        (void)queue->post(*new ltEvent(1, 0, 0, 0, nullptr, 0), 0);
    for (auto _ : state) {
        (void)queue->post(*new ltEvent(1, 0, 0, 0, nullptr, 0), 0);
        (void)queue->processNextEvent();
    }
    state.SetItemsProcessed(state.iterations());
    drain(*queue);
    (void)queue->removeEventHandlers(0, 0, nullptr, true);
    delete queue;
}

void QueuePastKept(benchmark::State& state)
{
    const int kept = static_cast<int>(state.range(0));
    auto* queue = new ltEventQueue(idleLoop());
    uint64_t handled = 0;
    addHandlers(*queue, 0, handled);
    // key1 2 matches no handler: each such event is put back and waits for an empty queue.
    for (int i = 0; i < kept; ++i)
        (void)queue->post(*new ltEvent(2, 0, 0, 0, nullptr, 0), 0);
    drain(*queue);
    for (auto _ : state) {
        (void)queue->post(*new ltEvent(1, 0, 0, 0, nullptr, 0), 0);
        (void)queue->processNextEvent();
    }
    state.SetItemsProcessed(state.iterations());
    // The kept events are never handed out again; the queue is dropped with them.
}

}  // namespace

BENCHMARK(QueueHandlers)->Arg(1)->Arg(10)->Arg(100)->MinTime(0.5);
BENCHMARK(QueueDepth)->Arg(10)->Arg(100)->Arg(1000)->Arg(4000)->MinTime(0.5);
BENCHMARK(QueuePastKept)->Arg(10)->Arg(100)->Arg(1000)->MinTime(0.5);
