#include "platform/bytes.h"

#include <gtest/gtest.h>

namespace softtoken {

namespace {

/// Programs that set up OpenSSL's secure heap get secrets from there, and others none.
TEST(SecretBytesTest, LieInTheSecureHeapAsLongAsItHasRoom) {
    EXPECT_EQ(CRYPTO_secure_allocated(SecretBytes(100).data()), 0);
    ASSERT_NE(CRYPTO_secure_malloc_init(4096, 32), 0);
    {
        const SecretBytes before(100, 1);
        EXPECT_EQ(CRYPTO_secure_allocated(before.data()), 1);
        const SecretBytes large(10'000, 2);
        EXPECT_EQ(CRYPTO_secure_allocated(large.data()), 0);
        EXPECT_EQ(large, SecretBytes(10'000, 2));
        std::vector<SecretBytes> many(100, SecretBytes(100, 3));
        EXPECT_EQ(CRYPTO_secure_allocated(many.front().data()), 1);
        EXPECT_EQ(CRYPTO_secure_allocated(many.back().data()), 0);
        many.back().push_back(4);
        EXPECT_EQ(many.back().back(), 4);
    }
    EXPECT_EQ(CRYPTO_secure_used(), 0U);
    EXPECT_EQ(CRYPTO_secure_malloc_done(), 1);
}

}  // namespace

}  // namespace softtoken
