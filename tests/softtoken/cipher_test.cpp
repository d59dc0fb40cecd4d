// Encryption, decryption, key agreement and random bytes.

#include <climits>
#include <cstdlib>
#include <initializer_list>
#include <openssl/rsa.h>

#include "openssl_rsa.h"
#include "token_test.h"

namespace softtoken {

namespace {

class CipherTest : public TokenTest {
protected:
    struct Answer {
        int result;
        Bytes output;
    };

    Answer encrypt(const Bytes& der, const Bytes& data, PaddingMode padding) {
        Bytes area(1024);
        int length = 0;
        const int result = zentak_encrypt(EncryptionType::rsa2048, padding, data.data(), static_cast<int>(data.size()),
                                          area.data(), &length, der.data(), static_cast<int>(der.size()), instance_);
        area.resize(static_cast<std::size_t>(length));
        return {result, area};
    }
    Answer decrypt(const KeyPairEntry& key, const Bytes& data, const char* pin = userPin) {
        return handedOut([&](unsigned char** output, int* length) {
            return zentak_decrypt(device(), key.keyId.data(), pin, data.data(), static_cast<int>(data.size()), output,
                                  length, false, instance_);
        });
    }
    Answer derive(const KeyPairEntry& key, const Bytes& peer, const char* pin = userPin) {
        return handedOut([&](unsigned char** output, int* length) {
            return zentak_ecdhDerive(device(), key.keyId.data(), pin, peer.data(), static_cast<int>(peer.size()),
                                     output, length, instance_);
        });
    }

private:
    /// What an operation hands out in a buffer of its own; nothing when it refuses.
    template <typename Operation>
    static Answer handedOut(Operation operation) {
        unsigned char* output = nullptr;
        int length = -1;
        Answer answer{operation(&output, &length), {}};
        EXPECT_EQ(output != nullptr, answer.result == 0);
        if (answer.result == 0) answer.output.assign(output, output + length);
        std::free(output);
        return answer;
    }
};

class RsaCipherTest : public CipherTest, public testing::WithParamInterface<int> {};

TEST_P(RsaCipherTest, EncryptionIsUndoneByOpenssl) {
    const Key& key = testKey(GetParam());
    const Bytes data(40, 0x5A);
    for (const auto& [mode, padding] :
         {std::pair{PaddingMode::pkcs1, RSA_PKCS1_PADDING}, {PaddingMode::oaep, RSA_PKCS1_OAEP_PADDING}}) {
        const Answer answer = encrypt(publicDer(key), data, mode);
        ASSERT_EQ(answer.result, 0);
        EXPECT_EQ(opensslCrypts(key, answer.output, false, padding), data);
    }
}

TEST_P(RsaCipherTest, DecryptionUndoesOpenssl) {
    const KeyPairEntry entry = addKey(GetParam());
    const Key& key = testKey(GetParam());
    for (const std::size_t length : std::initializer_list<std::size_t>{0, 1, 32, 60}) {
        const Bytes data(length, 0x00);
        for (const int padding : {RSA_PKCS1_PADDING, RSA_PKCS1_OAEP_PADDING}) {
            const Answer answer = decrypt(entry, opensslCrypts(key, data, true, padding));
            EXPECT_EQ(answer.result, 0);
            EXPECT_EQ(answer.output, data);
        }
    }
}

TEST_P(RsaCipherTest, LongestData) {
    const KeyPairEntry entry = addKey(GetParam());
    const Bytes spki = publicDer(testKey(GetParam()));
    const std::size_t modulus = entry.publicKey.size();
    for (const auto& [padding, overhead] : {std::pair{PaddingMode::pkcs1, 11U}, {PaddingMode::oaep, 42U}}) {
        const Bytes longest(modulus - overhead, 0xFF);
        const Answer answer = encrypt(spki, longest, padding);
        ASSERT_EQ(answer.result, 0);
        EXPECT_EQ(decrypt(entry, answer.output).output, longest);
        EXPECT_EQ(encrypt(spki, Bytes(modulus - overhead + 1, 0xFF), padding).result, number(Error::dataLength));
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, RsaCipherTest, testing::Values(1, 2, 3, 4));

TEST_F(CipherTest, WrongPaddingHasOneAnswerOnly) {
    const KeyPairEntry entry = addKey(2);
    Bytes raw(256, 0);
    const auto expectRefused = [&](const Bytes& padded) {
        EXPECT_EQ(decrypt(entry, opensslCrypts(testKey(2), padded, true, RSA_NO_PADDING)).result,
                  number(Error::cryptoFailed));
    };
    expectRefused(raw);
    raw[1] = 2;
    expectRefused(raw);
    std::fill(raw.begin() + 2, raw.end(), 0xFF);
    expectRefused(raw);
    raw[5] = 0;
    expectRefused(raw);
    raw[0] = 1;
    raw[5] = 0xFF;
    expectRefused(Bytes(raw.begin(), raw.end()));
}

TEST_F(CipherTest, DecryptionRefusals) {
    const KeyPairEntry entry = addKey(2);
    const KeyPairEntry signOnly = addKey(3, usageSign);
    const KeyPairEntry ec = addKey(5);
    const Bytes good = opensslCrypts(testKey(2), Bytes(8, 1), true, RSA_PKCS1_PADDING);
    EXPECT_EQ(decrypt(entry, Bytes(good.begin(), good.end() - 1)).result, number(Error::dataLength));
    EXPECT_EQ(decrypt(entry, {}).result, number(Error::dataLength));
    EXPECT_EQ(decrypt(entry, Bytes(256, 0xFF)).result, number(Error::cryptoFailed));
    EXPECT_EQ(decrypt(signOnly, Bytes(384, 1)).result, number(Error::usageNotPermitted));
    EXPECT_EQ(decrypt(ec, Bytes(256, 1)).result, number(Error::keyTypeMismatch));
    EXPECT_EQ(decrypt(entry, good, "").result, number(Error::pinRequired));
    EXPECT_EQ(decrypt(entry, good, "000000").result, number(Error::pinIncorrect));
    EXPECT_EQ(decrypt(entry, good).result, 0);
}

TEST_F(CipherTest, EncryptionRefusals) {
    const Bytes spki = publicDer(testKey(2));
    EXPECT_NE(encrypt(spki, {1}, static_cast<PaddingMode>(0)).result, 0);
    EXPECT_NE(encrypt(spki, {1}, static_cast<PaddingMode>(3)).result, 0);
    EXPECT_NE(encrypt({}, {1}, PaddingMode::pkcs1).result, 0);
    EXPECT_NE(encrypt(Bytes(100, 0x30), {1}, PaddingMode::pkcs1).result, 0);
    EXPECT_NE(encrypt(publicDer(testKey(5)), {1}, PaddingMode::pkcs1).result, 0);
}

Bytes compressedPoint(const Bytes& point) {
    const std::size_t half = (point.size() - 1) / 2;
    Bytes compressed = {static_cast<unsigned char>(2 + point.back() % 2)};
    compressed.insert(compressed.end(), point.begin() + 1, point.begin() + 1 + static_cast<std::ptrdiff_t>(half));
    return compressed;
}

Bytes inOctetString(const Bytes& point) {
    Bytes wrapped = {0x04};
    if (point.size() >= 0x80) wrapped.push_back(0x81);
    wrapped.push_back(static_cast<unsigned char>(point.size()));
    wrapped.insert(wrapped.end(), point.begin(), point.end());
    return wrapped;
}

class AgreementTest : public CipherTest, public testing::WithParamInterface<int> {};

TEST_P(AgreementTest, BothSidesAgree) {
    const KeyPairEntry entry = addKey(GetParam(), 0);
    const Key peer = generateKey(*keyTypeOfCode(GetParam()));
    const KeyContext context(EVP_PKEY_CTX_new(peer.get(), nullptr));
    EVP_PKEY_derive_init(context.get());
    ASSERT_EQ(EVP_PKEY_derive_set_peer(context.get(), testKey(GetParam()).get()), 1);
    Bytes expected(100);
    std::size_t length = expected.size();
    ASSERT_EQ(EVP_PKEY_derive(context.get(), expected.data(), &length), 1);
    expected.resize(length);

    const Bytes point = publicKeyBytes(peer.get());
    EXPECT_EQ(derive(entry, point).output, expected);
    EXPECT_EQ(derive(entry, inOctetString(point)).output, expected);
}

TEST_P(AgreementTest, CompressedPointIsThePoint) {
    const KeyPairEntry entry = addKey(GetParam(), 0);
    bool seen[2] = {};
    for (int i = 0; i < 200 && !(seen[0] && seen[1]); ++i) {
        const Key peer = generateKey(*keyTypeOfCode(GetParam()));
        const Bytes point = publicKeyBytes(peer.get());
        const Bytes compressed = compressedPoint(point);
        seen[compressed[0] & 1] = true;
        const Answer expected = derive(entry, point);
        ASSERT_EQ(expected.result, 0);
        EXPECT_EQ(derive(entry, compressed).output, expected.output);
        EXPECT_EQ(derive(entry, inOctetString(compressed)).output, expected.output);
    }
    EXPECT_TRUE(seen[0] && seen[1]);
}

TEST_P(AgreementTest, CompressedPointOffTheCurveIsRefused) {
    const KeyPairEntry entry = addKey(GetParam(), 0);
    const Bytes good = compressedPoint(entry.publicKey);
    ASSERT_EQ(derive(entry, good).result, 0);
    // Every second x belongs to no point.
    Bytes off = good;
    int refused = 0;
    for (int i = 0; i < 64; ++i) {
        ++off.back();
        const int result = derive(entry, off).result;
        if (result != 0) {
            EXPECT_EQ(result, number(Error::invalidArgument));
            EXPECT_EQ(derive(entry, inOctetString(off)).result, number(Error::invalidArgument));
            ++refused;
        }
    }
    EXPECT_GT(refused, 5);
    EXPECT_LT(refused, 59);
    for (const unsigned char form : Bytes{0x00, 0x01, 0x04, 0x05, 0x06, 0x07}) {
        Bytes other = good;
        other[0] = form;
        EXPECT_EQ(derive(entry, other).result, number(Error::invalidArgument)) << int{form};
    }
    Bytes beyond(good.size(), 0xFF);
    beyond[0] = 2;
    Bytes longer = good;
    longer.push_back(0);
    Bytes hybrid = entry.publicKey;
    hybrid[0] = static_cast<unsigned char>(6 + hybrid.back() % 2);
    for (const Bytes& point : {beyond, Bytes(good.begin(), good.end() - 1), longer, hybrid}) {
        EXPECT_EQ(derive(entry, point).result, number(Error::invalidArgument)) << hexText(point);
    }
}

TEST_P(AgreementTest, OctetStringMustFitItsPoint) {
    const KeyPairEntry entry = addKey(GetParam());
    for (const Bytes& point : {entry.publicKey, compressedPoint(entry.publicKey)}) {
        const Bytes wrapped = inOctetString(point);
        ASSERT_EQ(derive(entry, wrapped).result, 0);
        const std::size_t header = wrapped.size() - point.size();
        for (std::size_t position = 0; position < header; ++position) {
            for (const int step : {-1, 1, 0x80}) {
                Bytes other = wrapped;
                other[position] = static_cast<unsigned char>(other[position] + step);
                EXPECT_EQ(derive(entry, other).result, number(Error::invalidArgument)) << position << " " << step;
            }
        }
    }
}

TEST_P(AgreementTest, PointsOffTheCurveAreRefused) {
    const KeyPairEntry entry = addKey(GetParam());
    Bytes off = entry.publicKey;
    off.back() ^= 1;
    const Bytes ofOtherCurve = publicKeyBytes(testKey(GetParam() == 5 ? 6 : 5).get());
    for (const Bytes& point : {off, Bytes{}, Bytes{0x04}, Bytes{0x00}, Bytes(entry.publicKey.size(), 0x04),
                               Bytes(10000, 0x04), ofOtherCurve}) {
        EXPECT_EQ(derive(entry, point).result, number(Error::invalidArgument)) << hexText(point);
    }
    EXPECT_EQ(derive(entry, entry.publicKey, "").result, number(Error::pinRequired));
    EXPECT_EQ(derive(entry, entry.publicKey).result, 0);
}

INSTANTIATE_TEST_SUITE_P(Curves, AgreementTest, testing::Values(5, 6, 7));

TEST_F(CipherTest, AgreementNeedsAnEcKey) {
    EXPECT_EQ(derive(addKey(2), publicKeyBytes(testKey(5).get())).result, number(Error::keyTypeMismatch));
}

TEST_F(CipherTest, RandomBytes) {
    Bytes first(64, 0);
    Bytes second(64, 0);
    EXPECT_EQ(zentak_generateRamdomNumber(device(), 64, first.data(), true, nullptr), 0);
    EXPECT_EQ(zentak_generateRamdomNumber(device(), 64, second.data(), true, nullptr), 0);
    EXPECT_NE(first, second);
    Bytes guarded(3, 0xEE);
    EXPECT_EQ(zentak_generateRamdomNumber(device(), 1, guarded.data(), true, nullptr), 0);
    EXPECT_EQ(guarded[1], 0xEE);
    for (const int count : {0, -1, INT_MIN}) {
        EXPECT_NE(zentak_generateRamdomNumber(device(), count, first.data(), true, nullptr), 0);
    }
    EXPECT_NE(zentak_generateRamdomNumber(device(), 1, nullptr, true, nullptr), 0);
    EXPECT_EQ(zentak_generateRamdomNumber("00", 1, first.data(), true, nullptr), 48);
    EXPECT_EQ(zentak_generateRamdomNumber(nullptr, 1, first.data(), true, nullptr), 48);
}

}  // namespace

}  // namespace softtoken
