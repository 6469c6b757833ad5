//===- ltscopetimer.cpp - Measures how long a scope takes -----------------===//
#include "ltscopetimer.h"

#include "ltscopeclock.h"
#include "ltscopemeter.h"

ltScopeTimer::~ltScopeTimer()
{
    duration = lt_internal::scopeElapsed(start, lt_internal::readScopeClock(clockId));
    if (meter == nullptr)
        return;
    try {
        meter->scopeDurationMeasured(&duration);
    } catch (...) {
        // A destructor must not throw; a derived meter's failure stays with the meter.
    }
}

void ltScopeTimer::print()
{
    lt_internal::printScopeDuration(lt_internal::scopeElapsed(start, lt_internal::readScopeClock(clockId)));
}
