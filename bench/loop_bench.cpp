//===- loop_bench.cpp - One loop pass by armed timers and watched descriptors ===//
//
// Each figure is the cost of one pass of a loop driven on the benchmark thread, for the
// library's select loop, libuv and Boost.Asio (epoll), in the same program:
//   - *TimersIdle/N: N timers armed an hour ahead, none due; the pass is woken from outside
//     (library: wakeupEventLoop() then one pass; libuv: uv_async_send then
//     uv_run(UV_RUN_ONCE); Asio: post of an empty handler then poll()).
//   - *TimerFires/N: N-1 timers armed an hour ahead plus one one-shot timer, armed already
//     due, that the pass fires (and so removes) every time.
//   - LibraryTimerFiresSparse/N: as LibraryTimerFires/1, but the table first grew to hold N
//     timers and N-1 were removed again: the empty slots must cost nothing.
//   - *Descriptors/N: N eventfds watched for reading, the last one kept readable, so every
//     pass dispatches exactly one descriptor. The library's loop watches its descriptors only
//     on a pass after the handle table changed (kept behaviour); the benchmark marks the
//     table changed before every pass so that all N are watched each time, as in its peers.
//
//===----------------------------------------------------------------------===//
#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <uv.h>

#include "ltlinuxselectmainloop.h"

namespace {

constexpr int kHourMs = 3600 * 1000;

// The library's loop with its passes driven one at a time.
class PassLoop : public ltLinuxSelectMainLoop {
public:
    PassLoop() { beginExec(state_); }
    void pass() { runOnePass(state_); }
    void markHandlesChanged() { setFlags(kHandlesChanged); }

private:
    PassState state_;
};

int countTimer(int, const ltTime&, void* counter)
{
    ++*static_cast<uint64_t*>(counter);
    return 0;
}

int countDescriptor(int, int, void* counter)
{
    ++*static_cast<uint64_t*>(counter);
    return 0;
}

ltTime wallClockAgo(int seconds)
{
    timeval tv;
    (void)gettimeofday(&tv, nullptr);
    return ltTime(static_cast<int32_t>(tv.tv_sec - seconds), static_cast<int32_t>(tv.tv_usec));
}

void armIdleLibraryTimers(PassLoop& loop, int n, uint64_t& counter, std::vector<int>* ids = nullptr)
{
    for (int i = 0; i < n; ++i) {
        const int id = loop.doAddTimer(timerPeriodic, ltTime::noTime, ltTimeFromMs(kHourMs), &countTimer, &counter);
        if (ids != nullptr)
            ids->push_back(id);
    }
}

void reportPerPass(benchmark::State& state, uint64_t fired)
{
    state.SetItemsProcessed(state.iterations());
    state.counters["fired_per_pass"] = static_cast<double>(fired) / static_cast<double>(state.iterations());
}

// -- timers, none due

void LibraryTimersIdle(benchmark::State& state)
{
    auto loop = std::make_unique<PassLoop>();
    uint64_t fired = 0;
    armIdleLibraryTimers(*loop, static_cast<int>(state.range(0)), fired);
    loop->wakeupEventLoop();
    loop->pass();  // settles the wake-ups of the additions
    for (auto _ : state) {
        loop->wakeupEventLoop();
        loop->pass();
    }
    reportPerPass(state, fired);
}

void noopAsync(uv_async_t*) {}
void countUvTimer(uv_timer_t* t) { ++*static_cast<uint64_t*>(t->data); }

void LibuvTimersIdle(benchmark::State& state)
{
    uv_loop_t loop;
    (void)uv_loop_init(&loop);
    uv_async_t async;
    (void)uv_async_init(&loop, &async, &noopAsync);
    uint64_t fired = 0;
    std::vector<uv_timer_t> timers(static_cast<size_t>(state.range(0)));
    for (uv_timer_t& t : timers) {
        (void)uv_timer_init(&loop, &t);
        t.data = &fired;
        (void)uv_timer_start(&t, &countUvTimer, kHourMs, kHourMs);
    }
    for (auto _ : state) {
        (void)uv_async_send(&async);
        (void)uv_run(&loop, UV_RUN_ONCE);
    }
    reportPerPass(state, fired);
    for (uv_timer_t& t : timers)
        uv_close(reinterpret_cast<uv_handle_t*>(&t), nullptr);
    uv_close(reinterpret_cast<uv_handle_t*>(&async), nullptr);
    (void)uv_run(&loop, UV_RUN_DEFAULT);
    (void)uv_loop_close(&loop);
}

void AsioTimersIdle(benchmark::State& state)
{
    boost::asio::io_context io(1);
    uint64_t fired = 0;
    std::vector<std::unique_ptr<boost::asio::steady_timer>> timers;
    for (int i = 0; i < state.range(0); ++i) {
        timers.push_back(std::make_unique<boost::asio::steady_timer>(io, std::chrono::hours(1)));
        timers.back()->async_wait([&fired](const boost::system::error_code& ec) {
            if (!ec)
                ++fired;
        });
    }
    for (auto _ : state) {
        boost::asio::post(io, [] {});
        (void)io.poll();
    }
    reportPerPass(state, fired);
    for (auto& t : timers)
        (void)t->cancel();
    (void)io.poll();
}

// -- one timer due per pass

void runLibraryTimerFires(benchmark::State& state, PassLoop& loop, uint64_t& fired)
{
    for (auto _ : state) {
        // Already due: fires on this pass and removes itself. The addition wakes the loop.
        (void)loop.doAddTimer(timerAbsolute, wallClockAgo(1), ltTime::noTime, &countTimer, &fired);
        loop.pass();
    }
    reportPerPass(state, fired);
}

void LibraryTimerFires(benchmark::State& state)
{
    auto loop = std::make_unique<PassLoop>();
    uint64_t idle = 0, fired = 0;
    armIdleLibraryTimers(*loop, static_cast<int>(state.range(0)) - 1, idle);
    loop->wakeupEventLoop();
    loop->pass();  // settles the wake-ups of the additions
    runLibraryTimerFires(state, *loop, fired);
}

void LibraryTimerFiresSparse(benchmark::State& state)
{
    auto loop = std::make_unique<PassLoop>();
    uint64_t idle = 0, fired = 0;
    std::vector<int> ids;
    armIdleLibraryTimers(*loop, static_cast<int>(state.range(0)), idle, &ids);
    for (size_t i = 1; i < ids.size(); ++i)  // the table keeps its grown size, one slot in use
        loop->removeTimer(ids[i]);
    loop->wakeupEventLoop();
    loop->pass();  // settles the wake-ups of the additions
    runLibraryTimerFires(state, *loop, fired);
}

void LibuvTimerFires(benchmark::State& state)
{
    uv_loop_t loop;
    (void)uv_loop_init(&loop);
    uint64_t idle = 0, fired = 0;
    std::vector<uv_timer_t> timers(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < timers.size(); ++i) {
        (void)uv_timer_init(&loop, &timers[i]);
        timers[i].data = i == 0 ? &fired : &idle;
        if (i != 0)
            (void)uv_timer_start(&timers[i], &countUvTimer, kHourMs, kHourMs);
    }
    for (auto _ : state) {
        (void)uv_timer_start(&timers[0], &countUvTimer, 0, 0);  // due at once, one-shot
        (void)uv_run(&loop, UV_RUN_NOWAIT);
    }
    reportPerPass(state, fired);
    for (uv_timer_t& t : timers)
        uv_close(reinterpret_cast<uv_handle_t*>(&t), nullptr);
    (void)uv_run(&loop, UV_RUN_DEFAULT);
    (void)uv_loop_close(&loop);
}

void AsioTimerFires(benchmark::State& state)
{
    boost::asio::io_context io(1);
    uint64_t fired = 0;
    auto count = [&fired](const boost::system::error_code& ec) {
        if (!ec)
            ++fired;
    };
    std::vector<std::unique_ptr<boost::asio::steady_timer>> timers;
    for (int i = 1; i < state.range(0); ++i) {
        timers.push_back(std::make_unique<boost::asio::steady_timer>(io, std::chrono::hours(1)));
        timers.back()->async_wait(count);
    }
    boost::asio::steady_timer due(io);
    for (auto _ : state) {
        // An hour in the past: Asio's epoll reactor learns of expiries through a timerfd,
        // which an expiry of 'now' may not have reached when poll() looks.
        due.expires_at(std::chrono::steady_clock::now() - std::chrono::hours(1));
        due.async_wait(count);
        (void)io.run_one();  // poll() may look before the reactor has seen the expiry
    }
    reportPerPass(state, fired);
    for (auto& t : timers)
        (void)t->cancel();
    (void)io.poll();
}

// -- watched descriptors, one readable

std::vector<int> makeEventFds(int n)
{
    std::vector<int> fds;
    for (int i = 0; i < n; ++i)
        fds.push_back(eventfd(0, EFD_NONBLOCK));
    const uint64_t one = 1;
    (void)!write(fds.back(), &one, sizeof one);  // readable for good: nobody reads it
    return fds;
}

void closeFds(const std::vector<int>& fds)
{
    for (int fd : fds)
        (void)close(fd);
}

void LibraryDescriptors(benchmark::State& state)
{
    const std::vector<int> fds = makeEventFds(static_cast<int>(state.range(0)));
    auto loop = std::make_unique<PassLoop>();
    uint64_t dispatched = 0;
    std::vector<int> ids;
    for (int fd : fds)
        ids.push_back(loop->doAddIOHandle(handleRead, handleNoFlags, fd, &countDescriptor, &dispatched));
    for (auto _ : state) {
        loop->markHandlesChanged();  // watch all N on this pass too (see the file comment)
        loop->pass();
    }
    reportPerPass(state, dispatched);
    for (int id : ids)
        loop->removeIOHandle(id);
    closeFds(fds);
}

void countUvPoll(uv_poll_t* p, int, int) { ++*static_cast<uint64_t*>(p->data); }

void LibuvDescriptors(benchmark::State& state)
{
    const std::vector<int> fds = makeEventFds(static_cast<int>(state.range(0)));
    uv_loop_t loop;
    (void)uv_loop_init(&loop);
    uint64_t dispatched = 0;
    std::vector<uv_poll_t> polls(fds.size());
    for (size_t i = 0; i < fds.size(); ++i) {
        (void)uv_poll_init(&loop, &polls[i], fds[i]);
        polls[i].data = &dispatched;
        (void)uv_poll_start(&polls[i], UV_READABLE, &countUvPoll);
    }
    for (auto _ : state)
        (void)uv_run(&loop, UV_RUN_NOWAIT);
    reportPerPass(state, dispatched);
    for (uv_poll_t& p : polls)
        uv_close(reinterpret_cast<uv_handle_t*>(&p), nullptr);
    (void)uv_run(&loop, UV_RUN_DEFAULT);
    (void)uv_loop_close(&loop);
    closeFds(fds);
}

class AsioWatch {
public:
    AsioWatch(boost::asio::io_context& io, int fd, uint64_t& counter) : descriptor_(io, fd), counter_(counter) {}
    ~AsioWatch() { (void)descriptor_.release(); }  // the fd is closed by its owner
    void arm()
    {
        descriptor_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                               [this](const boost::system::error_code& ec) {
                                   if (ec)
                                       return;
                                   ++counter_;
                                   arm();
                               });
    }
    void cancel() { (void)descriptor_.cancel(); }

private:
    boost::asio::posix::stream_descriptor descriptor_;
    uint64_t& counter_;
};

void AsioDescriptors(benchmark::State& state)
{
    const std::vector<int> fds = makeEventFds(static_cast<int>(state.range(0)));
    boost::asio::io_context io(1);
    uint64_t dispatched = 0;
    std::vector<std::unique_ptr<AsioWatch>> watches;
    for (int fd : fds) {
        watches.push_back(std::make_unique<AsioWatch>(io, fd, dispatched));
        watches.back()->arm();
    }
    for (auto _ : state)
        (void)io.poll_one();
    reportPerPass(state, dispatched);
    for (auto& w : watches)
        w->cancel();
    (void)io.poll();
    watches.clear();
    closeFds(fds);
}

}  // namespace

BENCHMARK(LibraryTimersIdle)->Arg(1)->Arg(64)->Arg(1024)->Arg(8000)->MinTime(0.3);
BENCHMARK(LibuvTimersIdle)->Arg(1)->Arg(64)->Arg(1024)->Arg(8000)->MinTime(0.3);
BENCHMARK(AsioTimersIdle)->Arg(1)->Arg(64)->Arg(1024)->Arg(8000)->MinTime(0.3);
BENCHMARK(LibraryTimerFires)->Arg(1)->Arg(64)->Arg(1024)->Arg(8000)->MinTime(0.3);
BENCHMARK(LibraryTimerFiresSparse)->Arg(1024)->Arg(8000)->MinTime(0.3);
BENCHMARK(LibuvTimerFires)->Arg(1)->Arg(64)->Arg(1024)->Arg(8000)->MinTime(0.3);
BENCHMARK(AsioTimerFires)->Arg(1)->Arg(64)->Arg(1024)->Arg(8000)->MinTime(0.3);
BENCHMARK(LibraryDescriptors)->Arg(1)->Arg(10)->Arg(100)->Arg(500)->MinTime(0.3);
BENCHMARK(LibuvDescriptors)->Arg(1)->Arg(10)->Arg(100)->Arg(500)->MinTime(0.3);
BENCHMARK(AsioDescriptors)->Arg(1)->Arg(10)->Arg(100)->Arg(500)->MinTime(0.3);
