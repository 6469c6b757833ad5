//===- ltscopemeter.cpp - Collects the durations of measured scopes -------===//
#include "ltscopemeter.h"

#include "ltscopeclock.h"

using lt_internal::kNsecPerSec;

ltScopeMeter::ltScopeMeter() : ltScopeMeter(CLOCK_MONOTONIC) {}

ltScopeMeter::ltScopeMeter(int clockId) : clockId(clockId), last{}, total{}, resetTime{}
{
    resetTimers();
}

ltScopeMeter::~ltScopeMeter() = default;

void ltScopeMeter::scopeDurationMeasured(const timespec* duration)
{
    if (duration == nullptr)
        return;
    last = *duration;
    total.tv_sec += duration->tv_sec;
    total.tv_nsec += duration->tv_nsec;
    // Carries only above 1000000000 ns; exactly 1000000000 stays: kept, callers rely on it.
    if (total.tv_nsec > kNsecPerSec) {
        total.tv_nsec -= kNsecPerSec;
        total.tv_sec += 1;
    }
}

void ltScopeMeter::resetTimers()
{
    last = timespec{};
    total = timespec{};
    resetTime = lt_internal::readScopeClock(clockId);
}

void ltScopeMeter::getTimers(timespec* totalOut, timespec* sinceResetOut)
{
    if (totalOut != nullptr)
        *totalOut = total;
    if (sinceResetOut != nullptr)
        *sinceResetOut = lt_internal::scopeElapsed(resetTime, lt_internal::readScopeClock(clockId));
}

void ltScopeMeter::print()
{
    lt_internal::printScopeDuration(total);
}
