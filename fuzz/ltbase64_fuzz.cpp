//===- ltbase64_fuzz.cpp - Both base64 decoders, and the encoder ----------===//
//
// The input is used twice:
//   - as text for both decoders: the own decoder must give 3 bytes per 4 leading alphabet
//     characters plus (tail - 1) for a tail of 2 or 3, and, when those characters fit one
//     line of OpenSSL's form (64 or fewer), the same bytes as OpenSSL's decoder given them
//     padded with '=' and a newline; OpenSSL's decoder on the raw text must not go wrong;
//   - as bytes to encode: the text must be in OpenSSL's line form (64 characters and a
//     newline per line) and decode back to the bytes with OpenSSL's decoder; the own
//     decoder reads the first line only, so it must give back the first 48 bytes.
//
//===----------------------------------------------------------------------===//
#include "ltbase64.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_check.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr size_t kLineChars = 64;  // OpenSSL's line length
constexpr size_t kLineBytes = 48;  // bytes that one line holds

bool inAlphabet(unsigned char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
}

// OpenSSL's decoder through the pointer form; the buffer is the caller's whatever happens.
Bytes openSslDecode(const std::string& text, int* result)
{
    unsigned char* out = nullptr;
    *result = ltBase64().decode(text.data(), static_cast<unsigned int>(text.size()), &out);
    FUZZ_CHECK(out != nullptr);
    Bytes bytes;
    if (*result > 0) {
        FUZZ_CHECK(static_cast<size_t>(*result) <= text.size());
        bytes.assign(out, out + *result);
    }
    delete[] out;
    return bytes;
}

void decodeText(const std::string& text)
{
    Bytes own;
    ltBase64().decode(text, own);
    size_t k = 0;
    while (k < text.size() && inAlphabet(static_cast<unsigned char>(text[k])))
        ++k;
    FUZZ_CHECK(own.size() == k / 4 * 3 + (k % 4 > 1 ? k % 4 - 1 : 0));

    if (!text.empty()) {
        int result = 0;
        (void)openSslDecode(text, &result);
    }

    if (k == 0 || k > kLineChars || k % 4 == 1)
        return;  // not one valid line
    std::string line = text.substr(0, k);
    line.append((4 - k % 4) % 4, '=');
    line += '\n';
    int result = 0;
    const Bytes theirs = openSslDecode(line, &result);
    FUZZ_CHECK(result == static_cast<int>(own.size()));
    FUZZ_CHECK(theirs == own);
}

void encodeBytes(const Bytes& data)
{
    char* text = nullptr;
    const int length = ltBase64().encode(data.data(), static_cast<unsigned int>(data.size()), &text);
    FUZZ_CHECK(length > 0 && text != nullptr);
    const std::string encoded(text, static_cast<size_t>(length));
    FUZZ_CHECK(std::strlen(text) == encoded.size());
    delete[] text;

    const size_t chars = (data.size() + 2) / 3 * 4;
    const size_t lines = (chars + kLineChars - 1) / kLineChars;
    FUZZ_CHECK(encoded.size() == chars + lines);
    for (size_t at = 0; at < encoded.size(); at += kLineChars + 1) {
        const size_t newline = encoded.find('\n', at);
        FUZZ_CHECK(newline != std::string::npos);
        FUZZ_CHECK(newline - at == std::min(kLineChars, chars - at / (kLineChars + 1) * kLineChars));
    }

    int result = 0;
    FUZZ_CHECK(openSslDecode(encoded, &result) == data);
    Bytes own;
    ltBase64().decode(encoded, own);
    FUZZ_CHECK(own == Bytes(data.begin(), data.begin() + std::min(data.size(), kLineBytes)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    decodeText(std::string(reinterpret_cast<const char*>(data), size));
    if (size == 0) {
        char* text = nullptr;
        unsigned char* out = nullptr;
        FUZZ_CHECK(ltBase64().encode(data, 0, &text) == -22 && text == nullptr);
        FUZZ_CHECK(ltBase64().decode("", 0, &out) == -22 && out == nullptr);
        return 0;
    }
    encodeBytes(Bytes(data, data + size));
    return 0;
}
