//===- ltmutexlock.h - Scoped lock on a pthread mutex (internal) ----------===//
//
// Holds one of the library's own pthread mutexes for a scope, with unlock()/lock() to drop
// it around user code. The library's mutexes are never misused, so unlike ltGuard this
// reports nothing.
//
//===----------------------------------------------------------------------===//
#ifndef LTMUTEXLOCK_H
#define LTMUTEXLOCK_H

#include <pthread.h>

namespace lt_internal {

class MutexLock {
public:
    explicit MutexLock(pthread_mutex_t& m) : m_(m) { lock(); }
    ~MutexLock()
    {
        if (held_)
            unlock();
    }
    void lock()
    {
        (void)pthread_mutex_lock(&m_);  // default mutexes: cannot fail when used correctly
        held_ = true;
    }
    void unlock()
    {
        (void)pthread_mutex_unlock(&m_);
        held_ = false;
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    pthread_mutex_t& m_;
    bool held_ = false;
};

}  // namespace lt_internal

#endif // LTMUTEXLOCK_H
