//===- bench_util.h - Small helpers shared by the benchmark programs ------===//
//
// A monotonic nanosecond clock, a bounded spin-wait and the latency recorder that turns the
// samples of a run into p50/p99 counters. Benchmarks measure; they assert nothing.
//
//===----------------------------------------------------------------------===//
#ifndef LT_BENCH_UTIL_H
#define LT_BENCH_UTIL_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

namespace bench {

inline uint64_t nowNs()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

inline void cpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

// Waits until counter reaches target. Spins first (the other side runs on the other core),
// then yields; gives up after ten seconds so that a broken road cannot hang the run.
inline bool waitFor(const std::atomic<uint64_t>& counter, uint64_t target)
{
    for (int i = 0; i < 20000; ++i) {
        if (counter.load(std::memory_order_acquire) >= target)
            return true;
        cpuRelax();
    }
    const uint64_t deadline = nowNs() + 10'000'000'000ull;
    while (counter.load(std::memory_order_acquire) < target) {
        if (nowNs() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

// One-way latencies of a run: the handler stores post-to-handler times, the run reports
// their median and 99th percentile in microseconds.
class LatencyRecorder {
public:
    explicit LatencyRecorder(size_t capacity) { samples_.reserve(capacity); }
    void add(uint64_t ns) { samples_.push_back(ns); }
    void report(benchmark::State& state)
    {
        if (samples_.empty())
            return;
        std::sort(samples_.begin(), samples_.end());
        auto at = [this](double q) {
            const size_t i = std::min(samples_.size() - 1, static_cast<size_t>(q * static_cast<double>(samples_.size())));
            return static_cast<double>(samples_[i]) / 1000.0;
        };
        state.counters["p50_us"] = at(0.50);
        state.counters["p99_us"] = at(0.99);
        state.counters["p90_us"] = at(0.90);
        state.counters["p97_us"] = at(0.97);
        samples_.clear();
    }

private:
    std::vector<uint64_t> samples_;
};

}  // namespace bench

#endif  // LT_BENCH_UTIL_H
