//===- ltsortedlist.cpp - Fixed-size records kept sorted in one array -----===//
#include "ltsortedlist.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ltresult.h"

using lt_internal::kNoMemory;
using lt_internal::kOk;

ltSortedList::ltSortedList(int elementSize, int capacity, int spare, int growBy)
    : array(nullptr), capacity(0), count(0), elementSize(elementSize), spare(spare), growBy(growBy)
{
    if (elementSize < 1 || capacity < 1)
        return;
    array = static_cast<unsigned char*>(std::calloc(static_cast<size_t>(capacity),
                                                    static_cast<size_t>(elementSize)));
    if (array != nullptr)
        this->capacity = capacity;
}

ltSortedList::~ltSortedList()
{
    destroyArray();
}

int ltSortedList::compare(const void* a, const void* b) const
{
    return std::memcmp(a, b, static_cast<size_t>(elementSize));
}

void ltSortedList::destroyElement(void* /*record*/) {}

void ltSortedList::copy(void* to, const void* from)
{
    std::memcpy(to, from, static_cast<size_t>(elementSize));
}

unsigned char* ltSortedList::slot(int index) const
{
    return array + static_cast<size_t>(index) * static_cast<size_t>(elementSize);
}

int ltSortedList::search(void* key, bool* found)
{
    if (found != nullptr)
        *found = false;
    if (array == nullptr || count < 1 || key == nullptr)
        return 0;

    // Invariant: records below lo are smaller than key, records at hi and above larger.
    int lo = 0;
    int hi = count;
    for (;;) {
        const int mid = lo + (hi - lo) / 2;
        const int cmp = compare(key, slot(mid));
        if (cmp == 0) {
            if (found != nullptr)
                *found = true;
            return mid;
        }
        if (cmp > 0) {
            lo = mid + 1;
            if (lo >= hi)
                return lo;
        } else {
            hi = mid;
            if (hi <= lo)
                return hi;
        }
    }
}

int ltSortedList::add(void* record)
{
    if (record == nullptr)
        return kOk;
    bool found = false;
    const int pos = search(record, &found);
    if (found)
        return kOk;  // equal record already held: refused without a word
    if (expand(count + 1) != kOk)
        return kOk;  // no room and none to be had: the record is not stored

    const size_t size = static_cast<size_t>(elementSize);
    std::memmove(slot(pos + 1), slot(pos), static_cast<size_t>(count - pos) * size);
    std::memset(slot(pos), 0, size);
    copy(slot(pos), record);
    count += 1;
    return kOk;
}

void ltSortedList::remove(int index)
{
    if (index < 0 || index >= count)
        return;
    destroyElement(slot(index));
    std::memmove(slot(index), slot(index + 1),
                 static_cast<size_t>(count - index - 1) * static_cast<size_t>(elementSize));
    count -= 1;  // the vacated last slot keeps its old bytes; add() zeroes a slot before use
}

void ltSortedList::remove(void* key)
{
    if (key == nullptr)
        return;
    bool found = false;
    const int pos = search(key, &found);
    if (found)
        remove(pos);
}

void* ltSortedList::operator[](int index) const
{
    if (index < 0 || index >= count)
        return nullptr;
    return slot(index);
}

int ltSortedList::expand(int minCapacity)
{
    if (capacity >= minCapacity)
        return kOk;
    if (elementSize < 1)
        return kNoMemory;  // records of no size cannot be stored anywhere

    // One step of growBy when that is enough, else straight to what was asked for.
    const int64_t stepped = static_cast<int64_t>(capacity) + growBy;
    const int64_t newCapacity = stepped >= minCapacity ? stepped : minCapacity;
    const size_t size = static_cast<size_t>(elementSize);
    if (newCapacity > INT_MAX || static_cast<uint64_t>(newCapacity) > SIZE_MAX / size)
        return kNoMemory;

    const size_t oldBytes = static_cast<size_t>(capacity) * size;
    const size_t newBytes = static_cast<size_t>(newCapacity) * size;
    void* grown = std::realloc(array, newBytes);
    if (grown == nullptr)
        return kNoMemory;  // the old array and its records stay as they were
    array = static_cast<unsigned char*>(grown);
    std::memset(array + oldBytes, 0, newBytes - oldBytes);
    capacity = static_cast<int>(newCapacity);
    return kOk;
}

void ltSortedList::destroyArray()
{
    if (array == nullptr)
        return;
    for (int i = 0; i < count; ++i)
        destroyElement(slot(i));
    std::free(array);
    array = nullptr;
    capacity = 0;
    count = 0;
}
