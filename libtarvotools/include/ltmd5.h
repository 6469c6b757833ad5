//===- ltmd5.h - MD5 digests: the incremental engine and LTmd5 ------------===//
///
/// \file
/// The library's own MD5 (RFC 1321), independent of OpenSSL, in two layers:
///   - an incremental engine with C linkage: lt_md5_init, then lt_md5_append any number of
///     times, then lt_md5_finish;
///   - LTmd5, which digests one text given at construction and hands out the 16 raw bytes
///     or 32 lowercase hexadecimal characters.
///
/// A state record or an LTmd5 object belongs to one thread at a time; different ones may be
/// used in parallel.
///
//===----------------------------------------------------------------------===//
#ifndef LTMD5_H
#define LTMD5_H

#include <stdint.h>

#include "ltexport.h"

#ifdef __cplusplus
#include <string>
extern "C" {
#endif

/** The state of one running digest. */
typedef struct lt_md5_state_s {
    uint32_t count[2];  /**< message length in bits, low word first */
    uint32_t abcd[4];   /**< the chaining values A, B, C, D */
    uint8_t buf[64];    /**< the partial block not yet processed */
} lt_md5_state_t;

/** Sets the length to 0 and A..D to their initial values. A null state is ignored. */
LT_EXPORT void lt_md5_init(lt_md5_state_t* pms);

/** Feeds nbytes bytes from data; does nothing when nbytes is 0 or negative, or when pms or
 * data is null. */
LT_EXPORT void lt_md5_append(lt_md5_state_t* pms, const void* data, int nbytes);

/** Pads, adds the length and writes A, B, C, D as 16 bytes, each word least significant
 * byte first. The state is spent afterwards: lt_md5_init it again to start over. Does
 * nothing when pms or digest is null. */
LT_EXPORT void lt_md5_finish(lt_md5_state_t* pms, unsigned char digest[16]);

#ifdef __cplusplus
}  /* extern "C" */

static_assert(sizeof(lt_md5_state_t) == 88, "applications embed the state: 2 + 4 words, 64 bytes");

/// The MD5 digest of one text, computed at construction. Single-threaded: toString fills a
/// cache.
class LT_EXPORT LTmd5 {
public:
    static constexpr unsigned int kDigestSize = 16;  ///< bytes of an MD5 digest

    /// Digests the bytes of text (a text, not a file name).
    explicit LTmd5(std::string text);
    ~LTmd5();

    /// Copies the 16 digest bytes to out. Returns 0, or -EINVAL (-22) when size is not
    /// exactly 16 or out is null, in which case out is not touched.
    int getHash(unsigned char* out, unsigned int size);

    /// The digest as 32 lowercase hexadecimal digits, two per byte in byte order. Computed
    /// on the first call and cached; later calls return a copy of the cache.
    std::string toString();

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    std::string text;                    // copy of the constructor's argument
    std::string hex;                     // empty until the first toString
    unsigned char digest[kDigestSize];  // MD5 of text
};
#endif /* __cplusplus */

#endif /* LTMD5_H */
