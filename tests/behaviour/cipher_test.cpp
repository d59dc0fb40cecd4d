// C_EncryptInit, C_Encrypt, C_DecryptInit and C_Decrypt.

#include "signing_test.h"

using namespace support;

namespace {

/// What the two directions differ in.
struct Direction {
    bool encrypts;
    std::string function;   ///< that does the work; the one that begins it has "Init" at its end
    std::string operation;  ///< of the device library
    int active;             ///< the session's operation, and what it is when it was begun during a digest
    int activeInDigest;
};

const Direction encryption = {true, "C_Encrypt", "zentak_encrypt", 2, 9};
const Direction decryption = {false, "C_Decrypt", "zentak_decrypt", 3, 10};

void PrintTo(const Direction& direction, std::ostream* out) {
    *out << direction.function;
}

class CipherTest : public SigningTest {
protected:
    explicit CipherTest(const Direction& direction) : direction_(direction) {}

    void SetUp() override {
        SigningTest::SetUp();
        setPublicKey(keyRecord(), modulus);
        world.ciphertext = countingBytes(0x11, 256);
        world.plaintext = countingBytes(0x70, 11);
    }
    ZentakKeyPair& keyRecord() { return world.keyPairs["SN1"][0]; }

    [[nodiscard]] std::string name() const { return direction_.function; }
    [[nodiscard]] std::string initName() const { return direction_.function + "Init"; }
    /// The key of this direction.
    [[nodiscard]] CK_OBJECT_HANDLE key() const { return direction_.encrypts ? publicKey(5) : privateKey(5); }
    /// What the device library makes of the data.
    Bytes& result() { return direction_.encrypts ? world.ciphertext : world.plaintext; }

    Outcome initWith(CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
        return observe([&] {
            return direction_.encrypts ? api->C_EncryptInit(session, mechanism, key)
                                       : api->C_DecryptInit(session, mechanism, key);
        });
    }
    Outcome init(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key) {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        return initWith(&mechanism, key);
    }
    Outcome init(CK_MECHANISM_TYPE type) { return init(type, key()); }
    void begin(CK_MECHANISM_TYPE type = CKM_RSA_PKCS) { ASSERT_EQ(init(type).code, CKR_OK); }

    Outcome call(CK_BYTE_PTR data, CK_ULONG count, CK_BYTE_PTR target, CK_ULONG* targetLength) {
        return observe([&] {
            return direction_.encrypts ? api->C_Encrypt(session, data, count, target, targetLength)
                                       : api->C_Decrypt(session, data, count, target, targetLength);
        });
    }
    /// Into `room`; the capacity isn't looked at.
    Outcome run(const Bytes& data) {
        return giveForRoom(direction_.encrypts ? api->C_Encrypt : api->C_Decrypt, data, 0);
    }
    Outcome askSize(const Bytes& data) {
        return give(direction_.encrypts ? api->C_Encrypt : api->C_Decrypt, data, nullptr, &length);
    }
    void digestInit() {
        CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
        ASSERT_EQ(api->C_DigestInit(session, &mechanism), CKR_OK);
    }

    static std::string encryptCall(int type, int padding, const Bytes& data, const Bytes& key) {
        return text("zentak_encrypt(", type, ", ", padding, ", ", shown(data), ", out, *0, ", shown(key),
                    ", instance)");
    }
    static std::string decryptCall(const Bytes& data, bool flag = false, const std::string& password = "246810") {
        return text("zentak_decrypt(\"SN1\", ", shownKeyReference(5), ", \"", password, "\", ", shown(data),
                    ", out, *0, ", flag ? "true" : "false", ", instance)");
    }
    /// The device library's part in PKCS #1 with the key 5.
    [[nodiscard]] std::string deviceCall(const Bytes& data) const {
        return direction_.encrypts ? encryptCall(8, 1, data, wrapped2048(modulus)) : decryptCall(data);
    }
    [[nodiscard]] Outcome ready() const { return succeeded(initName(), {listKeyPairs}); }
    [[nodiscard]] Outcome done(const Bytes& data) const { return succeeded(name(), {deviceCall(data)}); }
    [[nodiscard]] Outcome notBegun(int active = 0) const { return notInitialised(name(), active); }

    const Bytes modulus = countingBytes(0x80, 256);
    Direction direction_;
};

class EncryptionTest : public CipherTest {
protected:
    EncryptionTest() : CipherTest(encryption) {}
};

class DecryptionTest : public CipherTest {
protected:
    DecryptionTest() : CipherTest(decryption) {}
};

/// What both do alike.
class EitherDirectionTest : public CipherTest, public ::testing::WithParamInterface<Direction> {
protected:
    EitherDirectionTest() : CipherTest(GetParam()) {}

    [[nodiscard]] Outcome parameterRefused() const {
        return refused(CKR_MECHANISM_PARAM_INVALID, initName() + ": mechanism param invalid for " +
                                                        (direction_.encrypts ? "mechanism=1" : "CKM_RSA_PKCS"));
    }
    [[nodiscard]] Direction opposite() const { return direction_.encrypts ? decryption : encryption; }
};

INSTANTIATE_TEST_SUITE_P(Directions, EitherDirectionTest, ::testing::Values(encryption, decryption));

// --- Beginning ---

TEST_P(EitherDirectionTest, InitChecksInItsOrder) {
    const bool encrypts = direction_.encrypts;
    unsigned char parameter = 0;
    CK_MECHANISM withParameter = {CKM_RSA_PKCS, &parameter, 1};
    const CK_SESSION_HANDLE good = session;
    session = 7;
    EXPECT_EQ(initWith(nullptr, 0), refused(CKR_SESSION_HANDLE_INVALID, initName() + ": invalid hSession=7"));
    session = good;
    ASSERT_EQ(api->C_Logout(session), CKR_OK);
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    if (!encrypts) {
        EXPECT_EQ(initWith(nullptr, 0), refused(CKR_SESSION_HANDLE_INVALID, "C_DecryptInit: invalid session state=0"));
        login(session, userPin);
    }
    EXPECT_EQ(initWith(nullptr, 0),
              refused(CKR_OPERATION_ACTIVE, initName() + ": operation already active, activeOperation=1"));
    ASSERT_EQ(api->C_FindObjectsFinal(session), CKR_OK);
    EXPECT_EQ(initWith(nullptr, 0), refused(CKR_ARGUMENTS_BAD, initName() + ": pMechanism is NULL"));
    EXPECT_EQ(initWith(&withParameter, 0), parameterRefused());
    if (encrypts) {
        EXPECT_EQ(init(CKM_RSA_PKCS, 0), refused(CKR_OBJECT_HANDLE_INVALID, "C_EncryptInit: invalid hKey=0"));
    }
    keyRecord().keyUsage = usageSign;
    EXPECT_EQ(init(CKM_MD5, 0), refused(CKR_MECHANISM_INVALID, initName() + ": unsupported mechanism=528"));
    api->C_Finalize(nullptr);
    session = 7;
    EXPECT_EQ(initWith(nullptr, 0), refused(CKR_CRYPTOKI_NOT_INITIALIZED, initName() + ": not initialized"));
}

TEST_P(EitherDirectionTest, InitRefusesEachRunningOperation) {
    SigningTest::begin(CKM_RSA_PKCS);
    EXPECT_EQ(init(CKM_MD5, 0),
              refused(CKR_OPERATION_ACTIVE, initName() + ": operation already active, activeOperation=5"));
    abandon();
    begin();
    const Direction own = direction_;
    for (const Direction& next : {own, opposite()}) {
        direction_ = next;
        const std::string line = text(initName(), ": operation already active, activeOperation=", own.active);
        EXPECT_EQ(init(CKM_RSA_PKCS), refused(CKR_OPERATION_ACTIVE, line));
        EXPECT_EQ(init(CKM_MD5, 0), refused(CKR_OPERATION_ACTIVE, line));
    }
    direction_ = own;
    EXPECT_EQ(run({1}).code, CKR_OK);
}

TEST_P(EitherDirectionTest, ParametersAreRefusedForPkcs1AndIgnoredForOaep) {
    for (const auto& [address, count] : {std::pair<void*, CK_ULONG>{&length, 0}, {nullptr, 1}, {&length, 4}}) {
        CK_MECHANISM mechanism = {CKM_RSA_PKCS, address, count};
        EXPECT_EQ(initWith(&mechanism, key()), parameterRefused());
    }
    CK_MECHANISM oaep = {CKM_RSA_PKCS_OAEP, reinterpret_cast<void*>(1), 1000};
    EXPECT_EQ(initWith(&oaep, key()), ready());
}

TEST_P(EitherDirectionTest, OtherMechanismsAreUnknown) {
    for (const CK_MECHANISM_TYPE type : Numbers{0, 3, CKM_RSA_PKCS_PSS, CKM_SHA256_RSA_PKCS, CKM_ECDSA, 0xFFFFFFFF}) {
        EXPECT_EQ(init(type), refused(CKR_MECHANISM_INVALID, text(initName(), ": unsupported mechanism=", type)));
    }
}

TEST_P(EitherDirectionTest, TheKeyMustBeMeantForEncryption) {
    const std::string word = direction_.encrypts ? "encrypt" : "decrypt";
    for (const std::uint32_t usage : {0U, 1U, 4U, 5U}) {
        keyRecord().keyUsage = usage;
        for (const CK_MECHANISM_TYPE type : Numbers{CKM_RSA_PKCS, CKM_RSA_PKCS_OAEP}) {
            EXPECT_EQ(init(type), refused(CKR_KEY_FUNCTION_NOT_PERMITTED,
                                          text(initName(), ": key usage does not permit ", word, ", keyUsage=", usage),
                                          {listKeyPairs}));
        }
    }
    EXPECT_EQ(run({1}), notBegun());
    for (const std::uint32_t usage : {2U, 3U, 6U}) {
        keyRecord().keyUsage = usage;
        EXPECT_EQ(init(CKM_RSA_PKCS), ready());
        abandon();
    }
}

TEST_F(EncryptionTest, InitTakesBothHandlesForPkcs1AndThePublicOneForOaep) {
    EXPECT_EQ(init(CKM_RSA_PKCS, publicKey(5)), ready());
    abandon();
    EXPECT_EQ(init(CKM_RSA_PKCS, privateKey(5)), ready());
    abandon();
    EXPECT_EQ(init(CKM_RSA_PKCS_OAEP, publicKey(5)), ready());
    abandon();
    for (const CK_OBJECT_HANDLE key : Handles{privateKey(5), 0x70000FFF, 0x6FFFFFFF, 5, 0}) {
        EXPECT_EQ(
            init(CKM_RSA_PKCS_OAEP, key),
            refused(CKR_OBJECT_HANDLE_INVALID, text("C_EncryptInit: invalid hKey=", key, " for CKM_RSA_PKCS_OAEP")));
    }
    for (const CK_OBJECT_HANDLE key : Handles{0x6FFFFFFF, 5, 0}) {
        EXPECT_EQ(init(CKM_RSA_PKCS, key),
                  refused(CKR_OBJECT_HANDLE_INVALID, text("C_EncryptInit: invalid hKey=", key)));
    }
}

TEST_F(EncryptionTest, InitNeedsTheKeyPair) {
    for (const CK_OBJECT_HANDLE key :
         Handles{privateKey(7), publicKey(7), 0x70000000, 0x70000FFF, certificate(5), 0xFFFFFFFF}) {
        EXPECT_EQ(init(CKM_RSA_PKCS, key), failed(CKR_OBJECT_HANDLE_INVALID, "C_EncryptInit",
                                                  text("Invalid input handle in encrypt : ", key), {listKeyPairs}));
    }
    for (const CK_OBJECT_HANDLE key : Handles{publicKey(7), certificate(5)}) {
        EXPECT_EQ(init(CKM_RSA_PKCS_OAEP, key),
                  refused(CKR_OBJECT_HANDLE_INVALID,
                          text("C_EncryptInit: invalid input handle for OAEP encrypt : ", key), {listKeyPairs}));
    }
    EXPECT_EQ(run({1}), notBegun());
}

TEST_F(DecryptionTest, InitWorksInEveryStateButTheFirst) {
    for (const CK_STATE state :
         Numbers{CKS_RO_USER_FUNCTIONS, CKS_RW_PUBLIC_SESSION, CKS_RW_USER_FUNCTIONS, CKS_RW_SO_FUNCTIONS}) {
        session = reopen(session, state);
        EXPECT_EQ(init(CKM_RSA_PKCS), ready()) << state;
    }
    session = reopen(session, CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(init(CKM_RSA_PKCS), refused(CKR_SESSION_HANDLE_INVALID, "C_DecryptInit: invalid session state=0"));
}

TEST_F(DecryptionTest, InitNeedsAPrivateKeyHandle) {
    for (const CK_OBJECT_HANDLE key : Handles{0, 5, 0x6FFFFFFF}) {
        EXPECT_EQ(init(CKM_RSA_PKCS, key),
                  refused(CKR_OBJECT_HANDLE_INVALID, text("C_DecryptInit: invalid hKey=", key, " for CKM_RSA_PKCS")));
        EXPECT_EQ(
            init(CKM_RSA_PKCS_OAEP, key),
            refused(CKR_OBJECT_HANDLE_INVALID, text("C_DecryptInit: invalid hKey=", key, " for CKM_RSA_PKCS_OAEP")));
    }
    for (const CK_OBJECT_HANDLE key : Handles{publicKey(5), privateKey(7), 0x70000000, certificate(5), 0xFFFFFFFF}) {
        EXPECT_EQ(init(CKM_RSA_PKCS, key), failed(CKR_OBJECT_HANDLE_INVALID, "C_DecryptInit",
                                                  text("Invalid input handle in decrypt : ", key), {listKeyPairs}));
        EXPECT_EQ(init(CKM_RSA_PKCS_OAEP, key),
                  failed(CKR_OBJECT_HANDLE_INVALID, "C_DecryptInit",
                         text("Invalid input handle in decrypt OAEP : ", key), {listKeyPairs}));
    }
}

// --- The work ---

TEST_F(EncryptionTest, EachMechanismHasItsPadding) {
    const Bytes data = {1, 2, 3};
    const std::pair<CK_MECHANISM_TYPE, int> rows[] = {{CKM_RSA_PKCS, 1}, {CKM_RSA_PKCS_OAEP, 4}, {CKM_RSA_PKCS, 1}};
    for (const auto& [type, padding] : rows) {
        EXPECT_EQ(init(type), ready());
        EXPECT_EQ(run(data), succeeded("C_Encrypt", {encryptCall(8, padding, data, wrapped2048(modulus))}));
        expectInRoom(result());
        EXPECT_EQ(run(data), notBegun());
    }
}

TEST_F(EncryptionTest, ThePrivateKeysHandleMeansItsPublicKey) {
    ASSERT_EQ(init(CKM_RSA_PKCS, privateKey(5)).code, CKR_OK);
    EXPECT_EQ(run({9}).device, (Lines{encryptCall(8, 1, {9}, wrapped2048(modulus))}));
}

TEST_F(EncryptionTest, TheKeyTypeChoosesTheEncryptionType) {
    const std::pair<int, int> rows[] = {{1, 7}, {2, 8}, {3, 9}, {4, 10}, {5, 8},
                                        {6, 8}, {7, 8}, {0, 8}, {99, 8}, {-1, 8}};
    for (const auto& [keyType, encryptionType] : rows) {
        keyRecord().keyType = keyType;
        begin();
        EXPECT_EQ(run({1}).device, (Lines{encryptCall(encryptionType, 1, {1}, wrapped2048(modulus))})) << keyType;
    }
}

TEST_F(EncryptionTest, EveryPublicKeyIsWrapped) {
    const auto threeBytes = [](const Bytes& stored) {
        return Bytes{0x30, 0x1E} + rsaIdentifier + Bytes{0x03, 0x0D, 0x00, 0x30, 0x0A} + Bytes{0x02, 0x03} + stored +
               exponent;
    };
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
        {{0x30, 0x01, 0x02}, threeBytes({0x30, 0x01, 0x02})},
        {{0x04, 0xFF, 0xFE}, threeBytes({0x04, 0xFF, 0xFE})},
        {{0x00, 0x00, 0x05}, threeBytes({0x00, 0x00, 0x05})},
        {{}, Bytes{0x30, 0x1B} + rsaIdentifier + Bytes{0x03, 0x0A, 0x00, 0x30, 0x07, 0x02, 0x00} + exponent},
    };
    for (const auto& [stored, wrapped] : rows) {
        setPublicKey(keyRecord(), stored);
        begin();
        EXPECT_EQ(run({1}), succeeded("C_Encrypt", {encryptCall(8, 1, {1}, wrapped)})) << stored.size();
    }
}

TEST_F(EncryptionTest, TheWholeAreaMayBeFilled) {
    world.ciphertext = countingBytes(0, 1024);
    begin();
    EXPECT_EQ(run({1}).code, CKR_OK);
    expectInRoom(result());
}

TEST_F(EncryptionTest, ALengthBeyondTheAreaIsAFailure) {
    for (const int reported : {1025, 2000000000, -1}) {
        begin();
        world.reportedLength = reported;
        expectOneError(run({1}), CKR_FUNCTION_FAILED, name());
        EXPECT_TRUE(room.untouchedFrom(0));
        world.reportedLength.reset();
        EXPECT_EQ(run({1}), notBegun());
    }
}

TEST_F(EncryptionTest, NeedsNoLoginAndWorksOnAFipsToken) {
    ASSERT_EQ(api->C_Logout(session), CKR_OK);
    EXPECT_EQ(init(CKM_RSA_PKCS), ready());
    EXPECT_EQ(run({1}).code, CKR_OK);
    session = openSession(0, fipsSlot);
    world.keyPairs["SN2"] = {makeKeyPair(5, rsa1024)};
    setPublicKey(world.keyPairs["SN2"][0], modulus);
    EXPECT_EQ(init(CKM_RSA_PKCS), succeeded("C_EncryptInit", {"zentak_getKeyPairList(\"SN2\", instance)"}));
    EXPECT_EQ(run({1}).device, (Lines{encryptCall(7, 1, {1}, wrapped2048(modulus))}));
}

TEST_F(EncryptionTest, TheLastKeyPairLookedUpIsUsed) {
    setPublicKey(world.keyPairs["SN1"][1], countingBytes(0x90, 256));
    begin();
    const CK_SESSION_HANDLE other = openSession();
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(api->C_EncryptInit(other, &mechanism, publicKey(6)), CKR_OK);
    EXPECT_EQ(run({1}).device, (Lines{encryptCall(8, 1, {1}, wrapped2048(countingBytes(0x90, 256)))}));
}

TEST_F(DecryptionTest, BothMechanismsAreTheSame) {
    const Bytes data = countingBytes(3, 256);
    for (const CK_MECHANISM_TYPE type : Numbers{CKM_RSA_PKCS, CKM_RSA_PKCS_OAEP}) {
        for (const bool flag : {false, true}) {
            keyRecord().keyFlag = flag;
            EXPECT_EQ(init(type), ready());
            EXPECT_EQ(run(data), succeeded("C_Decrypt", {decryptCall(data, flag)}));
            expectInRoom(result());
            EXPECT_EQ(run(data), notBegun());
        }
    }
    EXPECT_EQ(world.buffersHandedOut(), 4);
}

TEST_F(DecryptionTest, WithoutALoginThePasswordIsEmpty) {
    session = reopen(session, CKS_RW_PUBLIC_SESSION);
    begin();
    EXPECT_EQ(run({1}).device, (Lines{decryptCall({1}, false, "")}));
}

TEST_F(DecryptionTest, ALengthOfNothingIsAFailure) {
    for (const int reported : {1, 2000000000, -1}) {
        world.lengthOfNothing = reported;
        begin();
        expectOneError(run({1}), CKR_FUNCTION_FAILED, name());
        EXPECT_TRUE(room.untouchedFrom(0));
        EXPECT_EQ(run({1}), notBegun());
    }
    // No plaintext needs no buffer.
    world.lengthOfNothing = 0;
    begin();
    EXPECT_EQ(run({1}), succeeded("C_Decrypt", {decryptCall({1})}));
    expectInRoom({});
}

TEST_P(EitherDirectionTest, ArgumentsAreCheckedInTheirOrderAndKeepTheOperation) {
    const bool encrypts = direction_.encrypts;
    unsigned char byte = 1;
    const CK_SESSION_HANDLE good = session;
    session = 7;
    EXPECT_EQ(call(nullptr, 0, nullptr, nullptr), refused(CKR_SESSION_HANDLE_INVALID, name() + ": invalid hSession=7"));
    session = good;
    EXPECT_EQ(call(nullptr, 0, nullptr, nullptr), notBegun());
    const Direction own = std::exchange(direction_, opposite());
    begin();
    direction_ = own;
    EXPECT_EQ(call(nullptr, 0, nullptr, nullptr), notBegun(opposite().active));
    abandon();
    begin(encrypts ? CKM_RSA_PKCS_OAEP : CKM_RSA_PKCS);
    for (const auto& [data, count] : {std::pair<CK_BYTE_PTR, CK_ULONG>{nullptr, 3}, {&byte, 0}, {nullptr, 0}}) {
        const std::string reason = encrypts          ? text("pData is NULL or ulDataLen<=0, ulDataLen=", count)
                                   : data == nullptr ? "pEncryptedData is NULL"
                                                     : "ulEncryptedDataLen<=0, ulEncryptedDataLen=0";
        EXPECT_EQ(call(data, count, nullptr, nullptr), refused(CKR_ARGUMENTS_BAD, name() + ": " + reason));
    }
    EXPECT_EQ(
        call(&byte, 1, nullptr, nullptr),
        refused(CKR_ARGUMENTS_BAD, name() + (encrypts ? ": pulEncryptedDataLen is NULL" : ": pulDataLen is NULL")));
    EXPECT_EQ(run({1}).device, Lines{encrypts ? encryptCall(8, 4, {1}, wrapped2048(modulus)) : decryptCall({1})});
    api->C_Finalize(nullptr);
    EXPECT_EQ(call(nullptr, 0, nullptr, nullptr), refused(CKR_CRYPTOKI_NOT_INITIALIZED, name() + ": not initialized"));
}

TEST_P(EitherDirectionTest, ASizeQueryKeepsTheResult) {
    begin();
    length = 0;
    EXPECT_EQ(askSize({1}), done({1}));
    const Bytes first = std::exchange(result(), {7});
    EXPECT_EQ(length, first.size());
    EXPECT_EQ(askSize({2, 3}), succeeded(name()));
    EXPECT_EQ(length, first.size());
    // The arguments are looked at all the same.
    EXPECT_EQ(askSize({}).code, CKR_ARGUMENTS_BAD);
    EXPECT_EQ(run({4, 5, 6}), succeeded(name()));
    expectInRoom(first);
    EXPECT_EQ(world.buffersHandedOut(), direction_.encrypts ? 0 : 1);
    EXPECT_EQ(run({4}), notBegun());
}

TEST_P(EitherDirectionTest, AnEmptyResultIsNoStoredResult) {
    result() = {};
    begin();
    length = 9;
    EXPECT_EQ(askSize({1}), done({1}));
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(run({2}), done({2}));
    expectInRoom({});
    EXPECT_EQ(world.buffersHandedOut(), direction_.encrypts ? 0 : 2);
    EXPECT_EQ(run({2}), notBegun());
}

TEST_P(EitherDirectionTest, ANewStartDropsTheKeptResult) {
    for (const Direction& next : {direction_, opposite()}) {
        direction_ = GetParam();
        begin();
        ASSERT_EQ(askSize({1}).code, CKR_OK);
        abandon();
        direction_ = next;
        begin();
        EXPECT_EQ(run({2}), done({2}));
        expectInRoom(result());
    }
}

TEST_P(EitherDirectionTest, AFailureEndsTheOperation) {
    const std::string words = direction_.encrypts ? "Encrypt data failed : " : "Dacrypt data failed : ";
    // A buffer in spite of the failure is released; a leak checker sees it.
    for (const bool handsOut : {false, true}) {
        world.handsOutOnFailure = handsOut;
        for (const int code : {1, 40, 48, -7}) {
            setResult(direction_.operation, code);
            begin();
            EXPECT_EQ(run({1}), failed(CKR_FUNCTION_FAILED, name(), text(words, code), {deviceCall({1})}));
            EXPECT_TRUE(room.untouchedFrom(0));
            EXPECT_EQ(run({1}), notBegun());
        }
    }
    EXPECT_EQ(world.buffersHandedOut(), direction_.encrypts ? 0 : 4);
}

// --- Begun during a digest ---

TEST_P(EitherDirectionTest, BegunDuringADigestItCanNeitherBeCarriedOutNorReplaced) {
    const int active = direction_.activeInDigest;
    digestInit();
    EXPECT_EQ(init(CKM_RSA_PKCS), ready());
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    unsigned char byte = 1;
    const std::pair<const char*, Outcome> refusedWork[] = {
        {"C_Encrypt", observe([&] { return api->C_Encrypt(session, &byte, 1, nullptr, &length); })},
        {"C_Decrypt", observe([&] { return api->C_Decrypt(session, &byte, 1, nullptr, &length); })},
        {"C_Digest", observe([&] { return api->C_Digest(session, nullptr, 0, nullptr, nullptr); })}};
    for (const auto& [function, outcome] : refusedWork) EXPECT_EQ(outcome, notInitialised(function, active));
    const std::pair<const char*, Outcome> starts[] = {
        {"C_EncryptInit", observe([&] { return api->C_EncryptInit(session, &mechanism, publicKey(5)); })},
        {"C_DecryptInit", observe([&] { return api->C_DecryptInit(session, &mechanism, privateKey(5)); })},
        {"C_DigestInit", observe([&] { return api->C_DigestInit(session, &mechanism); })},
        {"C_SignInit", observe([&] { return api->C_SignInit(session, &mechanism, privateKey(5)); })},
        {"C_VerifyInit", observe([&] { return api->C_VerifyInit(session, &mechanism, publicKey(5)); })}};
    for (const auto& [function, outcome] : starts) {
        EXPECT_EQ(outcome, refused(CKR_OPERATION_ACTIVE,
                                   text(function, ": operation already active, activeOperation=", active)));
    }
    abandon();  // only a search gets it out of the way
    begin();
    EXPECT_EQ(run({1}).code, CKR_OK);
}

TEST_P(EitherDirectionTest, ARefusedStartLeavesTheDigestRunning) {
    digestInit();
    EXPECT_EQ(init(CKM_MD5).code, CKR_MECHANISM_INVALID);
    EXPECT_EQ(init(CKM_RSA_PKCS, 0).code, CKR_OBJECT_HANDLE_INVALID);
    EXPECT_EQ(init(CKM_RSA_PKCS, publicKey(7)).code, CKR_OBJECT_HANDLE_INVALID);
    unsigned char byte = 1;
    room = Room(2000);
    EXPECT_EQ(api->C_Digest(session, &byte, 1, static_cast<CK_BYTE_PTR>(room.address()), &length), CKR_OK);
    EXPECT_EQ(room.first(32), digest);
}

}  // namespace
