// What one signature leaves behind in its session and a later one meets: parts and a running hash outlive an operation
// that didn't end with C_SignFinal, a computed signature doesn't.

#include "signing_test.h"

using namespace support;

namespace {

class SigningLeftoverTest : public SigningTest {
protected:
    /// Leaves these parts behind in the session.
    void leaveParts(const Bytes& parts) {
        beginWith(CKM_RSA_PKCS, parts);
        abandon();
    }
    /// Leaves a running hash behind in the session: context#1, as the first of a test.
    void leaveHash() {
        begin(CKM_SHA256_RSA_PKCS);
        ASSERT_EQ(update({0xAA}).device, (Lines{initHash(3), updateHash(1, {0xAA})}));
        abandon();
    }
    /// The parts that the session holds: those that a raw signature without update signs.
    Lines partsSigned() {
        begin(CKM_RSA_PKCS);
        return finish().device;
    }
    void expectNoParts() {
        const Lines device = partsSigned();
        ASSERT_EQ(device.size(), 1U);
        EXPECT_TRUE(signsNothing(device[0])) << device[0];
    }
};

TEST_F(SigningLeftoverTest, PartsOfAnAbandonedSignatureJoinTheNext) {
    leaveParts({1, 2});
    beginWith(CKM_ECDSA, {3});
    EXPECT_EQ(finish().device, (Lines{signHash({1, 2, 3})}));
    expectNoParts();
}

TEST_F(SigningLeftoverTest, ASinglePartSignatureNeitherUsesNorDropsTheParts) {
    beginWith(CKM_RSA_PKCS, {1, 2});
    EXPECT_EQ(sign({9}).device, (Lines{signHash({9})}));
    EXPECT_EQ(partsSigned(), (Lines{signHash({1, 2})}));
}

TEST_F(SigningLeftoverTest, AFailedSinglePartSignatureKeepsTheParts) {
    leaveParts({1, 2});
    begin(CKM_RSA_PKCS);
    setResult("zentak_signHash", 3);
    ASSERT_EQ(sign({9}).code, CKR_FUNCTION_FAILED);
    setResult("zentak_signHash", 0);
    EXPECT_EQ(partsSigned(), (Lines{signHash({1, 2})}));
}

TEST_F(SigningLeftoverTest, ADigestReplacesTheParts) {
    leaveParts({1, 2});
    beginWith(CKM_SHA256_RSA_PKCS, {3});
    EXPECT_EQ(finish().device, (Lines{finalHash(1), signHash(digest)}));
    expectNoParts();
}

// A library that reports more than it has written: what it left out is zero, never a part of something else.
TEST_F(SigningLeftoverTest, AHashIsFinishedIntoZeros) {
    world.digest = {0xD0, 0xD1};
    world.reportedLength = 4;
    leaveParts({1, 2, 3, 4, 5});
    beginWith(CKM_SHA256_RSA_PKCS, {3});
    EXPECT_EQ(finish().device, (Lines{finalHash(1), signHash({0xD0, 0xD1, 0, 0})}));

    leaveParts({1, 2, 3, 4, 5});
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(api->C_VerifyInit(session, &mechanism, publicKey(5)), CKR_OK);
    CK_BYTE byte = 3;
    ASSERT_EQ(api->C_VerifyUpdate(session, &byte, 1), CKR_OK);
    const Outcome verified = observe([&] { return api->C_VerifyFinal(session, &byte, 1); });
    ASSERT_EQ(verified.device.size(), 2U);
    EXPECT_NE(verified.device[1].find("\"SN1\", <D0D10000>, 4, "), std::string::npos) << verified.device[1];
}

TEST_F(SigningLeftoverTest, AFailedHashUpdateKeepsTheParts) {
    leaveParts({1, 2});
    begin(CKM_SHA256_RSA_PKCS);
    setResult("zentak_updateHash", 3);
    ASSERT_EQ(update({3}).code, CKR_FUNCTION_FAILED);
    EXPECT_EQ(partsSigned(), (Lines{signHash({1, 2})}));
}

TEST_F(SigningLeftoverTest, AFailedFinalHashDropsThePartsAndTheHash) {
    for (const bool throws : {false, true}) {
        leaveParts({1, 2});
        beginWith(CKM_SHA256_RSA_PKCS, {3});
        setResult("zentak_finalHash", throws ? 0 : 3);
        if (throws) letThrow("zentak_finalHash", scripted::Throw::exception);
        ASSERT_EQ(finish().code, CKR_FUNCTION_FAILED);
        setResult("zentak_finalHash", 0);
        expectNoParts();
        begin(CKM_SHA256_RSA_PKCS);
        EXPECT_EQ(update({4}).device.front(), initHash(3));
        ASSERT_EQ(finish().code, CKR_OK);
    }
}

TEST_F(SigningLeftoverTest, AFailedFinalSignatureDropsTheParts) {
    for (const bool throws : {false, true}) {
        beginWith(CKM_RSA_PKCS, {1, 2});
        setResult("zentak_signHash", throws ? 0 : 3);
        if (throws) letThrow("zentak_signHash", scripted::Throw::exception);
        ASSERT_EQ(finish().code, CKR_FUNCTION_FAILED);
        setResult("zentak_signHash", 0);
        expectNoParts();
    }
}

TEST_F(SigningLeftoverTest, APartAfterASizeQueryIsLeftForTheNextSignature) {
    beginWith(CKM_RSA_PKCS, {1});
    EXPECT_EQ(finishSize().device, (Lines{signHash({1})}));
    ASSERT_EQ(update({2}).code, CKR_OK);
    EXPECT_EQ(finish().device, Lines{});
    EXPECT_EQ(partsSigned(), (Lines{signHash({2})}));
}

TEST_F(SigningLeftoverTest, AHashLeftBehindIsGoneOnWith) {
    leaveHash();
    begin(CKM_SHA512_RSA_PKCS);  // whatever hash it was
    EXPECT_EQ(update({0xBB}).device, (Lines{updateHash(1, {0xBB})}));
    EXPECT_EQ(finish().device, (Lines{finalHash(1), signHash(digest)}));
    begin(CKM_SHA512_RSA_PKCS);
    EXPECT_EQ(update({0xCC}).device, (Lines{initHash(5), updateHash(2, {0xCC})}));
}

TEST_F(SigningLeftoverTest, AHashLeftBehindIsFinishedWithoutAPart) {
    leaveHash();
    begin(CKM_ECDSA_SHA224);
    EXPECT_EQ(finish().device, (Lines{finalHash(1), signHash(digest)}));
    begin(CKM_ECDSA_SHA224);
    EXPECT_EQ(finish().device, (Lines{finalHash(0), signHash(digest)}));
}

TEST_F(SigningLeftoverTest, RawAndSinglePartSignaturesLeaveTheHashAlone) {
    leaveHash();
    beginWith(CKM_RSA_PKCS, {1});
    EXPECT_EQ(finish().device, (Lines{signHash({1})}));
    begin(CKM_SHA384_RSA_PKCS);  // hashed in a context of its own
    EXPECT_EQ(sign({2}).device, (Lines{initHash(4), updateHash(2, {2}), finalHash(2), signHash(digest)}));
    begin(CKM_SHA384_RSA_PKCS);
    EXPECT_EQ(update({3}).device, (Lines{updateHash(1, {3})}));
}

TEST_F(SigningLeftoverTest, ASinglePartSignatureInTheMiddleLeavesTheHashRunning) {
    begin(CKM_SHA256_RSA_PKCS);
    EXPECT_EQ(update({1}).device, (Lines{initHash(3), updateHash(1, {1})}));
    EXPECT_EQ(sign({2}).device, (Lines{initHash(3), updateHash(2, {2}), finalHash(2), signHash(digest)}));
    begin(CKM_SHA256_RSA_PKCS);
    EXPECT_EQ(update({3}).device, (Lines{updateHash(1, {3})}));
}

TEST_F(SigningLeftoverTest, FailedSinglePartHashingLeavesTheHashAlone) {
    leaveHash();
    for (const char* operation : {"zentak_initHash", "zentak_updateHash", "zentak_finalHash"}) {
        begin(CKM_SHA256_RSA_PKCS);
        setResult(operation, 3);
        EXPECT_EQ(sign({1}).code, CKR_FUNCTION_FAILED);
        setResult(operation, 0);
    }
    begin(CKM_SHA256_RSA_PKCS);
    EXPECT_EQ(update({2}).device, (Lines{updateHash(1, {2})}));
}

TEST_F(SigningLeftoverTest, AFailedUpdateDropsTheHash) {
    for (const bool throws : {false, true}) {
        beginWith(CKM_SHA256_RSA_PKCS, {1});
        setResult("zentak_updateHash", throws ? 0 : 3);
        if (throws) letThrow("zentak_updateHash", scripted::Throw::exception);
        ASSERT_EQ(update({2}).code, CKR_FUNCTION_FAILED);
        setResult("zentak_updateHash", 0);
        begin(CKM_SHA256_RSA_PKCS);
        EXPECT_EQ(update({3}).device.front(), initHash(3));
        ASSERT_EQ(finish().code, CKR_OK);
    }
}

TEST_F(SigningLeftoverTest, AFailedStartOfAHashLeavesNone) {
    begin(CKM_SHA256_RSA_PKCS);
    setResult("zentak_initHash", 3);
    ASSERT_EQ(update({1}).code, CKR_FUNCTION_FAILED);
    setResult("zentak_initHash", 0);
    begin(CKM_SHA256_RSA_PKCS);
    EXPECT_EQ(update({2}).device, (Lines{initHash(3), updateHash(1, {2})}));
}

TEST_F(SigningLeftoverTest, AFinishedHashIsGoneEvenWhenTheSignatureFails) {
    beginWith(CKM_SHA256_RSA_PKCS, {1});
    setResult("zentak_signHash", 3);
    ASSERT_EQ(finish().code, CKR_FUNCTION_FAILED);
    setResult("zentak_signHash", 0);
    begin(CKM_SHA256_RSA_PKCS);
    EXPECT_EQ(update({2}).device, (Lines{initHash(3), updateHash(2, {2})}));
}

TEST_F(SigningLeftoverTest, APartAfterASizeQueryBeginsANewHash) {
    beginWith(CKM_SHA256_RSA_PKCS, {1});
    ASSERT_EQ(finishSize().device, (Lines{finalHash(1), signHash(digest)}));
    EXPECT_EQ(update({2}).device, (Lines{initHash(3), updateHash(2, {2})}));
    EXPECT_EQ(finish().device, Lines{});
    begin(CKM_SHA256_RSA_PKCS);
    EXPECT_EQ(finish().device, (Lines{finalHash(2), signHash(digest)}));
}

TEST_F(SigningLeftoverTest, AComputedSignatureIsDroppedByTheNextStart) {
    begin(CKM_RSA_PKCS);
    ASSERT_EQ(signSize({1}).code, CKR_OK);
    abandon();
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(sign({2}).device, (Lines{signHash({2})}));
}

TEST_F(SigningLeftoverTest, ANewSessionInheritsNothing) {
    leaveParts({1, 2});
    leaveHash();
    ASSERT_EQ(api->C_CloseSession(session), CKR_OK);
    session = openSession();
    expectNoParts();
    begin(CKM_SHA256_RSA_PKCS);
    EXPECT_EQ(update({3}).device, (Lines{initHash(3), updateHash(2, {3})}));
}

TEST_F(SigningLeftoverTest, AClosedSessionSignsNoMore) {
    begin(CKM_RSA_PKCS);
    ASSERT_EQ(api->C_CloseSession(session), CKR_OK);
    EXPECT_EQ(sign({1}).code, CKR_SESSION_HANDLE_INVALID);
    session = openSession();
    EXPECT_EQ(sign({1}), notInitialised("C_Sign"));
}

}  // namespace
