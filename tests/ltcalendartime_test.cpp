//===- ltcalendartime_test.cpp - Date and time validation, zone round trip ===//
#include "ltcalendartime.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

namespace {

// Every test runs with the process's zone fixed to UTC, so that mktime and localtime are
// plain calendar arithmetic.
class CalendarUtc : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, setenv("TZ", "UTC", 1));
        tzset();
    }
};

// Days from 1970-01-01 to a proleptic Gregorian date: the calendar worked out by hand,
// independent of mktime.
int64_t daysFromCivil(int64_t y, int m, int d)
{
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

bool sameBytes(const ltCalendarTime& a, const ltCalendarTime& b)
{
    return std::memcmp(&a.calendar, &b.calendar, sizeof a.calendar) == 0 && a.time == b.time;
}

struct FieldCase {
    int a, b, c;  // day, month, year for setDate; hour, minute, second for setTime
    bool valid;
};

TEST_F(CalendarUtc, SetDateChecksEachMonthAndLeapYear)
{
    const FieldCase cases[] = {
        {29, 2, 100, true}, {29, 2, 0, false},  // 2000 is a leap year (400), 1900 is not (100)
        {29, 2, 124, true}, {29, 2, 123, false}, {29, 2, 200, false}, {30, 2, 124, false},
        {31, 11, 120, false}, {31, 4, 120, false}, {31, 12, 120, true}, {31, 8, 120, true},
        {30, 9, 120, true}, {1, 1, 0, true}, {0, 1, 120, false}, {32, 1, 120, false},
        {-1, 1, 120, false}, {1, 0, 120, false}, {1, 13, 120, false}, {1, -11, 120, false},
        {1, 1, -1, false},
    };
    for (const FieldCase& c : cases) {
        SCOPED_TRACE(std::to_string(c.a) + "." + std::to_string(c.b) + "." + std::to_string(c.c));
        ltCalendarTime t(3, 5, 90, 0, 0, 0);  // some other valid date first
        t.time.usec = 250000;
        const ltCalendarTime before = t;
        ASSERT_EQ(c.valid ? 1 : 0, t.setDate(c.a, c.b, c.c));
        if (!c.valid) {
            EXPECT_TRUE(sameBytes(before, t)) << "a rejected date changed the object";
            continue;
        }
        EXPECT_EQ(std::make_tuple(c.a, c.b - 1, c.c),
                  std::make_tuple(t.calendar.tm_mday, t.calendar.tm_mon, t.calendar.tm_year));
        EXPECT_EQ(250000, t.time.usec);  // the microseconds are never touched
        const int64_t expected = daysFromCivil(c.c + 1900, c.b, c.a) * 86400;
        if (expected >= INT32_MIN && expected <= INT32_MAX) {
            EXPECT_EQ(expected, t.time.sec);
        }
    }
}

TEST_F(CalendarUtc, SetTimeAcceptsLeapSecondsAndRejectsNegatives)
{
    const FieldCase cases[] = {
        {23, 59, 61, true}, {0, 0, 60, true},  {12, 30, 59, true}, {24, 0, 0, false},
        {-1, 0, 0, false},  {0, 60, 0, false}, {0, -1, 0, false},  {0, 0, 62, false},
    };
    const int64_t midnight = daysFromCivil(2024, 3, 10) * 86400;
    for (const FieldCase& c : cases) {
        SCOPED_TRACE(std::to_string(c.a) + ":" + std::to_string(c.b) + ":" + std::to_string(c.c));
        ltCalendarTime t(10, 3, 124, 8, 0, 0);
        const ltCalendarTime before = t;
        ASSERT_EQ(c.valid ? 1 : 0, t.setTime(c.a, c.b, c.c));
        if (c.valid)
            EXPECT_EQ(midnight + c.a * 3600 + c.b * 60 + c.c, t.time.sec);
        else
            EXPECT_TRUE(sameBytes(before, t));
    }

    // mktime carries a leap second at the end of the year into the next year.
    ltCalendarTime t(31, 12, 123, 0, 0, 0);
    ASSERT_EQ(1, t.setTime(23, 59, 60));
    EXPECT_EQ(std::make_tuple(1, 0, 124, 0),
              std::make_tuple(t.calendar.tm_mday, t.calendar.tm_mon, t.calendar.tm_year,
                              t.calendar.tm_sec));
}

TEST_F(CalendarUtc, InvalidConstructorArgumentsLeaveAClearedObject)
{
    const ltCalendarTime cleared;
    EXPECT_TRUE(sameBytes(cleared, ltCalendarTime(29, 2, 123, 10, 0, 0)));  // bad date
    EXPECT_TRUE(sameBytes(cleared, ltCalendarTime(1, 3, 123, 10, 60, 0)));  // bad time
    const ltCalendarTime good(1, 3, 123, 10, 0, 0);
    EXPECT_FALSE(sameBytes(cleared, good));
    EXPECT_EQ(daysFromCivil(2023, 3, 1) * 86400 + 10 * 3600, good.time.sec);
    EXPECT_EQ(3, good.calendar.tm_wday);  // filled by mktime: a Wednesday
}

TEST_F(CalendarUtc, LtTimeRoundTripAppliesTheZoneOffset)
{
    const ltCalendarTime source(15, 8, 123, 13, 45, 30);
    const ltTime& t = source;
    ASSERT_EQ(daysFromCivil(2023, 8, 15) * 86400 + 13 * 3600 + 45 * 60 + 30, t.sec);

    struct Case {
        int32_t hours, minutes;
        int mday, hour, minute;
    };
    for (Case c : {Case{0, 0, 15, 13, 45}, Case{1, 30, 15, 15, 15}, Case{-2, 0, 15, 11, 45},
                   Case{12, 0, 16, 1, 45}, Case{0, -50, 15, 12, 55}, Case{-14, 0, 14, 23, 45}}) {
        SCOPED_TRACE(std::to_string(c.hours) + "h" + std::to_string(c.minutes));
        ltCalendarTime back(t, ltTimeZoneSpec(c.hours, c.minutes));
        EXPECT_EQ(t, static_cast<const ltTime&>(back));  // the time is stored unshifted
        const struct tm& b = back.calendar;
        EXPECT_EQ(std::make_tuple(c.mday, c.hour, c.minute, 30, 7, 123),
                  std::make_tuple(b.tm_mday, b.tm_hour, b.tm_min, b.tm_sec, b.tm_mon, b.tm_year));
    }

    // Without an offset every standard field comes back as setDate/setTime and mktime made
    // it (the zone name pointer may differ, so the fields are compared one by one).
    ltCalendarTime back;
    ASSERT_EQ(1, back.setFromLtTime(t, ltTimeZoneSpec()));
    const struct tm& a = source.calendar;
    const struct tm& b = back.calendar;
    EXPECT_EQ(std::make_tuple(a.tm_sec, a.tm_min, a.tm_hour, a.tm_mday, a.tm_mon, a.tm_year,
                              a.tm_wday, a.tm_yday, a.tm_isdst),
              std::make_tuple(b.tm_sec, b.tm_min, b.tm_hour, b.tm_mday, b.tm_mon, b.tm_year,
                              b.tm_wday, b.tm_yday, b.tm_isdst));
}

TEST_F(CalendarUtc, ZoneSpecCopiesOwnTheirName)
{
    ltTimeZoneSpec zone(5, 30);
    ASSERT_EQ(0, zone.name.assignFast(lvArg("IST")));
    ltTimeZoneSpec copy(zone);
    ltTimeZoneSpec assigned;
    ASSERT_EQ(0, assigned.name.assignFast(lvArg("old name")));
    assigned = copy;
    assigned = assigned;  // self-assignment keeps the name
    zone.name.releaseData();

    for (const ltTimeZoneSpec* z : {&copy, &assigned}) {
        EXPECT_STREQ("IST", z->name.toText());
        EXPECT_EQ(5 * 3600 + 30 * 60, z->offsetSeconds());
    }
    EXPECT_NE(copy.name.toText(), assigned.name.toText());  // each copy has its own text

    ltCalendarTime byValue(ltTime(0, 0), assigned);  // passed by value: copied and released
    EXPECT_EQ(5, byValue.calendar.tm_hour);
}

}  // namespace
