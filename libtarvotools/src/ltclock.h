//===- ltclock.h - Reading the clocks into ltTime (internal) --------------===//
//
// The monotonic clock measures every timer expiry; the wall clock is read only to turn an
// absolute wall-clock time into a monotonic one.
//
//===----------------------------------------------------------------------===//
#ifndef LTCLOCK_H
#define LTCLOCK_H

#include <sys/time.h>
#include <time.h>

#include "lttime.h"

namespace lt_internal {

// Monotonic now: usec = nsec / 1000, truncating.
inline ltTime monotonicNow()
{
    timespec ts;
    (void)clock_gettime(CLOCK_MONOTONIC, &ts);  // cannot fail for CLOCK_MONOTONIC
    return ltTime(static_cast<int32_t>(ts.tv_sec), static_cast<int32_t>(ts.tv_nsec / 1000));
}

// Wall-clock now, as gettimeofday gives it.
inline ltTime wallClockNow()
{
    timeval tv;
    (void)gettimeofday(&tv, nullptr);  // cannot fail with a valid buffer
    return ltTime(static_cast<int32_t>(tv.tv_sec), static_cast<int32_t>(tv.tv_usec));
}

}  // namespace lt_internal

#endif // LTCLOCK_H
