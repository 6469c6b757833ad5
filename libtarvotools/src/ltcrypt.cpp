//===- ltcrypt.cpp - Salted AES-256-CBC file encryption and file copy -----===//
//
// Both families (POSIX descriptors and the platform file layer) share the streaming core
// below; they differ in how they open, read, write and close, and in a few kept details of
// their order of steps, which each function spells out.
//
//===----------------------------------------------------------------------===//
#include "ltcrypt.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "csp_osal.h"
#include "fsal2_file.h"
#include "ltdebug.h"
#include "ltresult.h"

using lt_internal::kFailed;
using lt_internal::kNotFoundOrLate;
using lt_internal::kOk;

namespace {

constexpr char kMagic[] = "Salted__";       // the 8 bytes in front of the salt
constexpr int kMagicSize = 8;
static_assert(sizeof kMagic - 1 == kMagicSize, "the magic is 8 bytes without its terminator");

constexpr int kChunkSize = 4096;            // one read of input
constexpr int kKeySize = 32;                // AES-256 key; the IV buffer has the same size
constexpr mode_t kCreateMode = 0666;        // new files, less the umask
constexpr int kOutputFlags = O_RDWR | O_CREAT;  // no O_TRUNC: kept, see encryptFile

// File-layer values this library passes; their meaning belongs to the file layer. The
// encrypt and decrypt overloads use different flags: kept, existing volumes expect them.
constexpr int32_t kFsalEncryptInFlags = 0;
constexpr int32_t kFsalEncryptOutFlags = 0x42;
constexpr int32_t kFsalDecryptInFlags = 1;
constexpr int32_t kFsalDecryptOutFlags = 7;
constexpr int32_t kFsalOwner = 5;           // the fixed tag of every request from here
constexpr int64_t kFsalCurrentPosition = -1;

// How one family reads, writes and closes. Results follow read(2): < 1 ends the input.
struct PosixIo {
    static int read(int fd, void* buffer, int length)
    {
        return static_cast<int>(::read(fd, buffer, static_cast<size_t>(length)));
    }
    static int write(int fd, const void* buffer, int length)
    {
        return static_cast<int>(::write(fd, buffer, static_cast<size_t>(length)));
    }
    static void close(int fd) { (void)::close(fd); }  // nothing useful to do on failure
};

struct FileLayerIo {
    static int read(int handle, void* buffer, int length)
    {
        return fsal2FileRead(handle, buffer, length, kFsalOwner, kFsalCurrentPosition, kFsalOwner);
    }
    static int write(int handle, const void* buffer, int length)
    {
        return fsal2FileWrite(handle, buffer, length, kFsalOwner, kFsalCurrentPosition,
                              kFsalOwner);
    }
    static void close(int handle) { (void)fsal2FileClose(handle, kFsalOwner); }
};

// The cipher direction: OpenSSL's update and final calls and the error texts they raise.
struct CipherSteps {
    int (*update)(EVP_CIPHER_CTX*, unsigned char*, int*, const unsigned char*, int);
    int (*final)(EVP_CIPHER_CTX*, unsigned char*, int*);
    const char* updateError;
    const char* finalError;
};

const CipherSteps kEncryptSteps = {EVP_EncryptUpdate, EVP_EncryptFinal_ex, "encryption",
                                   "closing encryption"};
const CipherSteps kDecryptSteps = {EVP_DecryptUpdate, EVP_DecryptFinal_ex, "decryption",
                                   "closing decryption"};

// Streams the rest of in through ctx into out. Returns null, or the text of the error.
template <class Io>
const char* streamBody(EVP_CIPHER_CTX* ctx, int in, int out, const CipherSteps& steps)
{
    unsigned char input[kChunkSize];
    unsigned char output[kChunkSize + EVP_MAX_BLOCK_LENGTH];  // one update adds up to a block

    for (;;) {
        const int got = Io::read(in, input, kChunkSize);
        if (got < 1)
            break;  // end of file and read errors alike end the input: kept for compatibility
        int produced = 0;
        if (steps.update(ctx, output, &produced, input, got) < 0)
            return steps.updateError;
        if (produced >= 1 && Io::write(out, output, produced) < 0)
            return "writing";
    }

    int produced = 0;
    // Only a negative final result is an error; 0 (a wrong password, a corrupt last block)
    // ends with the final block missing: kept, existing callers rely on it.
    if (steps.final(ctx, output, &produced) < 0)
        return steps.finalError;
    if (produced >= 1 && Io::write(out, output, produced) < 0)
        return "writing";
    return nullptr;
}

// Writes "Salted__" and the salt with write(2), which both encrypt overloads use.
const char* writeHeader(int out, const unsigned char* salt)
{
    if (::write(out, kMagic, kMagicSize) < 0)
        return "writing";
    if (::write(out, salt, ltcrypt::kSaltSize) < 0)
        return "writing";
    return nullptr;
}

// Reads magic and salt and checks the magic. Buffers start zeroed so that a short read
// leaves defined bytes (short reads are not errors in themselves).
template <class Io>
const char* readHeader(int in, unsigned char* salt)
{
    unsigned char magic[kMagicSize] = {};
    if (Io::read(in, magic, kMagicSize) < 0)
        return "reading magic";
    std::memset(salt, 0, ltcrypt::kSaltSize);
    if (Io::read(in, salt, ltcrypt::kSaltSize) < 0)
        return "reading salt";
    if (std::memcmp(magic, kMagic, kMagicSize) != 0)
        return "not valid file";
    return nullptr;
}

void putLittleEndian32(unsigned char* out, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<unsigned char>(value >> (8 * i));
}

}  // namespace

ltcrypt::ltcrypt() = default;

ltcrypt::~ltcrypt() = default;

int ltcrypt::aes_init(const std::string& password, unsigned char* salt, EVP_CIPHER_CTX* ctx,
                      bool decrypt)
{
    unsigned char key[kKeySize];
    unsigned char iv[kKeySize] = {};  // zeroed before derivation; AES-CBC uses 16 bytes
    const int keySize = EVP_BytesToKey(
        EVP_aes_256_cbc(), EVP_md5(), salt, reinterpret_cast<const unsigned char*>(password.data()),
        static_cast<int>(password.size()), /*count=*/1, key, iv);
    if (keySize != kKeySize) {
        // A byte count printed under the word "bits": kept, existing output parsers rely on it.
        std::printf("Key size is %d bits - should be 256 bits\n", keySize);
        return kFailed;
    }

    (void)EVP_CIPHER_CTX_reset(ctx);
    // The init result is not checked: kept; a bad context shows in the first update. The one
    // exception: a real context that OpenSSL could not set up (it ran out of memory) would
    // crash that update, so it fails the key set-up instead.
    const int initialised = decrypt ? EVP_DecryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, key, iv)
                                    : EVP_EncryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, key, iv);
    OPENSSL_cleanse(key, sizeof key);
    OPENSSL_cleanse(iv, sizeof iv);
    if (initialised != 1 && ctx != nullptr)
        return kFailed;
    return kOk;
}

int ltcrypt::getSalt(unsigned char* salt)
{
    _cspOsalTime_struct now;
    cspOsalGetTime(&now);
    putLittleEndian32(salt, static_cast<uint32_t>(now.nsec));
    putLittleEndian32(salt + 4, static_cast<uint32_t>(now.sec));  // low 32 bits
    return kOk;
}

int ltcrypt::copyFile(const std::string& inPath, const std::string& outPath)
{
    const int in = ::open(inPath.c_str(), O_RDONLY);
    const int out = ::open(outPath.c_str(), kOutputFlags, kCreateMode);
    auto* buffer = static_cast<unsigned char*>(std::malloc(kChunkSize));

    const char* error = nullptr;
    if (in < 0)
        error = "opening infile";
    else if (out < 0)
        error = "opening outfile";
    else if (buffer == nullptr)
        error = "writing";  // nothing can be copied without the buffer
    while (error == nullptr) {
        const int got = PosixIo::read(in, buffer, kChunkSize);
        if (got < 1)
            break;  // end of file and read errors alike end the copy: kept for compatibility
        if (PosixIo::write(out, buffer, got) < 0)  // each chunk whole, in one call
            error = "writing";
    }
    if (error != nullptr)
        LT_DEBUG(kLtDebugLevelDefault, "copyFile", "Error in %s.\n", error);

    std::free(buffer);
    PosixIo::close(in);
    PosixIo::close(out);
    return error != nullptr ? kFailed : kOk;
}

int ltcrypt::encryptFile(const std::string& password, const std::string& inPath,
                         const std::string& outPath)
{
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    if (ctx == nullptr) {
        LT_DEBUG(kLtDebugLevelDefault, "encryptFile", "Couldn't allocate EVP_CIPHER_CTX.\n");
        return kFailed;
    }

    // Both opens come before either result is looked at.
    const int in = ::open(inPath.c_str(), O_RDONLY);
    const int out = ::open(outPath.c_str(), kOutputFlags, kCreateMode);
    // An open failure leaves as a thrown text, with ctx and a descriptor that did open still
    // held: kept, existing callers catch the text.
    if (in < 0)
        throw "opening infile";
    if (out < 0)
        throw "opening outfile";

    unsigned char salt[kSaltSize];
    (void)getSalt(salt);  // cannot fail
    if (aes_init(password, salt, ctx, /*decrypt=*/false) != kOk) {
        PosixIo::close(in);
        PosixIo::close(out);
        LT_DEBUG(kLtDebugLevelDefault, "encryptFile", "Couldn't initialize AES cipher.\n");
        EVP_CIPHER_CTX_free(ctx);
        return kFailed;
    }
    (void)EVP_EncryptInit_ex(ctx, nullptr, nullptr, nullptr, nullptr);  // a second, empty init

    const char* error = writeHeader(out, salt);
    if (error == nullptr)
        error = streamBody<PosixIo>(ctx, in, out, kEncryptSteps);
    if (error != nullptr)
        LT_DEBUG(kLtDebugLevelDefault, "encryptFile", "Error in %s.\n", error);

    PosixIo::close(in);
    PosixIo::close(out);
    EVP_CIPHER_CTX_free(ctx);
    return error != nullptr ? kNotFoundOrLate : kOk;
}

int ltcrypt::decryptFile(const std::string& password, const std::string& inPath,
                         const std::string& outPath)
{
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    if (ctx == nullptr) {
        LT_DEBUG(kLtDebugLevelDefault, "decryptFile", "Couldn't allocate EVP_CIPHER_CTX.\n");
        return kFailed;
    }

    const int in = ::open(inPath.c_str(), O_RDONLY);
    const int out = ::open(outPath.c_str(), kOutputFlags, kCreateMode);
    unsigned char salt[kSaltSize];
    const char* error = nullptr;
    if (in < 0)
        error = "opening infile";
    else if (out < 0)
        error = "opening outfile";
    else
        error = readHeader<PosixIo>(in, salt);

    if (error == nullptr) {
        if (aes_init(password, salt, ctx, /*decrypt=*/true) != kOk) {
            PosixIo::close(in);
            PosixIo::close(out);
            LT_DEBUG(kLtDebugLevelDefault, "decryptFile", "Couldn't initialize AES cipher.\n");
            EVP_CIPHER_CTX_free(ctx);
            return kFailed;
        }
        (void)EVP_DecryptInit_ex(ctx, nullptr, nullptr, nullptr, nullptr);
        error = streamBody<PosixIo>(ctx, in, out, kDecryptSteps);
    }
    if (error != nullptr)
        LT_DEBUG(kLtDebugLevelDefault, "decryptFile", "Error in %s.\n", error);

    PosixIo::close(in);  // also a descriptor whose open failed
    PosixIo::close(out);
    EVP_CIPHER_CTX_free(ctx);
    return error != nullptr ? kNotFoundOrLate : kOk;
}

int ltcrypt::encryptFile(const std::string& password, int inVolume, const std::string& inPath,
                         int outVolume, const std::string& outPath)
{
    // This overload used to hand a null context to OpenSSL, which cannot set up a key on it;
    // it now makes a context the way the file-layer decryptFile does.
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    if (ctx == nullptr) {
        LT_DEBUG(kLtDebugLevelDefault, "encryptFile", "Couldn't allocate EVP_CIPHER_CTX.\n");
        return kFailed;
    }

    // Opens first, then the key, and only then the open results: kept order.
    const int in = fsal2FileOpen(inVolume, inPath.c_str(), kFsalEncryptInFlags, kFsalOwner);
    const int out = fsal2FileOpen(outVolume, outPath.c_str(), kFsalEncryptOutFlags, kFsalOwner);
    unsigned char salt[kSaltSize];
    (void)getSalt(salt);  // cannot fail
    if (aes_init(password, salt, ctx, /*decrypt=*/false) != kOk) {
        // The two handles stay open: kept for compatibility.
        LT_DEBUG(kLtDebugLevelDefault, "encryptFile", "Couldn't initialize AES cipher.\n");
        EVP_CIPHER_CTX_free(ctx);
        return kFailed;
    }

    const char* error = nullptr;
    if (in < 0) {
        error = "opening infile";
    } else if (out < 0) {
        error = "opening outfile";
    } else {
        (void)EVP_EncryptInit_ex(ctx, nullptr, nullptr, nullptr, nullptr);
        // The header goes out with write(2) on the file-layer handle, the body through the
        // file layer: kept, the handle is a descriptor on every platform this runs on.
        error = writeHeader(out, salt);
        if (error == nullptr)
            error = streamBody<FileLayerIo>(ctx, in, out, kEncryptSteps);
    }
    if (error != nullptr)
        LT_DEBUG(kLtDebugLevelDefault, "encryptFile", "Error in %s.\n", error);

    FileLayerIo::close(in);
    FileLayerIo::close(out);
    EVP_CIPHER_CTX_free(ctx);
    return error != nullptr ? kNotFoundOrLate : kOk;
}

int ltcrypt::decryptFile(const std::string& password, int inVolume, const std::string& inPath,
                         int outVolume, const std::string& outPath)
{
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    if (ctx == nullptr) {
        LT_DEBUG(kLtDebugLevelDefault, "decryptFile", "Couldn't allocate EVP_CIPHER_CTX.\n");
        return kFailed;
    }

    const int in = fsal2FileOpen(inVolume, inPath.c_str(), kFsalDecryptInFlags, kFsalOwner);
    const int out = fsal2FileOpen(outVolume, outPath.c_str(), kFsalDecryptOutFlags, kFsalOwner);
    unsigned char salt[kSaltSize];
    const char* error = nullptr;
    if (in < 0)
        error = "opening infile";
    else if (out < 0)
        error = "opening outfile";
    else
        error = readHeader<FileLayerIo>(in, salt);

    if (error == nullptr) {
        if (aes_init(password, salt, ctx, /*decrypt=*/true) != kOk) {
            // The two handles stay open: kept for compatibility.
            LT_DEBUG(kLtDebugLevelDefault, "decryptFile", "Couldn't initialize AES cipher.\n");
            EVP_CIPHER_CTX_free(ctx);
            return kFailed;
        }
        (void)EVP_DecryptInit_ex(ctx, nullptr, nullptr, nullptr, nullptr);
        error = streamBody<FileLayerIo>(ctx, in, out, kDecryptSteps);
    }
    if (error != nullptr)
        LT_DEBUG(kLtDebugLevelDefault, "decryptFile", "Error in %s.\n", error);

    FileLayerIo::close(in);
    FileLayerIo::close(out);
    EVP_CIPHER_CTX_free(ctx);
    return error != nullptr ? kNotFoundOrLate : kOk;
}
