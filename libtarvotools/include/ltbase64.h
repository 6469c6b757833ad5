//===- ltbase64.h - Base64 text to and from bytes -------------------------===//
///
/// \class ltBase64
/// ltBase64 converts between bytes and base64 text in the standard alphabet ("A"-"Z",
/// "a"-"z", "0"-"9", "+", "/", "=" for padding). Two routes that behave differently, both
/// kept:
///   - encode and the pointer decode go through OpenSSL's base64 filter: the text is broken
///     into lines of 64 characters, each line ending in a newline (the last one too), and
///     the decoder expects that form;
///   - the vector decode is a strict single-line decoder of its own: it stops at the first
///     "=" or at the first character outside the alphabet, whitespace and line breaks
///     included, and returns what it decoded up to there.
///
/// No state: the object is empty, and any thread may call any object's operations.
///
//===----------------------------------------------------------------------===//
#ifndef LTBASE64_H
#define LTBASE64_H

#include <string>
#include <vector>

#include "ltexport.h"

class LT_EXPORT ltBase64 {
public:
    /// Encodes length bytes into a new zero-terminated text in *out (array new; the caller
    /// releases it with delete[]). Returns the text length, newlines included, terminator
    /// excluded; -EINVAL (-22) when data is null, length is 0 or the input or the text
    /// exceeds INT_MAX, and -ENOMEM when OpenSSL or the allocation fails (out untouched in
    /// these cases).
    int encode(const unsigned char* data, unsigned int length, char** out);

    /// Decodes OpenSSL's line-broken base64 text into a new buffer of length bytes, zeroed
    /// and stored in *out before decoding (array new; the caller releases it with delete[],
    /// whatever the result). Returns the number of bytes decoded, 0 or negative when nothing
    /// could be decoded (-ENOMEM when OpenSSL cannot set up), or, with out untouched,
    /// -EINVAL (-22) when text is null, length is 0 or length exceeds INT_MAX and -ENOMEM
    /// when the buffer cannot be allocated.
    int decode(const char* text, unsigned int length, unsigned char** out);

    /// Replaces out with the bytes of single-line base64 text. Never fails: decoding stops at
    /// the first "=" or non-alphabet character (whitespace too: kept, callers pass single
    /// lines). A tail of 2 or 3 characters gives 1 or 2 bytes; a single leftover character
    /// gives nothing.
    void decode(const std::string& text, std::vector<unsigned char>& out);
};

#endif // LTBASE64_H
