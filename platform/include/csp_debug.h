/** \file
 * csp_debug.h - the platform debug output.
 *
 * A stand-in for the platform's debug library. Messages are printf-style and go to stderr.
 * Output is on by default; setting the environment variable CSP_DEBUG_QUIET to anything but
 * "0" or "" silences it (read once, on first use). All functions have C linkage. */
#ifndef CSP_DEBUG_H
#define CSP_DEBUG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A level record: which message class is asking, plus the frame and chunk the platform
 * fills in when the level is enabled (the stand-in leaves them as they are). */
typedef struct _cspDebugLevel_struct {
    uint32_t level;  /**< the message class */
    uint32_t frame;  /**< filled in by the platform */
    uint32_t chunk;  /**< filled in by the platform */
} cspDebugLevel_t;

/** Non-zero when messages of this level are to be written. Any thread. */
int cspDebugCheckLevelGetFrameAndChunk(struct _cspDebugLevel_struct* level);

/** printf-style output of one message, written as one piece. Any thread. */
void cspDebugOutput0(const char* format, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif

#endif /* CSP_DEBUG_H */
