// tour_threads.cpp - the timer queue, the serial executor and the random source.
#include <chrono>
#include <cstdio>
#include <future>
#include <map>

#include "ltrandom.h"
#include "ltserialexecutor.h"
#include "lttimerqueue.h"
#include "tour.h"

namespace {

// The queue works on any clock its user chooses; here a made-up one, in seconds.
_cspOsalTime_struct seconds(double s)
{
    const int64_t whole = static_cast<int64_t>(s);
    return _cspOsalTime_struct{whole, static_cast<int32_t>((s - whole) * 1e9 + 0.5)};
}

double asSeconds(const _cspOsalTime_struct& t)
{
    return static_cast<double>(t.sec) + t.nsec / 1e9;
}

void showTimerQueue()
{
    ltTimerQueue queue;
    std::map<const ltTimer*, const char*> names;
    boost::shared_ptr<ltTimer> blink, save, alarm;  // empty: setTimer creates them

    std::printf("Three timers set on a queue (times on a made-up clock, in seconds):\n");
    int at = queue.setTimer(blink, seconds(1.0), seconds(0.5));
    names[blink.get()] = "blink";
    std::printf("  blink  every 0.5 s from 1.0  -> queued at position %d\n", at);
    at = queue.setTimer(save, seconds(2.0), seconds(0));
    names[save.get()] = "save";
    std::printf("  save   once at 2.0           -> queued at position %d\n", at);
    at = queue.setTimer(alarm, seconds(1.0), seconds(0));
    names[alarm.get()] = "alarm";
    std::printf("  alarm  once at 1.0           -> queued at position %d "
                "(ties with blink, so it goes behind it)\n", at);

    const _cspOsalTime_struct now = seconds(2.2);
    std::printf("Waking at 2.2 and draining what is due:\n");
    boost::shared_ptr<ltTimer> due;
    while (queue.getExpired(now, due) == 1) {
        if (due->isReoccuring())
            std::printf("  %-6s fired; re-armed for %.1f (the missed beats are skipped)\n",
                        names[due.get()], asSeconds(due->getTimeout()));
        else
            std::printf("  %-6s fired; one-shot, so it leaves the queue\n", names[due.get()]);
    }
    if (queue.getFirst(due) == 1)
        std::printf("Next to sleep for: %s at %.1f\n", names[due.get()], asSeconds(due->getTimeout()));
}

void showExecutor()
{
    std::printf("Three jobs posted to the serial executor run one after another on its thread:\n");
    std::fflush(stdout);
    std::promise<void> lastDone;
    {
        ltSerialExecutor executor;
        for (int job = 1; job <= 3; ++job) {
            executor.post([job, &lastDone] {
                std::printf("  job %d ran on the worker\n", job);
                std::fflush(stdout);
                if (job == 3)
                    lastDone.set_value();
            });
        }
        // Wait for the last job: destroying the executor would drop jobs still queued.
        if (lastDone.get_future().wait_for(std::chrono::seconds(5)) != std::future_status::ready)
            std::printf("  (the jobs did not finish in time)\n");
    }
}

void showRandom()
{
    ltrandom dice;  // seeded from the monotonic clock
    const unsigned a = dice.get(5) + 1, b = dice.get(5) + 1, c = dice.get(5) + 1;
    std::printf("Three dice from ltrandom (get(5) + 1): %u %u %u\n", a, b, c);
}

}  // namespace

void tourTimerQueueAndExecutor()
{
    tourHeading("Timer queue, serial executor and random source");
    showTimerQueue();
    showExecutor();
    showRandom();
}
