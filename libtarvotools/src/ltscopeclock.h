//===- ltscopeclock.h - timespec arithmetic for the scope meter (internal) ===//
//
// Shared by ltScopeMeter and ltScopeTimer: reading their clock, the difference of two
// readings and the one message both print.
//
//===----------------------------------------------------------------------===//
#ifndef LTSCOPECLOCK_H
#define LTSCOPECLOCK_H

#include <cstdint>
#include <time.h>

#include "ltdebug.h"

namespace lt_internal {

constexpr long kNsecPerSec = 1000000000L;
constexpr uint32_t kScopeTimerDebugLevel = 0x001B0001;  // the level both print() use

// The clock's current reading; zero when the clock id is unknown.
inline timespec readScopeClock(int clockId)
{
    timespec now{};
    (void)clock_gettime(clockId, &now);  // on failure now stays zero
    return now;
}

// end - start, borrowing one second when end's nanoseconds are below start's.
inline timespec scopeElapsed(const timespec& start, const timespec& end)
{
    timespec d;
    if (end.tv_nsec >= start.tv_nsec) {
        d.tv_sec = end.tv_sec - start.tv_sec;
        d.tv_nsec = end.tv_nsec - start.tv_nsec;
    } else {
        d.tv_sec = end.tv_sec - start.tv_sec - 1;
        d.tv_nsec = end.tv_nsec + kNsecPerSec - start.tv_nsec;
    }
    return d;
}

// Writes one duration with the scope timer's message (no file/line prefix).
inline void printScopeDuration(const timespec& d)
{
    if (debugEnabled(kScopeTimerDebugLevel))
        cspDebugOutput0("ltScopeTimer(): %d.%09dsec.\n", static_cast<int>(d.tv_sec),
                        static_cast<int>(d.tv_nsec));
}

}  // namespace lt_internal

#endif // LTSCOPECLOCK_H
