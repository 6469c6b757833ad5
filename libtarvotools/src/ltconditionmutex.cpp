//===- ltconditionmutex.cpp - ltConditionMutex ----------------------------===//
#include "ltconditionmutex.h"

#include <time.h>

ltConditionMutex::ltConditionMutex(pthread_mutex_t* outside) : outside_(outside)
{
    (void)pthread_mutex_init(&own_, nullptr);  // default attributes cannot fail on Linux
    pthread_condattr_t attr;
    (void)pthread_condattr_init(&attr);
    (void)pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);  // time-outs immune to clock steps
    (void)pthread_cond_init(&cond_, &attr);
    (void)pthread_condattr_destroy(&attr);
}

ltConditionMutex::~ltConditionMutex()
{
    (void)pthread_cond_destroy(&cond_);
    (void)pthread_mutex_destroy(&own_);
}

int ltConditionMutex::wait()
{
    return -pthread_cond_wait(&cond_, mutex());
}

int ltConditionMutex::waitUntil(const timespec& deadline)
{
    return -pthread_cond_timedwait(&cond_, mutex(), &deadline);
}

int ltConditionMutex::signal()
{
    return -pthread_cond_signal(&cond_);
}

int ltConditionMutex::broadcast()
{
    return -pthread_cond_broadcast(&cond_);
}
