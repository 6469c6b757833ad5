//===- lfcutil.cpp - Counted memory blocks and small string helpers -------===//
#include "lfcutil.h"

#include <cstdlib>
#include <cstring>

#include "lfcblock.h"

using lt_internal::kLfcBlockMagic;
using lt_internal::LfcBlockHeader;

int32_t lfcUtilMallocUsed = 0;

namespace {

// True when the header in front of p carries the magic. For a foreign block these bytes lie
// before the allocation (the C library's own bookkeeping), for a freed block in released
// memory: reading them is what lets free() ignore both, so the address and thread sanitizers
// are told to let this one read through.
__attribute__((no_sanitize("address", "thread"))) bool hasMagic(const unsigned char* header)
{
    for (size_t i = 0; i < sizeof kLfcBlockMagic; ++i) {
        if (header[i] != kLfcBlockMagic[i])
            return false;
    }
    return true;
}

}  // namespace

void* lfcUtil::malloc(unsigned int n)
{
    if (n == 0)
        return nullptr;
    auto* block = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(n) + sizeof(LfcBlockHeader)));
    if (block == nullptr)
        return nullptr;
    LfcBlockHeader h;
    std::memcpy(h.magic, kLfcBlockMagic, sizeof h.magic);
    h.size = n;
    std::memcpy(block, &h, sizeof h);
    lfcUtilMallocUsed += static_cast<int32_t>(n);
    return block + sizeof h;
}

void lfcUtil::free(const void* p)
{
    if (p == nullptr)
        return;
    auto* block = const_cast<unsigned char*>(static_cast<const unsigned char*>(p)) - sizeof(LfcBlockHeader);
    if (!hasMagic(block))
        return;  // foreign or already freed: ignored
    const uint32_t size = lt_internal::lfcBlockSize(p);
    std::memset(block, 0, sizeof(LfcBlockHeader));  // a second free finds no magic
    lfcUtilMallocUsed -= static_cast<int32_t>(size);
    std::free(block);
}

void* lfcUtil::calloc(unsigned int n, unsigned int m)
{
    if (n == 0 || m == 0)
        return nullptr;
    const unsigned int bytes = n * m;  // not checked for overflow: kept, callers rely on it
    void* p = lfcUtil::malloc(bytes);
    if (p != nullptr)
        std::memset(p, 0, bytes);
    return p;
}

char* lfcUtil::strdup(const char* s)
{
    if (s == nullptr)
        return nullptr;
    const size_t len = std::strlen(s) + 1;
    auto* copy = static_cast<char*>(lfcUtil::malloc(static_cast<unsigned int>(len)));
    if (copy != nullptr)
        std::memcpy(copy, s, len);
    return copy;
}

int lfcUtil::strcmp(const char* a, const char* b)
{
    if (a == nullptr || b == nullptr)
        return -1;
    return std::strcmp(a, b);
}
