//===- lfcobject.cpp - lfcObject ------------------------------------------===//
#include "lfcobject.h"

lfcObject::~lfcObject() = default;
