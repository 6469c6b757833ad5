//===- ltbase64_test.cpp - Both base64 routes against openssl base64 ------===//
#include "ltbase64.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "crypto_test_support.h"

using namespace crypto_test;

namespace {

class Base64Interop : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!haveOpenssl())
            GTEST_SKIP() << "the openssl command-line tool is not installed";
    }
    // openssl's text for data: line-broken, or on one line.
    std::string opensslEncode(const Bytes& data, bool oneLine)
    {
        writeFile(dir.file("data"), data);
        std::string text;
        EXPECT_EQ(0, runCommand("openssl base64 " + std::string(oneLine ? "-A " : "") + "-in " +
                                    dir.file("data") + " 2>/dev/null",
                                &text));
        return text;
    }
    TempDir dir;
};

const size_t kSizes[] = {1, 2, 3, 4, 47, 48, 49, 95, 96, 97, 1000, 100000};

// Both pointer routes against openssl's line-broken text, across the 48-byte line boundary.
TEST_F(Base64Interop, PointerRoutesMatchOpensslsLineBrokenText)
{
    for (size_t size : kSizes) {
        SCOPED_TRACE(size);
        const Bytes data = randomBytes(size, static_cast<uint32_t>(size));
        const std::string expected = opensslEncode(data, /*oneLine=*/false);
        char* text = nullptr;
        const int length = ltBase64().encode(data.data(), static_cast<unsigned int>(size), &text);
        std::unique_ptr<char[]> ownedText(text);
        ASSERT_EQ(static_cast<int>(expected.size()), length);
        EXPECT_EQ(expected, std::string(text, static_cast<size_t>(length)));
        EXPECT_EQ('\0', text[length]);

        unsigned char* out = nullptr;
        const int got = ltBase64().decode(expected.data(), static_cast<unsigned int>(expected.size()), &out);
        std::unique_ptr<unsigned char[]> ownedOut(out);
        ASSERT_EQ(static_cast<int>(size), got);
        EXPECT_TRUE(Bytes(out, out + got) == data);
        // The rest of the buffer, as long as the text, stays zero.
        EXPECT_TRUE(Bytes(out + got, out + expected.size()) == Bytes(expected.size() - size, 0));
    }
}

// The own decoder: every prefix of a single-line text decodes to the matching prefix of the
// data (whole quartets give 3 bytes, a tail of 2 or 3 characters 1 or 2, a lone one none).
TEST_F(Base64Interop, VectorDecodeReadsEveryPrefixOfOpensslsSingleLine)
{
    for (size_t size : {size_t{0}, size_t{1}, size_t{2}, size_t{3}, size_t{50}, size_t{301}}) {
        SCOPED_TRACE(size);
        const Bytes data = randomBytes(size, static_cast<uint32_t>(size) + 2);
        std::string text = size == 0 ? "" : opensslEncode(data, /*oneLine=*/true);
        while (!text.empty() && (text.back() == '\n' || text.back() == '='))
            text.pop_back();

        std::vector<unsigned char> out;
        for (size_t k = 0; k <= text.size(); ++k) {
            ltBase64().decode(text.substr(0, k), out);
            const size_t expected = k / 4 * 3 + (k % 4 > 1 ? k % 4 - 1 : 0);
            ASSERT_EQ(expected, out.size()) << "prefix " << k;
            ASSERT_TRUE(std::equal(out.begin(), out.end(), data.begin())) << "prefix " << k;
        }
        ltBase64().decode(text, out);
        EXPECT_TRUE(out == data);
    }
}

TEST(Base64VectorDecode, StopsAtPaddingWhitespaceAndStrangers)
{
    auto decoded = [](const std::string& text) {
        std::vector<unsigned char> out = {'o', 'l', 'd'};  // replaced, never appended to
        ltBase64().decode(text, out);
        return std::string(out.begin(), out.end());
    };
    EXPECT_EQ("abc", decoded("YWJj"));
    EXPECT_EQ("ab", decoded("YWI="));
    EXPECT_EQ("a", decoded("YQ"));
    EXPECT_EQ("a", decoded("YQ=="));
    EXPECT_EQ("a", decoded("YW Jj"));        // a blank ends it, leaving the tail "YW"
    EXPECT_EQ("abc", decoded("YWJj\nYWJj"));  // so does a line break
    EXPECT_EQ("abc", decoded("YWJj-YWJj"));   // and a character of another alphabet
    EXPECT_EQ("ab", decoded("YWI=YWJj"));     // nothing after padding counts
    EXPECT_EQ("", decoded("Y"));
    EXPECT_EQ("", decoded(""));
    EXPECT_EQ("", decoded("=YWJj"));
    EXPECT_EQ(std::string("\xfb\xff\xbf", 3), decoded("+/+/"));
}

// Text the filter cannot read decodes to nothing, and the zeroed buffer is still the caller's.
// (Null and empty arguments: see badinput_test.cpp.)
TEST(Base64PointerDecode, UnreadableTextHandsOverAZeroedBuffer)
{
    unsigned char* out = nullptr;
    EXPECT_LE(ltBase64().decode("!!!!", 4, &out), 0);
    std::unique_ptr<unsigned char[]> owned(out);
    ASSERT_NE(nullptr, out);
    EXPECT_TRUE(Bytes(out, out + 4) == Bytes(4, 0));
}

}  // namespace
