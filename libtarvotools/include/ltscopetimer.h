//===- ltscopetimer.h - Measures how long a scope takes -------------------===//
///
/// \class ltScopeTimer
/// An ltScopeTimer reads a clock when it is created and again when it is destroyed, and hands
/// the duration to its ltScopeMeter, if it has one:
/// \code
///   ltScopeMeter meter;
///   {
///       ltScopeTimer timer(&meter);
///       work();
///   }                      // meter.last now holds how long work() took
/// \endcode
/// Use a timer on the thread that created it. Not copyable.
///
//===----------------------------------------------------------------------===//
#ifndef LTSCOPETIMER_H
#define LTSCOPETIMER_H

#include <time.h>

#include "ltexport.h"

class ltScopeMeter;

class LT_EXPORT ltScopeTimer {
public:
    /// Starts measuring on the given clock_gettime clock; meter, when not null, receives the
    /// duration and must outlive the timer.
    explicit ltScopeTimer(ltScopeMeter* meter = nullptr, int clockId = CLOCK_MONOTONIC)
        : meter(meter), start{}, duration{}, clockId(clockId)
    {
        (void)clock_gettime(clockId, &start);  // an unknown clock leaves start at zero
    }

    /// Reads the clock, sets duration = now - start and passes it to the meter's
    /// scopeDurationMeasured(). Never throws; an exception from a meter is swallowed.
    ~ltScopeTimer();

    ltScopeTimer(const ltScopeTimer&) = delete;
    ltScopeTimer& operator=(const ltScopeTimer&) = delete;

    /// Writes the time since start through the platform debug output, with the meter's
    /// message: "ltScopeTimer(): %d.%09dsec.\n".
    void print();

    // Plain fields.
    ltScopeMeter* meter;  ///< receives the duration; may be null
    timespec start;       ///< clock reading at construction
    timespec duration;    ///< filled at destruction
    int clockId;          ///< clock_gettime clock
};

#endif // LTSCOPETIMER_H
