//===- ltcrypt_test.cpp - Salted AES files against openssl enc, and failures -===//
#include "ltcrypt.h"

#include <algorithm>

#include "crypto_test_support.h"
#include "csp_osal.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

using namespace crypto_test;

namespace {

// These tests read the debug output, which is read as quiet or not once per process.
[[maybe_unused]] const bool kDebugOutputOn = setenv("CSP_DEBUG_QUIET", "0", 1) == 0;

constexpr int kVolume = 0;  // the stand-in file layer's one volume
const std::string kPassword = "correct horse \"battery\" $HOME 'staple'";

using FileCall = std::function<int(const std::string& password, const std::string& in, const std::string& out)>;
struct Family { const char* name; FileCall encrypt, decrypt; };  // descriptor or file-layer calls

ltcrypt crypto;
const Family kFamilies[] = {
    {"descriptors", [](auto& pw, auto& in, auto& out) { return crypto.encryptFile(pw, in, out); },
     [](auto& pw, auto& in, auto& out) { return crypto.decryptFile(pw, in, out); }},
    {"file layer", [](auto& pw, auto& in, auto& out) { return crypto.encryptFile(pw, kVolume, in, kVolume, out); },
     [](auto& pw, auto& in, auto& out) { return crypto.decryptFile(pw, kVolume, in, kVolume, out); }},
};

size_t encryptedSize(size_t plainSize) { return 16 + (plainSize / 16 + 1) * 16; }  // PKCS#7 adds 1..16

class SaltedFiles : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!haveOpenssl())
            GTEST_SKIP() << "the openssl command-line tool is not installed";
        writeFile(path("pass"), kPassword);
    }
    std::string path(const std::string& name) const { return dir.file(name); }
    bool openssl(const std::string& args) { return !runCommand("openssl enc -aes-256-cbc -md md5 -pass file:" + path("pass") + " " + args + " 2>/dev/null"); }
    void fresh(const std::string& name) { (void)unlink(path(name).c_str()); }  // start empty
    TempDir dir;
};

TEST_F(SaltedFiles, OpensslAgreesBothWaysAtEveryChunkBoundary)
{
    for (size_t size : {0, 1, 15, 16, 4095, 4096, 4097, 3 * 1024 * 1024 + 7}) {
        const Bytes plain = randomBytes(size, static_cast<uint32_t>(size));
        writeFile(path("plain"), plain);
        for (const Family& family : kFamilies) {
            SCOPED_TRACE(std::string(family.name) + ", " + std::to_string(size) + " bytes");
            fresh("ours");
            ASSERT_EQ(0, family.encrypt(kPassword, path("plain"), path("ours")));
            ASSERT_EQ(encryptedSize(size), readFile(path("ours")).size());
            ASSERT_TRUE(openssl("-d -in " + path("ours") + " -out " + path("back")));
            EXPECT_TRUE(readFile(path("back")) == plain);

            ASSERT_TRUE(openssl("-salt -in " + path("plain") + " -out " + path("theirs")));
            fresh("back");
            ASSERT_EQ(0, family.decrypt(kPassword, path("theirs"), path("back")));
            EXPECT_TRUE(readFile(path("back")) == plain);
        }
        fresh("copy");
        ASSERT_EQ(0, crypto.copyFile(path("plain"), path("copy")));
        EXPECT_TRUE(readFile(path("copy")) == plain);
    }
}

// The salt is the clock reading: nanoseconds and the low word of the seconds, little-endian.
TEST_F(SaltedFiles, SaltIsTheClockReading)
{
    auto word = [](const unsigned char* p) { return uint64_t{p[0]} | uint64_t{p[1]} << 8 | uint64_t{p[2]} << 16 | uint64_t{p[3]} << 24; };
    auto stamp = [](const cspOsalTime_t& t) { return uint64_t{uint32_t(t.sec)} * 1000000000u + uint32_t(t.nsec); };
    writeFile(path("plain"), std::string("some text"));
    for (int i = 0; i < 3; ++i) {  // getSalt, then each family's encryptFile
        cspOsalTime_t before, after;
        unsigned char salt[ltcrypt::kSaltSize] = {};
        cspOsalGetTime(&before);
        if (i == 0)
            EXPECT_EQ(0, crypto.getSalt(salt));
        else if (kFamilies[i - 1].encrypt(kPassword, path("plain"), path("enc")) == 0)
            std::memcpy(salt, &readFile(path("enc")).at(8), sizeof salt);
        cspOsalGetTime(&after);
        const uint64_t at = word(salt + 4) * 1000000000u + word(salt);
        EXPECT_TRUE(stamp(before) <= at && at <= stamp(after)) << i;
    }
}

// Outputs are not truncated: a longer one keeps its tail. A read error (a directory) ends the input.
TEST_F(SaltedFiles, LongerExistingOutputKeepsItsTailAndUnreadableInputIsEmpty)
{
    const Bytes old(10000, 'Z');
    const Bytes plain = randomBytes(100, 7);
    writeFile(path("plain"), plain);
    Bytes plainThenOld = plain;
    plainThenOld.insert(plainThenOld.end(), old.begin() + plain.size(), old.end());

    for (const Family& family : kFamilies) {
        SCOPED_TRACE(family.name);
        writeFile(path("enc"), old);
        ASSERT_EQ(0, family.encrypt(kPassword, path("plain"), path("enc")));
        Bytes encrypted = readFile(path("enc"));
        const size_t written = encryptedSize(plain.size());
        ASSERT_EQ(old.size(), encrypted.size());
        EXPECT_TRUE(std::equal(encrypted.begin() + written, encrypted.end(), &old[written]));
        encrypted.resize(written);
        writeFile(path("enc"), encrypted);

        writeFile(path("back"), old);
        ASSERT_EQ(0, family.decrypt(kPassword, path("enc"), path("back")));
        EXPECT_TRUE(readFile(path("back")) == plainThenOld);

        fresh("enc");
        ASSERT_EQ(0, family.encrypt(kPassword, dir.path(), path("enc")));
        ASSERT_TRUE(openssl("-d -in " + path("enc") + " -out " + path("empty")));
        EXPECT_TRUE(readFile(path("empty")).empty());
    }
    writeFile(path("copy"), old);
    ASSERT_EQ(0, crypto.copyFile(path("plain"), path("copy")));
    EXPECT_TRUE(readFile(path("copy")) == plainThenOld);
    EXPECT_EQ(0, crypto.copyFile(dir.path(), path("copy")));
    EXPECT_TRUE(readFile(path("copy")) == plainThenOld);  // opened, nothing written
}

// A last block that does not decrypt is left out silently. So is a file cut after its magic:
// a short salt reads as zero-padded, a cut body gives a prefix of the plain text.
TEST_F(SaltedFiles, UndecryptableOrCutFinalBlockIsDroppedSilently)
{
    const Bytes plain = randomBytes(5000, 11);
    writeFile(path("plain"), plain);
    // Given a salt, openssl writes the bare body; a fixed one makes the wrong password's last block invalid.
    ASSERT_TRUE(openssl("-S 0011223344556677 -in " + path("plain") + " -out " + path("body")));
    Bytes encrypted = {'S', 'a', 'l', 't', 'e', 'd', '_', '_', 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
    const Bytes body = readFile(path("body"));
    encrypted.insert(encrypted.end(), body.begin(), body.end());
    writeFile(path("enc"), encrypted);

    for (const Family& family : kFamilies) {
        SCOPED_TRACE(family.name);
        fresh("back");
        EXPECT_EQ(0, family.decrypt("not the password", path("enc"), path("back")));
        EXPECT_EQ(body.size() - 16, readFile(path("back")).size());  // every block but the last, as garbage

        for (size_t cut : {0u, 7u, 8u, 12u, 16u, 40u, 2000u, 5000u}) {
            writeFile(path("cut"), Bytes(encrypted.begin(), encrypted.begin() + static_cast<long>(cut)));
            fresh("back");
            EXPECT_EQ(cut < 8 ? -2 : 0, family.decrypt(kPassword, path("cut"), path("back"))) << cut;
            const Bytes got = readFile(path("back"));
            EXPECT_TRUE(got.size() <= plain.size() && std::equal(got.begin(), got.end(), plain.begin())) << cut;
            const size_t body = cut < 16 ? 0 : cut - 16;  // a last whole block is held back
            EXPECT_EQ(body % 16 == 0 ? std::max<size_t>(body, 16) - 16 : body / 16 * 16, got.size()) << cut;
        }
    }
}

TEST_F(SaltedFiles, FailuresReturnTheirCodeAndLogTheStep)
{
    writeFile(path("short"), std::string("Salt"));
    writeFile(path("foreign"), randomBytes(64, 5));
    writeFile(path("plain"), randomBytes(5000, 6));
    ASSERT_TRUE(openssl("-salt -in " + path("plain") + " -out " + path("good")));
    const std::string missing = path("missing"), nowhere = path("no/such/dir");

    struct Case { const char* func; FileCall call; std::string in, out; int code; const char* text; };
    const FileCall copy = [](auto&, auto& in, auto& out) { return crypto.copyFile(in, out); };
    const FileCall otherVolume = [](auto& pw, auto& in, auto& out) { return crypto.decryptFile(pw, -1, in, 12345, out); };
    std::vector<Case> cases = {  // the descriptor encrypt's open failures throw: see the end
        {"encryptFile", kFamilies[0].encrypt, path("plain"), "/dev/full", -2, "writing"},
        {"encryptFile", kFamilies[1].encrypt, missing, path("out"), -2, "opening infile"},
        {"encryptFile", kFamilies[1].encrypt, path("plain"), nowhere, -2, "opening outfile"},
        {"encryptFile", kFamilies[1].encrypt, path("plain"), "/dev/full", -2, "writing"},
        {"decryptFile", otherVolume, missing, path("out"), -2, "opening infile"},
        {"copyFile", copy, missing, path("out"), -1, "opening infile"}, {"copyFile", copy, path("plain"), nowhere, -1, "opening outfile"},
        {"copyFile", copy, path("plain"), "/dev/full", -1, "writing"},
    };
    for (const Family& f : kFamilies)
        cases.insert(cases.end(), {{"decryptFile", f.decrypt, missing, path("out"), -2, "opening infile"},
            {"decryptFile", f.decrypt, path("good"), nowhere, -2, "opening outfile"}, {"decryptFile", f.decrypt, dir.path(), path("out"), -2, "reading magic"},
            {"decryptFile", f.decrypt, path("short"), path("out"), -2, "not valid file"}, {"decryptFile", f.decrypt, path("foreign"), path("out"), -2, "not valid file"},
            {"decryptFile", f.decrypt, path("good"), "/dev/full", -2, "writing"}});

    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.func) + ": " + c.text + " (" + c.in + " -> " + c.out + ")");
        fresh("out");
        testing::internal::CaptureStderr();
        EXPECT_EQ(c.code, c.call(kPassword, c.in, c.out));
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(hasDebugLine(log, "ltcrypt.cpp", c.func, std::string("Error in ") + c.text + ".\n")) << log;
        if (std::string(c.text) == "not valid file") {  // the output was made before the check
            EXPECT_TRUE(access(c.out.c_str(), F_OK) == 0 && readFile(c.out).empty());
        }
    }

    // The descriptor encryptFile lets a failed open escape as a const char* text.
    auto thrownText = [&](const std::string& in, const std::string& out) -> std::string {
#if defined(__SANITIZE_ADDRESS__)
        __lsan::ScopedDisabler leakIsKept;  // context and the other descriptor stay held
#endif
        try { (void)crypto.encryptFile(kPassword, in, out); } catch (const char* text) { return text; }
        return "(nothing thrown)";
    };
    fresh("out");
    EXPECT_EQ("opening infile", thrownText(missing, path("out")));
    EXPECT_EQ(0, access(path("out").c_str(), F_OK));  // opened before the check
    EXPECT_EQ("opening outfile", thrownText(path("plain"), nowhere));
}

// Every call closes what it opened, also when its key set-up fails (no FIPS provider serves MD5).
TEST_F(SaltedFiles, CallsCloseTheirDescriptors)
{
    writeFile(path("plain"), randomBytes(100, 3));
    ASSERT_EQ(0, crypto.encryptFile(kPassword, path("plain"), path("enc")));
    const long held = openDescriptors();
    for (const Family& family : kFamilies) {
        EXPECT_EQ(0, family.encrypt(kPassword, path("plain"), path(family.name)));
        EXPECT_EQ(0, family.decrypt(kPassword, path("enc"), path("back")));
        EXPECT_EQ(held, openDescriptors()) << family.name;
    }
    EXPECT_EQ(0, crypto.copyFile(path("plain"), path("copy")));
    EXPECT_EQ(held, openDescriptors()) << "copyFile";

    ASSERT_EQ(1, EVP_set_default_properties(nullptr, "fips=yes"));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int results = crypto.encryptFile(kPassword, path("plain"), path("enc2")) * 10 + crypto.decryptFile(kPassword, path("enc"), path("back"));
    const std::string printed = testing::internal::GetCapturedStdout();
    const std::string log = testing::internal::GetCapturedStderr();
    ASSERT_EQ(1, EVP_set_default_properties(nullptr, ""));
    EXPECT_EQ(-11, results);
    EXPECT_EQ(held, openDescriptors());
    EXPECT_EQ(0u, printed.find("Key size is ")) << printed;
    EXPECT_TRUE(hasDebugLine(log, "ltcrypt.cpp", "decryptFile", "Couldn't initialize AES cipher.\n")) << log;
}

}  // namespace
