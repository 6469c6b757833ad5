/** \file
 * csp_osal.h - the platform OS abstraction: time records and backtraces.
 *
 * A stand-in for the platform's OSAL library, with the functions libtarvotools-mt imports.
 * All functions have C linkage. */
#ifndef CSP_OSAL_H
#define CSP_OSAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The platform's time record: signed 64-bit seconds, then signed 32-bit nanoseconds.
 * Normal form keeps the nanoseconds in [0, 1000000000). 16 bytes, 8-byte aligned. */
typedef struct _cspOsalTime_struct {
    int64_t sec;   /**< whole seconds */
    int32_t nsec;  /**< nanoseconds */
} __attribute__((aligned(8))) cspOsalTime_t;

/** Fills *out with the current time of the monotonic clock. */
void cspOsalGetTime(struct _cspOsalTime_struct* out);

/** Negative, 0 or positive as a is earlier than, equal to or later than b. Both records are
 * compared as they are; normalise them first if they may not be in normal form. */
int cspOsalCompareTime(const struct _cspOsalTime_struct* a, const struct _cspOsalTime_struct* b);

/** a += b, left in normal form. */
void cspOsalAddTime(struct _cspOsalTime_struct* a, const struct _cspOsalTime_struct* b);

/** Carries the nanoseconds into the seconds so that 0 <= nsec < 1000000000. */
void cspOsalNormalizeTime(struct _cspOsalTime_struct* t);

/** Writes the calling thread's call stack to stderr. */
void cspOsalWriteBacktrace(void);

#ifdef __cplusplus
}
#endif

#endif /* CSP_OSAL_H */
