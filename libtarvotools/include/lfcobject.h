//===- lfcobject.h - Base of the objects the lfc containers hold ----------===//
///
/// \class lfcObject
/// lfcObject is the empty polymorphic base of everything stored in an lfcVector, and of the
/// event system's events and handlers. Objects are compared by identity (address) only.
///
//===----------------------------------------------------------------------===//
#ifndef LFCOBJECT_H
#define LFCOBJECT_H

#include "ltexport.h"

class LT_EXPORT lfcObject {
public:
    virtual ~lfcObject();
};

#endif // LFCOBJECT_H
