/// The module's DER against OpenSSL's, and its reading of a DigestInfo.

#include "crypto/der.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <utility>

namespace zentak {
namespace {

using Bytes = std::vector<unsigned char>;
using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

Bytes modulusOf(EVP_PKEY* key) {
    BIGNUM* number = nullptr;
    EXPECT_EQ(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &number), 1);
    Bytes bytes(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    BN_free(number);
    return bytes;
}

TEST(SubjectPublicKeyInfoTest, IsThatOfOpenSsl) {
    for (const unsigned int bits : {2048U, 3072U, 4096U}) {
        const Key key(EVP_RSA_gen(bits), &EVP_PKEY_free);
        ASSERT_NE(key, nullptr);
        Bytes expected(static_cast<std::size_t>(i2d_PUBKEY(key.get(), nullptr)));
        unsigned char* position = expected.data();
        i2d_PUBKEY(key.get(), &position);
        EXPECT_EQ(rsaSubjectPublicKeyInfo(modulusOf(key.get())), expected) << bits;
    }
}

TEST(SubjectPublicKeyInfoTest, CanBeReadForEveryLengthOfTheModulus) {
    for (const unsigned char first : Bytes{0x01, 0x7F, 0x80, 0xFF}) {
        for (std::size_t length = 1; length <= 1024; ++length) {
            Bytes modulus(length, 0x5B);
            modulus.front() = first;
            const Bytes encoded = rsaSubjectPublicKeyInfo(modulus);
            const unsigned char* position = encoded.data();
            const Key key(d2i_PUBKEY(nullptr, &position, static_cast<long>(encoded.size())), &EVP_PKEY_free);
            ASSERT_NE(key, nullptr) << length;
            EXPECT_EQ(position, encoded.data() + encoded.size()) << length;
            EXPECT_EQ(modulusOf(key.get()), modulus) << length;
        }
    }
}

TEST(SubjectPublicKeyInfoTest, KeepsLeadingZerosAndEmptiness) {
    const Bytes zeros = rsaSubjectPublicKeyInfo(Bytes{0x00, 0x00, 0x05});
    const Bytes integers = {0x02, 0x03, 0x00, 0x00, 0x05, 0x02, 0x03, 0x01, 0x00, 0x01};
    EXPECT_TRUE(std::equal(integers.rbegin(), integers.rend(), zeros.rbegin()));
    const Bytes nothing = rsaSubjectPublicKeyInfo({});
    const Bytes empty = {0x30, 0x07, 0x02, 0x00, 0x02, 0x03, 0x01, 0x00, 0x01};
    EXPECT_TRUE(std::equal(empty.rbegin(), empty.rend(), nothing.rbegin()));
}

using Place = std::pair<std::ptrdiff_t, std::size_t>;  ///< offset and length

/// `hashInDigestInfo` as offset and length inside `data`.
Place found(const Bytes& data) {
    const ByteView hash = hashInDigestInfo(data);
    return {hash.data() - data.data(), hash.size()};
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Place unchanged(const Bytes& data) {
    return {0, data.size()};
}

const Bytes algorithm = {0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00};

TEST(DigestInfoTest, GivesItsHash) {
    EXPECT_EQ(found(Bytes{0x30, 0x31} + algorithm + Bytes{0x04, 0x20} + Bytes(32, 7)), Place(19, 32));
    // The outer length in its longer form, and bytes behind the hash.
    EXPECT_EQ(found(Bytes{0x30, 0x81, 0x31} + algorithm + Bytes{0x04, 0x20} + Bytes(33, 7)), Place(20, 32));
    // Without an algorithm.
    EXPECT_EQ(found(Bytes{0x30, 0x0A, 0x04, 0x08} + Bytes(8, 7)), Place(4, 8));
    // A hash of no bytes.
    EXPECT_EQ(found(Bytes{0x30, 0x0A, 0x04, 0x00} + Bytes(8, 7)), Place(4, 0));
}

TEST(DigestInfoTest, IsLeftAloneWhereItIsNone) {
    const Bytes others[] = {
        {},
        Bytes(11, 0x30),
        Bytes{0x31, 0x0A, 0x04, 0x08} + Bytes(8, 7),
        Bytes{0x30, 0x0A, 0x05, 0x08} + Bytes(8, 7),
        Bytes{0x30, 0x0A, 0x04, 0x09} + Bytes(8, 7),                // longer than the data
        Bytes{0x30, 0x0A, 0x30, 0xFF} + Bytes(8, 4),                // an algorithm beyond the data
        Bytes{0x30, 0x0A, 0x30, 0x08} + Bytes(8, 4),                // an algorithm up to the end of the data
        Bytes{0x30, 0x0A, 0x30, 0x07} + Bytes(7, 1) + Bytes{0x04},  // the tag in the last byte
        Bytes{0x30, 0x82, 0x00, 0x04, 0x08} + Bytes(8, 7),          // a longer form of the outer length isn't known
    };
    for (const Bytes& data : others) EXPECT_EQ(found(data), unchanged(data)) << data.size();
}

}  // namespace
}  // namespace zentak
