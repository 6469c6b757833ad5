//===- ltrandom.h - A per-object pseudo-random source ---------------------===//
///
/// \class ltrandom
/// ltrandom draws with rand_r on a seed of its own, taken from the nanoseconds of the
/// monotonic clock at construction, so separate objects (and threads) never share hidden
/// state. Not for cryptography: the range reduction is a plain modulo with its slight bias.
///
/// No lock is taken: one thread at a time per object; separate objects on separate threads
/// are fine.
///
//===----------------------------------------------------------------------===//
#ifndef LTRANDOM_H
#define LTRANDOM_H

#include "ltexport.h"

class LT_EXPORT ltrandom {
public:
    /// Seeds from the monotonic clock's nanoseconds. Should the clock fail, the seed is left
    /// as the object's storage held it: there is no fallback seed (kept as it stands).
    ltrandom();

    /// A pseudo-random value from 0 to n inclusive (rand_r() % (n + 1)); every call advances
    /// the seed, get(0) included. n must be below 4294967295: there n + 1 wraps to 0 and the
    /// division traps (SIGFPE).
    unsigned int get(unsigned int n);

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    unsigned int seed;  // the rand_r state
};

static_assert(sizeof(unsigned int) == 4, "the seed is an unsigned 32-bit word");

#endif // LTRANDOM_H
