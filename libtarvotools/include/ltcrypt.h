//===- ltcrypt.h - Password file encryption in the salted AES format ------===//
///
/// \class ltcrypt
/// ltcrypt encrypts and decrypts whole files with a password, in the salted file format that
/// the openssl command-line tool reads and writes:
/// ```
///   offset 0   "Salted__"   8 bytes, no terminator
///   offset 8   salt         8 bytes
///   offset 16  ciphertext   AES-256-CBC with PKCS#7 padding, a multiple of 16, at least 16
/// ```
/// Key and IV come from EVP_BytesToKey with MD5 and one iteration over password and salt, so
/// a file written here decrypts with
/// ```
///   openssl enc -d -aes-256-cbc -md md5 -pass pass:PASSWORD -in FILE -out PLAIN
/// ```
/// and a file made by "openssl enc -aes-256-cbc -md md5 -salt" decrypts here.
///
/// Two families of entry points, chosen by the overload: one on POSIX descriptors, one on the
/// platform file layer (fsal2File*). Files are streamed in 4096-byte chunks; memory use does
/// not depend on the file size. No partial output is ever removed after a failure.
///
/// The object has no state: any thread may call any operation; calls on different files may
/// run in parallel.
///
//===----------------------------------------------------------------------===//
#ifndef LTCRYPT_H
#define LTCRYPT_H

#include <string>

#include "ltexport.h"

/// OpenSSL's cipher context, declared here so that callers need no OpenSSL headers.
typedef struct evp_cipher_ctx_st EVP_CIPHER_CTX;

class LT_EXPORT ltcrypt {
public:
    /// Length of the salt; the "Salted__" magic in front of it has the same length.
    static constexpr int kSaltSize = 8;

    /// Holds nothing; construction cannot fail.
    ltcrypt();
    ~ltcrypt();

    /// Derives key and IV from password and the 8 bytes at salt, then resets ctx and sets it
    /// up for AES-256-CBC decryption (decrypt true) or encryption. Returns 0, or -1 when the
    /// derivation does not give a 32-byte key; that case prints
    /// "Key size is %d bits - should be 256 bits\n" with the byte count to standard output
    /// (bytes under the word "bits": kept, existing output parsers rely on it).
    int aes_init(const std::string& password, unsigned char* salt, EVP_CIPHER_CTX* ctx,
                 bool decrypt);

    /// Writes 8 salt bytes taken from the platform clock (cspOsalGetTime): bytes 0-3 the
    /// nanoseconds, bytes 4-7 the low 32 bits of the seconds, each little-endian. Not random:
    /// two calls in the same nanosecond give the same salt. Always returns 0.
    int getSalt(unsigned char* salt);

    /// Copies inPath to outPath byte for byte. The output is opened without truncation: a
    /// longer existing file keeps its tail. Returns 0, or -1 after "opening infile",
    /// "opening outfile" or "writing" (logged as "Error in %s.").
    int copyFile(const std::string& inPath, const std::string& outPath);

    /// Encrypts inPath into outPath on POSIX descriptors. The output is opened O_RDWR|O_CREAT
    /// without O_TRUNC: an existing longer file keeps its old bytes beyond the new length.
    /// Returns 0; -1 when no cipher context can be made or the key derivation fails; -2 after
    /// "writing", "encryption" or "closing encryption".
    /// Throws: when an open fails, the const char* text "opening infile" or "opening outfile"
    /// leaves this function, and the cipher context and a descriptor that did open are not
    /// released (kept: existing callers catch the text).
    int encryptFile(const std::string& password, const std::string& inPath,
                    const std::string& outPath);

    /// Decrypts inPath into outPath on POSIX descriptors (output opened as by encryptFile).
    /// Returns 0; -1 when no cipher context can be made or the key derivation fails; -2 after
    /// "opening infile", "opening outfile", "reading magic", "reading salt", "not valid file",
    /// "decryption", "writing" or "closing decryption".
    /// A wrong password or a corrupt last block returns 0 with the final block missing from
    /// the output: only a negative final result counts as an error (kept for compatibility).
    int decryptFile(const std::string& password, const std::string& inPath,
                    const std::string& outPath);

    /// Encrypts through the platform file layer: inVolume and outVolume go unchanged to
    /// fsal2FileOpen as the volume of the input and the output. Returns 0; -1 when no cipher
    /// context can be made or the key derivation fails (the two open handles are then not
    /// closed: kept for compatibility); -2 after "opening infile", "opening outfile",
    /// "writing", "encryption" or "closing encryption". The header is written with write(2)
    /// on the handle fsal2FileOpen returned, the body through fsal2FileWrite.
    int encryptFile(const std::string& password, int inVolume, const std::string& inPath,
                    int outVolume, const std::string& outPath);

    /// Decrypts through the platform file layer; results as for the descriptor decryptFile,
    /// except that a failed key derivation leaves both handles open (kept for compatibility).
    int decryptFile(const std::string& password, int inVolume, const std::string& inPath,
                    int outVolume, const std::string& outPath);
};

#endif // LTCRYPT_H
