// C_EncryptInit, C_Encrypt, C_DecryptInit and C_Decrypt.

#include "signing_test.h"

using namespace support;

namespace {

const Bytes rsaIdentifier = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
const Bytes exponent = {0x02, 0x03, 0x01, 0x00, 0x01};

/// The SubjectPublicKeyInfo of a 256-byte modulus whose top bit is set, written out by hand.
Bytes wrapped2048(const Bytes& modulus) {
    return Bytes{0x30, 0x82, 0x01, 0x22} + rsaIdentifier + Bytes{0x03, 0x82, 0x01, 0x0F, 0x00} +
           Bytes{0x30, 0x82, 0x01, 0x0A} + Bytes{0x02, 0x82, 0x01, 0x01, 0x00} + modulus + exponent;
}

class CipherTest : public SigningTest {
protected:
    void SetUp() override {
        SigningTest::SetUp();
        setPublicKey(keyRecord(), modulus);
        world.ciphertext = countingBytes(0x11, 256);
        world.plaintext = countingBytes(0x70, 11);
    }
    ZentakKeyPair& keyRecord() { return world.keyPairs["SN1"][0]; }

    Outcome encryptInit(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key = publicKey(5)) {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        return observe([&] { return api->C_EncryptInit(session, &mechanism, key); });
    }
    Outcome decryptInit(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key = privateKey(5)) {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        return observe([&] { return api->C_DecryptInit(session, &mechanism, key); });
    }
    void digestInit() {
        CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
        ASSERT_EQ(api->C_DigestInit(session, &mechanism), CKR_OK);
    }
    /// Into `room`; the capacity isn't looked at.
    Outcome encrypt(const Bytes& data) {
        return intoRoom(data, [&](CK_BYTE_PTR source, CK_ULONG count, CK_BYTE_PTR target) {
            return api->C_Encrypt(session, source, count, target, &length);
        });
    }
    Outcome decrypt(const Bytes& data) {
        return intoRoom(data, [&](CK_BYTE_PTR source, CK_ULONG count, CK_BYTE_PTR target) {
            return api->C_Decrypt(session, source, count, target, &length);
        });
    }
    Outcome encryptSize(const Bytes& data) {
        Bytes copy = data;
        return observe(
            [&] { return api->C_Encrypt(session, copy.data(), static_cast<CK_ULONG>(copy.size()), nullptr, &length); });
    }
    Outcome decryptSize(const Bytes& data) {
        Bytes copy = data;
        return observe(
            [&] { return api->C_Decrypt(session, copy.data(), static_cast<CK_ULONG>(copy.size()), nullptr, &length); });
    }
    void expectInRoom(const Bytes& result) {
        EXPECT_EQ(length, result.size());
        EXPECT_EQ(room.first(result.size()), result);
        EXPECT_TRUE(room.untouchedFrom(result.size()));
    }

    static std::string encryptCall(int type, int padding, const Bytes& data, const Bytes& key) {
        return text("zentak_encrypt(", type, ", ", padding, ", ", shown(data), ", out, *0, ", shown(key),
                    ", instance)");
    }
    static std::string decryptCall(const Bytes& data, bool flag = false, const std::string& password = "246810") {
        return text("zentak_decrypt(\"SN1\", ", shownKeyReference(5), ", \"", password, "\", ", shown(data),
                    ", out, *0, ", flag ? "true" : "false", ", instance)");
    }

    const Bytes modulus = countingBytes(0x80, 256);

private:
    template <typename Function>
    Outcome intoRoom(const Bytes& data, Function call) {
        Bytes copy = data;
        room = Room(2000);
        length = 0;
        return observe([&] {
            return call(copy.data(), static_cast<CK_ULONG>(copy.size()), static_cast<CK_BYTE_PTR>(room.address()));
        });
    }
};

const Outcome encryptReady = {CKR_OK, {"DEBUG C_EncryptInit"}, {listKeyPairs}};
const Outcome decryptReady = {CKR_OK, {"DEBUG C_DecryptInit"}, {listKeyPairs}};

// --- C_EncryptInit ---

TEST_F(CipherTest, EncryptInitChecksInItsOrder) {
    const std::string function = "C_EncryptInit";
    unsigned char parameter = 0;
    CK_MECHANISM withParameter = {CKM_RSA_PKCS, &parameter, 1};
    const CK_SESSION_HANDLE good = session;
    const auto init = [&](CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
        return observe([&] { return api->C_EncryptInit(session, mechanism, key); });
    };
    session = 7;
    EXPECT_EQ(init(nullptr, 0), refused(CKR_SESSION_HANDLE_INVALID, "C_EncryptInit: invalid hSession=7"));
    session = good;
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(init(nullptr, 0),
              refused(CKR_OPERATION_ACTIVE, "C_EncryptInit: operation already active, activeOperation=1"));
    ASSERT_EQ(api->C_FindObjectsFinal(session), CKR_OK);
    EXPECT_EQ(init(nullptr, 0), refused(CKR_ARGUMENTS_BAD, "C_EncryptInit: pMechanism is NULL"));
    EXPECT_EQ(init(&withParameter, 0),
              refused(CKR_MECHANISM_PARAM_INVALID, "C_EncryptInit: mechanism param invalid for mechanism=1"));
    EXPECT_EQ(encryptInit(CKM_RSA_PKCS, 0), refused(CKR_OBJECT_HANDLE_INVALID, "C_EncryptInit: invalid hKey=0"));
    keyRecord().keyUsage = usageSign;
    EXPECT_EQ(encryptInit(CKM_MD5, 0), refused(CKR_MECHANISM_INVALID, "C_EncryptInit: unsupported mechanism=528"));
    api->C_Finalize(nullptr);
    session = 7;
    EXPECT_EQ(init(nullptr, 0), refused(CKR_CRYPTOKI_NOT_INITIALIZED, "C_EncryptInit: not initialized"));
}

TEST_F(CipherTest, EncryptInitRefusesEachRunningOperation) {
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(encryptInit(CKM_MD5, 0),
              refused(CKR_OPERATION_ACTIVE, "C_EncryptInit: operation already active, activeOperation=5"));
    abandon();
    ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
    EXPECT_EQ(encryptInit(CKM_RSA_PKCS),
              refused(CKR_OPERATION_ACTIVE, "C_EncryptInit: operation already active, activeOperation=2"));
    EXPECT_EQ(decryptInit(CKM_RSA_PKCS),
              refused(CKR_OPERATION_ACTIVE, "C_DecryptInit: operation already active, activeOperation=2"));
    EXPECT_EQ(encrypt({1}).code, CKR_OK);
}

TEST_F(CipherTest, EncryptInitTakesBothHandlesForPkcs1AndThePublicOneForOaep) {
    EXPECT_EQ(encryptInit(CKM_RSA_PKCS, publicKey(5)), encryptReady);
    abandon();
    EXPECT_EQ(encryptInit(CKM_RSA_PKCS, privateKey(5)), encryptReady);
    abandon();
    EXPECT_EQ(encryptInit(CKM_RSA_PKCS_OAEP, publicKey(5)), encryptReady);
    abandon();
    for (const CK_OBJECT_HANDLE key : Handles{privateKey(5), 0x70000FFF, 0x6FFFFFFF, 5, 0}) {
        EXPECT_EQ(
            encryptInit(CKM_RSA_PKCS_OAEP, key),
            refused(CKR_OBJECT_HANDLE_INVALID, text("C_EncryptInit: invalid hKey=", key, " for CKM_RSA_PKCS_OAEP")));
    }
    for (const CK_OBJECT_HANDLE key : Handles{0x6FFFFFFF, 5, 0}) {
        EXPECT_EQ(encryptInit(CKM_RSA_PKCS, key),
                  refused(CKR_OBJECT_HANDLE_INVALID, text("C_EncryptInit: invalid hKey=", key)));
    }
}

TEST_F(CipherTest, EncryptInitNeedsTheKeyPair) {
    for (const CK_OBJECT_HANDLE key :
         Handles{privateKey(7), publicKey(7), 0x70000000, 0x70000FFF, certificate(5), 0xFFFFFFFF}) {
        EXPECT_EQ(encryptInit(CKM_RSA_PKCS, key),
                  failed(CKR_OBJECT_HANDLE_INVALID, "C_EncryptInit", text("Invalid input handle in encrypt : ", key),
                         {listKeyPairs}));
    }
    for (const CK_OBJECT_HANDLE key : Handles{publicKey(7), certificate(5)}) {
        EXPECT_EQ(encryptInit(CKM_RSA_PKCS_OAEP, key),
                  refused(CKR_OBJECT_HANDLE_INVALID,
                          text("C_EncryptInit: invalid input handle for OAEP encrypt : ", key), {listKeyPairs}));
    }
    EXPECT_EQ(encrypt({1}), notInitialised("C_Encrypt"));
}

TEST_F(CipherTest, ParametersAreRefusedForPkcs1AndIgnoredForOaep) {
    for (const auto& [address, count] : {std::pair<void*, CK_ULONG>{&length, 0}, {nullptr, 1}, {&length, 4}}) {
        CK_MECHANISM mechanism = {CKM_RSA_PKCS, address, count};
        EXPECT_EQ(observe([&] { return api->C_EncryptInit(session, &mechanism, publicKey(5)); }),
                  refused(CKR_MECHANISM_PARAM_INVALID, "C_EncryptInit: mechanism param invalid for mechanism=1"));
        EXPECT_EQ(observe([&] { return api->C_DecryptInit(session, &mechanism, privateKey(5)); }),
                  refused(CKR_MECHANISM_PARAM_INVALID, "C_DecryptInit: mechanism param invalid for CKM_RSA_PKCS"));
    }
    CK_MECHANISM oaep = {CKM_RSA_PKCS_OAEP, reinterpret_cast<void*>(1), 1000};
    EXPECT_EQ(observe([&] { return api->C_EncryptInit(session, &oaep, publicKey(5)); }), encryptReady);
    abandon();
    EXPECT_EQ(observe([&] { return api->C_DecryptInit(session, &oaep, privateKey(5)); }), decryptReady);
}

TEST_F(CipherTest, OtherMechanismsAreUnknown) {
    for (const CK_MECHANISM_TYPE type : Numbers{0, 3, CKM_RSA_PKCS_PSS, CKM_SHA256_RSA_PKCS, CKM_ECDSA, 0xFFFFFFFF}) {
        EXPECT_EQ(encryptInit(type),
                  refused(CKR_MECHANISM_INVALID, text("C_EncryptInit: unsupported mechanism=", type)));
        EXPECT_EQ(decryptInit(type),
                  refused(CKR_MECHANISM_INVALID, text("C_DecryptInit: unsupported mechanism=", type)));
    }
}

TEST_F(CipherTest, TheKeyMustBeMeantForEncryption) {
    for (const std::uint32_t usage : {0U, 1U, 4U, 5U}) {
        keyRecord().keyUsage = usage;
        for (const CK_MECHANISM_TYPE type : Numbers{CKM_RSA_PKCS, CKM_RSA_PKCS_OAEP}) {
            EXPECT_EQ(
                encryptInit(type),
                refused(CKR_KEY_FUNCTION_NOT_PERMITTED,
                        text("C_EncryptInit: key usage does not permit encrypt, keyUsage=", usage), {listKeyPairs}));
            EXPECT_EQ(
                decryptInit(type),
                refused(CKR_KEY_FUNCTION_NOT_PERMITTED,
                        text("C_DecryptInit: key usage does not permit decrypt, keyUsage=", usage), {listKeyPairs}));
        }
    }
    EXPECT_EQ(encrypt({1}), notInitialised("C_Encrypt"));
    EXPECT_EQ(decrypt({1}), notInitialised("C_Decrypt"));
    for (const std::uint32_t usage : {2U, 3U, 6U}) {
        keyRecord().keyUsage = usage;
        EXPECT_EQ(encryptInit(CKM_RSA_PKCS), encryptReady);
        abandon();
        EXPECT_EQ(decryptInit(CKM_RSA_PKCS), decryptReady);
        abandon();
    }
}

// --- C_Encrypt ---

TEST_F(CipherTest, EachMechanismEncryptsWithItsPadding) {
    const Bytes data = {1, 2, 3};
    const std::pair<CK_MECHANISM_TYPE, int> rows[] = {{CKM_RSA_PKCS, 1}, {CKM_RSA_PKCS_OAEP, 4}, {CKM_RSA_PKCS, 1}};
    for (const auto& [type, padding] : rows) {
        EXPECT_EQ(encryptInit(type), encryptReady);
        EXPECT_EQ(encrypt(data), succeeded("C_Encrypt", {encryptCall(8, padding, data, wrapped2048(modulus))}));
        expectInRoom(world.ciphertext);
        EXPECT_EQ(encrypt(data), notInitialised("C_Encrypt"));
    }
}

TEST_F(CipherTest, ThePrivateKeysHandleEncryptsWithItsPublicKey) {
    ASSERT_EQ(encryptInit(CKM_RSA_PKCS, privateKey(5)).code, CKR_OK);
    EXPECT_EQ(encrypt({9}).device, (Lines{encryptCall(8, 1, {9}, wrapped2048(modulus))}));
}

TEST_F(CipherTest, TheKeyTypeChoosesTheEncryptionType) {
    const std::pair<int, int> rows[] = {{1, 7}, {2, 8}, {3, 9}, {4, 10}, {5, 8},
                                        {6, 8}, {7, 8}, {0, 8}, {99, 8}, {-1, 8}};
    for (const auto& [keyType, encryptionType] : rows) {
        keyRecord().keyType = keyType;
        ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
        EXPECT_EQ(encrypt({1}).device, (Lines{encryptCall(encryptionType, 1, {1}, wrapped2048(modulus))})) << keyType;
    }
}

TEST_F(CipherTest, EveryPublicKeyIsWrapped) {
    const Bytes small = countingBytes(5, 256);  // no zero byte before it
    const Bytes rsa1024Modulus = countingBytes(0x80, 128);
    const Bytes longest(1024, 0xFF);
    const std::pair<Bytes, Bytes> rows[] = {
        {small, Bytes{0x30, 0x82, 0x01, 0x21} + rsaIdentifier + Bytes{0x03, 0x82, 0x01, 0x0E, 0x00} +
                    Bytes{0x30, 0x82, 0x01, 0x09} + Bytes{0x02, 0x82, 0x01, 0x00} + small + exponent},
        {rsa1024Modulus, Bytes{0x30, 0x81, 0x9F} + rsaIdentifier + Bytes{0x03, 0x81, 0x8D, 0x00} +
                             Bytes{0x30, 0x81, 0x89} + Bytes{0x02, 0x81, 0x81, 0x00} + rsa1024Modulus + exponent},
        {longest, Bytes{0x30, 0x82, 0x04, 0x22} + rsaIdentifier + Bytes{0x03, 0x82, 0x04, 0x0F, 0x00} +
                      Bytes{0x30, 0x82, 0x04, 0x0A} + Bytes{0x02, 0x82, 0x04, 0x01, 0x00} + longest + exponent},
        // What is DER already, an EC point, leading zeros, and nothing at all.
        {{0x30, 0x01, 0x02},
         Bytes{0x30, 0x1E} + rsaIdentifier + Bytes{0x03, 0x0D, 0x00, 0x30, 0x0A} + Bytes{0x02, 0x03, 0x30, 0x01, 0x02} +
             exponent},
        {{0x04, 0xFF, 0xFE},
         Bytes{0x30, 0x1E} + rsaIdentifier + Bytes{0x03, 0x0D, 0x00, 0x30, 0x0A} + Bytes{0x02, 0x03, 0x04, 0xFF, 0xFE} +
             exponent},
        {{0x00, 0x00, 0x05},
         Bytes{0x30, 0x1E} + rsaIdentifier + Bytes{0x03, 0x0D, 0x00, 0x30, 0x0A} + Bytes{0x02, 0x03, 0x00, 0x00, 0x05} +
             exponent},
        {{}, Bytes{0x30, 0x1B} + rsaIdentifier + Bytes{0x03, 0x0A, 0x00, 0x30, 0x07, 0x02, 0x00} + exponent},
    };
    for (const auto& [stored, wrapped] : rows) {
        setPublicKey(keyRecord(), stored);
        ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
        EXPECT_EQ(encrypt({1}), succeeded("C_Encrypt", {encryptCall(8, 1, {1}, wrapped)})) << stored.size();
    }
}

TEST_F(CipherTest, EncryptArgumentsAreCheckedInTheirOrderAndKeepTheOperation) {
    unsigned char byte = 1;
    const auto call = [&](CK_BYTE_PTR data, CK_ULONG count, CK_ULONG* target) {
        return observe([&] { return api->C_Encrypt(session, data, count, nullptr, target); });
    };
    const CK_SESSION_HANDLE good = session;
    session = 7;
    EXPECT_EQ(call(nullptr, 0, nullptr), refused(CKR_SESSION_HANDLE_INVALID, "C_Encrypt: invalid hSession=7"));
    session = good;
    EXPECT_EQ(call(nullptr, 0, nullptr), notInitialised("C_Encrypt"));
    ASSERT_EQ(decryptInit(CKM_RSA_PKCS).code, CKR_OK);
    EXPECT_EQ(call(nullptr, 0, nullptr), notInitialised("C_Encrypt", 3));
    abandon();
    ASSERT_EQ(encryptInit(CKM_RSA_PKCS_OAEP).code, CKR_OK);
    for (const auto& [data, count] : {std::pair<CK_BYTE_PTR, CK_ULONG>{nullptr, 3}, {&byte, 0}, {nullptr, 0}}) {
        EXPECT_EQ(call(data, count, nullptr),
                  refused(CKR_ARGUMENTS_BAD, text("C_Encrypt: pData is NULL or ulDataLen<=0, ulDataLen=", count)));
    }
    EXPECT_EQ(call(&byte, 1, nullptr), refused(CKR_ARGUMENTS_BAD, "C_Encrypt: pulEncryptedDataLen is NULL"));
    EXPECT_EQ(encrypt({1}).device, (Lines{encryptCall(8, 4, {1}, wrapped2048(modulus))}));
    api->C_Finalize(nullptr);
    EXPECT_EQ(call(nullptr, 0, nullptr), refused(CKR_CRYPTOKI_NOT_INITIALIZED, "C_Encrypt: not initialized"));
}

TEST_F(CipherTest, ASizeQueryKeepsTheCiphertext) {
    ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
    length = 0;
    EXPECT_EQ(encryptSize({1}), succeeded("C_Encrypt", {encryptCall(8, 1, {1}, wrapped2048(modulus))}));
    EXPECT_EQ(length, 256U);
    const Bytes first = world.ciphertext;
    world.ciphertext = {7};
    EXPECT_EQ(encryptSize({2, 3}), succeeded("C_Encrypt"));
    EXPECT_EQ(length, 256U);
    // The arguments are looked at all the same.
    EXPECT_EQ(encryptSize({}).code, CKR_ARGUMENTS_BAD);
    EXPECT_EQ(encrypt({4, 5, 6}), succeeded("C_Encrypt"));
    expectInRoom(first);
    EXPECT_EQ(encrypt({4}), notInitialised("C_Encrypt"));
}

TEST_F(CipherTest, AnEmptyCiphertextIsNoStoredResult) {
    world.ciphertext = {};
    ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
    length = 9;
    EXPECT_EQ(encryptSize({1}).code, CKR_OK);
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(encrypt({2}).device, (Lines{encryptCall(8, 1, {2}, wrapped2048(modulus))}));
    expectInRoom({});
    EXPECT_EQ(encrypt({2}), notInitialised("C_Encrypt"));
}

TEST_F(CipherTest, ANewStartDropsTheKeptResult) {
    ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
    ASSERT_EQ(encryptSize({1}).code, CKR_OK);
    abandon();
    ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
    EXPECT_EQ(encrypt({2}).device, (Lines{encryptCall(8, 1, {2}, wrapped2048(modulus))}));
    ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
    ASSERT_EQ(encryptSize({1}).code, CKR_OK);
    abandon();
    ASSERT_EQ(decryptInit(CKM_RSA_PKCS).code, CKR_OK);
    EXPECT_EQ(decrypt({2}).device, (Lines{decryptCall({2})}));
    expectInRoom(world.plaintext);
}

TEST_F(CipherTest, TheWholeAreaMayBeFilled) {
    world.ciphertext = countingBytes(0, 1024);
    ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
    EXPECT_EQ(encrypt({1}).code, CKR_OK);
    expectInRoom(world.ciphertext);
}

TEST_F(CipherTest, ALengthBeyondTheAreaIsAFailure) {
    for (const int reported : {1025, 2000000000, -1}) {
        ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
        world.reportedLength = reported;
        const Outcome outcome = encrypt({1});
        EXPECT_EQ(outcome.code, CKR_FUNCTION_FAILED);
        EXPECT_TRUE(endsWithOneError(outcome.log, "C_Encrypt"));
        EXPECT_TRUE(room.untouchedFrom(0));
        world.reportedLength.reset();
        EXPECT_EQ(encrypt({1}), notInitialised("C_Encrypt"));
    }
}

TEST_F(CipherTest, AFailedEncryptionEndsTheOperation) {
    for (const int result : {1, 40, -7}) {
        setResult("zentak_encrypt", result);
        ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
        EXPECT_EQ(encrypt({1}), failed(CKR_FUNCTION_FAILED, "C_Encrypt", text("Encrypt data failed : ", result),
                                       {encryptCall(8, 1, {1}, wrapped2048(modulus))}));
        EXPECT_TRUE(room.untouchedFrom(0));
        EXPECT_EQ(encrypt({1}), notInitialised("C_Encrypt"));
    }
}

TEST_F(CipherTest, EncryptionNeedsNoLoginAndWorksOnAFipsToken) {
    ASSERT_EQ(api->C_Logout(session), CKR_OK);
    EXPECT_EQ(encryptInit(CKM_RSA_PKCS), encryptReady);
    EXPECT_EQ(encrypt({1}).code, CKR_OK);
    session = openSession(0, fipsSlot);
    world.keyPairs["SN2"] = {makeKeyPair(5, rsa1024)};
    setPublicKey(world.keyPairs["SN2"][0], modulus);
    EXPECT_EQ(encryptInit(CKM_RSA_PKCS), succeeded("C_EncryptInit", {"zentak_getKeyPairList(\"SN2\", instance)"}));
    EXPECT_EQ(encrypt({1}).device, (Lines{encryptCall(7, 1, {1}, wrapped2048(modulus))}));
}

TEST_F(CipherTest, TheLastKeyPairLookedUpIsTheOneThatEncrypts) {
    setPublicKey(world.keyPairs["SN1"][1], countingBytes(0x90, 256));
    ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
    const CK_SESSION_HANDLE other = openSession();
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(api->C_EncryptInit(other, &mechanism, publicKey(6)), CKR_OK);
    EXPECT_EQ(encrypt({1}).device, (Lines{encryptCall(8, 1, {1}, wrapped2048(countingBytes(0x90, 256)))}));
}

// --- C_DecryptInit ---

TEST_F(CipherTest, DecryptInitChecksInItsOrder) {
    const std::string function = "C_DecryptInit";
    const auto init = [&](CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
        return observe([&] { return api->C_DecryptInit(session, mechanism, key); });
    };
    unsigned char parameter = 0;
    CK_MECHANISM withParameter = {CKM_RSA_PKCS, &parameter, 1};
    const CK_SESSION_HANDLE good = session;
    session = 7;
    EXPECT_EQ(init(nullptr, 0), refused(CKR_SESSION_HANDLE_INVALID, "C_DecryptInit: invalid hSession=7"));
    session = good;
    ASSERT_EQ(api->C_Logout(session), CKR_OK);
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(init(nullptr, 0), refused(CKR_SESSION_HANDLE_INVALID, "C_DecryptInit: invalid session state=0"));
    login(session, userPin);
    EXPECT_EQ(init(nullptr, 0),
              refused(CKR_OPERATION_ACTIVE, "C_DecryptInit: operation already active, activeOperation=1"));
    ASSERT_EQ(api->C_FindObjectsFinal(session), CKR_OK);
    EXPECT_EQ(init(nullptr, 0), refused(CKR_ARGUMENTS_BAD, "C_DecryptInit: pMechanism is NULL"));
    EXPECT_EQ(init(&withParameter, 0),
              refused(CKR_MECHANISM_PARAM_INVALID, "C_DecryptInit: mechanism param invalid for CKM_RSA_PKCS"));
    api->C_Finalize(nullptr);
    session = 7;
    EXPECT_EQ(init(nullptr, 0), refused(CKR_CRYPTOKI_NOT_INITIALIZED, "C_DecryptInit: not initialized"));
}

TEST_F(CipherTest, DecryptInitWorksInEveryStateButTheFirst) {
    for (const CK_STATE state :
         Numbers{CKS_RO_USER_FUNCTIONS, CKS_RW_PUBLIC_SESSION, CKS_RW_USER_FUNCTIONS, CKS_RW_SO_FUNCTIONS}) {
        closeEverything(session);
        session = openSessionIn(state);
        EXPECT_EQ(decryptInit(CKM_RSA_PKCS), decryptReady) << state;
    }
    closeEverything(session);
    session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(decryptInit(CKM_RSA_PKCS), refused(CKR_SESSION_HANDLE_INVALID, "C_DecryptInit: invalid session state=0"));
}

TEST_F(CipherTest, DecryptInitNeedsAPrivateKeyHandle) {
    for (const CK_OBJECT_HANDLE key : Handles{0, 5, 0x6FFFFFFF}) {
        EXPECT_EQ(decryptInit(CKM_RSA_PKCS, key),
                  refused(CKR_OBJECT_HANDLE_INVALID, text("C_DecryptInit: invalid hKey=", key, " for CKM_RSA_PKCS")));
        EXPECT_EQ(
            decryptInit(CKM_RSA_PKCS_OAEP, key),
            refused(CKR_OBJECT_HANDLE_INVALID, text("C_DecryptInit: invalid hKey=", key, " for CKM_RSA_PKCS_OAEP")));
    }
    for (const CK_OBJECT_HANDLE key : Handles{publicKey(5), privateKey(7), 0x70000000, certificate(5), 0xFFFFFFFF}) {
        EXPECT_EQ(decryptInit(CKM_RSA_PKCS, key),
                  failed(CKR_OBJECT_HANDLE_INVALID, "C_DecryptInit", text("Invalid input handle in decrypt : ", key),
                         {listKeyPairs}));
        EXPECT_EQ(decryptInit(CKM_RSA_PKCS_OAEP, key),
                  failed(CKR_OBJECT_HANDLE_INVALID, "C_DecryptInit",
                         text("Invalid input handle in decrypt OAEP : ", key), {listKeyPairs}));
    }
}

TEST_F(CipherTest, DecryptInitRefusesEachRunningOperation) {
    ASSERT_EQ(decryptInit(CKM_RSA_PKCS).code, CKR_OK);
    EXPECT_EQ(decryptInit(CKM_MD5, 0),
              refused(CKR_OPERATION_ACTIVE, "C_DecryptInit: operation already active, activeOperation=3"));
    EXPECT_EQ(encryptInit(CKM_MD5, 0),
              refused(CKR_OPERATION_ACTIVE, "C_EncryptInit: operation already active, activeOperation=3"));
}

// --- C_Decrypt ---

TEST_F(CipherTest, BothMechanismsDecryptAlike) {
    const Bytes data = countingBytes(3, 256);
    for (const CK_MECHANISM_TYPE type : Numbers{CKM_RSA_PKCS, CKM_RSA_PKCS_OAEP}) {
        for (const bool flag : {false, true}) {
            keyRecord().keyFlag = flag;
            EXPECT_EQ(decryptInit(type), decryptReady);
            EXPECT_EQ(decrypt(data), succeeded("C_Decrypt", {decryptCall(data, flag)}));
            expectInRoom(world.plaintext);
            EXPECT_EQ(decrypt(data), notInitialised("C_Decrypt"));
        }
    }
    EXPECT_EQ(world.buffersHandedOut(), 4);
}

TEST_F(CipherTest, WithoutALoginThePasswordIsEmpty) {
    closeEverything(session);
    session = openSessionIn(CKS_RW_PUBLIC_SESSION);
    ASSERT_EQ(decryptInit(CKM_RSA_PKCS).code, CKR_OK);
    EXPECT_EQ(decrypt({1}).device, (Lines{decryptCall({1}, false, "")}));
}

TEST_F(CipherTest, DecryptArgumentsAreCheckedInTheirOrderAndKeepTheOperation) {
    unsigned char byte = 1;
    const auto call = [&](CK_BYTE_PTR data, CK_ULONG count, CK_ULONG* target) {
        return observe([&] { return api->C_Decrypt(session, data, count, nullptr, target); });
    };
    const CK_SESSION_HANDLE good = session;
    session = 7;
    EXPECT_EQ(call(nullptr, 0, nullptr), refused(CKR_SESSION_HANDLE_INVALID, "C_Decrypt: invalid hSession=7"));
    session = good;
    EXPECT_EQ(call(nullptr, 0, nullptr), notInitialised("C_Decrypt"));
    ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
    EXPECT_EQ(call(nullptr, 0, nullptr), notInitialised("C_Decrypt", 2));
    abandon();
    ASSERT_EQ(decryptInit(CKM_RSA_PKCS).code, CKR_OK);
    for (const CK_ULONG count : Numbers{0, 3}) {
        EXPECT_EQ(call(nullptr, count, nullptr), refused(CKR_ARGUMENTS_BAD, "C_Decrypt: pEncryptedData is NULL"));
    }
    EXPECT_EQ(call(&byte, 0, nullptr),
              refused(CKR_ARGUMENTS_BAD, "C_Decrypt: ulEncryptedDataLen<=0, ulEncryptedDataLen=0"));
    EXPECT_EQ(call(&byte, 1, nullptr), refused(CKR_ARGUMENTS_BAD, "C_Decrypt: pulDataLen is NULL"));
    EXPECT_EQ(decrypt({1}).code, CKR_OK);
    api->C_Finalize(nullptr);
    EXPECT_EQ(call(nullptr, 0, nullptr), refused(CKR_CRYPTOKI_NOT_INITIALIZED, "C_Decrypt: not initialized"));
}

TEST_F(CipherTest, ASizeQueryKeepsThePlaintext) {
    ASSERT_EQ(decryptInit(CKM_RSA_PKCS).code, CKR_OK);
    EXPECT_EQ(decryptSize({1}), succeeded("C_Decrypt", {decryptCall({1})}));
    EXPECT_EQ(length, 11U);
    const Bytes first = world.plaintext;
    world.plaintext = {7};
    EXPECT_EQ(decryptSize({}).code, CKR_ARGUMENTS_BAD);
    EXPECT_EQ(decrypt({2, 3}), succeeded("C_Decrypt"));
    expectInRoom(first);
    EXPECT_EQ(world.buffersHandedOut(), 1);
    EXPECT_EQ(decrypt({2}), notInitialised("C_Decrypt"));
}

TEST_F(CipherTest, AnEmptyPlaintextIsNoStoredResult) {
    world.plaintext = {};
    ASSERT_EQ(decryptInit(CKM_RSA_PKCS).code, CKR_OK);
    length = 9;
    EXPECT_EQ(decryptSize({1}), succeeded("C_Decrypt", {decryptCall({1})}));
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(decrypt({2}), succeeded("C_Decrypt", {decryptCall({2})}));
    expectInRoom({});
    EXPECT_EQ(world.buffersHandedOut(), 2);
    EXPECT_EQ(decrypt({2}), notInitialised("C_Decrypt"));
}

TEST_F(CipherTest, AFailedDecryptionEndsTheOperation) {
    // A buffer in spite of the failure is released; a leak checker sees it.
    for (const bool handsOut : {false, true}) {
        world.handsOutOnFailure = handsOut;
        for (const int result : {1, 48, -7}) {
            setResult("zentak_decrypt", result);
            ASSERT_EQ(decryptInit(CKM_RSA_PKCS).code, CKR_OK);
            EXPECT_EQ(decrypt({1}), failed(CKR_FUNCTION_FAILED, "C_Decrypt", text("Dacrypt data failed : ", result),
                                           {decryptCall({1})}));
            EXPECT_TRUE(room.untouchedFrom(0));
            EXPECT_EQ(decrypt({1}), notInitialised("C_Decrypt"));
        }
    }
    EXPECT_EQ(world.buffersHandedOut(), 3);
}

TEST_F(CipherTest, ALengthOfNothingIsAFailure) {
    for (const int reported : {1, 2000000000, -1}) {
        world.lengthOfNothing = reported;
        ASSERT_EQ(decryptInit(CKM_RSA_PKCS).code, CKR_OK);
        const Outcome outcome = decrypt({1});
        EXPECT_EQ(outcome.code, CKR_FUNCTION_FAILED);
        EXPECT_TRUE(endsWithOneError(outcome.log, "C_Decrypt"));
        EXPECT_TRUE(room.untouchedFrom(0));
        EXPECT_EQ(decrypt({1}), notInitialised("C_Decrypt"));
    }
    // No plaintext needs no buffer.
    world.lengthOfNothing = 0;
    ASSERT_EQ(decryptInit(CKM_RSA_PKCS).code, CKR_OK);
    EXPECT_EQ(decrypt({1}), succeeded("C_Decrypt", {decryptCall({1})}));
    expectInRoom({});
}

// --- Started during a digest ---

TEST_F(CipherTest, StartedDuringADigestAnOperationCanNeitherBeCarriedOutNorReplaced) {
    for (const int active : {9, 10}) {
        digestInit();
        EXPECT_EQ(active == 9 ? encryptInit(CKM_RSA_PKCS) : decryptInit(CKM_RSA_PKCS),
                  active == 9 ? encryptReady : decryptReady);
        EXPECT_EQ(encrypt({1}), notInitialised("C_Encrypt", active));
        EXPECT_EQ(decrypt({1}), notInitialised("C_Decrypt", active));
        EXPECT_EQ(observe([&] { return api->C_Digest(session, nullptr, 0, nullptr, nullptr); }),
                  notInitialised("C_Digest", active));
        CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
        const std::pair<const char*, Outcome> starts[] = {
            {"C_EncryptInit", encryptInit(CKM_RSA_PKCS)},
            {"C_DecryptInit", decryptInit(CKM_RSA_PKCS)},
            {"C_DigestInit", observe([&] { return api->C_DigestInit(session, &mechanism); })},
            {"C_SignInit", observe([&] { return api->C_SignInit(session, &mechanism, privateKey(5)); })},
            {"C_VerifyInit", observe([&] { return api->C_VerifyInit(session, &mechanism, publicKey(5)); })}};
        for (const auto& [function, outcome] : starts) {
            EXPECT_EQ(outcome, refused(CKR_OPERATION_ACTIVE,
                                       text(function, ": operation already active, activeOperation=", active)));
        }
        abandon();  // only a search gets it out of the way
        ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
        EXPECT_EQ(encrypt({1}).code, CKR_OK);
    }
}

TEST_F(CipherTest, ARefusedStartLeavesTheDigestRunning) {
    digestInit();
    EXPECT_EQ(encryptInit(CKM_MD5).code, CKR_MECHANISM_INVALID);
    EXPECT_EQ(decryptInit(CKM_RSA_PKCS, publicKey(5)).code, CKR_OBJECT_HANDLE_INVALID);
    unsigned char byte = 1;
    room = Room(2000);
    EXPECT_EQ(api->C_Digest(session, &byte, 1, static_cast<CK_BYTE_PTR>(room.address()), &length), CKR_OK);
    EXPECT_EQ(room.first(32), digest);
}

// --- Both ---

TEST_F(CipherTest, ExceptionsEndTheOperationLikeFailures) {
    for (const ThrownCode& row : thrownCodes) {
        letThrow("zentak_getKeyPairList", row.thrown);
        Outcome outcome = encryptInit(CKM_RSA_PKCS);
        EXPECT_EQ(outcome.code, row.code);
        EXPECT_TRUE(endsWithOneError(outcome.log, "C_EncryptInit"));
        EXPECT_EQ(encrypt({1}), notInitialised("C_Encrypt"));
        letThrow("zentak_getKeyPairList", row.thrown);
        outcome = decryptInit(CKM_RSA_PKCS);
        EXPECT_EQ(outcome.code, row.code);
        EXPECT_TRUE(endsWithOneError(outcome.log, "C_DecryptInit"));

        ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
        letThrow("zentak_encrypt", row.thrown);
        outcome = encrypt({1});
        EXPECT_EQ(outcome.code, row.code);
        EXPECT_TRUE(endsWithOneError(outcome.log, "C_Encrypt"));
        EXPECT_EQ(encrypt({1}), notInitialised("C_Encrypt"));

        ASSERT_EQ(decryptInit(CKM_RSA_PKCS).code, CKR_OK);
        letThrow("zentak_decrypt", row.thrown);
        outcome = decrypt({1});
        EXPECT_EQ(outcome.code, row.code);
        EXPECT_TRUE(endsWithOneError(outcome.log, "C_Decrypt"));
        EXPECT_EQ(decrypt({1}), notInitialised("C_Decrypt"));
    }
}

TEST_F(CipherTest, MoreDataThanAnIntCountsAreRefused) {
    unsigned char byte = 1;  // nobody reads what is said to follow
    for (const CK_ULONG count : Numbers{0x80000000, 0xFFFFFFFF}) {
        ASSERT_EQ(encryptInit(CKM_RSA_PKCS).code, CKR_OK);
        Outcome outcome = observe([&] { return api->C_Encrypt(session, &byte, count, nullptr, &length); });
        EXPECT_EQ(outcome.code, CKR_DATA_LEN_RANGE);
        EXPECT_TRUE(endsWithOneError(outcome.log, "C_Encrypt"));
        EXPECT_EQ(outcome.device, Lines{});
        abandon();
        ASSERT_EQ(decryptInit(CKM_RSA_PKCS).code, CKR_OK);
        outcome = observe([&] { return api->C_Decrypt(session, &byte, count, nullptr, &length); });
        EXPECT_EQ(outcome.code, CKR_DATA_LEN_RANGE);
        EXPECT_TRUE(endsWithOneError(outcome.log, "C_Decrypt"));
        EXPECT_EQ(outcome.device, Lines{});
        abandon();
    }
}

}  // namespace
