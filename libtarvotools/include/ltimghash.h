//===- ltimghash.h - SHA-1 of an image fed in pieces ----------------------===//
///
/// \class ltimghash
/// ltimghash computes the SHA-1 digest of one byte stream through OpenSSL's message-digest
/// interface: construct, update any number of times, finalize once, then read the 20 bytes
/// with Hash(). It counts the bytes fed and remembers whether any step failed (sticky for
/// the life of the object). No messages, no exceptions: failures show only in the results.
///
/// One object serves one stream and belongs to one thread at a time.
///
//===----------------------------------------------------------------------===//
#ifndef LTIMGHASH_H
#define LTIMGHASH_H

#include <cstdint>

#include "ltexport.h"

/// OpenSSL's digest context, declared here so that callers need no OpenSSL headers.
typedef struct evp_md_ctx_st EVP_MD_CTX;

class LT_EXPORT ltimghash {
public:
    static constexpr unsigned int kDigestSize = 20;  ///< bytes of a SHA-1 digest

    /// Creates and starts a SHA-1 context. A context that cannot be made or started marks
    /// the object failed; every later call then returns false.
    ltimghash();
    /// Frees the digest context.
    ~ltimghash();

    ltimghash(const ltimghash&) = delete;             // owns its digest context
    ltimghash& operator=(const ltimghash&) = delete;

    /// Feeds length bytes. True when they were taken and no earlier step failed; a failed
    /// update (null data with a length other than 0 counts as one) marks the object failed. Updating after finalize is outside the contract (the
    /// context has been reset).
    bool update(const unsigned char* data, unsigned int length);

    /// Finishes the digest into the digest field and resets the context. True when this and
    /// every earlier step succeeded.
    bool finalize();

    /// The 20-byte digest: zero until finalize. Valid as long as the object.
    unsigned char* Hash();

    /// True once finalize was called, whether or not it succeeded.
    bool isFinalized() const { return finalized; }

    /// Total bytes taken by successful updates (wraps at 2^32).
    uint32_t getByteCount() const { return byteCount; }

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    unsigned char digest[kDigestSize];  // zero until finalize
    bool finalized;                     // finalize was called, successful or not
    bool failed;                        // some OpenSSL step failed; never cleared
    uint32_t byteCount;                 // bytes taken by successful updates
    EVP_MD_CTX* mdCtx;                  // owned; null when it could not be made
};

#endif // LTIMGHASH_H
