//===- lfcblock.h - Header of an lfcUtil block (internal) -----------------===//
//
// The header lfcUtil::malloc writes in front of every block. lfcVector reads the size of its
// own arrays from it, so the room of an array is known without a field of its own.
//
//===----------------------------------------------------------------------===//
#ifndef LFCBLOCK_H
#define LFCBLOCK_H

#include <cstdint>
#include <cstring>

namespace lt_internal {

struct LfcBlockHeader {
    unsigned char magic[4];  // "YHg%" while the block is live; zero once freed
    uint32_t size;           // bytes requested by the caller
};
static_assert(sizeof(LfcBlockHeader) == 8, "an lfcUtil block header is 8 bytes on every build");

constexpr unsigned char kLfcBlockMagic[4] = {0x59, 0x48, 0x67, 0x25};  // "YHg%"

// Requested size of a live block from lfcUtil::malloc.
inline uint32_t lfcBlockSize(const void* userBytes)
{
    LfcBlockHeader h;
    std::memcpy(&h, static_cast<const unsigned char*>(userBytes) - sizeof h, sizeof h);
    return h.size;
}

}  // namespace lt_internal

#endif // LFCBLOCK_H
