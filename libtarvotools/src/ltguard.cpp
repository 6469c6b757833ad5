//===- ltguard.cpp - ltGuard ----------------------------------------------===//
#include "ltguard.h"

#include <cerrno>
#include <cstdio>

#include "csp_osal.h"
#include "ltdebug.h"

namespace {

constexpr uint32_t kGuardDebugLevel = 0x000103E8;
// The line the lock-failure message has always carried; log filters match on it.
constexpr int kLockFailedLine = 160;

}  // namespace

ltGuard::ltGuard(pthread_mutex_t* m) : direct_(m), ltMutex_(nullptr), unlocked_(1)
{
    if (m == nullptr) {
        fprintf(stderr, "%s(): invalid mutex handle\n", "ltGuard");
        return;
    }
    (void)lock();  // failures are reported by lock() itself
}

ltGuard::ltGuard(ltMutex* m) : direct_(nullptr), ltMutex_(m), unlocked_(1)
{
    if (m == nullptr) {
        fprintf(stderr, "%s(): invalid mutex handle\n", "ltGuard");
        return;
    }
    (void)lock();
}

ltGuard::ltGuard(ltMutex& m) : direct_(nullptr), ltMutex_(&m), unlocked_(1)
{
    (void)lock();
}

ltGuard::ltGuard(ltConditionMutex& c) : direct_(c.mutex()), ltMutex_(nullptr), unlocked_(1)
{
    (void)lock();
}

ltGuard::ltGuard(ltConditionMutex* c)
    : direct_(c != nullptr ? c->mutex() : nullptr), ltMutex_(nullptr), unlocked_(1)
{
    (void)lock();  // a null c is reported here, by lock(), not by the constructor
}

ltGuard::~ltGuard()
{
    if (mutex() == nullptr || unlocked_ != 0)
        return;
    (void)unlock();
}

pthread_mutex_t* ltGuard::mutex() const
{
    if (direct_ != nullptr)
        return direct_;
    return ltMutex_ != nullptr ? ltMutex_->native() : nullptr;
}

int ltGuard::lock()
{
    pthread_mutex_t* m = mutex();
    if (m == nullptr) {
        fprintf(stderr, "%s(): invalid mutex handle\n", "lock");
        return -EINVAL;
    }
    if (unlocked_ != 1) {
        fprintf(stderr, "%s(): lock of locked mutex\n", "lock");
        return -EINVAL;
    }
    const int e = pthread_mutex_lock(m);
    if (e != 0) {
        LT_DEBUG_AT(kGuardDebugLevel, kLockFailedLine, "lock", "mutex lock failed\n");
        cspOsalWriteBacktrace();
        fprintf(stderr, "%s(): mutex lock failed\n", "lock");
        return -e;
    }
    unlocked_ = 0;
    return 0;
}

int ltGuard::unlock()
{
    pthread_mutex_t* m = mutex();
    if (m == nullptr) {
        fprintf(stderr, "%s(): invalid mutex handle\n", "unlock");
        return -EINVAL;
    }
    if (unlocked_ != 0) {
        fprintf(stderr, "%s(): unlock of unlocked mutex\n", "unlock");
        return -EINVAL;
    }
    (void)pthread_mutex_unlock(m);  // not checked: the guard knows it holds the lock
    unlocked_ = 1;
    return 0;
}
