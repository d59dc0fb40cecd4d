// A host that made an engine OpenSSL's default for RSA and EC keys, as `openssl -engine pkcs11` does: the token works
// on, without asking that engine for anything that it can't do.

// Engines are deprecated, and what hosts use all the same.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <array>
#include <cstdlib>
#include <openssl/engine.h>

#include "token_test.h"

#ifndef OPENSSL_NO_ENGINE

namespace softtoken {

namespace {

/// The methods of engines like engine_pkcs11: copies of OpenSSL's own.
int methodsOf(ENGINE* /*engine*/, EVP_PKEY_METHOD** method, const int** identifiers, int identifier) {
    static const std::array<int, 2> handled = {EVP_PKEY_RSA, EVP_PKEY_EC};
    static const auto copyOf = [](int type) {
        EVP_PKEY_METHOD* copy = EVP_PKEY_meth_new(type, 0);
        EVP_PKEY_meth_copy(copy, EVP_PKEY_meth_find(type));
        return copy;
    };
    if (method == nullptr) {
        *identifiers = handled.data();
        return handled.size();
    }
    static EVP_PKEY_METHOD* const rsa = copyOf(EVP_PKEY_RSA);
    static EVP_PKEY_METHOD* const ec = copyOf(EVP_PKEY_EC);
    *method = identifier == EVP_PKEY_RSA ? rsa : identifier == EVP_PKEY_EC ? ec : nullptr;
    return *method != nullptr ? 1 : 0;
}

class EngineTest : public TokenTest {
protected:
    // Once for all tests: the methods go with the engine.
    static void SetUpTestSuite() {
        engine = ENGINE_new();
        ASSERT_NE(engine, nullptr);
        ASSERT_EQ(ENGINE_set_id(engine, "defaulttest"), 1);
        ASSERT_EQ(ENGINE_set_pkey_meths(engine, methodsOf), 1);
        ASSERT_EQ(ENGINE_set_default_pkey_meths(engine), 1);
    }
    static void TearDownTestSuite() {
        ENGINE_unregister_pkey_meths(engine);
        ENGINE_free(engine);
    }

    ZentakKeyPair generate(int keyType) {
        ZentakKeyPair record{};
        record.keyType = keyType;
        record.keyUsage = usageSign | usageDecrypt;
        EXPECT_EQ(zentak_generateKeyPair(device(), userPin, &record, instance_), 0);
        EXPECT_GT(record.publicKeyLength, 0);
        return record;
    }

private:
    static inline ENGINE* engine = nullptr;
};

}  // namespace

TEST_F(EngineTest, GeneratesBothKindsOfKeys) {
    EXPECT_EQ(generate(2).publicKeyLength, 256);
    EXPECT_EQ(generate(6).publicKeyLength, 97);
}

TEST_F(EngineTest, AgreesOnASecretWithAPeer) {
    const ZentakKeyPair first = generate(5);
    const ZentakKeyPair second = generate(5);
    const auto secretOf = [this](const ZentakKeyPair& own, const ZentakKeyPair& peer) {
        unsigned char* secret = nullptr;
        int length = 0;
        EXPECT_EQ(zentak_ecdhDerive(device(), own.keyId, userPin, peer.publicKey, peer.publicKeyLength, &secret,
                                    &length, instance_),
                  0);
        Bytes bytes(secret, secret + length);
        std::free(secret);
        return bytes;
    };
    const Bytes secret = secretOf(first, second);
    EXPECT_EQ(secret.size(), 32U);
    EXPECT_EQ(secret, secretOf(second, first));
}

}  // namespace softtoken

#endif
