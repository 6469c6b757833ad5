//===- ltmutex.h - A plain pthread mutex as an object ---------------------===//
///
/// \class ltMutex
/// ltMutex owns one default pthread mutex. ltGuard locks it as a pthread mutex; lock() and
/// unlock() are there for callers that do not use a guard. Any thread.
///
//===----------------------------------------------------------------------===//
#ifndef LTMUTEX_H
#define LTMUTEX_H

#include <pthread.h>

#include "ltexport.h"

class LT_EXPORT ltMutex {
public:
    /// A default (non-recursive) pthread mutex, unlocked.
    ltMutex();
    /// Destroys the mutex; it must not be locked.
    ~ltMutex();

    ltMutex(const ltMutex&) = delete;
    ltMutex& operator=(const ltMutex&) = delete;

    ///@{
    /// 0 or the pthread error code, negated.
    int lock();
    int unlock();
    ///@}

    /// The pthread mutex inside; what ltGuard locks.
    pthread_mutex_t* native() { return &mutex_; }

private:
    pthread_mutex_t mutex_;
};

#endif // LTMUTEX_H
