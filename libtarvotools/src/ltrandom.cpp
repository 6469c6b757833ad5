//===- ltrandom.cpp - A per-object pseudo-random source -------------------===//
#include "ltrandom.h"

#include <cstdlib>
#include <ctime>

ltrandom::ltrandom()
{
    timespec now = {};
    // No fallback seed when the clock fails: kept as it stands.
    if (clock_gettime(CLOCK_MONOTONIC, &now) == 0)
        seed = static_cast<unsigned int>(now.tv_nsec);
}

unsigned int ltrandom::get(unsigned int n)
{
    const unsigned int r = static_cast<unsigned int>(rand_r(&seed));
    return r % (n + 1);  // plain modulo, no rejection of the biased top range
}
