//===- ltimghash.cpp - SHA-1 through EVP_MD_CTX with a sticky failure flag -===//
#include "ltimghash.h"

#include <openssl/evp.h>

ltimghash::ltimghash()
    : digest{}, finalized(false), failed(false), byteCount(0), mdCtx(EVP_MD_CTX_new())
{
    if (mdCtx == nullptr) {
        failed = true;
        return;
    }
    (void)EVP_MD_CTX_reset(mdCtx);  // a fresh context: nothing to reset
    if (EVP_DigestInit_ex(mdCtx, EVP_sha1(), nullptr) != 1) {
        // A context the init left half made (out of memory) must not reach OpenSSL's update:
        // it goes now, and every later step fails as for a context never made.
        failed = true;
        EVP_MD_CTX_free(mdCtx);
        mdCtx = nullptr;
    }
}

ltimghash::~ltimghash()
{
    if (mdCtx != nullptr)
        EVP_MD_CTX_free(mdCtx);
}

unsigned char* ltimghash::Hash()
{
    return digest;
}

bool ltimghash::update(const unsigned char* data, unsigned int length)
{
    // Null data with a length would be read by OpenSSL: a failed step like any other.
    if (mdCtx == nullptr || (data == nullptr && length != 0) || EVP_DigestUpdate(mdCtx, data, length) != 1) {
        failed = true;
        return false;
    }
    byteCount += length;
    return !failed;  // an earlier failure still makes it false
}

bool ltimghash::finalize()
{
    finalized = true;
    if (mdCtx == nullptr) {
        failed = true;
        return false;
    }
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(mdCtx, digest, &length) != 1)
        failed = true;
    if (EVP_MD_CTX_reset(mdCtx) != 1) {
        failed = true;
        return false;
    }
    return !failed;
}
