//===- lfccollection.h - The interface of the lfc containers --------------===//
///
/// \class lfcCollection
/// lfcCollection is what every lfc container offers: adding one object or all objects of
/// another collection, removing by identity, iterating and counting. A collection holds
/// references to the caller's objects; it never copies, owns or deletes them.
///
/// The order of the virtual operations is part of the interface: the five operations come
/// first, then the destructor.
///
//===----------------------------------------------------------------------===//
#ifndef LFCCOLLECTION_H
#define LFCCOLLECTION_H

#include "ltexport.h"

class lfcObject;
class lfcVectorIterator;

class LT_EXPORT lfcCollection {
public:
    /// Appends every object of c, in c's iteration order. 0, or a negative code on failure.
    virtual int add(const lfcCollection& c) = 0;
    /// Appends a reference to o. 0, or a negative code on failure.
    virtual int add(const lfcObject& o) = 0;
    /// Removes the first reference to o. 0, or -1 when o is not held.
    virtual int remove(const lfcObject& o) = 0;
    /// A new iterator from the first object; the caller deletes it.
    virtual lfcVectorIterator* iterator() = 0;
    /// Number of references held.
    virtual int getSize() const = 0;
    virtual ~lfcCollection();
};

#endif // LFCCOLLECTION_H
