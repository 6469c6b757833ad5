//===- ltbase64.cpp - Base64 through OpenSSL's filter, and the own decoder -===//
#include "ltbase64.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <new>

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/evp.h>

#include "ltresult.h"

using lt_internal::kBadArgument;
using lt_internal::kNoMemory;

namespace {

// A character's value is its position here.
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
static_assert(sizeof kAlphabet - 1 == 64, "64 characters");

// "=", whitespace and every other character end decoding (whitespace too: kept, callers
// pass single lines and rely on the cut).
constexpr uint8_t kStop = 0xff;

struct DecodeTable {
    uint8_t value[256];
};

constexpr DecodeTable makeDecodeTable()
{
    DecodeTable t{};
    for (int c = 0; c < 256; ++c)
        t.value[c] = kStop;
    for (int i = 0; i < 64; ++i)
        t.value[static_cast<unsigned char>(kAlphabet[i])] = static_cast<uint8_t>(i);
    return t;
}

constexpr DecodeTable kDecode = makeDecodeTable();

// The three bytes of one quartet of character values, each modulo 256.
inline void emitQuartet(const uint8_t c[4], unsigned char out[3])
{
    out[0] = static_cast<unsigned char>((c[0] << 2) + ((c[1] >> 4) & 3));
    out[1] = static_cast<unsigned char>(((c[1] & 15) << 4) + ((c[2] >> 2) & 15));
    out[2] = static_cast<unsigned char>(((c[2] & 3) << 6) + c[3]);
}

// A base64 filter pushed onto a memory BIO; null when OpenSSL cannot make either.
BIO* makeBase64Chain(BIO* mem)
{
    BIO* b64 = BIO_new(BIO_f_base64());
    if (b64 == nullptr || mem == nullptr) {
        BIO_free(b64);
        BIO_free(mem);
        return nullptr;
    }
    return BIO_push(b64, mem);  // no flags: OpenSSL's line-broken form
}

}  // namespace

int ltBase64::encode(const unsigned char* data, unsigned int length, char** out)
{
    if (data == nullptr || length == 0 || length > static_cast<unsigned int>(INT_MAX))
        return kBadArgument;

    BIO* mem = BIO_new(BIO_s_mem());
    BIO* chain = makeBase64Chain(mem);
    if (chain == nullptr)
        return kNoMemory;

    int result = kNoMemory;
    BUF_MEM* written = nullptr;
    if (BIO_write(chain, data, static_cast<int>(length)) == static_cast<int>(length) &&
        BIO_flush(chain) == 1 && BIO_get_mem_ptr(mem, &written) == 1 && written != nullptr) {
        if (written->length > static_cast<size_t>(INT_MAX)) {
            result = kBadArgument;  // the text would not fit the result
        } else if (char* text = new (std::nothrow) char[written->length + 1]) {
            std::memcpy(text, written->data, written->length);
            text[written->length] = '\0';
            *out = text;
            result = static_cast<int>(written->length);
        }
    }
    BIO_free_all(chain);
    return result;
}

int ltBase64::decode(const char* text, unsigned int length, unsigned char** out)
{
    if (text == nullptr || length == 0 || length > static_cast<unsigned int>(INT_MAX))
        return kBadArgument;

    auto* buffer = new (std::nothrow) unsigned char[length];  // the text is always longer
    if (buffer == nullptr)
        return kNoMemory;
    std::memset(buffer, 0, length);
    *out = buffer;  // the caller's from here on, whatever follows

    BIO* chain = makeBase64Chain(BIO_new_mem_buf(text, static_cast<int>(length)));
    if (chain == nullptr)
        return kNoMemory;
    const int got = BIO_read(chain, buffer, static_cast<int>(length));
    BIO_free_all(chain);
    return got;
}

void ltBase64::decode(const std::string& text, std::vector<unsigned char>& out)
{
    const size_t length = text.size();
    const size_t tailRoom = length % 4 > 1 ? length % 4 - 1 : 0;
    out.clear();
    try {
        out.resize(length / 4 * 3 + tailRoom);  // the most the text can give; cut to size below
    } catch (const std::bad_alloc&) {
        return;  // no room for the bytes: out stays empty, as for text that decodes to nothing
    }

    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const unsigned char* const end = p + length;
    unsigned char* o = out.data();

    // Whole quartets until one holds a stop character.
    for (; end - p >= 4; p += 4, o += 3) {
        const uint8_t c[4] = {kDecode.value[p[0]], kDecode.value[p[1]], kDecode.value[p[2]],
                              kDecode.value[p[3]]};
        if (((c[0] | c[1] | c[2] | c[3]) & 0x80) != 0)
            break;  // only kStop has the high bit
        emitQuartet(c, o);
    }

    // The characters before the stop, or the last one to three: filled up with zero values,
    // only the first (tail - 1) bytes are whole. A single leftover character gives nothing.
    uint8_t c[4] = {0, 0, 0, 0};
    size_t tail = 0;
    while (tail < 3 && p + tail < end && kDecode.value[p[tail]] != kStop) {
        c[tail] = kDecode.value[p[tail]];
        ++tail;
    }
    if (tail > 1) {
        unsigned char bytes[3];
        emitQuartet(c, bytes);
        std::memcpy(o, bytes, tail - 1);
        o += tail - 1;
    }
    out.resize(static_cast<size_t>(o - out.data()));
}
