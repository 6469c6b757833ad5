//===- lfccollection.cpp - lfcCollection ----------------------------------===//
#include "lfccollection.h"

lfcCollection::~lfcCollection() = default;
