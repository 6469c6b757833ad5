//===- lfcutil.h - Counted memory blocks and small string helpers ---------===//
///
/// \file
/// lfcUtil hands out memory blocks that carry a small header and are counted in one
/// process-wide counter, lfcUtilMallocUsed, so that the memory held through them can be
/// watched. lfcVector allocates its arrays here.
///
/// Block layout: an 8-byte header in front of the caller's bytes, then the bytes:
/// ```
///   bytes 0-3  magic "YHg%" (0x59 0x48 0x67 0x25)
///   bytes 4-7  requested size (unsigned 32-bit)
/// ```
/// The caller gets the address just past the header. Nothing here is synchronised: the
/// counter is plain arithmetic, so concurrent use from several threads may miscount.
///
//===----------------------------------------------------------------------===//
#ifndef LFCUTIL_H
#define LFCUTIL_H

#include <cstdint>

#include "ltexport.h"

/// Bytes requested through lfcUtil::malloc and not freed yet (headers not counted). C linkage
/// so that tools and C code see the plain name.
extern "C" LT_EXPORT int32_t lfcUtilMallocUsed;

/// Counted memory blocks (see the file comment) and null-safe string helpers; all static.
class LT_EXPORT lfcUtil {
public:
    /// A counted block of n bytes, or null for n 0 or when the C library's malloc fails.
    static void* malloc(unsigned int n);
    /// Releases a block from lfcUtil::malloc. Null, foreign blocks and blocks already freed
    /// (no magic in front) are silently ignored, so a second free changes nothing.
    static void free(const void* p);
    /// A zero-filled counted block of n x m bytes; null when n or m is 0. The product is not
    /// checked for overflow (kept: callers pass small counts).
    static void* calloc(unsigned int n, unsigned int m);
    /// A copy of s in a counted block; null for null.
    static char* strdup(const char* s);
    /// -1 when either string is null, else the C library's strcmp.
    static int strcmp(const char* a, const char* b);
};

#endif // LFCUTIL_H
