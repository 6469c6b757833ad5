//===- runningloop.h - A select loop passed on a thread of its own (tests) ===//
// exec() never returns: start() runs the loop's passes on a thread until stop().
#ifndef RUNNINGLOOP_H
#define RUNNINGLOOP_H

#include <atomic>
#include <chrono>
#include <thread>

#include "ltlinuxselectmainloop.h"

class RunningLoop : public ltLinuxSelectMainLoop {
public:
    void start()
    {
        thread_ = std::thread([this] {
            loopThread_.store(std::this_thread::get_id());  // before any callback: thread_ may not be set yet
            PassState s;
            for (beginExec(s); !stopping_.load();)
                runOnePass(s);
        });
    }
    void stop()
    {
        stopping_.store(true);
        wakeupEventLoop();  // out of select()
        thread_.join();
    }
    bool onLoopThread() const { return std::this_thread::get_id() == loopThread_.load(); }

private:
    std::atomic<bool> stopping_{false};
    std::atomic<std::thread::id> loopThread_{};
    std::thread thread_;
};

// Polls until done() holds; false when the patience, far beyond any healthy wait, runs out (a lost
// wake-up). No timing is asserted.
template <typename Done>
bool waitFor(Done done, std::chrono::seconds patience = std::chrono::seconds(20))
{
    for (const auto until = std::chrono::steady_clock::now() + patience; !done();
         std::this_thread::sleep_for(std::chrono::microseconds(50)))
        if (std::chrono::steady_clock::now() > until)
            return false;
    return true;
}

#endif  // RUNNINGLOOP_H
