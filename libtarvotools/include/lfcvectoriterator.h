//===- lfcvectoriterator.h - Walks an lfcVector ----------------------------===//
///
/// \class lfcVectorIterator
/// lfcVectorIterator walks an lfcVector from index 0 and can remove the entry it returned
/// last. It reads the vector's size afresh on every call, so entries appended while walking
/// are visited too.
///
/// The order of the virtual operations is part of the interface: the destructor, then
/// hasNext, next and remove.
///
//===----------------------------------------------------------------------===//
#ifndef LFCVECTORITERATOR_H
#define LFCVECTORITERATOR_H

#include "ltexport.h"

class lfcObject;
class lfcVector;

class LT_EXPORT lfcVectorIterator {
public:
    /// Starts at position 0. The vector must outlive the iterator.
    explicit lfcVectorIterator(lfcVector& v);
    virtual ~lfcVectorIterator();

    /// True while position < size.
    virtual bool hasNext();
    /// The entry at position, then position + 1; null at the end.
    virtual lfcObject* next();
    /// Removes the entry returned last and steps back by one; does nothing before the first
    /// next(). Returns 0 in every case.
    virtual int remove();

    int position;        ///< index of the next entry
    lfcVector* vector;   ///< the vector walked; not owned
};

#endif // LFCVECTORITERATOR_H
