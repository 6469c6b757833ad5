//===- ltdebug.h - Messages through the platform debug output (internal) --===//
//
// Every class that logs through the platform output goes through LT_DEBUG, which asks the
// platform whether the level is enabled and writes the message with the one prefix
// "%s:%d:%s(): " (base name of the source file, line, function name).
//
//   LT_DEBUG(kLtDebugLevelDefault, "encryptFile", "Error in %s.\n", what);
//
// The function name is given explicitly: several messages carry a name that differs from
// the C++ function that writes them.
//
//===----------------------------------------------------------------------===//
#ifndef LTDEBUG_H
#define LTDEBUG_H

#include <cstdint>

#include "csp_debug.h"

namespace lt_internal {

// Base name of a compile-time path: what basename() gives for __FILE__.
constexpr const char* baseName(const char* path)
{
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p)
        if (*p == '/')
            base = p + 1;
    return base;
}

inline bool debugEnabled(uint32_t level)
{
    cspDebugLevel_t record = {level, 0, 0};
    return cspDebugCheckLevelGetFrameAndChunk(&record) != 0;
}

}  // namespace lt_internal

// The level the library's messages use unless a class has its own.
constexpr uint32_t kLtDebugLevelDefault = 0x000103E8;

// Message with an explicit line number (for messages whose line is part of their identity).
#define LT_DEBUG_AT(level, line, func, fmt, ...)                                              \
    do {                                                                                      \
        if (::lt_internal::debugEnabled(level))                                               \
            cspDebugOutput0("%s:%d:%s(): " fmt, ::lt_internal::baseName(__FILE__), (line),    \
                            (func), ##__VA_ARGS__);                                           \
    } while (0)

#define LT_DEBUG(level, func, fmt, ...) LT_DEBUG_AT(level, __LINE__, func, fmt, ##__VA_ARGS__)

#endif // LTDEBUG_H
