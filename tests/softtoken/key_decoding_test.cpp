// Reading keys from DER: the usual forms, which are read without OpenSSL's decoders, the rarer ones, and what is none.

#include <algorithm>

#include "token_test.h"

namespace softtoken {

namespace {

class KeyDecodingTest : public testing::TestWithParam<int> {};

TEST_P(KeyDecodingTest, PrivateKeyComesBackWhole) {
    const Key& key = testKey(GetParam());
    const SecretBytes der = encodePrivateKey(key.get());
    const Key decoded = decodePrivateKey(der);
    EXPECT_EQ(EVP_PKEY_eq(decoded.get(), key.get()), 1);
    EXPECT_EQ(encodePrivateKey(decoded.get()), der);
    const std::unique_ptr<EVP_PKEY_CTX, Releaser<&EVP_PKEY_CTX_free>> context(
        EVP_PKEY_CTX_new_from_pkey(cryptoContext(), decoded.get(), nullptr));
    EXPECT_EQ(EVP_PKEY_check(context.get()), 1);
}

TEST_P(KeyDecodingTest, CutPrivateKeyIsRefused) {
    const SecretBytes der = encodePrivateKey(testKey(GetParam()).get());
    for (std::size_t length = 0; length < der.size(); length += 7) {
        EXPECT_THROW(decodePrivateKey(ByteView(der).first(length)), Failure) << length;
    }
}

TEST_P(KeyDecodingTest, PublicKeyComesBack) {
    const Key& key = testKey(GetParam());
    const Key decoded = decodeSubjectPublicKeyInfo(publicDer(key));
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(EVP_PKEY_eq(decoded.get(), key.get()), 1);
}

TEST_P(KeyDecodingTest, CutPublicKeyIsNone) {
    const Bytes der = publicDer(testKey(GetParam()));
    for (std::size_t length = 0; length < der.size(); ++length) {
        EXPECT_EQ(decodeSubjectPublicKeyInfo(ByteView(der).first(length)), nullptr) << length;
    }
}

INSTANTIATE_TEST_SUITE_P(AllKinds, KeyDecodingTest, testing::Values(1, 2, 5, 6, 7));

/// The content of an INTEGER taken by its bytes, without a look at its sign, would be another number.
TEST(NegativeNumberTest, IsNoPartOfAPublicKey) {
    Bytes der = publicDer(testKey(2));
    ASSERT_NE(decodeSubjectPublicKeyInfo(der), nullptr);
    const Bytes zero = {0x02, 0x82, 0x01, 0x01, 0x00};
    const auto modulus = std::search(der.begin(), der.end(), zero.begin(), zero.end());
    ASSERT_NE(modulus, der.end());
    // The zero that makes it positive goes into the number, whose first bit is set.
    *(modulus + 4) = 0x80;
    EXPECT_EQ(decodeSubjectPublicKeyInfo(der), nullptr);
}

TEST(NegativeNumberTest, IsNoPartOfAPrivateKey) {
    SecretBytes der = encodePrivateKey(testKey(2).get());
    const Bytes zero = {0x02, 0x82, 0x01, 0x01, 0x00};
    const auto modulus = std::search(der.begin(), der.end(), zero.begin(), zero.end());
    ASSERT_NE(modulus, der.end());
    *(modulus + 4) = 0x80;
    EXPECT_THROW(decodePrivateKey(der), Failure);
}

/// PKCS #1 is a form that no token's file has; the crypto library's decoders take it.
TEST(RareKeyFormTest, PrivateKeyWithoutPkcs8Around) {
    const Key& key = testKey(2);
    unsigned char* encoded = nullptr;
    const int length = i2d_PrivateKey(key.get(), &encoded);
    const Key decoded = decodePrivateKey({encoded, static_cast<std::size_t>(length)});
    EXPECT_EQ(EVP_PKEY_eq(decoded.get(), key.get()), 1);
    OPENSSL_clear_free(encoded, static_cast<std::size_t>(length));
}

}  // namespace

}  // namespace softtoken
