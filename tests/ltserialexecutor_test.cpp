#include "ltserialexecutor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

bool ready(const std::shared_future<void>& f) { return f.wait_for(std::chrono::seconds(10)) == std::future_status::ready; }

TEST(SerialExecutorOrder, JobsFromManyThreadsRunOneAtATimeInEachPostersOrder)
{
    constexpr int kThreads = 4, kJobs = 250;
    std::vector<int> next(kThreads, 0);  // per poster, the job expected next; worker only
    std::atomic<int> running(0), faults(0), left(kThreads * kJobs);
    std::promise<void> allRan;
    ltSerialExecutor executor;
    std::vector<std::thread> posters;
    for (int p = 0; p < kThreads; ++p) {
        posters.emplace_back([&, p] {
            for (int i = 0; i < kJobs; ++i)
                executor.post([&, p, i] {
                    faults += running++ != 0;  // another job is running
                    faults += next[p]++ != i;  // overtaken within one poster's jobs
                    --running;
                    if (--left == 0)
                        allRan.set_value();
                });
        });
    }
    for (std::thread& t : posters) t.join();
    ASSERT_TRUE(ready(allRan.get_future().share()));
    EXPECT_EQ(0, faults.load());

    std::vector<std::string> trace;  // written by the worker only
    std::thread::id outer, inner;
    std::promise<void> gate, done;
    ltSerialExecutor serial;
    serial.post([f = gate.get_future().share()] { ready(f); });  // hold the worker
    serial.post([&] {
        outer = std::this_thread::get_id();
        serial.post([&] {
            inner = std::this_thread::get_id();
            trace.push_back("inner");
            done.set_value();
        });
        trace.push_back("outer ends");  // the inner job has not run yet
    });
    serial.post([&] { trace.push_back("posted earlier from outside"); });
    gate.set_value();
    ASSERT_TRUE(ready(done.get_future().share()));
    EXPECT_EQ((std::vector<std::string>{"outer ends", "posted earlier from outside", "inner"}),
              trace);
    EXPECT_EQ(outer, inner);
}

TEST(SerialExecutorShutdown, RunningJobFinishesAndQueuedJobsAreDroppedUncalled)
{
    auto* serial = new ltSerialExecutor;
    std::promise<void> started, destroying, destroyed;
    std::atomic<bool> longJobFinished(false);
    std::atomic<int> droppedJobsRun(0);
    auto token = std::make_shared<int>(0);  // held by every job that must be dropped
    std::weak_ptr<int> tokenSeen = token;
    serial->post([&, token, f = destroying.get_future().share()] {
        started.set_value();
        if (!ready(f))
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the destructor sets its stop flag
        serial->post([&, token] { ++droppedJobsRun; });  // posted after shutdown began
        longJobFinished = true;
    });
    for (int i = 0; i < 3; ++i)
        serial->post([&, token] { ++droppedJobsRun; });
    token.reset();
    ASSERT_TRUE(ready(started.get_future().share()));
    std::thread([&] {
        destroying.set_value();
        delete serial;  // waits for the running job
        destroyed.set_value();
    }).detach();
    ASSERT_TRUE(ready(destroyed.get_future().share()));
    EXPECT_TRUE(longJobFinished.load());
    EXPECT_EQ(0, droppedJobsRun.load());
    EXPECT_TRUE(tokenSeen.expired());  // the dropped jobs were destroyed with the queue
}

}  // namespace
