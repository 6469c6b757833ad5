// tour_crypto.cpp - file encryption in the salted format, MD5, SHA-1 and base64.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

#include "ltbase64.h"
#include "ltcrypt.h"
#include "ltimghash.h"
#include "ltmd5.h"
#include "tour.h"

namespace {

std::string readAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string hexOf(const unsigned char* data, size_t size)
{
    std::string out;
    char pair[3];
    for (size_t i = 0; i < size; ++i) {
        std::snprintf(pair, sizeof pair, "%02x", data[i]);
        out += pair;
    }
    return out;
}

void encryptionRoundTrip()
{
    const char* base = std::getenv("TMPDIR");
    std::string dir = base != nullptr && *base != '\0' ? base : "/tmp";
    dir += "/lt-tour-XXXXXX";
    if (mkdtemp(&dir[0]) == nullptr) {
        std::printf("  (no temporary directory: the encryption part is left out)\n");
        return;
    }
    const std::string plain = dir + "/notes.txt";
    const std::string encrypted = dir + "/notes.enc";
    const std::string back = dir + "/notes.back";
    const std::string password = "tour password";
    const std::string text = "Channel list backup: 42 services on 7 multiplexes.\n";
    std::ofstream(plain, std::ios::binary) << text;

    ltcrypt crypt;
    int result = crypt.encryptFile(password, plain, encrypted);
    const std::string file = readAll(encrypted);
    std::printf("encryptFile(\"%s\") returned %d: %zu plain bytes became %zu bytes.\n",
                plain.c_str(), result, text.size(), file.size());
    if (file.size() >= 16) {
        std::printf("  bytes 0-7 are the magic \"%.8s\", bytes 8-15 the salt %s,\n", file.data(),
                    hexOf(reinterpret_cast<const unsigned char*>(file.data()) + 8, 8).c_str());
        std::printf("  taken from the platform clock; then AES-256-CBC blocks, PKCS#7 padded.\n");
    }
    std::printf("The openssl tool reads the same file; the equivalent commands are:\n");
    std::printf("  openssl enc -d -aes-256-cbc -md md5 -pass 'pass:%s' -in %s -out %s\n",
                password.c_str(), encrypted.c_str(), back.c_str());
    std::printf("  openssl enc -aes-256-cbc -md md5 -salt -pass 'pass:%s' -in %s -out %s\n",
                password.c_str(), plain.c_str(), encrypted.c_str());

    result = crypt.decryptFile(password, encrypted, back);
    std::printf("decryptFile returned %d; the text came back %s.\n", result,
                readAll(back) == text ? "unchanged" : "DIFFERENT");

    // Outputs are not truncated and a wrong password is not an error: both kept behaviours.
    (void)unlink(back.c_str());
    result = crypt.decryptFile("wrong password", encrypted, back);
    std::printf("With a wrong password decryptFile still returns %d and writes %zu bytes of\n"
                "  garbage: a last block whose padding does not check is dropped, no error.\n",
                result, readAll(back).size());

    for (const std::string& path : {plain, encrypted, back})
        (void)unlink(path.c_str());
    (void)rmdir(dir.c_str());
}

void digestsAndBase64()
{
    const std::string text = "The quick brown fox jumps over the lazy dog";
    std::printf("\nText: \"%s\"\n", text.c_str());

    LTmd5 md5(text);
    std::printf("  MD5 (the library's own engine):    %s\n", md5.toString().c_str());

    ltimghash sha1;  // fed in two pieces, as an image would be
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    sha1.update(bytes, 10);
    sha1.update(bytes + 10, static_cast<unsigned int>(text.size() - 10));
    if (sha1.finalize())
        std::printf("  SHA-1 (OpenSSL, %u bytes in 2 updates): %s\n", sha1.getByteCount(),
                    hexOf(sha1.Hash(), ltimghash::kDigestSize).c_str());

    char* encoded = nullptr;
    const int length = ltBase64().encode(bytes, static_cast<unsigned int>(text.size()), &encoded);
    if (length > 0) {
        // OpenSSL's form: lines of 64 characters, each ending in a newline.
        std::printf("  base64 (%d characters, newline included):\n    %s", length, encoded);
        std::vector<unsigned char> decoded;
        ltBase64().decode(std::string(encoded), decoded);
        std::printf("  The strict decoder reads it back as \"%s\",\n",
                    std::string(decoded.begin(), decoded.end()).c_str());
        ltBase64().decode("YW Jj", decoded);
        std::printf("  and stops at the first blank: \"YW Jj\" gives \"%s\".\n",
                    std::string(decoded.begin(), decoded.end()).c_str());
    }
    delete[] encoded;
}

}  // namespace

void tourCrypto()
{
    tourHeading("Crypto and encoding: salted AES files, MD5, SHA-1, base64");
    encryptionRoundTrip();
    digestsAndBase64();
    std::fflush(stdout);
}
