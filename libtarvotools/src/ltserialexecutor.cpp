//===- ltserialexecutor.cpp - One worker thread running jobs in order -----===//
//
// Built on Boost.Thread alone. The mutex guards the queue and the stop flag and is held only
// for queue operations and the signal, never while a job runs.
//
//===----------------------------------------------------------------------===//
#include "ltserialexecutor.h"

#include <new>
#include <utility>

#include <boost/bind/bind.hpp>

#include "ltprobes.h"

// The worker waits on a condition variable that must not be fooled by wall-clock jumps.
#if !defined(BOOST_THREAD_INTERNAL_CLOCK_IS_MONO)
#error "boost::condition_variable does not use the monotonic clock on this platform"
#endif

ltSerialExecutor::ltSerialExecutor()
    : queue(), stop(false), mutex(), condition(),
      worker(boost::bind(&ltSerialExecutor::run, this))
{
}

ltSerialExecutor::~ltSerialExecutor()
{
    {
        boost::unique_lock<boost::mutex> lock(mutex);
        stop = true;
        condition.notify_one();  // the worker is the only waiter
    }
    // Waits for a running job. On the worker itself this throws "trying joining itself",
    // which terminates the process: a job must not destroy its own executor.
    worker.join();
    // The members go in reverse order; the queue last, dropping its jobs uncalled.
}

void ltSerialExecutor::post(boost::function<void ()> job)
{
    boost::unique_lock<boost::mutex> lock(mutex);
    try {
        // Neither stop nor an empty job is checked: kept, callers rely on post never refusing.
        queue.push_back(std::move(job));
    } catch (const std::bad_alloc&) {
        return;  // no room for the job: it is dropped, as post() has no result to report
    }
    condition.notify_one();  // signalled under the mutex: the worker cannot miss it
}

void ltSerialExecutor::run()
{
    // The stop flag is only read under the mutex: it goes from false to true once, and the
    // worker looks at it before every wait and after every job.
    for (;;) {
        boost::unique_lock<boost::mutex> lock(mutex);
        if (stop)
            return;  // shutdown wins over queued work: kept, callers rely on it

        if (queue.empty()) {
            condition.wait(lock);  // one wait per pass; a Boost interruption point
            if (stop || queue.empty())
                continue;  // shutdown or a spurious wake-up: look again from the top
        }

        // Copy the job out and call the copy outside the lock, so posts never wait for it.
        boost::function<void ()> job = std::move(queue.front());
        queue.pop_front();
        const size_t waiting = queue.size();
        lock.unlock();
        LT_PROBE(job__begin, this, waiting);
        job();  // an empty job throws boost::bad_function_call out of the worker
        LT_PROBE(job__end, this);
    }
}
