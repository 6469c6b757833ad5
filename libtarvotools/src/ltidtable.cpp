//===- ltidtable.cpp - Id table: round-robin probing, doubling growth -----===//
#include "ltidtable.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr int kNumEntryMasks = 5;
constexpr uint32_t kWholeWord = 0xFFFFFFFFu;
// The capacity field is 16 bits wide: 1 << 15 slots is the most a table can have.
constexpr int kMostBits = 15;

bool bitsFit(int bits) { return bits >= 0 && bits <= kMostBits; }

// A first array of 'capacity' slots, every byte the free pattern's low byte; null when
// there is no memory.
uint8_t* firstSlots(uint16_t capacity, int32_t entrySize, uint32_t freePattern)
{
    const size_t bytes = static_cast<size_t>(capacity) * static_cast<size_t>(entrySize);
    auto* slots = static_cast<uint8_t*>(std::malloc(bytes));
    if (slots != nullptr)
        std::memset(slots, static_cast<int>(freePattern & 0xFF), bytes);
    return slots;
}

// Removal results.
constexpr int kRemoveEmpty = -1;
constexpr int kRemoveIndexZero = -2;
constexpr int kRemoveAlreadyFree = -3;

}  // namespace

const uint32_t ltIdTable::entryMaskes_[5] = {0xFF, 0xFF, 0xFFFF, 0xFFFFFF, 0xFFFFFFFF};

ltIdTable::ltIdTable(int entrySize_, int initialBits_, int maxBits_, bool freeIsZero_)
    : initialBits(static_cast<uint8_t>(initialBits_)),
      maxBits(static_cast<uint8_t>(maxBits_)),
      currentBits(static_cast<uint8_t>(initialBits_)),
      freeIsZero(freeIsZero_),
      count(0),
      capacity(static_cast<uint16_t>(bitsFit(initialBits_) ? 1u << initialBits_ : 0u)),
      keyMask(entrySize_ >= 0 && entrySize_ < kNumEntryMasks ? entryMaskes_[entrySize_] : kWholeWord),
      entrySize(entrySize_),
      cursor(0),
      slots(nullptr)
{
    if (capacity == 0 || entrySize < 1)
        return;  // sizes the table cannot have: no slots, every put fails
    slots = firstSlots(capacity, entrySize, freePattern());
    // Without memory the table has no slots at all, so that users walking capacity slots
    // find none; the first put tries again.
    if (slots == nullptr)
        capacity = 0;
}

ltIdTable::~ltIdTable()
{
    std::free(slots);
}

uint32_t ltIdTable::keyOf(const void* record) const
{
    // A record shorter than a word contributes only its own bytes; the mask hides the rest.
    uint32_t word = 0;
    std::memcpy(&word, record, entrySize < 4 ? static_cast<size_t>(entrySize) : sizeof word);
    return word & keyMask;
}

bool ltIdTable::isFree(const void* p) const
{
    return keyOf(p) == freePattern();
}

int ltIdTable::putMember(void* record)
{
    if (entrySize < 1 || !bitsFit(initialBits))
        return 0;  // a record of no bytes reads as in use everywhere: no slot would do
    if (record == nullptr || keyOf(record) == freePattern())
        return 0;  // a free-looking record could not be told from an empty slot
    if (slots == nullptr) {
        // The constructor found no memory: the table starts now, at its initial size.
        slots = firstSlots(static_cast<uint16_t>(1u << initialBits), entrySize, freePattern());
        if (slots == nullptr)
            return 0;
        capacity = static_cast<uint16_t>(1u << initialBits);
    }

    if (count == capacity - 1) {
        // Full at the largest size. A limit past what the capacity field holds stops at
        // 1 << 15 slots, and a table built above its limit does not grow.
        const uint32_t largest = 1u << (bitsFit(maxBits) ? maxBits : kMostBits);
        if (capacity >= largest)
            return 0;
        const size_t half = static_cast<size_t>(capacity) * static_cast<size_t>(entrySize);
        auto* grown = static_cast<uint8_t*>(std::realloc(slots, half * 2));
        if (grown == nullptr)
            return 0;
        std::memset(grown + half, static_cast<int>(freePattern() & 0xFF), half);
        slots = grown;
        capacity = static_cast<uint16_t>(capacity * 2);
        currentBits += 1;
    }

    // Round-robin from the last slot handed out: recently freed slots are reused last. The
    // cursor counts on 32 bits unsigned and wraps at 2^32: it is never reset, and a busy table
    // passes 2^31 probes in weeks.
    uint32_t c = static_cast<uint32_t>(cursor);
    uint32_t index;
    do {
        c += 1;
        index = c & (capacity - 1u);
    } while (index == 0 || !isFree(slots + index * static_cast<uint32_t>(entrySize)));
    cursor = static_cast<int32_t>(c);

    std::memcpy(slots + index * static_cast<uint32_t>(entrySize), record, static_cast<size_t>(entrySize));
    count += 1;
    return static_cast<int>(index | generationBits(c));
}

uint32_t ltIdTable::generationBits(uint32_t c) const
{
    // The number of wraps of the table, above maxBits. Its top bits fall off at 2^32: ids stay
    // distinct among the records in the table, whose slot indexes differ. A table built larger
    // than its limit puts the generation above its slot index instead of into it, and a limit
    // of 32 bits or more leaves no room for one: either would make an id name another slot.
    const unsigned shift = maxBits < currentBits ? currentBits : maxBits;
    if (shift >= 32)
        return 0;
    return (c >> currentBits) << shift;
}

int ltIdTable::removeMember(int id)
{
    if (count == 0)
        return kRemoveEmpty;
    const uint32_t index = static_cast<uint32_t>(id) & (capacity - 1u);
    if (index == 0)
        return kRemoveIndexZero;
    uint8_t* slot = slots + index * static_cast<uint32_t>(entrySize);
    if (isFree(slot))
        return kRemoveAlreadyFree;

    // Only the key bits become free; the rest of the record stays as it was.
    uint32_t word = 0;
    const size_t n = entrySize < 4 ? static_cast<size_t>(entrySize) : sizeof word;
    std::memcpy(&word, slot, n);
    word = (word & ~keyMask) | freePattern();
    std::memcpy(slot, &word, n);
    count -= 1;
    return 0;
}
