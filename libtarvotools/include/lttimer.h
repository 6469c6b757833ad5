//===- lttimer.h - One shared timer record for ltTimerQueue ---------------===//
///
/// \class ltTimer
/// ltTimer is the record a timer queue keeps per timer: the absolute time of its next expiry,
/// its re-arm period and whether a queue currently holds it. Timers are always handled through
/// boost::shared_ptr<ltTimer>; a queue holds one strong reference to each timer it keeps, so a
/// queued timer lives on after every other holder has let it go.
///
/// The record does no waiting and takes no lock. Its fields are written only by ltTimerQueue
/// (see lttimerqueue.h); the caller serialises every use of a timer and of the queue holding it.
///
//===----------------------------------------------------------------------===//
#ifndef LTTIMER_H
#define LTTIMER_H

#include <cstdint>

#include <boost/shared_ptr.hpp>

#include "csp_osal.h"
#include "ltexport.h"

class ltTimerQueue;

static_assert(sizeof(_cspOsalTime_struct) == 16 && alignof(_cspOsalTime_struct) == 8,
              "the OSAL time record is 64-bit seconds then 32-bit nanoseconds, 8-byte aligned");

class LT_EXPORT ltTimer {
public:
    /// The tag every timer carries, whatever it is used for; getType() returns it.
    static constexpr uint32_t kType = 0xA2D4901F;

    /// An idle timer: tag set, timeout and period zero, not active.
    ltTimer();
    virtual ~ltTimer();

    /// A new idle timer owned by a new shared pointer; an empty pointer when memory runs out.
    static boost::shared_ptr<ltTimer> create();

    /// The type tag (always kType).
    uint32_t getType() const;

    /// Absolute time of the next expiry, on the clock of the 'now' given to getExpired().
    const _cspOsalTime_struct& getTimeout() const;

    /// The re-arm interval as it was set (not normalised).
    const _cspOsalTime_struct& getPeriod() const;

    /// True while a queue holds the timer. One timer set in two queues shares this one flag.
    bool isActive() const;

    /// True when the period, normalised, is strictly positive: such a timer is re-armed by
    /// getExpired(); any other timer is one-shot. The stored period is not changed.
    bool isReoccuring() const;

private:
    friend class ltTimerQueue;  // the only writer of timeout, period and active
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else

    uint32_t type;                // kType, set once by the constructor
    _cspOsalTime_struct timeout;  // absolute time of the next expiry
    _cspOsalTime_struct period;   // re-arm interval; not strictly positive means one-shot
    bool active;                  // true while held by a queue
};

#endif // LTTIMER_H
