// Signatures of the library, checked by OpenSSL directly, and the library's verification, checked with signatures made
// by OpenSSL directly.

#include <initializer_list>
#include <openssl/rsa.h>

#include "test_certificates.h"
#include "token_test.h"

namespace softtoken {

namespace {

const EVP_MD* digestFor(std::size_t length) {
    for (const EVP_MD* digest : {EVP_md5(), EVP_sha1(), EVP_sha224(), EVP_sha256(), EVP_sha384(), EVP_sha512()}) {
        if (static_cast<std::size_t>(EVP_MD_get_size(digest)) == length) return digest;
    }
    return nullptr;
}

Bytes patternOf(std::size_t length) {
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<unsigned char>(0xA0 + i * 7);
    return bytes;
}

/// What OpenSSL itself has to be told for an RSA padding.
void setRsa(EVP_PKEY_CTX* context, int padding, const EVP_MD* digest, int saltLength) {
    ASSERT_EQ(EVP_PKEY_CTX_set_rsa_padding(context, padding), 1);
    if (digest != nullptr) {
        ASSERT_EQ(EVP_PKEY_CTX_set_signature_md(context, digest), 1);
    }
    if (padding == RSA_PKCS1_PSS_PADDING) {
        ASSERT_EQ(EVP_PKEY_CTX_set_rsa_pss_saltlen(context, saltLength), 1);
    }
}

bool opensslVerifiesRsa(const Key& key, const Bytes& hash, const Bytes& signature, int padding) {
    const KeyContext context(EVP_PKEY_CTX_new(key.get(), nullptr));
    EVP_PKEY_verify_init(context.get());
    setRsa(context.get(), padding, digestFor(hash.size()), static_cast<int>(hash.size()));
    return EVP_PKEY_verify(context.get(), signature.data(), signature.size(), hash.data(), hash.size()) == 1;
}

Bytes opensslSignsRsa(const Key& key, const Bytes& hash, int padding, const EVP_MD* digest, int saltLength) {
    const KeyContext context(EVP_PKEY_CTX_new(key.get(), nullptr));
    EVP_PKEY_sign_init(context.get());
    setRsa(context.get(), padding, digest, saltLength);
    Bytes signature(1024);
    std::size_t length = signature.size();
    EXPECT_EQ(EVP_PKEY_sign(context.get(), signature.data(), &length, hash.data(), hash.size()), 1);
    signature.resize(length);
    return signature;
}

Bytes derOf(const Bytes& signature) {
    const std::size_t half = signature.size() / 2;
    const EcdsaSignature parsed(ECDSA_SIG_new());
    ECDSA_SIG_set0(parsed.get(), BN_bin2bn(signature.data(), static_cast<int>(half), nullptr),
                   BN_bin2bn(signature.data() + half, static_cast<int>(half), nullptr));
    Bytes der(static_cast<std::size_t>(i2d_ECDSA_SIG(parsed.get(), nullptr)));
    unsigned char* position = der.data();
    i2d_ECDSA_SIG(parsed.get(), &position);
    return der;
}

class SignatureTest : public TokenTest {
protected:
    struct Answer {
        int result;
        Bytes signature;
    };

    Answer sign(const KeyPairEntry& key, const Bytes& data, bool pss, int capacity = 1024) {
        Bytes area(1024, 0xEE);
        int length = capacity;
        const int result = zentak_signHash(device(), key.keyId.data(), userPin, data.data(),
                                           static_cast<int>(data.size()), area.data(), &length, false, instance_, pss);
        if (result != 0) return {result, {}};
        return {result, Bytes(area.begin(), area.begin() + length)};
    }

    int verify(const KeyPairEntry& key, const Bytes& data, const Bytes& signature, bool pss) {
        return verify(key.keyType, key.publicKey, data, signature, pss);
    }
    int verify(int keyType, const Bytes& publicKey, const Bytes& data, const Bytes& signature, bool pss) {
        return zentak_verifySignatureHash(
            static_cast<unsigned>(keyType), device(), data.data(), static_cast<int>(data.size()), publicKey.data(),
            static_cast<int>(publicKey.size()), signature.data(), static_cast<int>(signature.size()), instance_, pss);
    }
};

class RsaSignatureTest : public SignatureTest, public testing::WithParamInterface<int> {};

TEST_P(RsaSignatureTest, BareHashesGetTheirDigestInfo) {
    const KeyPairEntry key = addKey(GetParam());
    for (const std::size_t length : std::initializer_list<std::size_t>{20, 28, 32, 48, 64}) {
        const Bytes hash = patternOf(length);
        const Answer answer = sign(key, hash, false);
        ASSERT_EQ(answer.result, 0);
        EXPECT_EQ(answer.signature.size(), key.publicKey.size());
        EXPECT_TRUE(opensslVerifiesRsa(testKey(GetParam()), hash, answer.signature, RSA_PKCS1_PADDING)) << length;
        EXPECT_EQ(verify(key, hash, answer.signature, false), 0);
    }
}

TEST_P(RsaSignatureTest, PssFollowsTheHashLength) {
    const KeyPairEntry key = addKey(GetParam());
    for (const std::size_t length : std::initializer_list<std::size_t>{20, 28, 32, 48, 64}) {
        // SHA-512 with a salt of its length leaves no room in a modulus of 1024 bits.
        if (GetParam() == 1 && length == 64) continue;
        const Bytes hash = patternOf(length);
        const Answer answer = sign(key, hash, true);
        ASSERT_EQ(answer.result, 0) << length;
        EXPECT_TRUE(opensslVerifiesRsa(testKey(GetParam()), hash, answer.signature, RSA_PKCS1_PSS_PADDING)) << length;
        EXPECT_EQ(verify(key, hash, answer.signature, true), 0);
        EXPECT_NE(verify(key, hash, answer.signature, false), 0);
    }
}

TEST_P(RsaSignatureTest, EverythingElseIsPaddedAsItIs) {
    const KeyPairEntry key = addKey(GetParam());
    const std::size_t longest = key.publicKey.size() - 11;
    for (const std::size_t length : {std::size_t{1}, std::size_t{19}, std::size_t{36}, std::size_t{51}, longest}) {
        const Bytes data = patternOf(length);
        const Answer answer = sign(key, data, false);
        ASSERT_EQ(answer.result, 0) << length;
        const KeyContext context(EVP_PKEY_CTX_new(testKey(GetParam()).get(), nullptr));
        EVP_PKEY_verify_recover_init(context.get());
        setRsa(context.get(), RSA_PKCS1_PADDING, nullptr, 0);
        Bytes recovered(1024);
        std::size_t recoveredLength = recovered.size();
        ASSERT_EQ(EVP_PKEY_verify_recover(context.get(), recovered.data(), &recoveredLength, answer.signature.data(),
                                          answer.signature.size()),
                  1);
        recovered.resize(recoveredLength);
        EXPECT_EQ(recovered, data);
        EXPECT_EQ(verify(key, data, answer.signature, false), 0);
    }
    EXPECT_EQ(sign(key, patternOf(longest + 1), false).result, number(Error::dataLength));
    EXPECT_EQ(sign(key, {}, false).result, number(Error::dataLength));
    for (const std::size_t length : std::initializer_list<std::size_t>{0, 1, 16, 33, 128}) {
        EXPECT_EQ(sign(key, patternOf(length), true).result, number(Error::dataLength)) << length;
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, RsaSignatureTest, testing::Values(1, 2, 3, 4));

class EcSignatureTest : public SignatureTest, public testing::WithParamInterface<int> {};

TEST_P(EcSignatureTest, HalvesAreAsLongAsTheField) {
    const KeyPairEntry key = addKey(GetParam());
    const std::size_t half = keyTypeOfCode(GetParam())->fieldLength;
    for (const std::size_t length : std::initializer_list<std::size_t>{1, 20, 28, 32, 48, 64, 66, 67, 100}) {
        const Bytes hash = patternOf(length);
        // Often enough for a half with a leading zero byte.
        for (int i = 0; i < 20; ++i) {
            const Answer answer = sign(key, hash, false);
            ASSERT_EQ(answer.result, 0);
            ASSERT_EQ(answer.signature.size(), 2 * half);
            const Bytes der = derOf(answer.signature);
            const KeyContext context(EVP_PKEY_CTX_new(testKey(GetParam()).get(), nullptr));
            EVP_PKEY_verify_init(context.get());
            ASSERT_EQ(EVP_PKEY_verify(context.get(), der.data(), der.size(), hash.data(), hash.size()), 1) << length;
            ASSERT_EQ(verify(key, hash, answer.signature, false), 0);
        }
    }
    EXPECT_EQ(sign(key, {}, false).result, number(Error::dataLength));
    EXPECT_EQ(sign(key, patternOf(32), true).result, number(Error::keyTypeMismatch));
}

TEST_P(EcSignatureTest, WrongSignaturesAreRefused) {
    const KeyPairEntry key = addKey(GetParam());
    const Bytes hash = patternOf(32);
    const Bytes good = sign(key, hash, false).signature;
    EXPECT_EQ(verify(key, hash, good, false), 0);
    EXPECT_NE(verify(key, hash, good, true), 0);
    EXPECT_NE(verify(key, patternOf(31), good, false), 0);
    Bytes bad = good;
    bad[3] ^= 1;
    Bytes longer = good;
    longer.push_back(0);
    for (const Bytes& wrong : {bad, longer}) {
        EXPECT_EQ(verify(key, hash, wrong, false), number(Error::signatureInvalid));
    }
    for (const Bytes& wrong :
         {Bytes(good.size(), 0), Bytes(good.size(), 0xFF), Bytes(good.begin(), good.end() - 1), derOf(good), Bytes{}}) {
        EXPECT_NE(verify(key, hash, wrong, false), 0) << hexText(wrong);
    }
    const int otherCurve = GetParam() == 5 ? 6 : 5;
    EXPECT_NE(verify(otherCurve, key.publicKey, hash, good, false), 0);
}

INSTANTIATE_TEST_SUITE_P(Curves, EcSignatureTest, testing::Values(5, 6, 7));

TEST_F(SignatureTest, PublicKeyMayBeASubjectPublicKeyInfo) {
    for (const int keyType : {2, 5}) {
        const KeyPairEntry key = addKey(keyType);
        const Bytes hash = patternOf(32);
        const Bytes signature = sign(key, hash, false).signature;
        Bytes spki = publicDer(testKey(keyType));
        EXPECT_EQ(verify(keyType, spki, hash, signature, false), 0);
        spki[spki.size() / 2] ^= 1;
        EXPECT_NE(verify(keyType, spki, hash, signature, false), 0);
    }
}

TEST_F(SignatureTest, PssVerifiesWithAnySaltLength) {
    const KeyPairEntry key = addKey(2);
    const Bytes hash = patternOf(32);
    for (const int saltLength : {0, 1, 20, 32, 222}) {
        const Bytes signature = opensslSignsRsa(testKey(2), hash, RSA_PKCS1_PSS_PADDING, EVP_sha256(), saltLength);
        EXPECT_EQ(verify(key, hash, signature, true), 0) << saltLength;
    }
}

TEST_F(SignatureTest, Md5SignaturesAreVerifiedButNotMade) {
    const KeyPairEntry key = addKey(2);
    const Bytes hash = patternOf(16);
    EXPECT_EQ(verify(key, hash, opensslSignsRsa(testKey(2), hash, RSA_PKCS1_PADDING, EVP_md5(), 0), false), 0);
    const Bytes own = sign(key, hash, false).signature;
    EXPECT_FALSE(opensslVerifiesRsa(testKey(2), hash, own, RSA_PKCS1_PADDING));
    EXPECT_EQ(verify(key, hash, own, false), 0);
}

TEST_F(SignatureTest, WrongRsaSignaturesAreRefused) {
    const KeyPairEntry key = addKey(2);
    const KeyPairEntry other = addKey(3);
    const Bytes hash = patternOf(32);
    const Bytes good = sign(key, hash, false).signature;
    Bytes bad = good;
    bad[100] ^= 1;
    EXPECT_EQ(verify(key, hash, bad, false), number(Error::signatureInvalid));
    EXPECT_NE(verify(key, patternOf(31), good, false), 0);
    EXPECT_NE(verify(other, hash, good, false), 0);
    EXPECT_NE(verify(key, hash, Bytes(good.begin(), good.end() - 1), false), 0);
    EXPECT_NE(verify(key, hash, Bytes(256, 0xFF), false), 0);
    EXPECT_NE(verify(key, {}, good, false), 0);
    for (const Bytes& publicKey : {Bytes{}, Bytes{0}, Bytes{0x30}, Bytes(256, 0), Bytes(5000, 1)}) {
        EXPECT_NE(verify(2, publicKey, hash, good, false), 0);
    }
    EXPECT_EQ(verify(99, key.publicKey, hash, good, false), 0) << "an unknown type code counts as RSA";
}

TEST_F(SignatureTest, CapacityIsHonoured) {
    const KeyPairEntry rsa = addKey(2);
    const KeyPairEntry ec = addKey(5);
    EXPECT_EQ(sign(rsa, patternOf(32), false, 255).result, number(Error::bufferTooSmall));
    EXPECT_EQ(sign(rsa, patternOf(32), false, 256).result, 0);
    EXPECT_EQ(sign(ec, patternOf(32), false, 63).result, number(Error::bufferTooSmall));
    EXPECT_EQ(sign(ec, patternOf(32), false, 64).result, 0);
    EXPECT_EQ(sign(ec, patternOf(32), false, -1).result, number(Error::bufferTooSmall));
}

TEST_F(SignatureTest, UsageIsRespected) {
    EXPECT_EQ(sign(addKey(5, usageDecrypt), patternOf(32), false).result, number(Error::usageNotPermitted));
    EXPECT_EQ(sign(addKey(6, 0), patternOf(32), false).result, number(Error::usageNotPermitted));
    EXPECT_EQ(sign(addKey(7, usageSign), patternOf(32), false).result, 0);
}

TEST_F(SignatureTest, PinIsNeeded) {
    const KeyPairEntry key = addKey(5);
    EXPECT_EQ(signWith(key.keyId, ""), number(Error::pinRequired));
    EXPECT_EQ(signWith(key.keyId, nullptr), number(Error::pinRequired));
    EXPECT_EQ(signWith(key.keyId, "000000"), number(Error::pinIncorrect));
    EXPECT_EQ(attemptsLeft(), 4);
    EXPECT_EQ(signWith(key.keyId), 0);
    // A key that is loaded opens only to its PIN.
    EXPECT_EQ(signWith(key.keyId, "000001"), number(Error::pinIncorrect));
    EXPECT_EQ(signWith(key.keyId, ""), number(Error::pinRequired));
}

TEST_F(SignatureTest, UnknownKeyAndUnpluggedToken) {
    KeyPairEntry key = addKey(5);
    EXPECT_EQ(sign(key, patternOf(32), false).result, 0);
    store_.unplug(serialNumber_);
    EXPECT_EQ(sign(key, patternOf(32), false).result, 48);
    store_.plug(serialNumber_);
    EXPECT_EQ(sign(key, patternOf(32), false).result, 0);
    key.keyId[0] ^= 1;
    EXPECT_EQ(sign(key, patternOf(32), false).result, number(Error::keyNotFound));
}

}  // namespace

}  // namespace softtoken
