//===- lttime.cpp - ltTime difference and the noTime constant -------------===//
#include "lttime.h"

// Constant-initialised: valid before any constructor of user code runs.
const ltTime ltTime::noTime(-1, -1);

ltTime& ltTime::operator-=(const ltTime& other)
{
    sec -= other.sec;
    usec -= other.usec;
    if (usec < 0) {
        bool carried = false;
        while (usec < -(kLtUsecPerSec - 1)) {
            sec -= 1;
            usec += kLtUsecPerSec;
            carried = true;
        }
        // Stop on a whole-second result: (2, -1000000) becomes (1, 0), never (0, 1000000).
        if (carried && usec == 0)
            return *this;
        if (sec > 0) {
            sec -= 1;
            usec += kLtUsecPerSec;
        }
        return *this;
    }
    while (usec >= kLtUsecPerSec) {
        sec += 1;
        usec -= kLtUsecPerSec;
    }
    if (usec != 0 && sec < 0) {
        sec += 1;
        usec -= kLtUsecPerSec;
    }
    return *this;
}
