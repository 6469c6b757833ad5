//===- ltmutex.cpp - ltMutex ----------------------------------------------===//
#include "ltmutex.h"

ltMutex::ltMutex()
{
    (void)pthread_mutex_init(&mutex_, nullptr);  // default attributes cannot fail on Linux
}

ltMutex::~ltMutex()
{
    (void)pthread_mutex_destroy(&mutex_);  // nothing useful to do on failure
}

int ltMutex::lock()
{
    return -pthread_mutex_lock(&mutex_);
}

int ltMutex::unlock()
{
    return -pthread_mutex_unlock(&mutex_);
}
