/* csp_debug.c - the stand-in debug output: every level enabled, text to stderr, silenced by
 * the environment variable CSP_DEBUG_QUIET. */
#include "csp_debug.h"

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

static pthread_once_t quietOnce = PTHREAD_ONCE_INIT;
static int quiet;

static void readQuiet(void)
{
    const char* v = getenv("CSP_DEBUG_QUIET");
    quiet = v != NULL && v[0] != '\0' && !(v[0] == '0' && v[1] == '\0');
}

int cspDebugCheckLevelGetFrameAndChunk(struct _cspDebugLevel_struct* level)
{
    (void)level; /* the stand-in has no per-level settings */
    pthread_once(&quietOnce, readQuiet);
    return !quiet;
}

void cspDebugOutput0(const char* format, ...)
{
    pthread_once(&quietOnce, readQuiet);
    if (quiet)
        return;
    va_list ap;
    va_start(ap, format);
    vfprintf(stderr, format, ap);
    va_end(ap);
}
