//===- ltscopemeter.h - Collects the durations of measured scopes ---------===//
///
/// \class ltScopeMeter
/// ltScopeMeter receives the durations that ltScopeTimer objects measure: it keeps the last
/// one and their running total since the last reset. Durations are POSIX timespec values
/// (seconds, nanoseconds) read from one clock_gettime clock, not ltTime.
///
/// Derive from it and override scopeDurationMeasured() to do more with each duration. Not
/// thread-safe: timers reporting to one meter must run on one thread, or the caller
/// serialises them.
///
//===----------------------------------------------------------------------===//
#ifndef LTSCOPEMETER_H
#define LTSCOPEMETER_H

#include <time.h>

#include "ltexport.h"

class LT_EXPORT ltScopeMeter {
public:
    /// A meter on CLOCK_MONOTONIC, reset (resetTimers()).
    ltScopeMeter();
    /// A meter on the given clock_gettime clock, reset.
    explicit ltScopeMeter(int clockId);
    virtual ~ltScopeMeter();

    /// Takes one duration: last = *duration, total += *duration. A null duration is ignored.
    /// Kept quirk: the total carries into its seconds only when the nanoseconds exceed
    /// 1000000000, so a sum of exactly 1000000000 ns stays as it is.
    virtual void scopeDurationMeasured(const timespec* duration);

    /// Clears last and total and takes the clock's current reading as the reset time.
    void resetTimers();

    /// Copies the total into *total and the time elapsed since the last reset into
    /// *sinceReset; either pointer may be null.
    void getTimers(timespec* total, timespec* sinceReset);

    /// Writes the total through the platform debug output: "ltScopeTimer(): %d.%09dsec.\n".
    void print();

    // Plain fields: read them freely; resetTimers() and scopeDurationMeasured() change them.
    int clockId;         ///< clock_gettime clock (CLOCK_MONOTONIC unless chosen)
    timespec last;       ///< the last duration reported
    timespec total;      ///< sum of the durations since the last reset
    timespec resetTime;  ///< clock reading at the last reset
};

#endif // LTSCOPEMETER_H
