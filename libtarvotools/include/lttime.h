//===- lttime.h - Time points and intervals -------------------------------===//
///
/// \file
/// ltTime is the library's value type for time points and intervals: whole seconds plus a
/// signed sub-second part in microseconds, kept in normal form (|usec| < 1000000, usec of the
/// same sign as sec whenever sec is not 0).
///
/// Two special values:
///   - ltTime::noTime (sec -1, usec -1): no time given. Test for it with isNoTime(), which
///     compares both fields as one 64-bit pattern; (-1, 0) is an ordinary time.
///   - never: sec kLtTimeNever (0x7fffffff), usec 0; what the main loop reports when no timer
///     is armed.
///
/// The inline helpers below are the one definition of the carry rule and the comparison that
/// every user of ltTime goes through.
///
//===----------------------------------------------------------------------===//
#ifndef LTTIME_H
#define LTTIME_H

#include <cstdint>
#include <cstring>

#include "ltexport.h"

/// A time point or interval: whole seconds plus microseconds, in the normal form above.
/// A plain value: any thread, no synchronisation of its own.
class LT_EXPORT ltTime {
public:
    int32_t sec;   ///< whole seconds
    int32_t usec;  ///< microseconds, normally within -999999..999999

    /// Uninitialised, like a plain struct.
    ltTime() = default;
    /// Takes both fields as given; no normalisation.
    constexpr ltTime(int32_t s, int32_t us) : sec(s), usec(us) {}

    /// In-place difference, normalised so that both parts carry the sign of the result.
    /// Returns the left operand.
    ltTime& operator-=(const ltTime& other);

    /// The "no time given" constant: both fields -1. Set during static initialisation.
    static const ltTime noTime;

    /// True when this is noTime: both fields at once, as one 64-bit pattern.
    bool isNoTime() const
    {
        uint64_t mine, none;
        std::memcpy(&mine, this, sizeof mine);
        std::memcpy(&none, &noTime, sizeof none);
        return mine == none;
    }
};

static_assert(sizeof(ltTime) == 8, "ltTime is two 32-bit words, sec then usec");

constexpr int32_t kLtTimeNever = 0x7fffffff;  ///< seconds value that means "never expires"
constexpr int32_t kLtUsecPerSec = 1000000;    ///< microseconds in one second

/// a + b on the 32-bit fields, wrapping round as a 32-bit adder does: sums beyond the range
/// carry no meaning, but they must not be undefined behaviour.
inline int32_t ltWrapAdd(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

/// a + b with the carry rule: carry = (a.usec + b.usec) / 1000000, truncating toward zero.
inline ltTime ltTimeAdd(const ltTime& a, const ltTime& b)
{
    const int32_t usec = ltWrapAdd(a.usec, b.usec);
    const int32_t carry = usec / kLtUsecPerSec;
    return ltTime(ltWrapAdd(ltWrapAdd(a.sec, b.sec), carry), usec - carry * kLtUsecPerSec);
}

/// An interval of ms milliseconds: (ms / 1000) seconds, (ms % 1000) * 1000 microseconds.
inline ltTime ltTimeFromMs(int ms)
{
    return ltTime(ms / 1000, (ms % 1000) * 1000);
}

/// Comparison by sec first, then by usec.
inline bool ltTimeBefore(const ltTime& a, const ltTime& b)
{
    return a.sec < b.sec || (a.sec == b.sec && a.usec < b.usec);
}

/// True when a is not later than b: the main loop's test for "expired".
inline bool ltTimeNotAfter(const ltTime& a, const ltTime& b)
{
    return !ltTimeBefore(b, a);
}

/// Field-wise equality; no normalisation first.
inline bool operator==(const ltTime& a, const ltTime& b) { return a.sec == b.sec && a.usec == b.usec; }
/// Field-wise inequality.
inline bool operator!=(const ltTime& a, const ltTime& b) { return !(a == b); }

#endif // LTTIME_H
