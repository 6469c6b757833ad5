//===- ltimghash_test.cpp - SHA-1 of streams against OpenSSL --------------===//
#include "ltimghash.h"

#include <random>
#include <string>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "crypto_test_support.h"

using namespace crypto_test;

namespace {

std::string opensslSha1Hex(const Bytes& data)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EXPECT_EQ(1, EVP_Digest(data.data(), data.size(), digest, &size, EVP_sha1(), nullptr));
    return hexOf(digest, size);
}

TEST(ImageHash, AgreesWithOpensslAndCountsTheBytes)
{
    std::mt19937 generator(20);
    for (size_t size : {size_t{0}, size_t{1}, size_t{63}, size_t{64}, size_t{65}, size_t{10000},
                        size_t{3 * 1024 * 1024 + 1}}) {
        SCOPED_TRACE(size);
        const Bytes data = randomBytes(size, static_cast<uint32_t>(size));
        ltimghash hash;
        const std::string zero(2 * ltimghash::kDigestSize, '0');
        EXPECT_EQ(zero, hexOf(hash.Hash(), ltimghash::kDigestSize));  // nothing before finalize

        ASSERT_TRUE(hash.update(data.data(), 0));  // an empty update counts nothing
        size_t done = 0;
        while (done < size) {
            const size_t piece = std::min<size_t>(generator() % 70000, size - done);
            ASSERT_TRUE(hash.update(data.data() + done, static_cast<unsigned int>(piece)));
            done += piece;
            ASSERT_EQ(done, hash.getByteCount());
        }
        EXPECT_FALSE(hash.isFinalized());
        ASSERT_TRUE(hash.finalize());
        EXPECT_TRUE(hash.isFinalized());
        EXPECT_EQ(opensslSha1Hex(data), hexOf(hash.Hash(), ltimghash::kDigestSize));
    }

    // a failed step stays failed; a second finalize on the reset context keeps the first digest
    ltimghash hash;
    ASSERT_TRUE(hash.update(reinterpret_cast<const unsigned char*>("abc"), 3));
    ASSERT_TRUE(hash.finalize());
    const std::string first = hexOf(hash.Hash(), ltimghash::kDigestSize);
    EXPECT_EQ("a9993e364706816aba3e25717850c26c9cd0d89d", first);

    EXPECT_FALSE(hash.finalize());
    EXPECT_EQ(first, hexOf(hash.Hash(), ltimghash::kDigestSize));
    // An update that OpenSSL accepts still reports the earlier failure (an empty one: the
    // reset context takes no data).
    EXPECT_FALSE(hash.update(nullptr, 0));
    EXPECT_EQ(3u, hash.getByteCount());

    ltimghash fresh;  // null data of some length fails the update, and that sticks too
    EXPECT_TRUE(fresh.update(nullptr, 0));
    EXPECT_FALSE(fresh.update(nullptr, 10));
    EXPECT_FALSE(fresh.update(reinterpret_cast<const unsigned char*>("abc"), 3));
    EXPECT_FALSE(fresh.finalize());
}

}  // namespace
