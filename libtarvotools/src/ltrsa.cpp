//===- ltrsa.cpp - Key-file loading and raw RSA public operations ---------===//
#include "ltrsa.h"

#include <cstdio>

#include <openssl/bn.h>
#include <openssl/rsa.h>

#include "ltdebug.h"

// The exported object of the constant; its value is in the class.
const int ltrsa::LTSIGNATURE_SIZE;

namespace {

constexpr const char* kDevelopKey = "/usr/local/configuration/keys/develop.key";
constexpr const char* kProductionKey = "/usr/local/configuration/keys/production.key";
constexpr const char* kAutoexecKey = "/usr/local/configuration/keys/autoexec.key";

constexpr int kModeDevelop = 0;
constexpr int kModeAutoexec = 3;

constexpr int kLineSize = 768;   // longer lines are read, and parsed, in pieces
constexpr int kValueSize = 550;  // the most digits one value may have ("%550s")

// Which names a file has shown.
constexpr unsigned kSeenN = 1;
constexpr unsigned kSeenE = 2;

const char* keyPath(int mode)
{
    switch (mode) {
    case kModeDevelop:
        return kDevelopKey;
    case kModeAutoexec:
        return kAutoexecKey;
    default:
        return kProductionKey;  // mode 1 and every unknown mode
    }
}

}  // namespace

ltrsa::ltrsa(int mode) : key(nullptr), keyInvalid(false)
{
    const char* path = keyPath(mode);
    key = RSA_new();

    FILE* file = std::fopen(path, "r");
    if (file == nullptr) {
        LT_DEBUG(kLtDebugLevelDefault, "ltrsa", "Failed to open RSA key file %s\n", path);
        // "aborting", yet the process goes on with an unusable object: kept wording.
        std::fprintf(stderr, "Error: Failed to open RSA key file '%s' - aborting\n", path);
        keyInvalid = true;
        return;
    }

    unsigned seen = 0;
    char line[kLineSize];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        char name = 0;
        char value[kValueSize + 1];
        static_assert(kValueSize == 550, "the width in the format below");
        if (std::sscanf(line, "%c : %550s", &name, value) != 2)
            continue;
        if (name != 'N' && name != 'E')
            continue;
        // Two fresh zero numbers on every accepted line, so only the last line's number
        // survives: kept for compatibility (see the header).
        BIGNUM* n = BN_new();
        BIGNUM* e = BN_new();
        if (key != nullptr && n != nullptr && e != nullptr &&
            RSA_set0_key(key, n, e, nullptr) == 1) {
            BIGNUM* target = name == 'N' ? n : e;  // now owned by the key
            (void)BN_hex2bn(&target, value);       // a bad value leaves the number zero
            seen |= name == 'N' ? kSeenN : kSeenE;
        } else {
            // Out of memory: the key did not get this line's numbers, so the line counts as
            // missing (a key without numbers would crash the first operation).
            BN_free(n);
            BN_free(e);
        }
    }
    (void)std::fclose(file);  // read-only: nothing to lose

    if (seen != (kSeenN | kSeenE)) {
        LT_DEBUG(kLtDebugLevelDefault, "ltrsa",
                 "Public key file did not contain all necessary key fields\n");
        keyInvalid = true;
    }
}

bool ltrsa::decryptSignature(const unsigned char* from, unsigned char* to)
{
    return applyPublicKey(RSA_public_decrypt, "decryptSignature", from, to);
}

bool ltrsa::encryptSignature(const unsigned char* from, unsigned char* to)
{
    return applyPublicKey(RSA_public_encrypt, "encryptSignature", from, to);
}

// One raw public-key operation on a LTSIGNATURE_SIZE block, reported under 'name'.
bool ltrsa::applyPublicKey(int (*op)(int, const unsigned char*, unsigned char*, RSA*, int),
                           const char* name, const unsigned char* from, unsigned char* to)
{
    if (keyInvalid || key == nullptr) {  // no key object at all counts as invalid too
        // "intialized", spelled so: kept, log filters match the text.
        LT_DEBUG(kLtDebugLevelDefault, name, "Public key not properly intialized\n");
        return false;
    }
    if (from == nullptr || to == nullptr)
        return false;  // no block to work on: a failed operation
    return op(LTSIGNATURE_SIZE, from, to, key, RSA_NO_PADDING) == LTSIGNATURE_SIZE;
}
