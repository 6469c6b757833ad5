//===- ltexport.h - What the shared object exports ------------------------===//
///
/// \file
/// The library is built with hidden visibility; LT_EXPORT marks the classes, functions and
/// data that make up its interface. Nothing else leaves the shared object.
///
//===----------------------------------------------------------------------===//
#ifndef LTEXPORT_H
#define LTEXPORT_H

/// Marks a class, function or datum as part of the shared object's interface.
#define LT_EXPORT __attribute__((visibility("default")))

#endif // LTEXPORT_H
