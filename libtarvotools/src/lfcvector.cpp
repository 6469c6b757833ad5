//===- lfcvector.cpp - Growable array of object references ----------------===//
#include "lfcvector.h"

#include <climits>
#include <cstring>
#include <new>

#include "lfcblock.h"
#include "lfcutil.h"
#include "lfcvectoriterator.h"
#include "ltresult.h"

using lt_internal::kFailed;
using lt_internal::kNoMemory;
using lt_internal::kOk;

namespace {

constexpr size_t kSlotBytes = sizeof(lfcObject*);

}  // namespace

lfcVector::lfcVector() : data(nullptr), size(0), capacity(0), growBy(kDefaultGrowBy)
{
}

lfcVector::lfcVector(int initialCapacity, int grow)
    : data(nullptr), size(0), capacity(0), growBy(grow < kMinGrowBy ? kMinGrowBy : grow)
{
    // A failed allocation leaves an empty vector, which tries again on its first add.
    (void)expandTo(initialCapacity);
}

lfcVector::~lfcVector()
{
    lfcUtil::free(data);
}

int lfcVector::room() const
{
    if (data == nullptr)
        return 0;
    return static_cast<int>(lt_internal::lfcBlockSize(data) / kSlotBytes);
}

// Moves the entries into a new array of 'slots' slots (at least size). The capacity is the
// caller's business.
int lfcVector::reallocate(int slots)
{
    if (slots < 1 || static_cast<size_t>(slots) > UINT_MAX / kSlotBytes)
        return kNoMemory;
    auto* grown = static_cast<lfcObject**>(lfcUtil::malloc(static_cast<unsigned int>(slots * kSlotBytes)));
    if (grown == nullptr)
        return kNoMemory;
    if (size > 0)
        std::memcpy(grown, data, static_cast<size_t>(size) * kSlotBytes);
    lfcUtil::free(data);
    data = grown;
    return kOk;
}

int lfcVector::expandTo(int n)
{
    // The first call always allocates, so that lfcVector(0, g) starts with 2 slots.
    if (data != nullptr && capacity >= n)
        return kOk;
    const int newCapacity = n > kMinCapacity ? n : kMinCapacity;
    // After a kept middle insert size may exceed the capacity: every entry must still fit.
    const int r = reallocate(newCapacity > size ? newCapacity : size);
    if (r != kOk)
        return r;
    capacity = newCapacity;
    return kOk;
}

int lfcVector::append(const lfcObject& o)
{
    if (size >= capacity) {
        const int r = expandTo(size + growBy);
        if (r != kOk)
            return r;
    }
    // Only when the caller set growBy below 1, or a kept middle insert used the room up.
    if (size >= room()) {
        const int r = reallocate(size + 1);
        if (r != kOk)
            return r;
    }
    data[size++] = const_cast<lfcObject*>(&o);
    return kOk;
}

int lfcVector::add(const lfcObject& o)
{
    return append(o);
}

int lfcVector::add(const lfcCollection& c)
{
    lfcVectorIterator* it = const_cast<lfcCollection&>(c).iterator();
    if (it == nullptr)
        return kNoMemory;
    const int n = c.getSize();  // counted first: a vector added to itself is appended once
    int r = kOk;
    for (int k = 0; k < n && it->hasNext(); ++k) {
        lfcObject* o = it->next();
        if (o == nullptr)
            continue;
        r = append(*o);
        if (r != kOk)
            break;
    }
    delete it;
    return r;
}

int lfcVector::insert(const lfcObject& o, int index)
{
    if (index < -1)
        return kFailed;
    if (index == -1 || index > size)
        return append(o);

    // The growth test looks at the index, not at the size: an insert below size into a full
    // vector does not grow the capacity. Kept: callers rely on the capacity it leaves.
    if (capacity <= index) {
        const int r = expandTo(index + growBy);
        if (r != kOk)
            return r;
    }
    // The move below needs one slot past size: give the array that room (linear steps, as
    // the growth rule has it) without touching the capacity.
    if (size >= room()) {
        const int r = reallocate(size + (growBy > 0 ? growBy : 1));
        if (r != kOk)
            return r;
    }
    std::memmove(data + index + 1, data + index, static_cast<size_t>(size - index) * kSlotBytes);
    data[index] = const_cast<lfcObject*>(&o);
    size += 1;
    return kOk;
}

int lfcVector::remove(int index, int n)
{
    if (index < 0 || index >= size)
        return kFailed;
    if (static_cast<long long>(index) + n > size)
        n = size - index;
    else if (n < 1)
        return kFailed;
    std::memmove(data + index, data + index + n, static_cast<size_t>(size - index - n) * kSlotBytes);
    size -= n;
    return kOk;
}

int lfcVector::remove(const lfcObject& o)
{
    const int index = indexOf(o);
    if (index < 0)
        return kFailed;
    return remove(index, 1);
}

int lfcVector::replace(const lfcObject& o, int index)
{
    if (index >= size)
        return kFailed;
    // Only the upper bound is checked, so a negative index is not rejected: kept for
    // compatibility. The store itself would land outside the array and is skipped.
    if (index < 0)
        return kOk;
    data[index] = const_cast<lfcObject*>(&o);
    return kOk;
}

int lfcVector::getSize() const
{
    return size;
}

int lfcVector::indexOf(const lfcObject& o)
{
    for (int i = 0; i < size; ++i) {
        if (data[i] == &o)
            return i;
    }
    return kFailed;
}

lfcVectorIterator* lfcVector::iterator()
{
    return new (std::nothrow) lfcVectorIterator(*this);
}
