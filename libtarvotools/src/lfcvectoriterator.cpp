//===- lfcvectoriterator.cpp - Walks an lfcVector -------------------------===//
#include "lfcvectoriterator.h"

#include "lfcvector.h"

lfcVectorIterator::lfcVectorIterator(lfcVector& v) : position(0), vector(&v)
{
}

lfcVectorIterator::~lfcVectorIterator() = default;

bool lfcVectorIterator::hasNext()
{
    return position < vector->getSize();
}

lfcObject* lfcVectorIterator::next()
{
    if (position >= vector->getSize())
        return nullptr;
    return vector->elementAt(position++);
}

int lfcVectorIterator::remove()
{
    if (position >= 1) {
        (void)vector->remove(position - 1, 1);  // the entry returned last
        position -= 1;
    }
    return 0;
}
