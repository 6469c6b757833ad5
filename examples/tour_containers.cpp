// tour_containers.cpp - the pointer list, the sorted list, calendar time and scope timers.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "ltcalendartime.h"
#include "ltpointerlist.h"
#include "ltscopemeter.h"
#include "ltscopetimer.h"
#include "ltsortedlist.h"
#include "tour.h"

namespace {

const char* formName(const ltPointerList& list)
{
    switch (list.getCurrentMaxEntries()) {
    case 1:
        return "single (the word is the pointer)";
    case 3:
        return "triple (a block of 3 slots)";
    default:
        return "array (header + slots)";
    }
}

void showList(const ltPointerList& list)
{
    std::printf("  %2d pointer(s), capacity %2d: %s\n", list.getNEntries(),
                list.getCurrentMaxEntries(), formName(list));
}

void tourPointerList()
{
    std::printf("An ltPointerList is one machine word (%zu bytes here). Its two low bits say\n"
                "how to read the rest, so small lists cost no allocation at all:\n",
                sizeof(ltPointerList));
    int objects[32];
    ltPointerList list;
    showList(list);
    for (int n : {1, 2, 4, 14, 15}) {  // cross every form: single, triple, array, doubled
        while (list.getNEntries() < n)
            (void)list.addPointer(&objects[list.getNEntries()]);  // cannot fail at this size
        showList(list);
    }
    std::printf("The 4th pointer moved the list to an array of 14 slots, the 15th doubled it.\n");

    ltPointerList triple;
    for (int i = 0; i < 3; ++i)
        (void)triple.addPointer(&objects[i]);
    const int byIndex = triple.removePointer(1);
    const int byValue = triple.removePointer(&objects[1]);
    std::printf("On a triple, removePointer(1) gives %d: only index 0 can be removed by index\n"
                "there (long-standing behaviour); removing by value works: %d.\n",
                byIndex, byValue);
}

// Channel numbers as ints, ordered by value (the default order is by raw bytes).
class ChannelNumbers : public ltSortedList {
public:
    ChannelNumbers() : ltSortedList(sizeof(int), 4, 0, 4) {}
    int compare(const void* a, const void* b) const override
    {
        int x, y;
        std::memcpy(&x, a, sizeof x);
        std::memcpy(&y, b, sizeof y);
        return x < y ? -1 : (x > y ? 1 : 0);
    }
};

void tourSortedList()
{
    std::printf("\nAn ltSortedList keeps fixed-size records sorted in one array. Adding the\n"
                "channel numbers 7, 3, 12, 3, 1, 9 (the second 3 is refused):\n ");
    ChannelNumbers channels;
    for (int number : {7, 3, 12, 3, 1, 9})
        (void)channels.add(&number);  // always 0; a duplicate is simply not stored
    for (int i = 0; channels[i] != nullptr; ++i) {
        int number;
        std::memcpy(&number, channels[i], sizeof number);
        std::printf(" %d", number);
    }
    bool found = false;
    int key = 8;
    const int position = channels.search(&key, &found);
    std::printf("\n%d records, capacity %d (grown from 4 by steps of 4). Searching 8: %s,\n"
                "it would go at position %d.\n",
                channels.count, channels.capacity, found ? "found" : "not found", position);
}

void tourCalendar()
{
    std::printf("\nltCalendarTime checks a date field by field before mktime sees it:\n");
    ltCalendarTime leap(29, 2, 124, 20, 15, 0);  // years count from 1900
    const ltTime& t = leap;
    std::printf("  29.02.2024 20:15:00 is valid: %d seconds since 1970 (in this process's zone)\n",
                t.sec);
    ltCalendarTime notLeap;
    std::printf("  setDate(29, 2, 123) for 2023 gives %d: not a leap year\n",
                notLeap.setDate(29, 2, 123));
    std::printf("  setTime(23, 59, 60) gives %d: leap seconds are accepted\n",
                notLeap.setTime(23, 59, 60));

    ltCalendarTime shifted(t, ltTimeZoneSpec(1, 30));
    char text[64];
    std::strftime(text, sizeof text, "%d.%m.%Y %H:%M:%S", &shifted.calendar);
    std::printf("  The same moment, local time shifted by +1:30: %s\n", text);
}

void tourScopeTimer()
{
    std::printf("\nAn ltScopeTimer measures its scope and reports to an ltScopeMeter:\n");
    ltScopeMeter meter;
    volatile uint64_t sum = 0;
    for (int round = 0; round < 3; ++round) {
        ltScopeTimer timer(&meter);  // reports when it goes out of scope
        for (int i = 0; i < 200000; ++i)
            sum = sum + static_cast<uint64_t>(i);
    }
    std::printf("  3 timed loops: last %ld.%09ld s, total %ld.%09ld s\n",
                static_cast<long>(meter.last.tv_sec), static_cast<long>(meter.last.tv_nsec),
                static_cast<long>(meter.total.tv_sec), static_cast<long>(meter.total.tv_nsec));
    std::printf("  meter.print() writes the total through the platform debug output (stderr).\n");
    std::fflush(stdout);
    meter.print();
}

}  // namespace

void tourContainers()
{
    tourHeading("Containers, calendar time and scope timers");
    tourPointerList();
    tourSortedList();
    tourCalendar();
    tourScopeTimer();
    std::fflush(stdout);
}
