//===- ltcalendartime.cpp - A calendar date and time beside its ltTime ----===//
#include "ltcalendartime.h"

#include <cstring>
#include <limits>

namespace {

constexpr int kTmYearBase = 1900;  // struct tm counts years from here
constexpr unsigned kMonthsPerYear = 12;
constexpr unsigned kMaxDaysPerMonth = 31;
constexpr unsigned kHoursPerDay = 24;
constexpr unsigned kMinutesPerHour = 60;
constexpr unsigned kSecondsLimit = 62;  // 0-59, plus the leap seconds 60 and 61
constexpr int kFebruary = 2;

// The Gregorian rule on a full year number.
bool isLeapYear(int64_t year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// Months with 30 days: April, June, September, November. February is checked apart.
bool hasThirtyDays(int month)
{
    return month == 4 || month == 6 || month == 9 || month == 11;
}

// Whether day (already known to be 1-31) exists in month of the year counted from 1900.
bool dayFitsMonth(int day, int month, int year)
{
    if (day == 31 && (month == kFebruary || hasThirtyDays(month)))
        return false;
    if (month != kFebruary)
        return true;
    if (day >= 30)
        return false;
    return day != 29 || isLeapYear(int64_t{year} + kTmYearBase);
}

}  // namespace

ltTimeZoneSpec::ltTimeZoneSpec(const ltTimeZoneSpec& other)
    : hours(other.hours), minutes(other.minutes)
{
    (void)name.assignFast(other.name);  // without memory the copy has no name; the offset is whole
}

ltTimeZoneSpec& ltTimeZoneSpec::operator=(const ltTimeZoneSpec& other)
{
    if (this == &other)
        return *this;
    hours = other.hours;
    minutes = other.minutes;
    name.releaseData();                 // assignFast does not release the old name itself
    (void)name.assignFast(other.name);  // as in the copy constructor
    return *this;
}

ltCalendarTime::operator const ltTime&() const
{
    return time;
}

ltCalendarTime::ltCalendarTime()
{
    clear();
}

ltCalendarTime::ltCalendarTime(int day, int month, int year, int hour, int minute, int second)
{
    clear();
    const int dateOk = setDate(day, month, year);
    const int timeOk = setTime(hour, minute, second);
    if (!dateOk || !timeOk)
        clear();
}

ltCalendarTime::ltCalendarTime(const ltTime& t, ltTimeZoneSpec zone)
{
    clear();
    (void)setFromLtTime(t, zone);  // a failure leaves the calendar cleared, which is the answer
}

void ltCalendarTime::clear()
{
    std::memset(&calendar, 0, sizeof calendar);
    time = ltTime(0, 0);
}

void ltCalendarTime::syncTimeFromCalendar()
{
    // mktime also normalises the record: day of week and of year, carries, daylight saving.
    time.sec = static_cast<int32_t>(mktime(&calendar));
}

int ltCalendarTime::setDate(int day, int month, int year)
{
    // Compared unsigned: a negative day or month fails the upper bound.
    if (year < 0 || static_cast<unsigned>(month) - 1u >= kMonthsPerYear ||
        static_cast<unsigned>(day) - 1u >= kMaxDaysPerMonth)
        return 0;
    if (!dayFitsMonth(day, month, year))
        return 0;

    calendar.tm_mday = day;
    calendar.tm_mon = month - 1;
    calendar.tm_year = year;
    syncTimeFromCalendar();
    return 1;
}

int ltCalendarTime::setTime(int hour, int minute, int second)
{
    // Compared unsigned: negative values fail.
    if (static_cast<unsigned>(hour) >= kHoursPerDay ||
        static_cast<unsigned>(minute) >= kMinutesPerHour ||
        static_cast<unsigned>(second) >= kSecondsLimit)
        return 0;

    calendar.tm_hour = hour;
    calendar.tm_min = minute;
    calendar.tm_sec = second;
    syncTimeFromCalendar();
    return 1;
}

int ltCalendarTime::setFromLtTime(const ltTime& t, ltTimeZoneSpec zone)
{
    time = t;

    // The offset comes on top of the process's local zone, since localtime applies TZ.
    const int64_t shifted = int64_t{t.sec} + zone.offsetSeconds();
    struct tm broken;
    bool ok = shifted >= std::numeric_limits<time_t>::min() &&
              shifted <= std::numeric_limits<time_t>::max();
    if (ok) {
        const time_t when = static_cast<time_t>(shifted);
        tzset();  // localtime_r need not re-read TZ by itself; localtime would
        ok = localtime_r(&when, &broken) != nullptr;
    }
    if (!ok) {
        std::memset(&calendar, 0, sizeof calendar);
        return 0;
    }
    calendar = broken;
    return 1;
}
