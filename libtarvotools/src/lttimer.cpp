//===- lttimer.cpp - The shared timer record ------------------------------===//
//
// Construction and the period test of ltTimer. Scheduling lives in lttimerqueue.cpp.
//
//===----------------------------------------------------------------------===//
#include "lttimer.h"

#include <new>

ltTimer::ltTimer() : type(kType), timeout{0, 0}, period{0, 0}, active(false) {}

ltTimer::~ltTimer() = default;

boost::shared_ptr<ltTimer> ltTimer::create()
{
    // Out of memory is reported as an empty pointer: no exception leaves the library.
    try {
        return boost::shared_ptr<ltTimer>(new ltTimer);
    } catch (const std::bad_alloc&) {
        return boost::shared_ptr<ltTimer>();
    }
}

uint32_t ltTimer::getType() const
{
    return type;
}

const _cspOsalTime_struct& ltTimer::getTimeout() const
{
    return timeout;
}

const _cspOsalTime_struct& ltTimer::getPeriod() const
{
    return period;
}

bool ltTimer::isActive() const
{
    return active;
}

bool ltTimer::isReoccuring() const
{
    _cspOsalTime_struct normal = period;  // the stored period stays as the caller set it
    cspOsalNormalizeTime(&normal);
    if (normal.sec != 0)
        return normal.sec > 0;  // one second or more; a negative period is one-shot
    return normal.nsec > 0;
}
