//===- ltmd5_test.cpp - The MD5 engine against RFC 1321 and OpenSSL -------===//
#include "ltmd5.h"

#include "crypto_test_support.h"

using namespace crypto_test;

namespace {

std::string engineHex(lt_md5_state_t state)
{
    unsigned char digest[16];
    lt_md5_finish(&state, digest);
    return hexOf(digest, sizeof digest);
}

// Random pieces, across the padding boundaries (55, 56, 63, 64 bytes in the last block) and
// over many blocks, agree with OpenSSL.
TEST(Md5Digest, AgreesWithOpensslForAnySplit)
{
    std::mt19937 generator(1321);
    std::vector<size_t> sizes = {1000, 4095, 4096, 4097, 65536 + 55, 1048576 + 3};
    for (size_t n = 0; n <= 200; ++n)
        sizes.push_back(n);
    for (size_t size : sizes) {
        SCOPED_TRACE(size);
        const Bytes data = randomBytes(size, static_cast<uint32_t>(size) * 7 + 1);
        const std::string expected = opensslDigestHex(data, EVP_md5());
        for (int round = 0; round < 3; ++round) {
            lt_md5_state_t state;
            lt_md5_init(&state);
            size_t done = 0;
            while (done < size) {
                // Pieces from 0 to 150 bytes, with the occasional empty or negative append.
                const size_t piece = std::min<size_t>(generator() % 151, size - done);
                lt_md5_append(&state, data.data() + done, static_cast<int>(piece));
                if (generator() % 8 == 0)
                    lt_md5_append(&state, data.data(), -5);  // ignored
                done += piece;
            }
            ASSERT_EQ(expected, engineHex(state));
        }
        EXPECT_EQ(expected, LTmd5(std::string(data.begin(), data.end())).toString());  // whole, through the class
    }
}

// getHash copies only into exactly sixteen bytes; null data and states are ignored.
TEST(Md5Hash, CopiesOnlyIntoSixteenBytesIgnoresNullsAndCountsBitsIn64)
{
    LTmd5 md5("abc");
    unsigned char out[32];
    for (unsigned int size : {0u, 15u, 17u, 32u}) {
        std::memset(out, 0x5a, sizeof out);
        EXPECT_EQ(-22, md5.getHash(out, size));
        EXPECT_EQ(std::string(32, '\x5a'), std::string(reinterpret_cast<char*>(out), sizeof out));
    }
    EXPECT_EQ(-22, md5.getHash(nullptr, 16));
    std::memset(out, 0x5a, sizeof out);
    ASSERT_EQ(0, md5.getHash(out, 16));
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", hexOf(out, 16));
    EXPECT_EQ(0x5a, out[16]);  // nothing beyond the digest

    lt_md5_state_t state;
    lt_md5_init(&state);
    lt_md5_append(&state, nullptr, 100);
    lt_md5_append(&state, "abc", 3);
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", engineHex(state));
    lt_md5_init(nullptr);
    lt_md5_append(nullptr, "abc", 3);
    lt_md5_finish(nullptr, out);
    lt_md5_finish(&state, nullptr);

    lt_md5_init(&state);  // the bit count is 64 bits wide: the low word carries
    state.count[0] = 0xfffffe00u;
    const Bytes block(64, 'x');
    lt_md5_append(&state, block.data(), 64);
    EXPECT_TRUE(state.count[0] == 0 && state.count[1] == 1);
    lt_md5_append(&state, block.data(), 3);
    EXPECT_TRUE(state.count[0] == 24 && state.count[1] == 1);
}

}  // namespace
