#include "crypto/raw_input_policy.h"

#include <gtest/gtest.h>
#include <vector>

namespace zentak {
namespace {

using Bytes = std::vector<unsigned char>;

const Bytes sha1Identifier = {0x2B, 0x0E, 0x03, 0x02, 0x1A};
const Bytes md5Identifier = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x05};

/// `length` bytes that begin like a DigestInfo and hold `identifier` at `offset`.
Bytes digestInfo(std::size_t length, const Bytes& identifier, std::size_t offset) {
    Bytes data(length, 0x00);
    data[0] = 0x30;
    std::copy(identifier.begin(), identifier.end(), data.begin() + static_cast<std::ptrdiff_t>(offset));
    return data;
}

TEST(RawInputPolicyTest, FindsIdentifiersAtEveryOffset) {
    for (std::size_t offset = 1; offset + sha1Identifier.size() <= 35; ++offset) {
        EXPECT_EQ(fipsObjectionToRawInput(CKM_RSA_PKCS, digestInfo(35, sha1Identifier, offset)),
                  "C_Sign: SHA1 DigestInfo signing not allowed on FIPS 140-3 token")
            << offset;
    }
    for (std::size_t offset = 1; offset + md5Identifier.size() <= 34; ++offset) {
        EXPECT_EQ(fipsObjectionToRawInput(CKM_RSA_PKCS, digestInfo(34, md5Identifier, offset)),
                  "C_Sign: MD5 DigestInfo signing not allowed on FIPS 140-3 token")
            << offset;
    }
}

TEST(RawInputPolicyTest, DoesNotLookForMoreThanMemoryCanHold) {
    const unsigned char* const nowhere = nullptr;
    EXPECT_FALSE(fipsObjectionToRawInput(CKM_RSA_PKCS, {nowhere, ~std::size_t{0}}).has_value());
}

TEST(RawInputPolicyTest, NamesSha1WhenBothIdentifiersAreThere) {
    Bytes data = digestInfo(40, md5Identifier, 2);
    std::copy(sha1Identifier.begin(), sha1Identifier.end(), data.begin() + 30);
    EXPECT_EQ(fipsObjectionToRawInput(CKM_RSA_PKCS, data),
              "C_Sign: SHA1 DigestInfo signing not allowed on FIPS 140-3 token");
}

TEST(RawInputPolicyTest, LooksOnlyIntoWhatCouldBeADigestInfo) {
    EXPECT_FALSE(fipsObjectionToRawInput(CKM_RSA_PKCS, digestInfo(10, sha1Identifier, 3)));
    EXPECT_TRUE(fipsObjectionToRawInput(CKM_RSA_PKCS, digestInfo(11, sha1Identifier, 6)));
    EXPECT_TRUE(fipsObjectionToRawInput(CKM_RSA_PKCS, digestInfo(11, md5Identifier, 3)));
    Bytes other = digestInfo(35, sha1Identifier, 5);
    other[0] = 0x31;
    EXPECT_FALSE(fipsObjectionToRawInput(CKM_RSA_PKCS, other));
}

TEST(RawInputPolicyTest, LetsIncompleteAndOtherIdentifiersPass) {
    EXPECT_FALSE(fipsObjectionToRawInput(CKM_RSA_PKCS, digestInfo(35, {0x2B, 0x0E, 0x03, 0x02, 0x1B}, 5)));
    EXPECT_FALSE(fipsObjectionToRawInput(CKM_RSA_PKCS, digestInfo(35, {0x2B, 0x0E, 0x03, 0x02}, 31)));
    EXPECT_FALSE(fipsObjectionToRawInput(CKM_RSA_PKCS, digestInfo(34, {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02}, 27)));
}

TEST(RawInputPolicyTest, JudgesBareHashesByTheirLengthAlone) {
    for (std::size_t length = 1; length <= 64; ++length) {
        const Bytes hash(length, 0x77);
        const bool refused = length == 20 || length == 16;
        EXPECT_EQ(fipsObjectionToRawInput(CKM_ECDSA, hash).has_value(), refused) << length;
        EXPECT_EQ(fipsObjectionToRawInput(CKM_RSA_PKCS_PSS, hash).has_value(), refused) << length;
        EXPECT_FALSE(fipsObjectionToRawInput(CKM_RSA_PKCS, hash)) << length;
    }
    EXPECT_EQ(fipsObjectionToRawInput(CKM_ECDSA, Bytes(20, 0)),
              "C_Sign: SHA1 hash signing via CKM_ECDSA not allowed on FIPS 140-3 token");
    EXPECT_EQ(fipsObjectionToRawInput(CKM_ECDSA, Bytes(16, 0)),
              "C_Sign: MD5 hash signing via CKM_ECDSA not allowed on FIPS 140-3 token");
    EXPECT_EQ(fipsObjectionToRawInput(CKM_RSA_PKCS_PSS, Bytes(20, 0)),
              "C_Sign: SHA1 hash signing via CKM_RSA_PKCS_PSS not allowed on FIPS 140-3 token");
    EXPECT_EQ(fipsObjectionToRawInput(CKM_RSA_PKCS_PSS, Bytes(16, 0)),
              "C_Sign: MD5 hash signing via CKM_RSA_PKCS_PSS not allowed on FIPS 140-3 token");
}

TEST(RawInputPolicyTest, ObjectsToNothingWhereTheModuleHashes) {
    for (const CK_MECHANISM_TYPE mechanism : {CKM_SHA256_RSA_PKCS, CKM_SHA1_RSA_PKCS, CKM_ECDSA_SHA1}) {
        EXPECT_FALSE(fipsObjectionToRawInput(mechanism, Bytes(20, 0x30)));
        EXPECT_FALSE(fipsObjectionToRawInput(mechanism, digestInfo(35, sha1Identifier, 5)));
    }
}

}  // namespace
}  // namespace zentak
