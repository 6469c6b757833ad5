//===- ltmd5.cpp - The MD5 engine (RFC 1321) and LTmd5 --------------------===//
//
// The compression function is written for speed: the 64 steps are unrolled, the 16 message
// words are loaded once per block with memcpy (plus a byte swap on big-endian targets), the
// chaining values stay in registers across consecutive blocks, and whole blocks are taken
// straight from the caller's data. Only a partial block at either end is copied.
//
//===----------------------------------------------------------------------===//
#include "ltmd5.h"

#include <cstddef>
#include <cstring>
#include <utility>

#include "ltresult.h"

namespace {

constexpr size_t kBlockSize = 64;
constexpr size_t kLengthOffset = 56;  // where the 8-byte bit count sits in the last block

constexpr uint32_t kInitA = 0x67452301;
constexpr uint32_t kInitB = 0xefcdab89;
constexpr uint32_t kInitC = 0x98badcfe;
constexpr uint32_t kInitD = 0x10325476;

inline uint32_t rotateLeft(uint32_t x, int n)
{
    return (x << n) | (x >> (32 - n));  // compiles to one rotate instruction
}

inline uint32_t loadLittleEndian32(const unsigned char* p)
{
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap32(v);
#endif
    return v;
}

inline void storeLittleEndian32(unsigned char* p, uint32_t v)
{
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap32(v);
#endif
    std::memcpy(p, &v, sizeof v);
}

// The four rounds. Each step is a += f(b, c, d) + word + constant; a = rotl(a, s) + b, with
// the round functions in forms that shorten the dependency chain through b:
//   F: d ^ (b & (c ^ d))                  same as (b & c) | (~b & d)
//   G: (c & ~d) + (b & d), added apart    the two terms never share a bit
//   H: b ^ c ^ d
//   I: c ^ (b | ~d)
#define LT_MD5_F(a, b, c, d, x, t, s)                                                      \
    a += ((d) ^ ((b) & ((c) ^ (d)))) + (x) + (t);                                          \
    a = rotateLeft(a, s) + (b)
#define LT_MD5_G(a, b, c, d, x, t, s)                                                      \
    a += ((c) & ~(d)) + (x) + (t);                                                         \
    a += (b) & (d);                                                                        \
    a = rotateLeft(a, s) + (b)
#define LT_MD5_H(a, b, c, d, x, t, s)                                                      \
    a += ((b) ^ (c) ^ (d)) + (x) + (t);                                                    \
    a = rotateLeft(a, s) + (b)
#define LT_MD5_I(a, b, c, d, x, t, s)                                                      \
    a += ((c) ^ ((b) | ~(d))) + (x) + (t);                                                 \
    a = rotateLeft(a, s) + (b)

// Compresses blocks whole 64-byte blocks from data into abcd.
void processBlocks(uint32_t abcd[4], const unsigned char* data, size_t blocks)
{
    uint32_t a = abcd[0];
    uint32_t b = abcd[1];
    uint32_t c = abcd[2];
    uint32_t d = abcd[3];

    for (; blocks > 0; --blocks, data += kBlockSize) {
        uint32_t x[16];
        for (int i = 0; i < 16; ++i)
            x[i] = loadLittleEndian32(data + 4 * i);  // unrolled by the compiler

        const uint32_t sa = a;
        const uint32_t sb = b;
        const uint32_t sc = c;
        const uint32_t sd = d;

        // Round 1: shifts 7, 12, 17, 22; words in order.
        LT_MD5_F(a, b, c, d, x[0], 0xd76aa478, 7);
        LT_MD5_F(d, a, b, c, x[1], 0xe8c7b756, 12);
        LT_MD5_F(c, d, a, b, x[2], 0x242070db, 17);
        LT_MD5_F(b, c, d, a, x[3], 0xc1bdceee, 22);
        LT_MD5_F(a, b, c, d, x[4], 0xf57c0faf, 7);
        LT_MD5_F(d, a, b, c, x[5], 0x4787c62a, 12);
        LT_MD5_F(c, d, a, b, x[6], 0xa8304613, 17);
        LT_MD5_F(b, c, d, a, x[7], 0xfd469501, 22);
        LT_MD5_F(a, b, c, d, x[8], 0x698098d8, 7);
        LT_MD5_F(d, a, b, c, x[9], 0x8b44f7af, 12);
        LT_MD5_F(c, d, a, b, x[10], 0xffff5bb1, 17);
        LT_MD5_F(b, c, d, a, x[11], 0x895cd7be, 22);
        LT_MD5_F(a, b, c, d, x[12], 0x6b901122, 7);
        LT_MD5_F(d, a, b, c, x[13], 0xfd987193, 12);
        LT_MD5_F(c, d, a, b, x[14], 0xa679438e, 17);
        LT_MD5_F(b, c, d, a, x[15], 0x49b40821, 22);

        // Round 2: shifts 5, 9, 14, 20; words 1 + 5i mod 16.
        LT_MD5_G(a, b, c, d, x[1], 0xf61e2562, 5);
        LT_MD5_G(d, a, b, c, x[6], 0xc040b340, 9);
        LT_MD5_G(c, d, a, b, x[11], 0x265e5a51, 14);
        LT_MD5_G(b, c, d, a, x[0], 0xe9b6c7aa, 20);
        LT_MD5_G(a, b, c, d, x[5], 0xd62f105d, 5);
        LT_MD5_G(d, a, b, c, x[10], 0x02441453, 9);
        LT_MD5_G(c, d, a, b, x[15], 0xd8a1e681, 14);
        LT_MD5_G(b, c, d, a, x[4], 0xe7d3fbc8, 20);
        LT_MD5_G(a, b, c, d, x[9], 0x21e1cde6, 5);
        LT_MD5_G(d, a, b, c, x[14], 0xc33707d6, 9);
        LT_MD5_G(c, d, a, b, x[3], 0xf4d50d87, 14);
        LT_MD5_G(b, c, d, a, x[8], 0x455a14ed, 20);
        LT_MD5_G(a, b, c, d, x[13], 0xa9e3e905, 5);
        LT_MD5_G(d, a, b, c, x[2], 0xfcefa3f8, 9);
        LT_MD5_G(c, d, a, b, x[7], 0x676f02d9, 14);
        LT_MD5_G(b, c, d, a, x[12], 0x8d2a4c8a, 20);

        // Round 3: shifts 4, 11, 16, 23; words 5 + 3i mod 16.
        LT_MD5_H(a, b, c, d, x[5], 0xfffa3942, 4);
        LT_MD5_H(d, a, b, c, x[8], 0x8771f681, 11);
        LT_MD5_H(c, d, a, b, x[11], 0x6d9d6122, 16);
        LT_MD5_H(b, c, d, a, x[14], 0xfde5380c, 23);
        LT_MD5_H(a, b, c, d, x[1], 0xa4beea44, 4);
        LT_MD5_H(d, a, b, c, x[4], 0x4bdecfa9, 11);
        LT_MD5_H(c, d, a, b, x[7], 0xf6bb4b60, 16);
        LT_MD5_H(b, c, d, a, x[10], 0xbebfbc70, 23);
        LT_MD5_H(a, b, c, d, x[13], 0x289b7ec6, 4);
        LT_MD5_H(d, a, b, c, x[0], 0xeaa127fa, 11);
        LT_MD5_H(c, d, a, b, x[3], 0xd4ef3085, 16);
        LT_MD5_H(b, c, d, a, x[6], 0x04881d05, 23);
        LT_MD5_H(a, b, c, d, x[9], 0xd9d4d039, 4);
        LT_MD5_H(d, a, b, c, x[12], 0xe6db99e5, 11);
        LT_MD5_H(c, d, a, b, x[15], 0x1fa27cf8, 16);
        LT_MD5_H(b, c, d, a, x[2], 0xc4ac5665, 23);

        // Round 4: shifts 6, 10, 15, 21; words 7i mod 16.
        LT_MD5_I(a, b, c, d, x[0], 0xf4292244, 6);
        LT_MD5_I(d, a, b, c, x[7], 0x432aff97, 10);
        LT_MD5_I(c, d, a, b, x[14], 0xab9423a7, 15);
        LT_MD5_I(b, c, d, a, x[5], 0xfc93a039, 21);
        LT_MD5_I(a, b, c, d, x[12], 0x655b59c3, 6);
        LT_MD5_I(d, a, b, c, x[3], 0x8f0ccc92, 10);
        LT_MD5_I(c, d, a, b, x[10], 0xffeff47d, 15);
        LT_MD5_I(b, c, d, a, x[1], 0x85845dd1, 21);
        LT_MD5_I(a, b, c, d, x[8], 0x6fa87e4f, 6);
        LT_MD5_I(d, a, b, c, x[15], 0xfe2ce6e0, 10);
        LT_MD5_I(c, d, a, b, x[6], 0xa3014314, 15);
        LT_MD5_I(b, c, d, a, x[13], 0x4e0811a1, 21);
        LT_MD5_I(a, b, c, d, x[4], 0xf7537e82, 6);
        LT_MD5_I(d, a, b, c, x[11], 0xbd3af235, 10);
        LT_MD5_I(c, d, a, b, x[2], 0x2ad7d2bb, 15);
        LT_MD5_I(b, c, d, a, x[9], 0xeb86d391, 21);

        a += sa;
        b += sb;
        c += sc;
        d += sd;
    }

    abcd[0] = a;
    abcd[1] = b;
    abcd[2] = c;
    abcd[3] = d;
}

#undef LT_MD5_F
#undef LT_MD5_G
#undef LT_MD5_H
#undef LT_MD5_I

}  // namespace

extern "C" {

void lt_md5_init(lt_md5_state_t* pms)
{
    if (pms == nullptr)
        return;
    pms->count[0] = 0;
    pms->count[1] = 0;
    pms->abcd[0] = kInitA;
    pms->abcd[1] = kInitB;
    pms->abcd[2] = kInitC;
    pms->abcd[3] = kInitD;
}

void lt_md5_append(lt_md5_state_t* pms, const void* data, int nbytes)
{
    if (pms == nullptr || data == nullptr || nbytes <= 0)
        return;

    const auto* p = static_cast<const unsigned char*>(data);
    size_t left = static_cast<size_t>(nbytes);
    const size_t offset = (pms->count[0] >> 3) & (kBlockSize - 1);
    const uint32_t bits = static_cast<uint32_t>(nbytes) << 3;

    // The length in bits, with the carry into the high word.
    pms->count[1] += static_cast<uint32_t>(nbytes) >> 29;
    pms->count[0] += bits;
    if (pms->count[0] < bits)
        pms->count[1] += 1;

    // Complete a partial block first.
    if (offset != 0) {
        const size_t take = left < kBlockSize - offset ? left : kBlockSize - offset;
        std::memcpy(pms->buf + offset, p, take);
        if (offset + take < kBlockSize)
            return;
        processBlocks(pms->abcd, pms->buf, 1);
        p += take;
        left -= take;
    }

    // Whole blocks straight from the caller's data, then keep the tail.
    processBlocks(pms->abcd, p, left / kBlockSize);
    p += left & ~(kBlockSize - 1);
    left &= kBlockSize - 1;
    if (left != 0)
        std::memcpy(pms->buf, p, left);
}

void lt_md5_finish(lt_md5_state_t* pms, unsigned char digest[16])
{
    if (pms == nullptr || digest == nullptr)
        return;
    static const unsigned char kPadding[kBlockSize] = {0x80};

    unsigned char length[8];
    storeLittleEndian32(length, pms->count[0]);
    storeLittleEndian32(length + 4, pms->count[1]);

    // One 0x80 byte and zeros, so that 56 bytes of the last block are in use.
    const size_t used = (pms->count[0] >> 3) & (kBlockSize - 1);
    const size_t padding = ((kLengthOffset - 1 - used) & (kBlockSize - 1)) + 1;  // 1..64
    lt_md5_append(pms, kPadding, static_cast<int>(padding));
    lt_md5_append(pms, length, sizeof length);

    for (int i = 0; i < 4; ++i)
        storeLittleEndian32(digest + 4 * i, pms->abcd[i]);
}

}  // extern "C"

LTmd5::LTmd5(std::string text) : text(std::move(text)), digest{}
{
    lt_md5_state_t state;
    lt_md5_init(&state);
    // One append of the whole text; the engine takes an int count, so longer texts go in
    // pieces (same digest).
    const char* p = this->text.data();
    size_t left = this->text.size();
    constexpr size_t kMaxPiece = size_t{1} << 30;  // a multiple of the block size
    while (left > 0) {
        const size_t piece = left < kMaxPiece ? left : kMaxPiece;
        lt_md5_append(&state, p, static_cast<int>(piece));
        p += piece;
        left -= piece;
    }
    lt_md5_finish(&state, digest);
}

LTmd5::~LTmd5() = default;

int LTmd5::getHash(unsigned char* out, unsigned int size)
{
    if (size != kDigestSize || out == nullptr)
        return lt_internal::kBadArgument;
    std::memcpy(out, digest, kDigestSize);
    return lt_internal::kOk;
}

std::string LTmd5::toString()
{
    if (hex.empty()) {
        static const char kDigits[] = "0123456789abcdef";
        hex.resize(2 * kDigestSize);
        for (unsigned int i = 0; i < kDigestSize; ++i) {
            hex[2 * i] = kDigits[digest[i] >> 4];
            hex[2 * i + 1] = kDigits[digest[i] & 0x0f];
        }
    }
    return hex;
}
