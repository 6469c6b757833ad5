//===- road_bench.cpp - The cross-thread event road against its peers -----===//
//
// One thread (the benchmark's own) posts, another thread runs the loop and a handler counts:
//   - Library: ltEvent posted into an ltEventQueue registered on the running
//     ltLinuxSelectMainLoop; a persistent callback handler whose mask matches key1 counts it.
//     The queue keeps its default max size (4000): a post refused with EAGAIN is retried.
//   - Asio: boost::asio::post of a small lambda to an io_context run() by its own thread.
//   - Libuv: a mutex-guarded std::vector plus uv_async_send; the async callback swaps the
//     vector out and handles the batch (the usual way to hand work to a libuv loop).
//     LibuvHeap: the same with each message allocated by the poster and deleted by the
//     handler, as an ltEvent is.
//   - PipeSelectPingPong: the floor. A bare pipe and select() on the receiving side, whose
//     answer the sender waits for (spinning on a counter, as in the other latency runs)
//     before the next message, so one message is in flight.
//   - PipeSelectStream: the same pipe, the sender writing 8-byte messages back to back and
//     the receiver reading whatever select() finds (no user-space queue at all).
// *Throughput posts batches of kBatch messages and waits until all were handled
// (items_per_second). *Latency posts one message, waits for its handler, and reports the
// post-to-handler times of the run as p50_us and p99_us.
//
//===----------------------------------------------------------------------===//
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <uv.h>

#include "bench_util.h"
#include "ltevent.h"
#include "lteventmask.h"
#include "lteventqueue.h"
#include "ltlinuxselectmainloop.h"

namespace {

constexpr int kBatch = 20000;            // messages per throughput iteration
constexpr int kLatencySamples = 20000;   // iterations of a latency benchmark
constexpr unsigned kRoadKey = 0x524f4144;  // key1 of the road's events ("ROAD")

// -- the library: ltEventQueue on the running select loop

class LibraryRoad {
public:
    static LibraryRoad& get()
    {
        static LibraryRoad* road = new LibraryRoad();  // never destroyed: its loop runs until exit
        return *road;
    }

    ltEventQueue& queue() { return *queue_; }
    std::atomic<uint64_t> handled{0};
    bench::LatencyRecorder* latency = nullptr;  // set while a latency run is on

private:
    LibraryRoad()
    {
        ltLinuxSelectMainLoop* loop = ltLinuxSelectMainLoop::getMainLoop();
        queue_ = new ltEventQueue(*loop);
        auto* mask = new ltEventMask(ltEventMask::kMaskNone, 1, ltEventMask::kKeyEqual, kRoadKey, 0);
        (void)queue_->addEventHandlerFunction(&LibraryRoad::onEvent, mask, this, 0,
                                              ltEventHandler::kPersistent | ltEventHandler::kOwnsMask);
        (void)loop->registerMainLoopMember(*queue_);
        std::thread([loop] { loop->exec(); }).detach();
    }

    static int onEvent(ltEventQueue&, ltEvent* event, int reason, void* self)
    {
        auto* road = static_cast<LibraryRoad*>(self);
        if (reason != ltEventHandler::kReasonEvent || event == nullptr)
            return 1;
        if (event->key2 != 0 && road->latency != nullptr)
            road->latency->add(bench::nowNs() - ((uint64_t{event->key3} << 32) | event->key4));
        road->handled.fetch_add(1, std::memory_order_release);
        return 1;  // go on: the event is finished and deleted
    }

    ltEventQueue* queue_;
};

// Posts until accepted; counts the refusals of a full queue.
void postLibrary(ltEventQueue& queue, ltEvent* event, int64_t& refused)
{
    while (queue.post(*event, 0) != 0) {
        ++refused;
        std::this_thread::yield();
    }
}

void LibraryThroughput(benchmark::State& state)
{
    LibraryRoad& road = LibraryRoad::get();
    uint64_t target = road.handled.load();
    int64_t refused = 0;
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i)
            postLibrary(road.queue(), new ltEvent(kRoadKey, 0, 0, 0, nullptr, 0), refused);
        target += kBatch;
        if (!bench::waitFor(road.handled, target))
            state.SkipWithError("events were lost");
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    state.counters["refused_per_event"] = static_cast<double>(refused) / static_cast<double>(state.iterations() * kBatch);
}

void LibraryLatency(benchmark::State& state)
{
    LibraryRoad& road = LibraryRoad::get();
    bench::LatencyRecorder latency(kLatencySamples);
    road.latency = &latency;
    uint64_t target = road.handled.load();
    int64_t refused = 0;
    for (auto _ : state) {
        auto* event = new ltEvent(kRoadKey, 1, 0, 0, nullptr, 0);
        const uint64_t t = bench::nowNs();
        event->key3 = static_cast<unsigned>(t >> 32);
        event->key4 = static_cast<unsigned>(t);
        postLibrary(road.queue(), event, refused);
        if (!bench::waitFor(road.handled, ++target))
            state.SkipWithError("event was lost");
    }
    road.latency = nullptr;
    state.SetItemsProcessed(state.iterations());
    latency.report(state);
}

// -- Boost.Asio: io_context::run on its own thread, post from the benchmark thread

class AsioRoad {
public:
    static AsioRoad& get()
    {
        static AsioRoad* road = new AsioRoad();
        return *road;
    }

    void post(uint64_t stamp)
    {
        boost::asio::post(io_, [this, stamp] {
            if (stamp != 0 && latency != nullptr)
                latency->add(bench::nowNs() - stamp);
            handled.fetch_add(1, std::memory_order_release);
        });
    }

    std::atomic<uint64_t> handled{0};
    bench::LatencyRecorder* latency = nullptr;

private:
    AsioRoad() : work_(boost::asio::make_work_guard(io_))
    {
        std::thread([this] { io_.run(); }).detach();
    }

    boost::asio::io_context io_{1};  // concurrency hint 1: one thread runs it
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
};

// -- libuv: uv_async_send plus a locked queue

class UvRoad {
public:
    static UvRoad& get()
    {
        static UvRoad* road = new UvRoad();
        return *road;
    }

    void post(uint64_t stamp)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            pending_.push_back(stamp);
        }
        (void)uv_async_send(&async_);
    }

    std::atomic<uint64_t> handled{0};
    bench::LatencyRecorder* latency = nullptr;

private:
    UvRoad()
    {
        (void)uv_loop_init(&loop_);
        async_.data = this;
        (void)uv_async_init(&loop_, &async_, &UvRoad::onAsync);
        std::thread([this] { (void)uv_run(&loop_, UV_RUN_DEFAULT); }).detach();
    }

    static void onAsync(uv_async_t* async)
    {
        auto* road = static_cast<UvRoad*>(async->data);
        {
            std::lock_guard<std::mutex> lock(road->mutex_);
            road->draining_.swap(road->pending_);
        }
        for (uint64_t stamp : road->draining_) {
            if (stamp != 0 && road->latency != nullptr)
                road->latency->add(bench::nowNs() - stamp);
            road->handled.fetch_add(1, std::memory_order_release);
        }
        road->draining_.clear();
    }

    uv_loop_t loop_;
    uv_async_t async_;
    std::mutex mutex_;
    std::vector<uint64_t> pending_;   // under mutex_
    std::vector<uint64_t> draining_;  // loop thread
};

// The same road with each message a heap object that the handler deletes, as an ltEvent is:
// what the allocation alone costs a cross-thread road.
class UvHeapRoad {
public:
    struct Message {
        uint64_t stamp;
    };

    static UvHeapRoad& get()
    {
        static UvHeapRoad* road = new UvHeapRoad();
        return *road;
    }

    void post(Message* message)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            pending_.push_back(message);
        }
        (void)uv_async_send(&async_);
    }

    std::atomic<uint64_t> handled{0};

private:
    UvHeapRoad()
    {
        (void)uv_loop_init(&loop_);
        async_.data = this;
        (void)uv_async_init(&loop_, &async_, &UvHeapRoad::onAsync);
        std::thread([this] { (void)uv_run(&loop_, UV_RUN_DEFAULT); }).detach();
    }

    static void onAsync(uv_async_t* async)
    {
        auto* road = static_cast<UvHeapRoad*>(async->data);
        {
            std::lock_guard<std::mutex> lock(road->mutex_);
            road->draining_.swap(road->pending_);
        }
        for (Message* message : road->draining_) {
            delete message;
            road->handled.fetch_add(1, std::memory_order_release);
        }
        road->draining_.clear();
    }

    uv_loop_t loop_;
    uv_async_t async_;
    std::mutex mutex_;
    std::vector<Message*> pending_;   // under mutex_
    std::vector<Message*> draining_;  // loop thread
};

void LibuvHeapThroughput(benchmark::State& state)
{
    UvHeapRoad& road = UvHeapRoad::get();
    uint64_t target = road.handled.load();
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i)
            road.post(new UvHeapRoad::Message{0});
        target += kBatch;
        if (!bench::waitFor(road.handled, target))
            state.SkipWithError("messages were lost");
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

// -- the peers' throughput and latency: the same loops for every road with post(stamp),
//    a 'handled' counter and a 'latency' recorder

template <typename Road>
void PeerThroughput(benchmark::State& state)
{
    Road& road = Road::get();
    uint64_t target = road.handled.load();
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i)
            road.post(0);
        target += kBatch;
        if (!bench::waitFor(road.handled, target))
            state.SkipWithError("messages were lost");
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

template <typename Road>
void PeerLatency(benchmark::State& state)
{
    Road& road = Road::get();
    bench::LatencyRecorder latency(kLatencySamples);
    road.latency = &latency;
    uint64_t target = road.handled.load();
    for (auto _ : state) {
        road.post(bench::nowNs());
        if (!bench::waitFor(road.handled, ++target))
            state.SkipWithError("message was lost");
    }
    road.latency = nullptr;
    state.SetItemsProcessed(state.iterations());
    latency.report(state);
}

// -- the floor: a bare pipe and select()

// Blocks in select() until fd is readable; false on an error other than EINTR.
bool selectReadable(int fd)
{
    for (;;) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        const int r = select(fd + 1, &set, nullptr, nullptr, nullptr);
        if (r > 0)
            return true;
        if (r < 0 && errno != EINTR)
            return false;
    }
}

class PipePingPong {
public:
    static PipePingPong& get()
    {
        static PipePingPong* road = new PipePingPong();
        return *road;
    }

    // Sends one stamped message and waits for the answer, spinning as the other latency
    // benchmarks wait for their handler (a sender asleep in read() would let both cores idle
    // and slow every wake-up).
    bool roundTrip(uint64_t stamp)
    {
        if (write(there_[1], &stamp, sizeof stamp) != static_cast<ssize_t>(sizeof stamp))
            return false;
        return bench::waitFor(answered, ++sent_);
    }

    bench::LatencyRecorder* latency = nullptr;  // written by the sender between round trips
    std::atomic<uint64_t> answered{0};

private:
    PipePingPong()
    {
        (void)!pipe(there_);
        std::thread([this] { serve(); }).detach();
    }

    void serve()
    {
        for (;;) {
            if (!selectReadable(there_[0]))
                return;
            uint64_t stamp;
            if (read(there_[0], &stamp, sizeof stamp) != static_cast<ssize_t>(sizeof stamp))
                return;
            if (latency != nullptr)
                latency->add(bench::nowNs() - stamp);
            answered.fetch_add(1, std::memory_order_release);
        }
    }

    int there_[2];
    uint64_t sent_ = 0;
};

void PipeSelectPingPong(benchmark::State& state)
{
    PipePingPong& road = PipePingPong::get();
    bench::LatencyRecorder latency(kLatencySamples);
    road.latency = &latency;
    for (auto _ : state) {
        if (!road.roundTrip(bench::nowNs()))
            state.SkipWithError("pipe failed");
    }
    road.latency = nullptr;
    state.SetItemsProcessed(state.iterations());
    latency.report(state);
}

class PipeStream {
public:
    static PipeStream& get()
    {
        static PipeStream* road = new PipeStream();
        return *road;
    }

    bool send(uint64_t message) { return write(pipe_[1], &message, sizeof message) == static_cast<ssize_t>(sizeof message); }

    std::atomic<uint64_t> handled{0};

private:
    PipeStream()
    {
        (void)!pipe(pipe_);
        std::thread([this] { serve(); }).detach();
    }

    void serve()
    {
        uint64_t buffer[512];
        size_t partial = 0;  // bytes of an incomplete message at the start of buffer
        for (;;) {
            if (!selectReadable(pipe_[0]))
                return;
            const ssize_t n = read(pipe_[0], reinterpret_cast<char*>(buffer) + partial, sizeof buffer - partial);
            if (n <= 0)
                return;
            const size_t bytes = partial + static_cast<size_t>(n);
            const size_t messages = bytes / sizeof(uint64_t);
            handled.fetch_add(messages, std::memory_order_release);
            partial = bytes % sizeof(uint64_t);
            if (partial != 0)
                std::memmove(buffer, reinterpret_cast<char*>(buffer) + messages * sizeof(uint64_t), partial);
        }
    }

    int pipe_[2];
};

void PipeSelectStream(benchmark::State& state)
{
    PipeStream& road = PipeStream::get();
    uint64_t target = road.handled.load();
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) {
            if (!road.send(static_cast<uint64_t>(i)))
                state.SkipWithError("pipe failed");
        }
        target += kBatch;
        if (!bench::waitFor(road.handled, target))
            state.SkipWithError("messages were lost");
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

}  // namespace

// The latency runs go first, while the loops have seen nothing else.
BENCHMARK(PipeSelectPingPong)->UseRealTime()->Unit(benchmark::kMicrosecond)->Iterations(kLatencySamples);
BENCHMARK(LibraryLatency)->UseRealTime()->Unit(benchmark::kMicrosecond)->Iterations(kLatencySamples);
BENCHMARK(PeerLatency<AsioRoad>)->Name("AsioLatency")->UseRealTime()->Unit(benchmark::kMicrosecond)->Iterations(kLatencySamples);
BENCHMARK(PeerLatency<UvRoad>)->Name("LibuvLatency")->UseRealTime()->Unit(benchmark::kMicrosecond)->Iterations(kLatencySamples);
BENCHMARK(LibraryThroughput)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(PeerThroughput<AsioRoad>)->Name("AsioThroughput")->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(PeerThroughput<UvRoad>)->Name("LibuvThroughput")->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(LibuvHeapThroughput)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(PipeSelectStream)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);
