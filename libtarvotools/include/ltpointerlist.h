//===- ltpointerlist.h - An unordered pointer set in one word -------------===//
///
/// \class ltPointerList
/// ltPointerList holds an unordered collection of pointers in a single pointer-sized word.
/// It is made for lists that usually hold no pointer, one or a few, and it stays usable when
/// they occasionally hold many. The list never owns what it points to: it stores and compares
/// addresses, and never frees or touches the objects.
///
/// Representation. The two low bits of the word say how to read the rest; stored pointers and
/// allocated blocks are at least 4-byte aligned, so those bits are free:
/// ```
///   tag  form    the word, tag bits cleared, is ...              capacity
///   ---  ------  ---------------------------------------------  ---------------------------
///    0   single  the one pointer itself; 0 means empty           1
///    3   triple  a calloc'd block of 3 pointer slots             3
///    2   array   a calloc'd block: one header slot (16-bit       the stored capacity,
///                capacity, then 16-bit count), followed by        at most 65535
///                capacity pointer slots
///    1   -       never produced; read as an empty list that      1
///                accepts nothing
/// ```
/// Slots of the triple and array forms are unordered, and a null slot is free (a hole). In the
/// array form the count is the number of entries. Growth: the second pointer turns the single
/// form into a triple; the fourth turns the triple into an array of 14 slots; a full array
/// doubles. The list never returns to a smaller form by itself: an emptied triple or array
/// keeps its block until clearList(); tidyUp(true) shrinks an array in place.
///
/// Refused: null pointers, and pointers whose two low bits are not 0 (in the single form they
/// would be read as a tag). The same pointer may be added twice; it is then stored twice.
///
/// Not thread-safe: the caller serialises all access. Not copyable (the word owns its block).
///
//===----------------------------------------------------------------------===//
#ifndef LTPOINTERLIST_H
#define LTPOINTERLIST_H

#include <cstdint>

#include "ltexport.h"

class LT_EXPORT ltPointerList {
public:
    /// An empty list in the single form.
    ltPointerList();

    /// A list whose storage is made up front by createStorage(n, true): n < 2 gives the empty
    /// single form, 2 or 3 an empty triple, 4 or more an empty array of capacity n. When the
    /// block cannot be allocated (or n exceeds 65535) the list starts in the empty single form.
    explicit ltPointerList(int n);

    /// Frees the block; the objects pointed to are left alone.
    ~ltPointerList();

    ltPointerList(const ltPointerList&) = delete;
    ltPointerList& operator=(const ltPointerList&) = delete;

    /// Capacity of the current form: 1 (single, tag 1), 3 (triple) or the array's capacity.
    int getCurrentMaxEntries() const;

    /// Number of pointers held: the array's count, the triple's non-null slots, 1 for an
    /// occupied single form, 0 for an empty list. After a shrinking tidyUp that cut entries
    /// off, the array's count still includes them (see tidyUp).
    int getNEntries() const;

    /// Slot i of the current form, or null: for i < 0, for an empty list, for i at or past the
    /// capacity, and for a free slot. Entries need not be at the low indexes: iterate over
    /// 0 .. getCurrentMaxEntries() - 1 and skip nulls.
    void* getPointer(int i) const;

    /// Adds p to the list, changing form when the current one is full.
    /// Returns 0; -1 when p is null or not 4-byte aligned; -12 when a larger block cannot be
    /// allocated (a failed doubling of the array also prints "Not enough storage." to stdout).
    /// On failure the list is unchanged. In the tag-1 form returns 0 and stores nothing.
    int addPointer(void* p);

    /// True when p is in the list. Kept quirk: on a triple, or on an array holding at least
    /// one pointer, a null p answers true when there is a free slot (null is compared with
    /// the free slots).
    bool hasPointer(void* p) const;

    /// Removes one occurrence of p: nulls the first slot that equals p (an array also counts
    /// one pointer less), or clears a single-form word equal to p. Returns 0, or -1 when no
    /// slot equals p (and always in the tag-1 form). Kept quirk: a null p is looked for like
    /// any other pointer: on a triple or an array with a free slot it "removes" that slot and
    /// returns 0 (the array's count drops by one although no pointer left), on an empty list
    /// it returns 0, and on a full triple or array or an occupied single form it returns -1.
    /// An array whose count has so fallen below its pointers grows, on an add that finds
    /// every slot taken, as a full array does (rather than writing past its block).
    int removePointer(void* p);

    /// Removes the pointer in slot i. Returns 0, or -1 when the slot is free or out of range.
    /// Kept quirk: in the triple form only index 0 can be removed this way; every other index
    /// gives -1 even when its slot is taken. In the tag-1 form returns 0.
    int removePointer(int i);

    /// Frees the block and leaves the empty single form.
    void clearList();

    /// Compacts the list: a triple moves its pointers to the front, keeping their order. An
    /// array whose count is neither 0 nor its capacity moves the pointers found in its first
    /// count slots to the front, keeping their order; pointers in slots at or past count stay
    /// where they are. With shrink, such an array is then cut to count slots, and capacity
    /// becomes count: kept quirk: pointers that lay at or past count are dropped (and still
    /// counted). Returns -1 for an empty list, else 0.
    int tidyUp(bool shrink);

    /// Allocates the storage for n pointers: 0 for n < 2 or n > 65535; a zeroed triple block
    /// for n < 4; else a zeroed array block with capacity n and count 0. With tagged, the
    /// form's tag is set in the result. Returns 0 when the allocation fails.
    static uintptr_t createStorage(int n, bool tagged);

    /// Frees the block of a tagged storage word; a single-form word (tag 0) owns nothing.
    static void freeStorage(uintptr_t word);

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    uintptr_t storage;  // the tagged word described above
};

static_assert(sizeof(ltPointerList) == sizeof(void*), "ltPointerList is one pointer-sized word");

#endif // LTPOINTERLIST_H
