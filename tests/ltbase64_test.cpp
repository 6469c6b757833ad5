//===- ltbase64_test.cpp - Both base64 routes against openssl base64 ------===//
#include "ltbase64.h"

#include <algorithm>
#include <climits>
#include <memory>

#include "crypto_test_support.h"

using namespace crypto_test;

namespace {

// Both routes against openssl's text, across its 48-byte lines. The pointer routes take the
// line-broken text; the vector decoder reads every prefix of it joined into one line (a quartet
// gives 3 bytes, a tail of 2 or 3 characters 1 or 2, a lone one none).
TEST(Base64Interop, BothRoutesMatchOpensslsText)
{
    if (!haveOpenssl())
        GTEST_SKIP() << "the openssl command-line tool is not installed";
    TempDir dir;
    for (size_t size : {1, 2, 3, 4, 47, 48, 49, 50, 95, 96, 97, 301, 1000, 100000}) {
        SCOPED_TRACE(size);
        const Bytes data = randomBytes(size, static_cast<uint32_t>(size));
        std::string expected;
        ASSERT_EQ(0, runCommand("openssl base64 -in " + dir.put("data", std::string(data.begin(), data.end())), &expected));
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
        EXPECT_TRUE(Bytes(out + got, out + expected.size()) == Bytes(expected.size() - size, 0));  // zeroed to the text's length

        std::string line;
        std::copy_if(expected.begin(), expected.end(), std::back_inserter(line), [](char c) { return c != '\n' && c != '='; });
        std::vector<unsigned char> vector;
        for (size_t k = size > 301 ? line.size() : 0; k <= line.size(); ++k) {
            ltBase64().decode(line.substr(0, k), vector);
            ASSERT_EQ(k / 4 * 3 + (k % 4 > 1 ? k % 4 - 1 : 0), vector.size()) << "prefix " << k;
            ASSERT_TRUE(std::equal(vector.begin(), vector.end(), data.begin())) << "prefix " << k;
        }
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
    EXPECT_TRUE(text == reinterpret_cast<char*>(0x1) && out == reinterpret_cast<unsigned char*>(0x1));

    out = nullptr;
    EXPECT_LE(ltBase64().decode("!!!!", 4, &out), 0);
    std::unique_ptr<unsigned char[]> owned(out);
    ASSERT_NE(nullptr, out);
    EXPECT_TRUE(Bytes(out, out + 4) == Bytes(4, 0));
}

}  // namespace
