/* csp_osal.c - the stand-in OSAL: time records on the monotonic clock, and backtraces. */
#include "csp_osal.h"

#include <execinfo.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

enum { kNsecPerSec = 1000000000 };

void cspOsalGetTime(struct _cspOsalTime_struct* out)
{
    struct timespec ts;
    (void)clock_gettime(CLOCK_MONOTONIC, &ts); /* cannot fail for CLOCK_MONOTONIC */
    out->sec = ts.tv_sec;
    out->nsec = (int32_t)ts.tv_nsec;
}

int cspOsalCompareTime(const struct _cspOsalTime_struct* a, const struct _cspOsalTime_struct* b)
{
    if (a->sec != b->sec)
        return a->sec < b->sec ? -1 : 1;
    if (a->nsec != b->nsec)
        return a->nsec < b->nsec ? -1 : 1;
    return 0;
}

void cspOsalNormalizeTime(struct _cspOsalTime_struct* t)
{
    int64_t carry = t->nsec / kNsecPerSec;
    int64_t nsec = t->nsec % kNsecPerSec;
    if (nsec < 0) { /* keep the nanoseconds non-negative: borrow one second */
        nsec += kNsecPerSec;
        carry -= 1;
    }
    t->sec += carry;
    t->nsec = (int32_t)nsec;
}

void cspOsalAddTime(struct _cspOsalTime_struct* a, const struct _cspOsalTime_struct* b)
{
    int64_t nsec = (int64_t)a->nsec + b->nsec; /* two normal records never overflow 32 bits, */
    a->sec += b->sec + nsec / kNsecPerSec;     /* but unnormalised ones may: add in 64 bits */
    a->nsec = (int32_t)(nsec % kNsecPerSec);
    cspOsalNormalizeTime(a);
}

void cspOsalWriteBacktrace(void)
{
    void* frames[64];
    int n = backtrace(frames, (int)(sizeof frames / sizeof frames[0]));
    fputs("backtrace:\n", stderr);
    fflush(stderr);
    backtrace_symbols_fd(frames, n, STDERR_FILENO);
}
