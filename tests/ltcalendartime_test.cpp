#include "ltcalendartime.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

namespace {

// In UTC, mktime and localtime are plain calendar arithmetic.
[[maybe_unused]] const int kUtc = (setenv("TZ", "UTC", 1), tzset(), 0);

// Days from 1970-01-01 to a proleptic Gregorian date, worked out independently of mktime.
int64_t daysFromCivil(int64_t y, int m, int d)
{
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    return era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
}

bool sameBytes(const ltCalendarTime& a, const ltCalendarTime& b) { return !std::memcmp(&a.calendar, &b.calendar, sizeof a.calendar) && a.time == b.time; }

TEST(CalendarFields, EachFieldIsCheckedOnSetAndOnConstruction)
{
    // A date ('d': day, month, year) or a time ('t': hour, minute, second) set on 10.3.2024 08:00.
    const struct {
        char kind;
        int a, b, c;
        bool valid;
    } cases[] = {
        {'d', 29, 2, 100, true}, {'d', 29, 2, 0, false},  // 2000 is a leap year (400), 1900 not (100)
        {'d', 29, 2, 124, true}, {'d', 29, 2, 123, false}, {'d', 30, 2, 124, false}, {'d', 31, 11, 120, false},
        {'d', 31, 4, 120, false}, {'d', 31, 12, 120, true}, {'d', 31, 8, 120, true}, {'d', 30, 9, 120, true},
        {'d', 1, 1, 0, true}, {'d', 0, 1, 120, false}, {'d', 32, 1, 120, false}, {'d', 1, 0, 120, false},
        {'d', 1, 13, 120, false}, {'d', 1, -11, 120, false}, {'d', 1, 1, -1, false},
        {'d', 29, 2, INT_MAX, false}, {'d', INT_MIN, 1, 100, false}, {'d', 1, INT_MAX, 100, false},  // no overflow
        {'t', INT_MIN, 0, 0, false}, {'t', 0, INT_MAX, 0, false},
        {'t', 23, 59, 61, true}, {'t', 0, 0, 60, true}, {'t', 12, 30, 59, true}, {'t', 24, 0, 0, false},
        {'t', -1, 0, 0, false}, {'t', 0, 60, 0, false}, {'t', 0, -1, 0, false}, {'t', 0, 0, 62, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind + (" " + std::to_string(c.a)) + " " + std::to_string(c.b) + " " + std::to_string(c.c));
        ltCalendarTime t(10, 3, 124, 8, 0, 0);
        t.time.usec = 250000;
        const ltCalendarTime before = t;
        ASSERT_EQ(c.valid ? 1 : 0, c.kind == 'd' ? t.setDate(c.a, c.b, c.c) : t.setTime(c.a, c.b, c.c));
        if (!c.valid) {
            EXPECT_TRUE(sameBytes(before, t)) << "a rejected value changed the object";
            continue;
        }
        EXPECT_EQ(250000, t.time.usec);  // the microseconds are never touched
        if (c.kind == 't') {
            EXPECT_EQ(daysFromCivil(2024, 3, 10) * 86400 + c.a * 3600 + c.b * 60 + c.c, t.time.sec);
            continue;
        }
        EXPECT_EQ(std::make_tuple(c.a, c.b - 1, c.c),
                  std::make_tuple(t.calendar.tm_mday, t.calendar.tm_mon, t.calendar.tm_year));
        const int64_t expected = daysFromCivil(c.c + 1900, c.b, c.a) * 86400 + 8 * 3600;
        if (expected >= INT32_MIN && expected <= INT32_MAX) {
            EXPECT_EQ(expected, t.time.sec);
        }
    }

    // mktime carries a leap second at the end of the year into the next year.
    ltCalendarTime t(31, 12, 123, 0, 0, 0);
    ASSERT_EQ(1, t.setTime(23, 59, 60));
    const struct tm& c = t.calendar;
    EXPECT_EQ(std::make_tuple(1, 0, 124, 0), std::make_tuple(c.tm_mday, c.tm_mon, c.tm_year, c.tm_sec));

    // The constructor clears everything when either half is rejected.
    const ltCalendarTime cleared;
    EXPECT_TRUE(sameBytes(cleared, ltCalendarTime(29, 2, 123, 10, 0, 0)));  // bad date
    EXPECT_TRUE(sameBytes(cleared, ltCalendarTime(1, 3, 123, 10, 60, 0)));  // bad time
    EXPECT_EQ(3, ltCalendarTime(1, 3, 123, 10, 0, 0).calendar.tm_wday);  // filled by mktime: a Wednesday
}

TEST(CalendarZone, LtTimeRoundTripAppliesTheZoneOffsetAndSpecsOwnTheirName)
{
    const ltCalendarTime source(15, 8, 123, 13, 45, 30);
    const ltTime& t = source;
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
    ltCalendarTime back;
    EXPECT_EQ(1, back.setFromLtTime(t, ltTimeZoneSpec()));

    ltTimeZoneSpec zone(5, 30);  // specs copy their name
    ASSERT_EQ(0, zone.name.assignFast(lvArg("IST")));
    ltTimeZoneSpec copy(zone), assigned;
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
