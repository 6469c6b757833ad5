//===- lfcvector.h - Growable array of object references ------------------===//
///
/// \class lfcVector
/// lfcVector is an array of references to lfcObject, allocated through lfcUtil (so counted in
/// lfcUtilMallocUsed). It stores pointers to the caller's objects and never copies, owns or
/// deletes them. Not synchronised: the caller serialises.
///
/// Growth is linear: a full vector grows by growBy slots at a time (15 by default, at least 2
/// with the two-argument constructor), never by doubling. Once allocated, capacity is never
/// below 2, and the array never shrinks.
///
/// Kept behaviour a caller must know:
///   - insert() at an index below size into a full vector does not grow the capacity first:
///     the growth test compares the capacity with the index, not with the size. The array
///     still gets the slot it needs, so after such an insert size may exceed capacity until
///     the next growth.
///   - replace() checks only the upper bound: a negative index is not rejected.
///
/// The order of the virtual operations is part of the interface: the five lfcCollection
/// operations, the destructor, then insert, remove(index, n), replace and expandTo.
///
//===----------------------------------------------------------------------===//
#ifndef LFCVECTOR_H
#define LFCVECTOR_H

#include "lfccollection.h"
#include "lfcobject.h"
#include "ltexport.h"

class lfcVectorIterator;

class LT_EXPORT lfcVector : public lfcCollection {
public:
    static constexpr int kDefaultGrowBy = 15;  ///< growBy of the default constructor
    static constexpr int kMinGrowBy = 2;       ///< the two-argument constructor's lower bound
    static constexpr int kMinCapacity = 2;     ///< an allocated array has at least this many slots

    /// Empty, no array, growBy 15.
    lfcVector();
    /// growBy below 2 becomes 2; then expandTo(initialCapacity), which allocates at least 2
    /// slots even for an initial capacity of 0.
    lfcVector(int initialCapacity, int growBy);
    lfcVector(const lfcVector&) = delete;
    lfcVector& operator=(const lfcVector&) = delete;

    /// Appends every object of c in c's iteration order; c may be this vector (its objects
    /// are then appended once). 0, or -ENOMEM when the array could not grow (nothing more is
    /// appended then).
    int add(const lfcCollection& c) override;
    /// Appends &o, growing to size + growBy when full. 0, or -ENOMEM when the array could
    /// not grow (the vector is unchanged).
    int add(const lfcObject& o) override;
    /// Removes the first reference to o. 0, or -1 when absent.
    int remove(const lfcObject& o) override;
    /// A new lfcVectorIterator on this vector, allocated with new (null when that fails); the
    /// caller deletes it.
    lfcVectorIterator* iterator() override;
    /// Number of references held.
    int getSize() const override;
    /// Frees the array; the objects are not touched.
    ~lfcVector() override;

    /// Index -1 or beyond size appends. Otherwise, when capacity <= index, grows to
    /// index + growBy, then moves the entries from index up by one and stores &o at index.
    /// 0; -1 for an index below -1; -ENOMEM when the array could not grow.
    virtual int insert(const lfcObject& o, int index);
    /// Removes n entries from index (n cut to the end). -1 when index is outside 0..size-1 or
    /// n is below 1 (after the cut), else 0.
    virtual int remove(int index, int n);
    /// Stores &o at index. 0 when index < size, else -1. Only the upper bound is checked: a
    /// negative index returns 0 (kept for compatibility) and stores nothing.
    virtual int replace(const lfcObject& o, int index);
    /// Makes room for n entries: nothing when an array exists and capacity >= n; else a new
    /// array of max(n, 2) slots, the entries copied. 0, or -ENOMEM (vector unchanged).
    virtual int expandTo(int n);

    /// First index whose entry is &o, else -1.
    int indexOf(const lfcObject& o);
    /// The entry at index; no check: index must be within 0..size-1.
    lfcObject* elementAt(int index) const { return data[index]; }

    // Plain fields, in this order.
    lfcObject** data;  ///< from lfcUtil::malloc; room for at least max(capacity, size) entries
    int size;          ///< entries in use
    int capacity;      ///< slots by the growth rule
    int growBy;        ///< slots added when a full vector grows

private:
    int append(const lfcObject& o);
    int reallocate(int slots);
    int room() const;
};

#endif // LFCVECTOR_H
