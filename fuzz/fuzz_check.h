//===- fuzz_check.h - The one assertion the fuzz targets share ------------===//
//
// FUZZ_CHECK(condition): when the condition is false, names it on stderr and aborts, which
// libFuzzer reports as a crash and saves the input. Unlike assert() it stays in every build.
//
//===----------------------------------------------------------------------===//
#ifndef LT_FUZZ_CHECK_H
#define LT_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                              \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                  \
        }                                                                                  \
    } while (0)

#endif // LT_FUZZ_CHECK_H
