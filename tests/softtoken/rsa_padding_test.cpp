// RSA decryption of every padding that is understood, and what happens to the blocks between them.

#include "keys/rsa_padding.h"

#include <algorithm>
#include <cstdlib>
#include <openssl/rsa.h>
#include <optional>

#include "openssl_rsa.h"
#include "token_test.h"

namespace softtoken {

namespace {

constexpr std::array<OaepKind, 9> oaepKinds = {{
    {"SHA1", "SHA1", 20},
    {"SHA224", "SHA224", 28},
    {"SHA224", "SHA1", 28},
    {"SHA256", "SHA256", 32},
    {"SHA256", "SHA1", 32},
    {"SHA384", "SHA384", 48},
    {"SHA384", "SHA1", 48},
    {"SHA512", "SHA512", 64},
    {"SHA512", "SHA1", 64},
}};

Bytes oaepCiphertext(const Key& key, ByteView data, const OaepKind& kind, std::string_view label = {}) {
    return opensslCrypts(key, data, true, RSA_PKCS1_OAEP_PADDING, &kind, label);
}

Bytes blockOf(const Key& key, ByteView ciphertext) {
    return opensslCrypts(key, ciphertext, false, RSA_NO_PADDING);
}

std::optional<Bytes> withoutPadding(ByteView block) {
    const auto plaintext = removePadding(block);
    if (!plaintext) return std::nullopt;
    return Bytes(plaintext->begin(), plaintext->end());
}

Bytes pkcs1Block(std::size_t length, std::size_t paddingLength, ByteView data) {
    Bytes block(length, 0xA5);
    block[0] = 0;
    block[1] = 2;
    block[2 + paddingLength] = 0;
    std::copy(data.begin(), data.end(), block.end() - static_cast<std::ptrdiff_t>(data.size()));
    return block;
}

bool looksLikePkcs1(const Bytes& block) {
    return block[0] == 0 && block[1] == 2 &&
           std::find(block.begin() + 2, block.begin() + 10, 0) == block.begin() + 10 &&
           std::find(block.begin() + 10, block.end(), 0) != block.end();
}

/// A ciphertext whose block would be a plaintext of v1.5, too. One in some hundred is.
Bytes ambiguousCiphertext(const Key& key, ByteView data, const OaepKind& kind, std::string_view label = {}) {
    for (int tries = 0; tries < 20000; ++tries) {
        Bytes ciphertext = oaepCiphertext(key, data, kind, label);
        if (looksLikePkcs1(blockOf(key, ciphertext))) return ciphertext;
    }
    ADD_FAILURE() << "no such ciphertext";
    return {};
}

class RsaPaddingTest : public TokenTest {
protected:
    /// The plaintext that the library answers; nothing after a refusal, which is always the same.
    std::optional<Bytes> decrypt(const KeyPairEntry& key, const Bytes& data) {
        unsigned char* output = nullptr;
        int length = -1;
        const int result = zentak_decrypt(device(), key.keyId.data(), userPin, data.data(),
                                          static_cast<int>(data.size()), &output, &length, false, instance_);
        if (result != 0) {
            EXPECT_EQ(result, number(Error::cryptoFailed));
            EXPECT_EQ(output, nullptr);
            return std::nullopt;
        }
        Bytes plaintext(output, output + length);
        std::free(output);
        return plaintext;
    }
};

TEST_F(RsaPaddingTest, EveryKindOfOaepIsDecrypted) {
    for (const int keyType : {1, 2, 4}) {
        const KeyPairEntry entry = addKey(keyType);
        for (const OaepKind& kind : oaepKinds) {
            SCOPED_TRACE(std::string(kind.hash) + " " + kind.maskHash + " " + std::to_string(keyType));
            if (entry.publicKey.size() < 2 * kind.hashLength + 2) continue;
            const std::size_t longest = entry.publicKey.size() - 2 * kind.hashLength - 2;
            for (const std::size_t length : {std::size_t{0}, std::size_t{1}, longest / 2, longest}) {
                for (const unsigned char filling : Bytes{0x00, 0x01, 0xC3}) {
                    const Bytes data(length, filling);
                    EXPECT_EQ(decrypt(entry, oaepCiphertext(testKey(keyType), data, kind)), data);
                }
            }
        }
    }
}

/// Only whoever made the ciphertext knows which one it is, so the rarer accident must win.
TEST_F(RsaPaddingTest, OaepComesBeforeThatWhichLooksLikePkcs1) {
    const KeyPairEntry entry = addKey(1);
    const Bytes data = {'s', 'e', 'c', 'r', 'e', 't'};
    for (const OaepKind& kind : oaepKinds) {
        if (2 * kind.hashLength + 2 + data.size() > entry.publicKey.size()) continue;
        EXPECT_EQ(decrypt(entry, ambiguousCiphertext(testKey(1), data, kind)), data) << kind.hash << kind.maskHash;
    }
}

/// What docs/software-token.md says remains.
TEST_F(RsaPaddingTest, OaepWithALabelIsRefusedOrTakenForPkcs1) {
    const KeyPairEntry entry = addKey(1);
    const Bytes data(8, 0xFF);
    const Bytes ciphertext = ambiguousCiphertext(testKey(1), data, oaepKinds[0], "label");
    const Bytes block = blockOf(testKey(1), ciphertext);
    EXPECT_EQ(decrypt(entry, ciphertext), Bytes(std::find(block.begin() + 2, block.end(), 0) + 1, block.end()));
    Bytes other = oaepCiphertext(testKey(1), data, oaepKinds[0], "label");
    while (looksLikePkcs1(blockOf(testKey(1), other))) other = oaepCiphertext(testKey(1), data, oaepKinds[0], "label");
    EXPECT_EQ(decrypt(entry, other), std::nullopt);
}

TEST_F(RsaPaddingTest, MasksOfAThirdHashAreRefused) {
    for (const OaepKind& kind : {OaepKind{"SHA1", "SHA256", 20}, {"SHA256", "SHA512", 32}, {"SHA512", "SHA256", 64}}) {
        Bytes block;
        do {
            block = blockOf(testKey(2), oaepCiphertext(testKey(2), Bytes(8, 1), kind));
        } while (looksLikePkcs1(block));
        EXPECT_EQ(withoutPadding(block), std::nullopt);
    }
}

/// A bit anywhere in it spoils all of a block with a hash and masks, the byte before them included.
TEST_F(RsaPaddingTest, EveryFlippedBitOfOaepIsNoticed) {
    for (const OaepKind& kind : oaepKinds) {
        Bytes block = blockOf(testKey(2), oaepCiphertext(testKey(2), Bytes(8, 1), kind));
        ASSERT_TRUE(withoutPadding(block).has_value());
        for (std::size_t i = 0; i < block.size(); ++i) {
            block[i] ^= static_cast<unsigned char>(1 << i % 8);
            if (!looksLikePkcs1(block)) {
                EXPECT_EQ(withoutPadding(block), std::nullopt) << kind.hash << " byte " << i;
            }
            block[i] ^= static_cast<unsigned char>(1 << i % 8);
        }
    }
}

/// The masks of SHA-1 for a block of which everything else is free.
Bytes oaepBlock(ByteView labelDigest, ByteView rest) {
    Bytes data(labelDigest.begin(), labelDigest.end());
    data.insert(data.end(), rest.begin(), rest.end());
    Bytes seed(20, 0x77);
    const auto unmask = [](const Bytes& from, Bytes& target) {
        for (std::size_t i = 0; i < target.size(); ++i) {
            Bytes input = from;
            input.insert(input.end(), {0, 0, 0, static_cast<unsigned char>(i / 20)});
            std::array<unsigned char, 20> digest{};
            EXPECT_EQ(EVP_Digest(input.data(), input.size(), digest.data(), nullptr, EVP_sha1(), nullptr), 1);
            target[i] ^= digest[i % 20];
        }
    };
    unmask(seed, data);
    unmask(data, seed);
    Bytes block = {0};
    block.insert(block.end(), seed.begin(), seed.end());
    block.insert(block.end(), data.begin(), data.end());
    return block;
}

TEST_F(RsaPaddingTest, OaepThatIsAlmostRight) {
    Bytes digest(20);
    ASSERT_EQ(EVP_Digest(nullptr, 0, digest.data(), nullptr, EVP_sha1(), nullptr), 1);
    const auto expectResult = [&](const Bytes& labelDigest, const Bytes& rest, const std::optional<Bytes>& expected) {
        const Bytes block = oaepBlock(labelDigest, rest);
        ASSERT_FALSE(looksLikePkcs1(block));
        EXPECT_EQ(withoutPadding(block), expected);
    };
    Bytes rest(87);
    rest[84] = 1;
    expectResult(digest, rest, Bytes{0, 0});
    rest[84] = 2;
    expectResult(digest, rest, std::nullopt);
    rest[84] = 0;
    expectResult(digest, rest, std::nullopt);
    rest[86] = 1;
    expectResult(digest, rest, Bytes{});
    rest[0] = 1;
    expectResult(digest, rest, Bytes(rest.begin() + 1, rest.end()));
    rest[0] = 3;
    expectResult(digest, rest, std::nullopt);
    rest[0] = 0;
    for (const std::size_t position : {0U, 10U, 19U}) {
        Bytes other = digest;
        other[position] ^= 0x80;
        expectResult(other, rest, std::nullopt);
    }
}

TEST_F(RsaPaddingTest, Pkcs1AtItsLimits) {
    for (const std::size_t length : {128U, 256U, 512U}) {
        const Bytes data(length - 11, 0x33);
        EXPECT_EQ(withoutPadding(pkcs1Block(length, 8, data)), data);
        EXPECT_EQ(withoutPadding(pkcs1Block(length, 7, Bytes(length - 10, 0x33))), std::nullopt);
        EXPECT_EQ(withoutPadding(pkcs1Block(length, 0, Bytes(length - 3, 0x33))), std::nullopt);
        EXPECT_EQ(withoutPadding(pkcs1Block(length, length - 3, {})), Bytes());
        EXPECT_EQ(withoutPadding(pkcs1Block(length, 8, Bytes(length - 11, 0))), Bytes(length - 11, 0));
        Bytes spoiled = pkcs1Block(length, 20, Bytes(3, 1));
        for (const unsigned char first : Bytes{0x01, 0x80, 0xFF}) {
            spoiled[0] = first;
            EXPECT_EQ(withoutPadding(spoiled), std::nullopt);
        }
        spoiled[0] = 0;
        for (const unsigned char second : Bytes{0x00, 0x01, 0x03, 0x82}) {
            spoiled[1] = second;
            EXPECT_EQ(withoutPadding(spoiled), std::nullopt);
        }
        Bytes endless(length, 0xA5);
        endless[0] = 0;
        endless[1] = 2;
        EXPECT_EQ(withoutPadding(endless), std::nullopt);
    }
}

TEST_F(RsaPaddingTest, BlocksTooShortForAnything) {
    for (std::size_t length = 0; length < 11; ++length) EXPECT_EQ(withoutPadding(Bytes(length, 2)), std::nullopt);
    EXPECT_EQ(withoutPadding(pkcs1Block(11, 8, {})), Bytes());
}

}  // namespace

}  // namespace softtoken
