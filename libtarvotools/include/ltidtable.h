//===- ltidtable.h - Table of fixed-size records that hands out ids -------===//
///
/// \class ltIdTable
/// A power-of-two table of fixed-size records. putMember() copies a record into a free slot
/// and returns an id; removeMember() frees the slot again. A slot's state is read from the
/// record itself: the key (the record's first 32-bit word ANDed with keyMask) has a reserved
/// free pattern, all 0 bits or all 1 bits.
///
/// Ids: the slot index in the low bits, and above maxBits the number of times the probe cursor
/// has wrapped the table, so a reused slot gets a new id. Slot 0 is never used: 0 is never an
/// id. The table grows by doubling up to 1 << maxBits slots (maxBits at most 15). The
/// generation's top bits fall off the 32-bit id (ids may be negative), and the cursor wraps
/// at 2^32: ids are unique among the records in the table, not for ever.
///
/// Records are looked up by the users with the same index arithmetic:
/// `slots + (id & (capacity - 1)) * entrySize`.
///
/// Not synchronised: the caller serialises.
///
//===----------------------------------------------------------------------===//
#ifndef LTIDTABLE_H
#define LTIDTABLE_H

#include <cstdint>

#include "ltexport.h"

class LT_EXPORT ltIdTable {
public:
    /// Key masks by entry size 0..4; larger entries use the whole first word.
    static const uint32_t entryMaskes_[5];

    /// Allocates 1 << initialBits slots filled with the free pattern. On allocation failure,
    /// for an initialBits outside 0..15 or an entrySize below 1, slots stays null and every
    /// put fails. The table
    /// grows up to 1 << maxBits slots, never past 1 << 15 (the capacity is 16 bits), and not
    /// at all when it was built larger than its limit.
    ltIdTable(int entrySize, int initialBits, int maxBits, bool freeIsZero);
    /// Frees the slots; the records are plain bytes and need nothing else.
    ~ltIdTable();

    ltIdTable(const ltIdTable&) = delete;
    ltIdTable& operator=(const ltIdTable&) = delete;

    /// Copies entrySize bytes of record into a free slot. Returns the id, or 0 when record is
    /// null, its key equals the free pattern, the table is full at its largest size, or
    /// entrySize is below 1 (such records cannot be stored). A full table grows first; probing
    /// goes on round-robin from the last slot handed out, so freed slots are reused last.
    int putMember(void* record);

    /// Frees the slot of id. 0 on success, -1 when the table is empty, -2 for index 0, -3 when
    /// the slot is already free. The generation bits are not compared: an old id whose index
    /// names a newer record removes that record.
    int removeMember(int id);

    /// Slot of an id (or of an index below capacity); no check that the slot is in use.
    void* slotFor(int id) const
    {
        return slots + static_cast<uint32_t>(id & (capacity - 1)) * static_cast<uint32_t>(entrySize);
    }
    /// True when the record at p has the free key.
    bool isFree(const void* p) const;

    uint8_t initialBits;   ///< log2 of the initial number of slots
    uint8_t maxBits;       ///< log2 of the largest number of slots; where an id's generation starts
    uint8_t currentBits;   ///< log2 of the current number of slots
    bool freeIsZero;       ///< free key is all 0 bits (true) or all 1 bits (false)
    uint16_t count;        ///< slots in use
    uint16_t capacity;     ///< 1 << currentBits
    uint32_t keyMask;      ///< key bits of the first 32-bit word of a record
    int32_t entrySize;     ///< bytes per record
    int32_t cursor;        ///< running probe counter, never reset; counts as unsigned, wraps at 2^32
    uint8_t* slots;        ///< capacity * entrySize bytes from malloc/realloc

private:
    uint32_t freePattern() const { return freeIsZero ? 0u : keyMask; }
    uint32_t generationBits(uint32_t cursorValue) const;
    uint32_t keyOf(const void* record) const;
};

static_assert(sizeof(void*) != 4 || (sizeof(ltIdTable) == 24 && alignof(ltIdTable) == 4),
              "six words on a 32-bit build");

#endif // LTIDTABLE_H
