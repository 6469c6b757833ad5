//===- ltbase64_test.cpp - Both base64 routes against openssl base64 ------===//
#include "ltbase64.h"

#include <climits>
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
        EXPECT_EQ(0, runCommand("openssl base64 " + std::string(oneLine ? "-A " : "") + "-in " + dir.file("data") +
                                    " 2>/dev/null", &text));
        return text;
    }
    TempDir dir;
};

// Both pointer routes against openssl's line-broken text, across the 48-byte line boundary.
TEST_F(Base64Interop, PointerRoutesMatchOpensslsLineBrokenText)
{
    for (size_t size : {1, 2, 3, 4, 47, 48, 49, 95, 96, 97, 1000, 100000}) {
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
    const std::pair<const char*, std::string> cases[] = {
        {"YWJj", "abc"}, {"YWI=", "ab"}, {"YQ", "a"}, {"YQ==", "a"},
        {"YW Jj", "a"},          // a blank ends it, leaving the tail "YW"
        {"YWJj\nYWJj", "abc"},   // so does a line break
        {"YWJj-YWJj", "abc"},    // and a character of another alphabet
        {"YWI=YWJj", "ab"},      // nothing after padding counts
        {"Y", ""}, {"", ""}, {"=YWJj", ""}, {"\xffYWJj", ""}, {"+/+/", "\xfb\xff\xbf"},
    };
    for (const auto& [text, bytes] : cases)
        EXPECT_EQ(bytes, decoded(text)) << text;
    EXPECT_EQ(size_t{3} << 18, decoded(std::string(1 << 20, 'A')).size());  // a megabyte of one line

    // null, empty and oversized arguments are refused and leave the output alone
    const unsigned char data[3] = {'a', 'b', 'c'};
    char* text = reinterpret_cast<char*>(0x1);
    unsigned char* out = reinterpret_cast<unsigned char*>(0x1);
    const int refused[] = {ltBase64().encode(nullptr, 3, &text), ltBase64().encode(data, 0, &text),
                           ltBase64().encode(data, 0x80000000u, &text), ltBase64().decode(nullptr, 4, &out),
                           ltBase64().decode("YWJj", 0, &out), ltBase64().decode("YWJj", UINT_MAX, &out)};
    for (int r : refused)
        EXPECT_EQ(-22, r);
    EXPECT_EQ(reinterpret_cast<char*>(0x1), text);
    EXPECT_EQ(reinterpret_cast<unsigned char*>(0x1), out);

    out = nullptr;
    EXPECT_LE(ltBase64().decode("!!!!", 4, &out), 0);
    std::unique_ptr<unsigned char[]> owned(out);
    ASSERT_NE(nullptr, out);
    EXPECT_TRUE(Bytes(out, out + 4) == Bytes(4, 0));
}

}  // namespace
