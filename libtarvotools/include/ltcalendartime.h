//===- ltcalendartime.h - A calendar date and time beside its ltTime ------===//
///
/// \class ltCalendarTime
/// ltCalendarTime keeps a broken-down date and time (the C library's struct tm) together with
/// the matching ltTime in seconds since the epoch. setDate and setTime check their fields one
/// by one and then let mktime normalise the record; setFromLtTime goes the other way, through
/// localtime plus an explicit zone offset (ltTimeZoneSpec).
///
/// Both directions read the process's local time zone (TZ). Not thread-safe: the caller
/// serialises access to one object.
///
//===----------------------------------------------------------------------===//
#ifndef LTCALENDARTIME_H
#define LTCALENDARTIME_H

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "ltexport.h"
#include "lttime.h"
#include "lv_arg.h"

/// A time-zone offset as the platform describes a zone: a whole-hour part and a minute part
/// (offset in seconds = hours * 3600 + minutes * 60), followed by fields calendar time does
/// not read. Copied as a platform value: the name goes through lvArg::assignFast.
struct LT_EXPORT ltTimeZoneSpec {
    int32_t hours;    ///< whole-hour part of the offset; may be negative
    int32_t minutes;  ///< minute part of the offset; may be negative
    lvArg name;       ///< the zone's name as the platform gives it (may be empty); not read here

    ///@{
    /// An offset of h hours and m minutes (0 and 0 by default), with an empty name.
    ltTimeZoneSpec() : hours(0), minutes(0) {}
    ltTimeZoneSpec(int32_t h, int32_t m) : hours(h), minutes(m) {}
    ///@}
    ///@{
    /// Copies the offset, and the name through lvArg::assignFast (the old name is released
    /// first). A name that cannot be copied for want of memory is left empty.
    ltTimeZoneSpec(const ltTimeZoneSpec& other);
    ltTimeZoneSpec& operator=(const ltTimeZoneSpec& other);
    ///@}

    /// The offset in seconds.
    int64_t offsetSeconds() const { return int64_t{hours} * 3600 + int64_t{minutes} * 60; }
};

static_assert(offsetof(ltTimeZoneSpec, hours) == 0 && offsetof(ltTimeZoneSpec, minutes) == 4,
              "a time-zone value starts with the hour part, then the minute part");

class LT_EXPORT ltCalendarTime {
public:
    /// Calendar and time all zero.
    ltCalendarTime();

    /// setDate(day, month, year) then setTime(hour, minute, second); when either is
    /// rejected, calendar and time are cleared as by the default constructor.
    ltCalendarTime(int day, int month, int year, int hour, int minute, int second);

    /// setFromLtTime(t, zone).
    ltCalendarTime(const ltTime& t, ltTimeZoneSpec zone);

    /// Sets the date: day 1-31 and valid for the month (29 February only in a leap year),
    /// month 1-12, year counted from 1900 (0 or more). On success stores them, lets mktime
    /// normalise the calendar and sets time.sec from it; returns 1. Rejected: returns 0 and
    /// changes nothing. time.usec is never touched.
    int setDate(int day, int month, int year);

    /// Sets the time of day: hour below 24, minute below 60, second below 62 (leap seconds 60
    /// and 61 are accepted; mktime carries them into the next minute). Returns 1 or 0 as
    /// setDate, with the same mktime step.
    int setTime(int hour, int minute, int second);

    /// Stores t as the time and fills the calendar with the local time (TZ) of t.sec shifted
    /// by the zone's offset. Returns 1; 0 when the shifted time cannot be broken down, with
    /// the calendar cleared (time keeps t).
    int setFromLtTime(const ltTime& t, ltTimeZoneSpec zone);

    /// The time field.
    operator const ltTime&() const;

    // Plain fields: read them freely; the operations above keep them in step.
    struct tm calendar;  ///< the broken-down record: month 0-11, years since 1900
    ltTime time;         ///< the same moment in seconds since the epoch; usec as given

private:
    void clear();
    void syncTimeFromCalendar();
};

static_assert(offsetof(ltCalendarTime, calendar) == 0 &&
                  offsetof(ltCalendarTime, time) >= sizeof(struct tm),
              "calendar time is the calendar record, then the time");

#endif // LTCALENDARTIME_H
