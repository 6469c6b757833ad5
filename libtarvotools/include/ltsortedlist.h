//===- ltsortedlist.h - Fixed-size records kept sorted in one array -------===//
///
/// \class ltSortedList
/// ltSortedList keeps fixed-size records by value in one contiguous array, in ascending
/// order of compare() and without duplicates, and finds them by binary search.
///
/// The defaults treat a record as raw bytes: compare is memcmp (so multi-byte integers order
/// by their bytes in memory, not by value), copy is memcpy, and destroyElement does nothing.
/// A derived class overrides them to compare on a key or to hold records that own resources.
/// Such a class must call destroyArray() in its own destructor: by the time the base
/// destructor runs, the override can no longer be reached.
///
/// The array grows (see expand) and never shrinks. Not thread-safe: the caller serialises
/// all access. Not copyable.
///
//===----------------------------------------------------------------------===//
#ifndef LTSORTEDLIST_H
#define LTSORTEDLIST_H

#include "ltexport.h"

class LT_EXPORT ltSortedList {
public:
    /// An empty list of records of elementSize bytes (at least 1) with room for capacity
    /// records. spare is stored and otherwise unused. growBy is the smallest step by which
    /// expand() grows the array. When the first block cannot be allocated (or a size is not
    /// positive) the list starts with no array and capacity 0, and add() allocates one.
    ltSortedList(int elementSize, int capacity, int spare, int growBy);

    /// destroyArray(), with this class's own (empty) destroyElement: see above.
    virtual ~ltSortedList();

    ltSortedList(const ltSortedList&) = delete;
    ltSortedList& operator=(const ltSortedList&) = delete;

    /// Orders two records: negative, 0 or positive. Default: memcmp over elementSize bytes.
    virtual int compare(const void* a, const void* b) const;

    /// Releases what one record owns, just before the record leaves the list. Default: nothing.
    virtual void destroyElement(void* record);

    /// Copies a record into a slot of the list; the slot is zeroed first. Default: memcpy.
    virtual void copy(void* to, const void* from);

    /// Binary search for key. Returns the position of the match, or on a miss the position at
    /// which key would be inserted (0 for an empty list or a null key). *found, when found is
    /// not null, tells which.
    int search(void* key, bool* found);

    /// Inserts a copy of *record at its sorted position. Always returns 0: a record equal to
    /// one already held is silently refused, and so is a null record or one for which the
    /// array cannot grow.
    int add(void* record);

    /// Removes the record at index (ignored unless 0 <= index < count), calling destroyElement
    /// on it first. The array does not shrink; the vacated last slot keeps its old bytes.
    void remove(int index);

    /// Removes the record equal to *key, if there is one. A null key does nothing.
    void remove(void* key);

    /// The record at index, or null when index < 0 or index >= count. Valid until the next
    /// add, remove or destroyArray.
    void* operator[](int index) const;

    /// Makes room for at least minCapacity records: nothing when there is room already; else
    /// the capacity becomes capacity + growBy when that is enough, or minCapacity itself. New
    /// slots are zeroed. Returns 0, or -12 when the array cannot be reallocated; the list is
    /// then unchanged.
    int expand(int minCapacity);

    /// destroyElement on every record, then frees the array; capacity and count become 0.
    /// The list may be used again afterwards (add allocates a new array).
    void destroyArray();

    // Plain fields: read them freely, change them only through the operations above.
    unsigned char* array;  ///< capacity * elementSize bytes, or null
    int capacity;          ///< records the array can hold
    int count;             ///< records held, sorted ascending by compare()
    int elementSize;       ///< bytes per record
    int spare;             ///< the constructor's third argument; no operation reads it
    int growBy;            ///< smallest growth step of expand()

private:
    unsigned char* slot(int index) const;
};

#endif // LTSORTEDLIST_H
