// C_SignUpdate and C_SignFinal: their checks, what reaches the device library, and how the signature is delivered.

#include "signing_test.h"

using namespace support;

namespace {

class SigningMultipartTest : public SigningTest {};

const Outcome updatedUnasked = {CKR_OK, {"DEBUG C_SignUpdate"}};

Outcome finished(const Lines& device) {
    return {CKR_OK, {"DEBUG C_SignFinal"}, device};
}

TEST_F(SigningMultipartTest, TheOperationComesBeforeTheArguments) {
    EXPECT_EQ(observe([&] { return api->C_SignUpdate(session, nullptr, 0); }), notInitialised("C_SignUpdate"));
    EXPECT_EQ(observe([&] { return api->C_SignFinal(session, nullptr, nullptr); }), notInitialised("C_SignFinal"));
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(observe([&] { return api->C_SignUpdate(session, nullptr, 0); }), notInitialised("C_SignUpdate", 1));
    EXPECT_EQ(observe([&] { return api->C_SignFinal(session, nullptr, nullptr); }), notInitialised("C_SignFinal", 1));
}

TEST_F(SigningMultipartTest, WrongArgumentsKeepTheOperation) {
    begin(CKM_ECDSA);
    unsigned char data[2] = {1, 2};
    const auto badPart = [](CK_ULONG partLength) {
        return refused(CKR_ARGUMENTS_BAD, text("C_SignUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=", partLength));
    };
    EXPECT_EQ(observe([&] { return api->C_SignUpdate(session, nullptr, 0); }), badPart(0));
    EXPECT_EQ(observe([&] { return api->C_SignUpdate(session, nullptr, 2); }), badPart(2));
    EXPECT_EQ(observe([&] { return api->C_SignUpdate(session, data, 0); }), badPart(0));
    EXPECT_EQ(observe([&] { return api->C_SignFinal(session, data, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_SignFinal: pulSignatureLen is NULL"));
    EXPECT_EQ(update({1, 2}), updatedUnasked);
    EXPECT_EQ(finish(), finished({signHash({1, 2})}));
}

TEST_F(SigningMultipartTest, EachMechanismTakesItsPartsInItsWay) {
    const Bytes first = {0xF1, 0x01};
    const Bytes second = {0xF2};
    int contexts = 0;
    for (const SignMechanism& mechanism : signMechanisms) {
        SCOPED_TRACE(mechanism.type);
        begin(mechanism.type);
        if (mechanism.hashCode == 0) {
            EXPECT_EQ(update(first), updatedUnasked);
            EXPECT_EQ(update(second), updatedUnasked);
            EXPECT_EQ(finish(), finished({signHash(first + second, mechanism.pss)}));
        } else {
            ++contexts;
            EXPECT_EQ(update(first),
                      succeeded("C_SignUpdate", {initHash(mechanism.hashCode), updateHash(contexts, first)}));
            EXPECT_EQ(update(second), succeeded("C_SignUpdate", {updateHash(contexts, second)}));
            EXPECT_EQ(finish(), finished({finalHash(contexts), signHash(digest, mechanism.pss)}));
        }
        expectInRoom(signature);
        EXPECT_EQ(update(first), notInitialised("C_SignUpdate"));
        EXPECT_EQ(finish(), notInitialised("C_SignFinal"));
    }
}

TEST_F(SigningMultipartTest, TheDigestHasTheLengthThatTheLibraryReports) {
    for (const std::size_t size : {20U, 48U, 64U}) {
        world.digest = countingBytes(0x11, size);
        beginWith(CKM_SHA384_RSA_PKCS, {1});
        EXPECT_EQ(finish().device.back(), signHash(world.digest));
    }
}

TEST_F(SigningMultipartTest, WithoutAPartRawMechanismsSignNothing) {
    for (const CK_MECHANISM_TYPE type : Numbers{CKM_RSA_PKCS, CKM_ECDSA}) {
        begin(type);
        const Outcome outcome = finish();
        EXPECT_EQ(outcome.code, CKR_OK);
        EXPECT_EQ(outcome.log, (Lines{"DEBUG C_SignFinal"}));
        ASSERT_EQ(outcome.device.size(), 1U);
        EXPECT_TRUE(signsNothing(outcome.device[0])) << outcome.device[0];
    }
}

TEST_F(SigningMultipartTest, WithoutAPartHashingMechanismsFinishNoContext) {
    begin(CKM_SHA256_RSA_PKCS);
    EXPECT_EQ(finish(), finished({finalHash(0), signHash(digest)}));
    begin(CKM_SHA256_RSA_PKCS);
    setResult("zentak_finalHash", 9);  // as a library that knows no such context
    EXPECT_EQ(finish(), refused(CKR_FUNCTION_FAILED, "C_SignFinal: finalHash failed 9", {finalHash(0)}));
}

TEST_F(SigningMultipartTest, ASizeQueryComputesAndKeepsTheSignature) {
    for (const bool hashing : {false, true}) {
        beginWith(hashing ? CKM_SHA256_RSA_PKCS : CKM_RSA_PKCS, {1, 2});
        length = 3;
        EXPECT_EQ(finishSize(), finished(hashing ? Lines{finalHash(1), signHash(digest)} : Lines{signHash({1, 2})}));
        EXPECT_EQ(length, 256U);

        world.signature = countingBytes(0x99, 10);
        length = 3;
        EXPECT_EQ(finishSize(), finished({}));
        EXPECT_EQ(length, 256U);
        EXPECT_EQ(finish(), finished({}));
        expectInRoom(signature);
        EXPECT_EQ(finish(), notInitialised("C_SignFinal"));
        world.signature = signature;
    }
}

TEST_F(SigningMultipartTest, AWaitingSignatureIsDeliveredByEitherFunction) {
    beginWith(CKM_RSA_PKCS, {1, 2});
    ASSERT_EQ(finishSize().code, CKR_OK);
    world.signature = countingBytes(0x99, 10);
    EXPECT_EQ(sign({3}), (Outcome{CKR_OK, {"DEBUG C_Sign", "DEBUG sign echanism : 1"}}));
    EXPECT_EQ(room.first(256), signature);

    world.signature = signature;
    begin(CKM_SHA256_RSA_PKCS);
    ASSERT_EQ(signSize({1, 2}).code, CKR_OK);
    world.signature = countingBytes(0x99, 10);
    EXPECT_EQ(finish(), finished({}));
    EXPECT_EQ(room.first(256), signature);
    EXPECT_EQ(finish(), notInitialised("C_SignFinal"));
}

TEST_F(SigningMultipartTest, TheStatedCapacityIsNeverLookedAt) {
    for (const CK_ULONG capacity : Numbers{0, 255, CK_UNAVAILABLE_INFORMATION}) {
        beginWith(CKM_RSA_PKCS, {1});
        Room target(300);
        CK_ULONG size = capacity;
        EXPECT_EQ(observe([&] { return api->C_SignFinal(session, static_cast<CK_BYTE_PTR>(target.address()), &size); }),
                  finished({signHash({1})}));
        EXPECT_EQ(size, 256U);
        EXPECT_EQ(target.first(256), signature);
        EXPECT_TRUE(target.untouchedFrom(256));
    }
}

TEST_F(SigningMultipartTest, AnEmptySignatureIsComputedAgain) {
    world.signature.clear();
    beginWith(CKM_RSA_PKCS, {1});
    EXPECT_EQ(finishSize(), finished({signHash({1})}));
    EXPECT_EQ(length, 0U);
    const Outcome again = finish();  // the parts are gone
    ASSERT_EQ(again.device.size(), 1U);
    EXPECT_TRUE(signsNothing(again.device[0])) << again.device[0];
    EXPECT_EQ(finish(), notInitialised("C_SignFinal"));
}

TEST_F(SigningMultipartTest, WithoutALoginThePinIsEmpty) {
    session = reopen(session, CKS_RW_PUBLIC_SESSION);
    beginWith(CKM_RSA_PKCS, {1});
    EXPECT_EQ(finish(), finished({signHash({1}, false, "SN1", "")}));
}

TEST_F(SigningMultipartTest, SessionsKeepTheirPartsApart) {
    const CK_SESSION_HANDLE first = session;
    const CK_SESSION_HANDLE second = openSession(0, fipsSlot);
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(update({1}), updatedUnasked);
    session = second;
    ASSERT_EQ(stateOf(second), CKS_RO_USER_FUNCTIONS);
    begin(CKM_RSA_PKCS_PSS);
    EXPECT_EQ(update({2}), updatedUnasked);
    session = first;
    EXPECT_EQ(update({3}), updatedUnasked);
    EXPECT_EQ(finish(), finished({signHash({1, 3})}));
    session = second;
    EXPECT_EQ(finish(), finished({signHash({2}, true, "SN2")}));
}

TEST_F(SigningMultipartTest, SessionsKeepTheirHashesApart) {
    const CK_SESSION_HANDLE first = session;
    const CK_SESSION_HANDLE second = openSession();
    begin(CKM_SHA256_RSA_PKCS);
    EXPECT_EQ(update({1}).device, (Lines{initHash(3), updateHash(1, {1})}));
    session = second;
    begin(CKM_SHA512_RSA_PKCS);
    EXPECT_EQ(update({2}).device, (Lines{initHash(5), updateHash(2, {2})}));
    session = first;
    EXPECT_EQ(update({3}).device, (Lines{updateHash(1, {3})}));
    session = second;
    EXPECT_EQ(finish().device, (Lines{finalHash(2), signHash(digest)}));
    session = first;
    EXPECT_EQ(finish().device, (Lines{finalHash(1), signHash(digest)}));
}

TEST_F(SigningMultipartTest, ManyPartsAreOneMessage) {
    begin(CKM_RSA_PKCS);
    Bytes whole;
    for (int i = 0; i < 100; ++i) {
        const Bytes part = countingBytes(i, 40);
        ASSERT_EQ(update(part), updatedUnasked);
        whole = whole + part;
    }
    EXPECT_EQ(finish(), finished({signHash(whole)}));
}

}  // namespace
