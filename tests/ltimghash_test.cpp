//===- ltimghash_test.cpp - SHA-1 of streams against OpenSSL --------------===//
#include "ltimghash.h"

#include "crypto_test_support.h"

using namespace crypto_test;

namespace {

TEST(ImageHash, AgreesWithOpensslAndCountsTheBytes)
{
    std::mt19937 generator(20);
    for (size_t size : std::initializer_list<size_t>{0, 1, 63, 64, 65, 10000, 3 * 1024 * 1024 + 1}) {
        SCOPED_TRACE(size);
        const Bytes data = randomBytes(size, static_cast<uint32_t>(size));
        ltimghash hash;
        EXPECT_EQ(std::string(40, '0'), hexOf(hash.Hash(), ltimghash::kDigestSize));  // nothing before finalize

        ASSERT_TRUE(hash.update(data.data(), 0));  // an empty update counts nothing
        size_t done = 0;
        while (done < size) {
            const size_t piece = std::min<size_t>(generator() % 70000, size - done);
            ASSERT_TRUE(hash.update(data.data() + done, static_cast<unsigned int>(piece)));
            done += piece;
            ASSERT_EQ(done, hash.getByteCount());
        }
        EXPECT_FALSE(hash.isFinalized());
        ASSERT_TRUE(hash.finalize() && hash.isFinalized());
        EXPECT_EQ(opensslDigestHex(data, EVP_sha1()), hexOf(hash.Hash(), ltimghash::kDigestSize));
    }

    // a failed step stays failed; a second finalize on the reset context keeps the first digest
    ltimghash hash;
    ASSERT_TRUE(hash.update(reinterpret_cast<const unsigned char*>("abc"), 3));
    ASSERT_TRUE(hash.finalize());
    const std::string first = hexOf(hash.Hash(), ltimghash::kDigestSize);
    EXPECT_EQ("a9993e364706816aba3e25717850c26c9cd0d89d", first);

    EXPECT_FALSE(hash.finalize());
    EXPECT_EQ(first, hexOf(hash.Hash(), ltimghash::kDigestSize));
    // An update OpenSSL accepts (an empty one: the reset context takes no data) still fails.
    EXPECT_FALSE(hash.update(nullptr, 0));
    EXPECT_EQ(3u, hash.getByteCount());

    ltimghash fresh;  // null data of some length fails the update, and that sticks too
    EXPECT_TRUE(fresh.update(nullptr, 0));
    EXPECT_FALSE(fresh.update(nullptr, 10));
    EXPECT_FALSE(fresh.update(reinterpret_cast<const unsigned char*>("abc"), 3));
    EXPECT_FALSE(fresh.finalize());
}

}  // namespace
