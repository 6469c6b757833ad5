//===- ltguard.h - Scoped mutex lock that reports misuse ------------------===//
///
/// \class ltGuard
/// Constructing an ltGuard locks a mutex; destroying it unlocks the mutex if the guard still
/// holds it. lock() and unlock() drop and retake the lock inside the scope. The guard works on
/// a raw pthread mutex, an ltMutex or an ltConditionMutex.
///
/// Misuse is reported on stderr and answered with -EINVAL (-22), never an abort:
///   - "<op>(): invalid mutex handle": no mutex (built from a null pointer);
///   - "lock(): lock of locked mutex": lock() while the guard holds the lock;
///   - "unlock(): unlock of unlocked mutex": unlock() while it does not.
///
/// A failed pthread_mutex_lock() also goes to the platform debug output with a backtrace,
/// and lock() returns the pthread error, negated.
///
/// One guard is used by one thread. It does not detect another guard holding the same mutex;
/// that simply blocks.
///
//===----------------------------------------------------------------------===//
#ifndef LTGUARD_H
#define LTGUARD_H

#include <pthread.h>

#include "ltconditionmutex.h"
#include "ltexport.h"
#include "ltmutex.h"

class LT_EXPORT ltGuard {
public:
    ///@{
    /// Locks m at once; the result of that lock() is not returned. A null m prints
    /// "ltGuard(): invalid mutex handle" and leaves the guard invalid.
    explicit ltGuard(pthread_mutex_t* m);
    explicit ltGuard(ltMutex* m);
    explicit ltGuard(ltMutex& m);
    ///@}
    /// Locks c's outside mutex when it has one, else its own mutex.
    explicit ltGuard(ltConditionMutex& c);
    /// A null c leaves the guard invalid; the constructor's lock() reports it.
    explicit ltGuard(ltConditionMutex* c);
    /// Unlocks the mutex if the guard still holds it.
    ~ltGuard();

    ltGuard(const ltGuard&) = delete;
    ltGuard& operator=(const ltGuard&) = delete;

    /// Takes the lock again. 0, -22 for misuse, or the negated pthread error of a failed lock.
    int lock();
    /// Drops the lock before the scope ends. 0 or -22 for misuse.
    int unlock();

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    pthread_mutex_t* mutex() const;

    pthread_mutex_t* direct_;  // the mutex to use; may be null
    ltMutex* ltMutex_;         // used when direct_ is null; may be null
    int unlocked_;             // 1 while the guard does not hold the lock, 0 while it does
};

#endif // LTGUARD_H
