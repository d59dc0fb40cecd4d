// Key pairs on a token: generating, importing, renaming, deleting, numbering.

#include <climits>
#include <cstring>
#include <functional>
#include <openssl/core_names.h>
#include <set>

#include "keys/key_numbers.h"
#include "token/instance.h"
#include "token_test.h"

namespace softtoken {

namespace {

class KeyTest : public TokenTest {
protected:
    static ZentakKeyPair request(int keyType) {
        ZentakKeyPair record{};
        record.keyType = keyType;
        record.keyUsage = usageSign;
        std::strcpy(record.alias, "new key");
        record.objectId[0] = 0x77;
        record.objectIdLength = 1;
        return record;
    }
    int generate(ZentakKeyPair& record, const char* pin = userPin) {
        return zentak_generateKeyPair(device(), pin, &record, instance_);
    }

    static ImportPFXDetails detailsOf(const Key& key) {
        ImportPFXDetails details;
        details.components[0] = numberOf(key, OSSL_PKEY_PARAM_RSA_N);
        details.components[2] = numberOf(key, OSSL_PKEY_PARAM_RSA_D);
        details.components[3] = numberOf(key, OSSL_PKEY_PARAM_RSA_FACTOR1);
        details.keyUsage = usageSign | usageDecrypt;
        details.label = "imported";
        details.objectId = {9, 8};
        return details;
    }
    int import(ImportPFXDetails& details, const char* pin = userPin) {
        return zentak_importPfx(device(), pin, &details, instance_);
    }
    using TokenTest::signWith;
    int signWith(const unsigned char* keyId) {
        Reference reference;
        std::copy_n(keyId, reference.size(), reference.begin());
        return signWith(reference);
    }
};

TEST_F(KeyTest, GeneratedKeyIsListedAsItWasAnswered) {
    for (const int keyType : {2, 5, 6, 7}) {
        ZentakKeyPair record = request(keyType);
        ASSERT_EQ(generate(record), 0);
        const ZentakKeyPair& stored = keyPairs().back();
        EXPECT_EQ(std::memcmp(&stored, &record, sizeof record), 0) << keyType;
        EXPECT_EQ(record.publicKeyLength,
                  keyType == 2 ? 256 : 1 + 2 * static_cast<int>(keyTypeOfCode(keyType)->fieldLength));
        EXPECT_EQ(signWith(record.keyId), 0);
    }
}

TEST_F(KeyTest, GenerationNeedsThePin) {
    ZentakKeyPair record = request(5);
    EXPECT_EQ(generate(record, ""), number(Error::pinRequired));
    EXPECT_EQ(generate(record, nullptr), number(Error::pinRequired));
    EXPECT_EQ(generate(record, "000000"), number(Error::pinIncorrect));
    EXPECT_TRUE(keyPairs().empty());
}

TEST_F(KeyTest, KindsThatAreNotGenerated) {
    for (const int keyType : {0, 1, 8, -1, INT_MAX}) {
        ZentakKeyPair record = request(keyType);
        EXPECT_EQ(generate(record), number(Error::unsupportedKey)) << keyType;
    }
    EXPECT_TRUE(keyPairs().empty());
}

TEST_F(KeyTest, RequestsWithImpossibleFieldsAreRefused) {
    ZentakKeyPair record = request(5);
    for (const int length : {-1, 129, INT_MAX, INT_MIN}) {
        record.objectIdLength = length;
        EXPECT_EQ(generate(record), number(Error::invalidArgument));
    }
    record = request(5);
    std::memset(record.alias, 'a', sizeof record.alias);
    EXPECT_EQ(generate(record), number(Error::invalidArgument));
    EXPECT_EQ(zentak_generateKeyPair(device(), userPin, nullptr, instance_), number(Error::invalidArgument));
    EXPECT_TRUE(keyPairs().empty());
    record = request(5);
    std::memset(record.alias, 'a', sizeof record.alias - 1);
    std::memset(record.objectId, 7, sizeof record.objectId);
    record.objectIdLength = 128;
    EXPECT_EQ(generate(record), 0);
    EXPECT_EQ(std::strlen(keyPairs()[0].alias), 131U);
    EXPECT_EQ(keyPairs()[0].objectIdLength, 128);
}

TEST_F(KeyTest, RsaKeyIsMadeOfThreeNumbers) {
    for (const int keyType : {1, 2, 3, 4}) {
        ImportPFXDetails details = detailsOf(testKey(keyType));
        ASSERT_EQ(import(details), 0) << keyType;
        const ZentakKeyPair& stored = keyPairs().back();
        EXPECT_EQ(std::memcmp(stored.keyId, details.keyId, 16), 0);
        EXPECT_EQ(stored.keyType, keyType);
        EXPECT_STREQ(stored.alias, "imported");
        EXPECT_EQ(Bytes(stored.objectId, stored.objectId + stored.objectIdLength), (Bytes{9, 8}));
        EXPECT_EQ(Bytes(stored.publicKey, stored.publicKey + stored.publicKeyLength), details.components[0]);
        unsigned char hash[32] = {1, 2, 3};
        unsigned char signature[1024];
        int length = sizeof signature;
        ASSERT_EQ(
            zentak_signHash(device(), stored.keyId, userPin, hash, 32, signature, &length, false, instance_, false), 0);
        EXPECT_EQ(zentak_verifySignatureHash(static_cast<unsigned>(keyType), device(), hash, 32, stored.publicKey,
                                             stored.publicKeyLength, signature, length, instance_, false),
                  0);
    }
}

TEST_F(KeyTest, LeadingZerosAndTheOtherPrimeAreFine) {
    ImportPFXDetails details = detailsOf(testKey(2));
    details.components[3] = numberOf(testKey(2), OSSL_PKEY_PARAM_RSA_FACTOR2);
    for (auto& component : details.components) {
        if (!component.empty()) component.insert(component.begin(), 2, 0);
    }
    ASSERT_EQ(import(details), 0);
    EXPECT_EQ(keyPairs()[0].publicKeyLength, 256);
    EXPECT_NE(keyPairs()[0].publicKey[0], 0);
    EXPECT_EQ(signWith(details.keyId), 0);
}

TEST_F(KeyTest, NumbersThatAreNoKeyAreRefused) {
    const auto expectRefused = [&](const std::function<void(ImportPFXDetails&)>& spoil) {
        ImportPFXDetails details = detailsOf(testKey(2));
        spoil(details);
        EXPECT_EQ(import(details), number(Error::unsupportedKey));
    };
    for (const int component : {0, 2, 3}) {
        expectRefused([&](ImportPFXDetails& details) { details.components[component].clear(); });
        expectRefused([&](ImportPFXDetails& details) { details.components[component] = Bytes(256, 0); });
        expectRefused([&](ImportPFXDetails& details) { details.components[component].back() ^= 2; });
        expectRefused([&](ImportPFXDetails& details) { details.components[component] = Bytes(100000, 1); });
    }
    expectRefused([](ImportPFXDetails& details) { details.components[3] = {1}; });
    expectRefused([](ImportPFXDetails& details) { details.components[3] = details.components[0]; });
    const Key exponent3 = [] {
        const KeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
        const BigNumber three(BN_new());
        BN_set_word(three.get(), 3);
        EVP_PKEY* key = nullptr;
        EVP_PKEY_keygen_init(context.get());
        EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), 2048);
        EVP_PKEY_CTX_set1_rsa_keygen_pubexp(context.get(), three.get());
        EVP_PKEY_generate(context.get(), &key);
        return ownKey(key);
    }();
    ASSERT_NE(exponent3, nullptr);
    expectRefused([&](ImportPFXDetails& details) { details = detailsOf(exponent3); });
    EXPECT_TRUE(keyPairs().empty());
}

/// All other relations hold between these numbers: only a look at the factors themselves finds the fault.
TEST_F(KeyTest, BothFactorsMustBePrime) {
    const BigNumberContext context(BN_CTX_new());
    const auto prime = [](int bits) {
        BigNumber value(BN_new());
        EXPECT_EQ(BN_generate_prime_ex(value.get(), bits, 0, nullptr, nullptr, nullptr), 1);
        return value;
    };
    const auto product = [&](const BigNumber& left, const BigNumber& right) {
        BigNumber value(BN_new());
        EXPECT_EQ(BN_mul(value.get(), left.get(), right.get(), context.get()), 1);
        return value;
    };
    const auto less1 = [](const BigNumber& number) {
        BigNumber value(BN_dup(number.get()));
        EXPECT_EQ(BN_sub_word(value.get(), 1), 1);
        return value;
    };
    const BigNumber exponent(BN_new());
    BN_set_word(exponent.get(), publicExponent);
    ImportPFXDetails details;
    Bytes composite;
    bool found = false;
    for (int tries = 0; tries < 100 && !found; ++tries) {
        const BigNumber p = prime(1024);
        const BigNumber q = product(prime(512), prime(512));
        const BigNumber n = product(p, q);
        const BigNumber order = product(less1(p), less1(q));
        const BigNumber d(BN_mod_inverse(nullptr, exponent.get(), order.get(), context.get()));
        if (!d || BN_num_bits(n.get()) != 2048) continue;
        details.components[0] = bytesOf(n.get());
        details.components[2] = bytesOf(d.get());
        details.components[3] = bytesOf(p.get());
        composite = bytesOf(q.get());
        found = true;
    }
    ASSERT_TRUE(found);
    details.keyUsage = usageSign;
    details.label = "imported";
    EXPECT_EQ(import(details), number(Error::unsupportedKey));
    details.components[3] = composite;
    EXPECT_EQ(import(details), number(Error::unsupportedKey));
    EXPECT_TRUE(keyPairs().empty());
}

TEST_F(KeyTest, ImportNeedsThePinAndRefusesLongFields) {
    ImportPFXDetails details = detailsOf(testKey(2));
    EXPECT_EQ(import(details, ""), number(Error::pinRequired));
    EXPECT_EQ(import(details, "000000"), number(Error::pinIncorrect));
    details.label = std::string(132, 'a');
    EXPECT_EQ(import(details), number(Error::invalidArgument));
    details.label = "x";
    details.objectId = Bytes(129, 1);
    EXPECT_EQ(import(details), number(Error::invalidArgument));
    EXPECT_TRUE(keyPairs().empty());
}

TEST_F(KeyTest, SameKeyTwiceIsRefused) {
    ImportPFXDetails details = detailsOf(testKey(2));
    EXPECT_EQ(import(details), 0);
    EXPECT_EQ(import(details), number(Error::keyExists));
    EXPECT_EQ(keyPairs().size(), 1U);
}

TEST_F(KeyTest, FullTokenSaysSo) {
    store_.change(serialNumber_, [](TokenData& token) { token.capacity = 1; });
    ZentakKeyPair record = request(5);
    EXPECT_EQ(generate(record), 0);
    EXPECT_EQ(generate(record), 40);
    ImportPFXDetails details = detailsOf(testKey(2));
    EXPECT_EQ(import(details), 40);
}

TEST_F(KeyTest, LabelAndIdAreChangedEachForItself) {
    const KeyPairEntry key = addKey(5);
    const unsigned char objectId[] = {5, 6};
    const auto update = [&](const char* label, const unsigned char* id, int length, const char* pin = userPin) {
        return zentak_updateKeyPairDetails(device(), key.keyId.data(), pin, label, id, length, instance_);
    };
    EXPECT_EQ(update("renamed", nullptr, 0), 0);
    EXPECT_STREQ(keyPairs()[0].alias, "renamed");
    EXPECT_EQ(keyPairs()[0].objectIdLength, 3);
    EXPECT_EQ(update("", objectId, 2), 0);
    EXPECT_STREQ(keyPairs()[0].alias, "renamed");
    EXPECT_EQ(Bytes(keyPairs()[0].objectId, keyPairs()[0].objectId + keyPairs()[0].objectIdLength), (Bytes{5, 6}));
    EXPECT_EQ(update(nullptr, nullptr, 0), 0);
    EXPECT_EQ(update("\xFF\x80", nullptr, 0), 0);
    EXPECT_STREQ(keyPairs()[0].alias, "\xFF\x80");
    EXPECT_EQ(signWith(key.keyId), 0);

    EXPECT_EQ(update("x", nullptr, 0, ""), number(Error::pinRequired));
    EXPECT_EQ(update("x", nullptr, 0, "000000"), number(Error::pinIncorrect));
    EXPECT_EQ(update(std::string(132, 'a').c_str(), nullptr, 0), number(Error::invalidArgument));
    EXPECT_EQ(update("x", objectId, -1), number(Error::invalidArgument));
    EXPECT_EQ(update("x", Bytes(129, 1).data(), 129), number(Error::invalidArgument));
    EXPECT_STREQ(keyPairs()[0].alias, "\xFF\x80");
    reopen();
    EXPECT_STREQ(keyPairs()[0].alias, "\xFF\x80");
}

TEST_F(KeyTest, DeletedKeyIsGone) {
    const KeyPairEntry first = addKey(5);
    const KeyPairEntry second = addKey(6);
    ASSERT_EQ(signWith(first.keyId), 0);
    const auto remove = [&](const Reference& keyId, const char* pin) {
        return zentak_deleteKeyPair(device(), keyId.data(), pin, false, instance_);
    };
    EXPECT_EQ(remove(first.keyId, ""), number(Error::pinRequired));
    EXPECT_EQ(remove(first.keyId, "000000"), number(Error::pinIncorrect));
    EXPECT_EQ(keyPairs().size(), 2U);
    EXPECT_EQ(remove(first.keyId, userPin), 0);
    ASSERT_EQ(keyPairs().size(), 1U);
    EXPECT_EQ(keyPairs()[0].id, second.id);
    EXPECT_EQ(signWith(first.keyId), number(Error::keyNotFound));
    EXPECT_EQ(remove(first.keyId, userPin), number(Error::keyNotFound));
    EXPECT_EQ(zentak_deleteKeyPair(device(), nullptr, userPin, false, instance_), number(Error::invalidArgument));
    // Nothing of the key stays behind in the file.
    EXPECT_EQ(fileContent(tokenFile()).find(hexText(first.keyId)), std::string::npos);
}

TEST_F(KeyTest, NumbersAreUniqueAndComeBackLate) {
    const KeyPairEntry first = addKey(5);
    const KeyPairEntry second = addKey(6);
    EXPECT_EQ(first.id, 1U);
    EXPECT_EQ(second.id, 2U);
    EXPECT_EQ(zentak_deleteKeyPair(device(), second.keyId.data(), userPin, false, instance_), 0);
    EXPECT_EQ(addKey(6).id, 3U);
    // Behind the largest number it goes on with the smallest free one.
    store_.change(serialNumber_, [](TokenData& token) { token.lastKeyPairNumber = largestObjectNumber; });
    EXPECT_EQ(addKey(7).id, 2U);
    std::set<std::uint32_t> numbers;
    for (const ZentakKeyPair& pair : keyPairs()) numbers.insert(pair.id);
    EXPECT_EQ(numbers, (std::set<std::uint32_t>{1, 2, 3}));
}

/// Whoever can write to the file could otherwise let a key sign what another one's certificate stands for, or do what
/// it isn't for.
TEST_F(KeyTest, PrivateKeyOpensWithItsOwnPublicDataOnly) {
    const KeyPairEntry first = addKey(5);
    const KeyPairEntry second = addKey(6);
    const auto expectDamaged = [&](const std::function<void(TokenData&)>& spoil) {
        TokenData whole;
        store_.change(serialNumber_, [&](TokenData& token) {
            whole = token;
            spoil(token);
        });
        reopen();
        const Reference keyId = store_.load(serialNumber_).keyPairs[0].keyId;
        EXPECT_EQ(signWith(keyId), number(Error::tokenDamaged));
        store_.change(serialNumber_, [&](TokenData& token) { token = whole; });
        reopen();
        EXPECT_EQ(signWith(first.keyId), 0);
    };
    expectDamaged([&](TokenData& token) { token.keyPairs[0].publicKey = publicKeyBytes(testKey(7).get()); });
    expectDamaged([](TokenData& token) { token.keyPairs[0].publicKey.back() ^= 1; });
    expectDamaged([](TokenData& token) { token.keyPairs[0].keyType = 6; });
    expectDamaged([](TokenData& token) { token.keyPairs[0].keyUsage = usageSign; });
    expectDamaged([](TokenData& token) { token.keyPairs[0].keyId[15] ^= 1; });
    expectDamaged([&](TokenData& token) { token.keyPairs[0].sealedPrivateKey = second.sealedPrivateKey; });
}

/// A caller copies a list while the next calls are already changing the token.
TEST_F(KeyTest, ListsStayAliveForFourChanges) {
    Instance instance(store_);
    const auto rename = [&](const std::string& name) {
        instance.change(serialNumber_, [&](TokenData& token) { token.keyPairs[0].alias = name; });
    };
    addKey(5);
    const std::weak_ptr<Snapshot> oldest = instance.snapshot(serialNumber_);
    for (const char* const name : {"a", "b", "c", "d"}) {
        rename(name);
        const auto held = oldest.lock();
        ASSERT_NE(held, nullptr) << name;
        EXPECT_STREQ(held->keyPairs[0].alias, "key");
    }
    rename("e");
    EXPECT_TRUE(oldest.expired());
}

TEST_F(KeyTest, PrivateKeysAreNotInTheFileInTheClear) {
    addKey(2);
    const std::string file = fileContent(tokenFile());
    for (const char* name : {OSSL_PKEY_PARAM_RSA_D, OSSL_PKEY_PARAM_RSA_FACTOR1, OSSL_PKEY_PARAM_RSA_FACTOR2}) {
        EXPECT_EQ(file.find(hexText(numberOf(testKey(2), name)).substr(0, 32)), std::string::npos);
    }
}

}  // namespace

}  // namespace softtoken
