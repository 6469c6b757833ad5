//===- lttime.cpp - ltTime difference and the noTime constant -------------===//
#include "lttime.h"

// Constant-initialised: valid before any constructor of user code runs.
const ltTime ltTime::noTime(-1, -1);

namespace {

// a - b on 32 bits, wrapping round like ltWrapAdd.
int32_t wrapSub(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

}  // namespace

ltTime& ltTime::operator-=(const ltTime& other)
{
    sec = wrapSub(sec, other.sec);
    usec = wrapSub(usec, other.usec);
    if (usec < 0) {
        bool carried = false;
        while (usec < -(kLtUsecPerSec - 1)) {
            sec = wrapSub(sec, 1);
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
        sec = ltWrapAdd(sec, 1);
        usec -= kLtUsecPerSec;
    }
    if (usec != 0 && sec < 0) {
        sec += 1;
        usec -= kLtUsecPerSec;
    }
    return *this;
}
