// C_VerifyInit, C_Verify, C_VerifyUpdate and C_VerifyFinal; above all where single-part and multi-part differ.

#include <set>

#include "signing_test.h"

using namespace support;

namespace {

class VerifyTest : public SigningTest {
protected:
    void SetUp() override {
        SigningTest::SetUp();
        setPublicKey(world.keyPairs["SN1"][0], modulus_);
        session = openSession();  // verification needs no login
    }
    Outcome verifyInit(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key = privateKey(5)) {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        return observe([&] { return api->C_VerifyInit(session, &mechanism, key); });
    }
    void beginVerify(CK_MECHANISM_TYPE type) { ASSERT_EQ(verifyInit(type).code, CKR_OK); }
    void beginWithPart(CK_MECHANISM_TYPE type, const Bytes& part) {
        beginVerify(type);
        ASSERT_EQ(verifyUpdate(part).code, CKR_OK);
    }
    Outcome verify(const Bytes& data) {
        Bytes given = given_;
        return give(api->C_Verify, data, given.data(), static_cast<CK_ULONG>(given.size()));
    }
    Outcome verifyUpdate(const Bytes& part) { return give(api->C_VerifyUpdate, part); }
    Outcome verifyFinal() { return give(api->C_VerifyFinal, given_); }
    std::string verifyHash(const Bytes& hash, const Bytes& key, bool pss = false, int keyType = 2) const {
        return text("zentak_verifySignatureHash(", keyType, ", \"SN1\", ", shown(hash), ", ", shown(key), ", ",
                    shown(given_), ", instance, ", pss ? "true" : "false", ")");
    }
    const Bytes& modulus() const { return modulus_; }

    const Bytes given_ = {0x51, 0x67};  ///< the signature to be verified
    const Bytes modulus_ = countingBytes(0x80, 256);
};

const Lines wraps = {"DEBUG C_Verify", "DEBUG Public key is not der need to convert to the der"};

TEST_F(VerifyTest, InitChecksInItsOrder) {
    EXPECT_EQ(observe([&] { return api->C_VerifyInit(7, nullptr, 0); }),
              refused(CKR_SESSION_HANDLE_INVALID, "C_VerifyInit: invalid hSession=7"));
    api->C_FindObjectsInit(session, nullptr, 0);
    EXPECT_EQ(observe([&] { return api->C_VerifyInit(session, nullptr, 0); }),
              refused(CKR_OPERATION_ACTIVE, "C_VerifyInit: operation already active, activeOperation=1"));
    api->C_FindObjectsFinal(session);
    EXPECT_EQ(observe([&] { return api->C_VerifyInit(session, nullptr, 0); }),
              refused(CKR_ARGUMENTS_BAD, "C_VerifyInit: pMechanism is NULL"));
    EXPECT_EQ(verifyInit(CKM_MD5_RSA_PKCS, 0), refused(CKR_MECHANISM_INVALID, "C_VerifyInit: unsupported mechanism=5"));
    EXPECT_EQ(verifyInit(CKM_RSA_PKCS, 0x6FFFFFFF),
              refused(CKR_OBJECT_HANDLE_INVALID, "C_VerifyInit: invalid hKey=1879048191"));
    EXPECT_EQ(verifyInit(CKM_RSA_PKCS, privateKey(9)),
              failed(CKR_OBJECT_HANDLE_INVALID, "C_VerifyInit",
                     text("Invalid input handle in verify : ", privateKey(9)), {listKeyPairs}));
}

TEST_F(VerifyTest, BothHandlesOfAPairMeanIt) {
    for (const CK_OBJECT_HANDLE key : {privateKey(5), publicKey(5)}) {
        EXPECT_EQ(verifyInit(CKM_ECDSA, key), succeeded("C_VerifyInit", {listKeyPairs}));
        EXPECT_EQ(verify({1}).code, CKR_OK);
    }
}

TEST_F(VerifyTest, TheKeyMustBeForSignatures) {
    world.keyPairs["SN1"][0].keyUsage = usageEncrypt;
    EXPECT_EQ(verifyInit(CKM_RSA_PKCS),
              refused(CKR_KEY_FUNCTION_NOT_PERMITTED, "C_VerifyInit: key usage does not permit verify, keyUsage=2",
                      {listKeyPairs}));
    EXPECT_EQ(verify({1}), notInitialised("C_Verify"));
}

TEST_F(VerifyTest, NeitherPolicyNorParametersNorKeySizeRefuse) {
    session = openSession(0, fipsSlot);
    world.keyPairs["SN2"][0].keyType = rsa1024;
    unsigned char parameter = 0;
    for (const SignMechanism& row : signMechanisms) {
        CK_MECHANISM mechanism = {row.type, &parameter, 1};
        EXPECT_EQ(api->C_VerifyInit(session, &mechanism, privateKey(5)), CKR_OK) << row.type;
        EXPECT_EQ(verify(Bytes(20, 1)).code, CKR_OK) << row.type;
    }
}

TEST_F(VerifyTest, ARunningDigestIsReplacedButNoOtherOperation) {
    session = openSession(CKF_RW_SESSION);
    CK_MECHANISM sha256 = {CKM_SHA256, nullptr, 0};
    ASSERT_EQ(api->C_DigestInit(session, &sha256), CKR_OK);
    EXPECT_EQ(verifyInit(CKM_SHA256_RSA_PKCS).code, CKR_OK);
    // The digest's context serves the verification.
    EXPECT_EQ(verifyUpdate({1}), succeeded("C_VerifyUpdate", {updateHash(1, {1})}));
    EXPECT_EQ(verifyInit(CKM_RSA_PKCS).code, CKR_OPERATION_ACTIVE);
}

TEST_F(VerifyTest, EachMechanismHashesInASinglePartInItsWay) {
    const Bytes data = {0xDA, 0x7A};
    int context = 0;
    for (const SignMechanism& row : signMechanisms) {
        SCOPED_TRACE(row.type);
        beginVerify(row.type);
        Lines device;
        if (row.hashCode != 0) {
            ++context;
            device = {initHash(row.hashCode), updateHash(context, data), finalHash(context)};
        }
        const Bytes hash = row.hashCode != 0 ? digest : data;
        device.push_back(verifyHash(hash, wrapped2048(modulus()), row.pss));
        EXPECT_EQ(verify(data), (Outcome{CKR_OK, wraps, device}));
        EXPECT_EQ(verify(data), notInitialised("C_Verify"));
    }
}

TEST_F(VerifyTest, AModulusIsWrappedWithItsLeadingByteInMind) {
    ASSERT_EQ(modulus()[0], 0x80);
    EXPECT_EQ(wrapped2048(modulus()).size(), 294U);
    // Without a set top bit nothing is put in front, and short lengths are one byte.
    setPublicKey(world.keyPairs["SN1"][0], {0x7F, 0x01});
    beginVerify(CKM_ECDSA);
    const Bytes wrapped = Bytes{0x30, 0x1D} + rsaIdentifier +
                          Bytes{0x03, 0x0C, 0x00, 0x30, 0x09, 0x02, 0x02, 0x7F, 0x01, 0x02, 0x03, 0x01, 0x00, 0x01};
    EXPECT_EQ(verify({1}).device, (Lines{verifyHash({1}, wrapped)}));
}

TEST_F(VerifyTest, OtherFormsOfTheKeyGoAsTheyAre) {
    struct Row {
        int keyType;
        Bytes key;
    };
    for (const Row& row :
         {Row{p256, Bytes{4} + countingBytes(0, 64)}, Row{p384, Bytes{4} + countingBytes(0, 96)},
          Row{p521, Bytes{4} + countingBytes(0, 132)}, Row{rsa2048, Bytes{0x30, 1, 2}}, Row{rsa2048, Bytes{}}}) {
        world.keyPairs["SN1"][0].keyType = row.keyType;
        setPublicKey(world.keyPairs["SN1"][0], row.key);
        beginVerify(CKM_ECDSA);
        const Outcome outcome = verify({1});
        EXPECT_EQ(outcome.log, (Lines{"DEBUG C_Verify", "DEBUG Public key passed as-is"}));
        EXPECT_EQ(outcome.device, (Lines{verifyHash({1}, row.key, false, row.keyType)}));
    }
}

TEST_F(VerifyTest, TheHashIsTakenOutOfADigestInfo) {
    const Bytes hash = countingBytes(1, 32);
    const Bytes info = Bytes{0x30, 0x31, 0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                             0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20} +
                       hash;
    beginVerify(CKM_RSA_PKCS);
    EXPECT_EQ(verify(info).device, (Lines{verifyHash(hash, wrapped2048(modulus()))}));
    // For the other raw mechanisms, and in several parts, it stays as it is.
    for (const CK_MECHANISM_TYPE type : Numbers{CKM_ECDSA, CKM_RSA_PKCS_PSS}) {
        beginVerify(type);
        EXPECT_EQ(verify(info).device, (Lines{verifyHash(info, wrapped2048(modulus()), type == CKM_RSA_PKCS_PSS)}));
    }
    beginWithPart(CKM_RSA_PKCS, info);
    EXPECT_EQ(verifyFinal().device, (Lines{verifyHash(info, modulus())}));
}

TEST_F(VerifyTest, ArgumentsAreCheckedInTheirOrderAndKeepTheOperation) {
    unsigned char byte = 1;
    EXPECT_EQ(observe([&] { return api->C_Verify(session, nullptr, 0, nullptr, 0); }), notInitialised("C_Verify"));
    beginVerify(CKM_RSA_PKCS);
    for (const auto& [data, mark] : {std::pair<CK_BYTE_PTR, CK_BYTE_PTR>{nullptr, &byte}, {&byte, nullptr}}) {
        EXPECT_EQ(observe([&, data = data, mark = mark] { return api->C_Verify(session, data, 0, mark, 0); }),
                  refused(CKR_ARGUMENTS_BAD, "C_Verify: pData or pSignature is NULL"));
    }
    for (const auto& [dataLength, markLength] : {std::pair<CK_ULONG, CK_ULONG>{0, 1}, {1, 0}, {0, 0}}) {
        const auto call = [&, first = dataLength, second = markLength] {
            return api->C_Verify(session, &byte, first, &byte, second);
        };
        EXPECT_EQ(observe(call),
                  refused(CKR_ARGUMENTS_BAD, text("C_Verify: ulDataLen or ulSignatureLen <= 0, ulDataLen=", dataLength,
                                                  " ulSignatureLen=", markLength)));
    }
    EXPECT_EQ(observe([&] { return api->C_VerifyUpdate(session, nullptr, 3); }),
              refused(CKR_ARGUMENTS_BAD, "C_VerifyUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=3"));
    EXPECT_EQ(observe([&] { return api->C_VerifyFinal(session, nullptr, 3); }),
              refused(CKR_ARGUMENTS_BAD, "C_VerifyFinal: pSignature is NULL or ulSignatureLen<=0, ulSignatureLen=3"));
    EXPECT_EQ(observe([&] { return api->C_VerifyFinal(session, &byte, 0); }).code, CKR_ARGUMENTS_BAD);
    EXPECT_EQ(verify({1}).code, CKR_OK);
    EXPECT_EQ(verifyUpdate({1}), notInitialised("C_VerifyUpdate"));
    EXPECT_EQ(verifyFinal(), notInitialised("C_VerifyFinal"));
}

TEST_F(VerifyTest, AWrongSignatureEndsTheOperation) {
    setResult("zentak_verifySignatureHash", 13);
    beginVerify(CKM_RSA_PKCS);
    EXPECT_EQ(verify({1}), (Outcome{CKR_SIGNATURE_INVALID,
                                    wraps + Lines{"ERROR Verify signature failed : 13"},
                                    {verifyHash({1}, wrapped2048(modulus()))}}));
    EXPECT_EQ(verify({1}), notInitialised("C_Verify"));
    beginWithPart(CKM_RSA_PKCS, {1});
    EXPECT_EQ(verifyFinal(),
              refused(CKR_SIGNATURE_INVALID, "C_VerifyFinal: verify failed 13", {verifyHash({1}, modulus())}));
    EXPECT_EQ(verifyFinal(), notInitialised("C_VerifyFinal"));
}

TEST_F(VerifyTest, HashingFailuresEndASinglePart) {
    const std::pair<const char*, const char*> steps[] = {
        {"zentak_initHash", "ERROR C_Verify: initHash failed ret=4"},
        {"zentak_updateHash", "ERROR C_Verify: updateHash failed ret=4"},
        {"zentak_finalHash", "ERROR C_Verify: finalHash failed ret=4"}};
    for (const auto& [operation, line] : steps) {
        setResult(operation, 4);
        beginVerify(CKM_SHA256_RSA_PKCS);
        const Outcome outcome = verify({1});
        EXPECT_EQ(outcome.code, CKR_FUNCTION_FAILED);
        EXPECT_EQ(outcome.log, (Lines{"DEBUG C_Verify", line}));
        EXPECT_EQ(verify({1}), notInitialised("C_Verify"));
        setResult(operation, 0);
    }
}

TEST_F(VerifyTest, SeveralPartsHaveAHashTableOfTheirOwn) {
    // Most PSS mechanisms have that of SHA-256 there.
    const std::set<CK_MECHANISM_TYPE> ofSha256 = {CKM_RSA_PKCS_PSS, CKM_SHA1_RSA_PKCS_PSS, CKM_SHA384_RSA_PKCS_PSS,
                                                  CKM_SHA512_RSA_PKCS_PSS};
    int context = 0;
    for (const SignMechanism& mechanism : signMechanisms) {
        SCOPED_TRACE(mechanism.type);
        const int hashCode = ofSha256.count(mechanism.type) == 1 ? 3 : mechanism.hashCode;
        beginVerify(mechanism.type);
        if (hashCode == 0) {
            EXPECT_EQ(verifyUpdate({1, 2}), succeeded("C_VerifyUpdate"));
            EXPECT_EQ(verifyUpdate({3}), succeeded("C_VerifyUpdate"));
            EXPECT_EQ(verifyFinal(), succeeded("C_VerifyFinal", {verifyHash({1, 2, 3}, modulus())}));
            continue;
        }
        ++context;
        EXPECT_EQ(verifyUpdate({1, 2}).device, (Lines{initHash(hashCode), updateHash(context, {1, 2})}));
        EXPECT_EQ(verifyUpdate({3}).device, (Lines{updateHash(context, {3})}));
        // The PSS flag is false whatever the mechanism.
        EXPECT_EQ(verifyFinal(), succeeded("C_VerifyFinal", {finalHash(context), verifyHash(digest, modulus())}));
    }
}

TEST_F(VerifyTest, FailuresInSeveralPartsEndTheOperation) {
    for (const std::string step : {"initHash", "updateHash", "finalHash"}) {
        const bool final = step == "finalHash";
        const std::string function = final ? "C_VerifyFinal" : "C_VerifyUpdate";
        beginVerify(CKM_SHA256_RSA_PKCS);
        if (final) {
            // Of the step before the failed context is gone.
            EXPECT_EQ(verifyUpdate({1}).device.front(), initHash(3));
        }
        setResult("zentak_" + step, 4);
        const Outcome outcome = final ? verifyFinal() : verifyUpdate({1});
        EXPECT_EQ(outcome.code, CKR_FUNCTION_FAILED);
        EXPECT_EQ(outcome.log, (Lines{"DEBUG " + function, "ERROR " + function + ": " + step + " failed 4"}));
        EXPECT_EQ(final ? verifyFinal() : verifyUpdate({1}), notInitialised(function));
        setResult("zentak_" + step, 0);
    }
    beginVerify(CKM_SHA256_RSA_PKCS);
    EXPECT_EQ(verifyUpdate({1}).device.front(), initHash(3));
}

}  // namespace
