#include "ltguard.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

bool isFree(pthread_mutex_t* m) { return pthread_mutex_trylock(m) == 0 && pthread_mutex_unlock(m) == 0; }

TEST(GuardMisuse, NullMutexFailsEveryOperationAndIsReportedWhereItIsSeen)
{
    CaptureStderr();
    {
        ltGuard g(static_cast<pthread_mutex_t*>(nullptr));
        EXPECT_EQ(-EINVAL, g.lock());
        EXPECT_EQ(-EINVAL, g.unlock());
    }
    { ltGuard g(static_cast<ltMutex*>(nullptr)); }
    { ltGuard g(static_cast<ltConditionMutex*>(nullptr)); }  // reported by lock(), not the constructor
    EXPECT_EQ("ltGuard(): invalid mutex handle\n"
              "lock(): invalid mutex handle\n"
              "unlock(): invalid mutex handle\n"
              "ltGuard(): invalid mutex handle\n"
              "lock(): invalid mutex handle\n",
              GetCapturedStderr());  // the destructors print nothing
}

// Held once and released exactly once: a second lock or unlock is refused, a guard that is not
// holding the mutex leaves it to whoever holds it, and a failed lock returns the negated error.
TEST(GuardScope, HoldsTheMutexOnceAndReleasesItExactlyOnce)
{
    pthread_mutex_t m = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    CaptureStderr();
    {
        ltGuard g(&m);
        EXPECT_EQ(-EINVAL, g.lock());
        EXPECT_FALSE(isFree(&m));
        EXPECT_EQ(0, g.unlock());
        EXPECT_EQ(-EINVAL, g.unlock());
        EXPECT_TRUE(isFree(&m));
        EXPECT_EQ(0, g.lock());
    }
    EXPECT_EQ("lock(): lock of locked mutex\nunlock(): unlock of unlocked mutex\n", GetCapturedStderr());
    EXPECT_TRUE(isFree(&m));  // released by the destructor
    {
        ltGuard g(&m);
        EXPECT_EQ(0, g.unlock());
        ASSERT_EQ(0, pthread_mutex_lock(&m));
    }
    EXPECT_FALSE(isFree(&m));
    CaptureStderr();
    {
        ltGuard g(&m);  // already ours: the lock fails with EDEADLK and leaves the guard unlocked
        EXPECT_EQ(-EDEADLK, g.lock());
        EXPECT_EQ(-EINVAL, g.unlock());
    }
    const std::string err = GetCapturedStderr();
    EXPECT_TRUE(err.find("lock(): mutex lock failed\n") != err.npos && err.find("backtrace") != err.npos) << err;
    EXPECT_EQ(0, pthread_mutex_unlock(&m));  // still held exactly once, by us
}

TEST(GuardKinds, LocksTheMutexInsideEachKind)
{
    ltMutex mutex;
    { ltGuard g(mutex); EXPECT_FALSE(isFree(mutex.native())); }
    EXPECT_TRUE(isFree(mutex.native()));

    pthread_mutex_t outside = PTHREAD_MUTEX_INITIALIZER;
    ltConditionMutex withOutside(&outside);
    ltConditionMutex own;
    {
        ltGuard a(withOutside);
        ltGuard b(&own);
        EXPECT_FALSE(isFree(&outside));  // the outside mutex wins when set
        EXPECT_FALSE(isFree(own.mutex()));
    }
    EXPECT_TRUE(isFree(&outside) && isFree(own.mutex()));
}

}  // namespace
