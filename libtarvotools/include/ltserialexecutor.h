//===- ltserialexecutor.h - One worker thread running jobs in order -------===//
///
/// \class ltSerialExecutor
/// ltSerialExecutor owns one worker thread and runs the jobs posted to it one after another,
/// in posting order, on that thread: no two jobs ever run at once and none overtakes another.
/// A job is any callable with no arguments and no result, kept as a copy from post() until it
/// has run or been discarded. The queue is unbounded and has no back-pressure.
///
/// Jobs run with no lock held, so a job may post further jobs (they queue behind it). Jobs must
/// not throw: an exception leaving a job (boost::bad_function_call for an empty job included)
/// escapes the worker thread and terminates the process. Destroying the executor from one of
/// its own jobs terminates the process too (the worker cannot join itself).
///
/// Failures of the underlying primitives pass through as Boost's own exceptions, unchanged
/// (boost::thread_resource_error from the constructor, boost::lock_error from any operation);
/// these are the only exceptions that leave this class.
///
//===----------------------------------------------------------------------===//
#ifndef LTSERIALEXECUTOR_H
#define LTSERIALEXECUTOR_H

#include <deque>

#include <boost/function.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include "ltexport.h"

class LT_EXPORT ltSerialExecutor {
public:
    /// Starts the worker thread (default attributes). Throws boost::thread_resource_error when
    /// the mutex, the condition or the thread cannot be made; nothing is left behind then.
    ltSerialExecutor();

    /// Stops the worker and joins it: a job already running is allowed to finish, every job
    /// still queued is destroyed without being called. Shutdown wins over queued work.
    /// Any thread except the worker itself.
    ~ltSerialExecutor();

    ltSerialExecutor(const ltSerialExecutor&) = delete;
    ltSerialExecutor& operator=(const ltSerialExecutor&) = delete;

    /// Queues a copy of 'job' behind every earlier job and wakes the worker. Never waits for a
    /// running job. Neither the job (an empty one is queued too) nor shutdown is checked: a job
    /// posted once the destructor has begun is silently never run. A job that cannot be stored
    /// for want of memory is dropped. Any thread, jobs included.
    void post(boost::function<void ()> job);

    /// The worker thread's body. Worker thread only: never call it yourself.
    void run();

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    // Declared in construction order; the worker comes last so it starts on a built object.
    std::deque<boost::function<void ()>> queue;  // jobs not yet started, oldest first
    bool stop;                                   // set once by the destructor, never cleared
    boost::mutex mutex;                          // guards queue and stop
    boost::condition_variable condition;         // monotonic clock; one post, one wake-up
    boost::thread worker;                        // runs run()
};

#endif // LTSERIALEXECUTOR_H
