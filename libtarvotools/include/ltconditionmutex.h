//===- ltconditionmutex.h - A mutex with a condition variable -------------===//
///
/// \class ltConditionMutex
/// ltConditionMutex pairs a condition variable with a mutex: either an outside pthread mutex
/// given to the constructor, or its own. ltGuard locks the outside mutex when one is set and
/// the own mutex otherwise; wait() releases and retakes that same mutex. Any thread.
///
//===----------------------------------------------------------------------===//
#ifndef LTCONDITIONMUTEX_H
#define LTCONDITIONMUTEX_H

#include <pthread.h>

#include "ltexport.h"

class LT_EXPORT ltConditionMutex {
public:
    /// outside: a mutex to use instead of the own one; may be null.
    explicit ltConditionMutex(pthread_mutex_t* outside = nullptr);
    /// Destroys the condition and the own mutex; an outside mutex is left alone.
    ~ltConditionMutex();

    ltConditionMutex(const ltConditionMutex&) = delete;
    ltConditionMutex& operator=(const ltConditionMutex&) = delete;

    /// The mutex a guard locks: the outside one if set, else the own one.
    pthread_mutex_t* mutex() { return outside_ != nullptr ? outside_ : &own_; }

    /// Waits on the condition; the caller holds mutex(). 0 or the pthread error, negated.
    int wait();
    /// Waits at most until the absolute CLOCK_MONOTONIC time; -ETIMEDOUT when it passed.
    int waitUntil(const timespec& deadline);
    /// Wakes one waiter. 0 or the pthread error, negated.
    int signal();
    /// Wakes every waiter. 0 or the pthread error, negated.
    int broadcast();

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    pthread_mutex_t* outside_;  // optional outside mutex, read by ltGuard first
    pthread_mutex_t own_;
    pthread_cond_t cond_;
};

#endif // LTCONDITIONMUTEX_H
