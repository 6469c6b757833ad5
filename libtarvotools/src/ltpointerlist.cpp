//===- ltpointerlist.cpp - An unordered pointer set in one word -----------===//
//
// The word's forms and their transitions. Every reading of the tag and of the array header
// goes through the helpers in the anonymous namespace below.
//
//===----------------------------------------------------------------------===//
#include "ltpointerlist.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "ltresult.h"

using lt_internal::kFailed;
using lt_internal::kNoMemory;
using lt_internal::kOk;

namespace {

// The two low bits of the word say how to read the rest.
enum : uintptr_t {
    kTagSingle = 0,  // the word is the pointer (0: empty)
    kTagUnused = 1,  // never produced: an empty list that accepts nothing
    kTagArray = 2,   // the word points to an array block
    kTagTriple = 3,  // the word points to a block of three slots
    kTagMask = 3,
};
static_assert(sizeof(uintptr_t) == sizeof(void*), "the list is one pointer-sized word");
static_assert(alignof(std::max_align_t) > kTagMask, "malloc'd blocks leave the tag bits free");

constexpr int kTripleSlots = 3;
// The triple becomes an array of 14 slots, not 4 or 6: kept, callers size their use by it.
constexpr int kFirstArrayCapacity = 14;
constexpr int kMaxArrayCapacity = UINT16_MAX;  // the header's 16-bit capacity field

// The first slot of an array block holds this header (padded to the slot size); the
// pointer slots follow it. count <= capacity always.
struct ArrayHeader {
    uint16_t capacity;
    uint16_t count;
};
static_assert(sizeof(ArrayHeader) <= sizeof(void*), "the array header fits in one slot");

inline uintptr_t tagOf(uintptr_t w) { return w & kTagMask; }
inline uintptr_t untagged(uintptr_t w) { return w & ~uintptr_t{kTagMask}; }
inline void* blockOf(uintptr_t w) { return reinterpret_cast<void*>(untagged(w)); }
inline uintptr_t withTag(void* block, uintptr_t tag) { return reinterpret_cast<uintptr_t>(block) | tag; }

inline void** tripleSlots(uintptr_t w) { return static_cast<void**>(blockOf(w)); }
inline ArrayHeader* arrayHeader(uintptr_t w) { return static_cast<ArrayHeader*>(blockOf(w)); }
inline void** arraySlots(uintptr_t w) { return static_cast<void**>(blockOf(w)) + 1; }

// Bytes of an array block: the header slot plus capacity pointer slots.
inline size_t arrayBytes(size_t capacity) { return (capacity + 1) * sizeof(void*); }

// Index of the first null slot among n, or n when there is none.
int firstFreeSlot(void* const* slots, int n)
{
    return static_cast<int>(std::find(slots, slots + n, nullptr) - slots);
}

// Moves the non-null pointers among the first n slots to the front, keeping their order.
void compactFront(void** slots, int n)
{
    int to = 0;
    for (int from = 0; from < n; ++from) {
        if (slots[from] == nullptr)
            continue;
        if (from != to) {
            slots[to] = slots[from];
            slots[from] = nullptr;
        }
        ++to;
    }
}

int addToTriple(uintptr_t& word, void* p)
{
    void** slots = tripleSlots(word);
    const int hole = firstFreeSlot(slots, kTripleSlots);
    if (hole < kTripleSlots) {
        slots[hole] = p;
        return kOk;
    }

    // A full triple becomes an array: the three old pointers, then p.
    const uintptr_t array = ltPointerList::createStorage(kFirstArrayCapacity, /*tagged=*/false);
    if (array == 0)
        return kNoMemory;
    void** to = arraySlots(array);
    std::copy(slots, slots + kTripleSlots, to);
    to[kTripleSlots] = p;
    arrayHeader(array)->count = kTripleSlots + 1;
    std::free(blockOf(word));
    word = withTag(blockOf(array), kTagArray);
    return kOk;
}

int addToArray(uintptr_t& word, void* p)
{
    ArrayHeader* header = arrayHeader(word);
    assert(header->count <= header->capacity && "pointer list count exceeds its capacity");
    const int capacity = header->capacity;

    // Room left: p takes the first free slot.
    if (header->count < capacity) {
        void** slots = arraySlots(word);
        const int hole = firstFreeSlot(slots, capacity);
        if (hole < capacity) {
            slots[hole] = p;
            header->count += 1;
            return kOk;
        }
        // Every slot taken although the count says otherwise (removePointer(nullptr) counts
        // down for a free slot): the first free slot would lie past the block, so the array
        // grows as a full one does.
    }

    // A full array doubles in place; p takes the first of the new slots.
    assert(capacity > 0 && "array form with no slots");
    void* grown = capacity > kMaxArrayCapacity / 2
                      ? nullptr  // the doubled capacity would not fit the 16-bit field
                      : std::realloc(blockOf(word), arrayBytes(2 * static_cast<size_t>(capacity)));
    if (grown == nullptr) {
        std::puts("Not enough storage.");
        return kNoMemory;
    }
    word = withTag(grown, kTagArray);
    void** slots = arraySlots(word);
    std::fill(slots + capacity, slots + 2 * capacity, nullptr);
    slots[capacity] = p;
    header = arrayHeader(word);
    header->capacity = static_cast<uint16_t>(2 * capacity);
    header->count += 1;
    return kOk;
}

}  // namespace

ltPointerList::ltPointerList() : storage(0) {}

ltPointerList::ltPointerList(int n) : storage(createStorage(n, /*tagged=*/true)) {}

ltPointerList::~ltPointerList()
{
    freeStorage(storage);
}

uintptr_t ltPointerList::createStorage(int n, bool tagged)
{
    if (n < 2 || n > kMaxArrayCapacity)
        return 0;

    if (n <= kTripleSlots) {
        void* block = std::calloc(kTripleSlots, sizeof(void*));
        if (block == nullptr)
            return 0;
        return withTag(block, tagged ? kTagTriple : kTagSingle);
    }

    void* block = std::calloc(1, arrayBytes(static_cast<size_t>(n)));
    if (block == nullptr)
        return 0;
    ArrayHeader* header = static_cast<ArrayHeader*>(block);
    header->capacity = static_cast<uint16_t>(n);
    header->count = 0;
    return withTag(block, tagged ? kTagArray : kTagSingle);
}

void ltPointerList::freeStorage(uintptr_t word)
{
    if (tagOf(word) != kTagSingle)
        std::free(blockOf(word));
}

int ltPointerList::getCurrentMaxEntries() const
{
    switch (tagOf(storage)) {
    case kTagArray:
        return arrayHeader(storage)->capacity;
    case kTagTriple:
        return kTripleSlots;
    default:
        return 1;
    }
}

int ltPointerList::getNEntries() const
{
    if (untagged(storage) == 0)
        return 0;
    switch (tagOf(storage)) {
    case kTagArray:
        return arrayHeader(storage)->count;
    case kTagTriple: {
        void** slots = tripleSlots(storage);
        return static_cast<int>(std::count_if(slots, slots + kTripleSlots,
                                              [](void* s) { return s != nullptr; }));
    }
    case kTagSingle:
        return 1;
    default:
        return 0;
    }
}

void* ltPointerList::getPointer(int i) const
{
    if (i < 0 || untagged(storage) == 0)
        return nullptr;
    switch (tagOf(storage)) {
    case kTagArray:
        return i < arrayHeader(storage)->capacity ? arraySlots(storage)[i] : nullptr;
    case kTagTriple:
        return i < kTripleSlots ? tripleSlots(storage)[i] : nullptr;
    case kTagSingle:
        return i == 0 ? reinterpret_cast<void*>(storage) : nullptr;
    default:
        return nullptr;
    }
}

int ltPointerList::addPointer(void* p)
{
    const uintptr_t bits = reinterpret_cast<uintptr_t>(p);
    if (p == nullptr || tagOf(bits) != 0)
        return kFailed;

    switch (tagOf(storage)) {
    case kTagSingle: {
        // Empty: the word becomes the pointer.
        if (storage == 0) {
            storage = bits;
            return kOk;
        }
        // One pointer: move it and p into a new triple.
        const uintptr_t triple = createStorage(kTripleSlots, /*tagged=*/false);
        if (triple == 0)
            return kNoMemory;
        void** slots = tripleSlots(triple);
        slots[0] = reinterpret_cast<void*>(storage);
        slots[1] = p;
        storage = withTag(blockOf(triple), kTagTriple);
        return kOk;
    }
    case kTagTriple:
        return addToTriple(storage, p);
    case kTagArray:
        return addToArray(storage, p);
    default:
        return kOk;  // tag 1 accepts nothing, and says so with 0: kept, callers rely on it
    }
}

bool ltPointerList::hasPointer(void* p) const
{
    if (untagged(storage) == 0)
        return false;
    switch (tagOf(storage)) {
    case kTagArray: {
        const ArrayHeader* header = arrayHeader(storage);
        if (header->count == 0)
            return false;
        // As for the triple, a null p matches a free slot: kept, callers rely on it.
        void** slots = arraySlots(storage);
        return std::find(slots, slots + header->capacity, p) != slots + header->capacity;
    }
    case kTagTriple: {
        // A null p matches a free slot: kept, callers rely on it.
        void** slots = tripleSlots(storage);
        return std::find(slots, slots + kTripleSlots, p) != slots + kTripleSlots;
    }
    case kTagSingle:
        return reinterpret_cast<void*>(storage) == p;
    default:
        return false;
    }
}

int ltPointerList::removePointer(void* p)
{
    // A null p is looked for like any other pointer, so it "removes" a free slot: the array
    // then counts one pointer less, and an empty single form is cleared again. Kept, as
    // hasPointer(): callers rely on both answers.
    switch (tagOf(storage)) {
    case kTagArray: {
        ArrayHeader* header = arrayHeader(storage);
        if (header->count == 0 || header->capacity == 0)
            return kFailed;
        void** slots = arraySlots(storage);
        void** hit = std::find(slots, slots + header->capacity, p);
        if (hit == slots + header->capacity)
            return kFailed;
        *hit = nullptr;
        header->count -= 1;
        return kOk;
    }
    case kTagTriple: {
        void** slots = tripleSlots(storage);
        void** hit = std::find(slots, slots + kTripleSlots, p);
        if (hit == slots + kTripleSlots)
            return kFailed;
        *hit = nullptr;
        return kOk;
    }
    case kTagSingle:
        if (reinterpret_cast<void*>(storage) != p)
            return kFailed;
        storage = 0;
        return kOk;
    default:
        return kFailed;
    }
}

int ltPointerList::removePointer(int i)
{
    switch (tagOf(storage)) {
    case kTagArray: {
        ArrayHeader* header = arrayHeader(storage);
        if (header->count == 0)
            return kFailed;
        if (i < 0 || i >= header->capacity)  // outside the block: read as a free slot
            return kFailed;
        void** slots = arraySlots(storage);
        if (slots[i] == nullptr)
            return kFailed;
        slots[i] = nullptr;
        header->count -= 1;
        return kOk;
    }
    case kTagTriple: {
        // Only index 0 can be removed by index from a triple: kept, callers rely on it.
        if (i != 0)
            return kFailed;
        void** slots = tripleSlots(storage);
        if (slots[0] == nullptr)
            return kFailed;
        slots[0] = nullptr;
        return kOk;
    }
    case kTagSingle:
        if (i != 0 || storage == 0)
            return kFailed;
        storage = 0;
        return kOk;
    default:
        return kOk;  // tag 1: nothing to remove, reported as done: kept, callers rely on it
    }
}

void ltPointerList::clearList()
{
    freeStorage(storage);
    storage = 0;
}

int ltPointerList::tidyUp(bool shrink)
{
    if (untagged(storage) == 0)
        return kFailed;
    switch (tagOf(storage)) {
    case kTagArray: {
        ArrayHeader* header = arrayHeader(storage);
        const int count = header->count;
        if (count == 0 || count == header->capacity)
            return kOk;
        // Only the first count slots are compacted; pointers at or past count stay where
        // they are: kept, callers rely on it.
        compactFront(arraySlots(storage), count);
        if (!shrink)
            return kOk;
        // Cut the block to count slots; pointers at or past count are dropped and the count
        // is left as it was: kept, callers rely on it. A failed shrink keeps the larger
        // block, which serves just as well once the capacity says count.
        void* smaller = std::realloc(blockOf(storage), arrayBytes(static_cast<size_t>(count)));
        if (smaller != nullptr)
            storage = withTag(smaller, kTagArray);
        arrayHeader(storage)->capacity = static_cast<uint16_t>(count);
        return kOk;
    }
    case kTagTriple:
        compactFront(tripleSlots(storage), kTripleSlots);
        return kOk;
    default:
        return kOk;
    }
}
