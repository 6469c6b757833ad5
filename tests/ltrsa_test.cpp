//===- ltrsa_test.cpp - Key files by mode, the load order, raw RSA blocks --===//
// ltrsa reads fixed key paths: each body runs in a child with a private key folder.
#include "ltrsa.h"

#include <utility>

#include "crypto_test_support.h"

using namespace crypto_test;

namespace {

// These tests read the debug output, which is read as quiet or not once per process.
[[maybe_unused]] const bool kDebugOutputOn = setenv("CSP_DEBUG_QUIET", "0", 1) == 0;

const std::string kDevelop = kKeyDir + "/develop.key";
const std::string kProduction = kKeyDir + "/production.key";
const std::string kAutoexec = kKeyDir + "/autoexec.key";
constexpr int kBlock = ltrsa::LTSIGNATURE_SIZE;  // a 2048-bit modulus

// A fresh key's modulus in hexadecimal, or "".
std::string generateModulus(int bits)
{
    std::string out;
    const bool ok = runCommand("openssl genrsa " + std::to_string(bits) + " 2>/dev/null | openssl rsa -noout -modulus 2>/dev/null", &out) == 0;
    return ok && out.compare(0, 8, "Modulus=") == 0 ? out.substr(8, out.find_last_not_of("\r\n") - 7) : "";
}

class RsaKeyFiles : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!haveOpenssl())
            GTEST_SKIP() << "the openssl command-line tool is not installed";
        ASSERT_FALSE(modulusHex.empty());
    }
    const std::string modulusHex = generateModulus(2048);
};

// Every accepted line replaces both numbers, so a file never yields both.
TEST_F(RsaKeyFiles, LoadOrderKeepsOnlyTheLastLine)
{
    runWithPrivateKeyDir([&] {
        const Bytes ones(kBlock, 0xff);  // larger than any 2048-bit modulus
        Bytes message(kBlock, 0x22), one(kBlock, 0);  // 1: any smaller block under a zero exponent
        message[0] = 0;
        one.back() = 1;
        Bytes out(kBlock, 0xaa);

        // "N" then "E": the modulus is zero. The object is valid, yet every operation fails.
        writeFile(kDevelop, "N : " + modulusHex + "\nE : 10001\n");
        testing::internal::CaptureStderr();
        {
            ltrsa rsa(0);
            EXPECT_FALSE(rsa.decryptSignature(message.data(), out.data()));
            EXPECT_FALSE(rsa.encryptSignature(message.data(), out.data()));
        }
        EXPECT_EQ("", testing::internal::GetCapturedStderr());

        // "E" then "N": the exponent is zero, so each block below the modulus becomes 1.
        writeFile(kDevelop, "E : 10001\nN : " + modulusHex + "\n");
        ltrsa rsa(0);
        ASSERT_TRUE(rsa.decryptSignature(message.data(), out.data()));
        EXPECT_TRUE(out == one);
        out.assign(kBlock, 0xaa);
        ASSERT_TRUE(rsa.encryptSignature(message.data(), out.data()));
        EXPECT_TRUE(out == one);
        EXPECT_FALSE(rsa.encryptSignature(ones.data(), out.data()));
        EXPECT_FALSE(rsa.decryptSignature(ones.data(), out.data()));
        EXPECT_FALSE(rsa.decryptSignature(nullptr, out.data()));  // a valid key refuses null blocks
        EXPECT_FALSE(rsa.encryptSignature(message.data(), nullptr));
    });
}

// Each mode reads its own file, unknown modes the production key; a line is "%c : %550s" on
// pieces of at most 767 characters.
TEST_F(RsaKeyFiles, ModeSelectsTheKeyFileAndItsLineFormat)
{
    const int* exported = &ltrsa::LTSIGNATURE_SIZE;  // also an exported object, read through its address
    EXPECT_EQ(kBlock, *exported);
    const std::string smallModulusHex = generateModulus(1024);
    ASSERT_FALSE(smallModulusHex.empty());
    const Bytes in(kBlock, 0x11);
    const std::string usable = "E : 10001\nN : " + modulusHex + "\n";
    const std::pair<int, std::string> modes[] = {{0, kDevelop}, {1, kProduction}, {3, kAutoexec},
                                                 {2, kProduction}, {4, kProduction}, {-1, kProduction}};

    runWithPrivateKeyDir([&] {
        Bytes out(kBlock, 0);
        for (const auto& [mode, file] : modes) {  // only the expected file is usable
            for (const std::string& path : {kDevelop, kProduction, kAutoexec})
                writeFile(path, path == file ? usable : "X : 1\n");
            EXPECT_TRUE(ltrsa(mode).encryptSignature(in.data(), out.data())) << "mode " << mode;
        }
        auto usableWith = [&](const std::string& file) {
            writeFile(kAutoexec, file);
            return ltrsa(3).encryptSignature(in.data(), out.data());
        };
        EXPECT_TRUE(usableWith("E:10001\nN:" + modulusHex + "\n"));            // blanks optional
        EXPECT_TRUE(usableWith("E : 3\n# note\nN : " + modulusHex + " trailing\n"));
        EXPECT_FALSE(usableWith("E 10001\nN " + modulusHex + "\n"));          // no colon
        EXPECT_FALSE(usableWith(" E : 10001\n N : " + modulusHex + "\n"));   // name not first
        EXPECT_FALSE(usableWith("E : 10001\nN : " + smallModulusHex + "\n"));   // 128-byte key

        // Values stop at 550 digits: leading zeros push the modulus's last digits out.
        EXPECT_FALSE(usableWith("E : 10001\nN : " + std::string(100, '0') + modulusHex + "\n"));
        EXPECT_TRUE(usableWith("E : 10001\nN : " + std::string(38, '0') + modulusHex + "\n"));

        // Long lines are read in 767-character pieces, each parsed as a line.
        const std::string pad(767, '#');
        EXPECT_TRUE(usableWith("E : 10001\n" + pad + "N : " + modulusHex + "\n"));
        EXPECT_FALSE(usableWith("E : 10001\n" + pad + "#N : " + modulusHex + "\n"));
    });
}

// A missing file or name is reported at load and on every use, which leaves the output alone.
TEST(RsaInvalidKey, ReportsAtLoadAndOnEveryUse)
{
    const char* const files[] = {nullptr /* no file */, "", "N : 00c0ffee\n",
                                 "E : 10001\nE : 3\n", "n : 00c0ffee\ne : 3\n"};
    runWithPrivateKeyDir([&] {
        for (const char* text : files) {
            SCOPED_TRACE(text == nullptr ? "no file" : text);
            if (text != nullptr)
                writeFile(kDevelop, std::string(text));
            testing::internal::CaptureStderr();
            ltrsa rsa(0);
            const Bytes in(kBlock, 1);
            Bytes out(kBlock, 0xaa);
            EXPECT_FALSE(rsa.decryptSignature(in.data(), out.data()));
            EXPECT_FALSE(rsa.encryptSignature(in.data(), out.data()));
            EXPECT_TRUE(out == Bytes(kBlock, 0xaa));
            const std::string log = testing::internal::GetCapturedStderr();
            const std::string atLoad = text == nullptr ? "Failed to open RSA key file " + kDevelop + "\n"
                                                       : "Public key file did not contain all necessary key fields\n";
            EXPECT_TRUE(hasDebugLine(log, "ltrsa.cpp", "ltrsa", atLoad)) << log;
            const std::string toStderr = "Error: Failed to open RSA key file '" + kDevelop + "' - aborting\n";
            EXPECT_EQ(text == nullptr, log.find(toStderr) != std::string::npos) << log;
            for (const char* func : {"decryptSignature", "encryptSignature"})
                EXPECT_TRUE(hasDebugLine(log, "ltrsa.cpp", func, "Public key not properly intialized\n")) << log;
        }
    });
}

}  // namespace
