// C_Sign: its checks, what reaches the device library, and how the signature is delivered.

#include "signing_test.h"

using namespace support;

namespace {

class SigningSingleTest : public SigningTest {};

Lines traced(CK_MECHANISM_TYPE type, const Bytes& input, const std::string& state = "1") {
    return {"DEBUG C_Sign", text("DEBUG sign echanism : ", type),
            text("DEBUG Sign: password empty=0 hashLen=", input.size(), " session state=", state),
            "DEBUG Sign input hash : " + hexadecimal(input)};
}

TEST_F(SigningSingleTest, ArgumentsAreCheckedInTheirOrderAndKeepTheOperation) {
    EXPECT_EQ(observe([&] { return api->C_Sign(session, nullptr, 0, nullptr, nullptr); }), notInitialised("C_Sign"));
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(observe([&] { return api->C_Sign(session, nullptr, 0, nullptr, nullptr); }), notInitialised("C_Sign", 1));
    ASSERT_EQ(api->C_FindObjectsFinal(session), CKR_OK);

    begin(CKM_RSA_PKCS);
    unsigned char data[2] = {1, 2};
    CK_ULONG size = 77;
    EXPECT_EQ(observe([&] { return api->C_Sign(session, nullptr, 0, nullptr, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_Sign: pData is NULL"));
    EXPECT_EQ(observe([&] { return api->C_Sign(session, nullptr, 2, nullptr, &size); }),
              refused(CKR_ARGUMENTS_BAD, "C_Sign: pData is NULL"));
    EXPECT_EQ(observe([&] { return api->C_Sign(session, data, 0, nullptr, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_Sign: ulDataLen<=0, ulDataLen=0"));
    EXPECT_EQ(observe([&] { return api->C_Sign(session, data, 0, nullptr, &size); }),
              refused(CKR_ARGUMENTS_BAD, "C_Sign: ulDataLen<=0, ulDataLen=0"));
    EXPECT_EQ(observe([&] { return api->C_Sign(session, data, 2, data, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_Sign: pulSignatureLen is NULL"));
    EXPECT_EQ(size, 77U);
    EXPECT_EQ(sign({1, 2}).code, CKR_OK);
}

TEST_F(SigningSingleTest, TheArgumentsCountForAWaitingSignatureToo) {
    begin(CKM_RSA_PKCS);
    ASSERT_EQ(signSize({1}).code, CKR_OK);
    EXPECT_EQ(observe([&] { return api->C_Sign(session, nullptr, 1, nullptr, &length); }).code, CKR_ARGUMENTS_BAD);
    EXPECT_EQ(sign({9}), (Outcome{CKR_OK, {"DEBUG C_Sign", "DEBUG sign echanism : 1"}}));
}

TEST_F(SigningSingleTest, EachMechanismHashesAndSignsInItsWay) {
    const Bytes data = {0xDA, 0x7A, 0x00, 0x01};
    int contexts = 0;
    for (const SignMechanism& mechanism : signMechanisms) {
        SCOPED_TRACE(mechanism.type);
        begin(mechanism.type);
        Lines device;
        if (mechanism.hashCode != 0) {
            ++contexts;
            device = {initHash(mechanism.hashCode), updateHash(contexts, data), finalHash(contexts)};
        }
        const Bytes input = mechanism.hashCode != 0 ? digest : data;
        device.push_back(signHash(input, mechanism.pss));
        EXPECT_EQ(sign(data), (Outcome{CKR_OK, traced(mechanism.type, input), device}));
        expectInRoom(signature);
        EXPECT_EQ(sign(data), notInitialised("C_Sign"));
    }
}

TEST_F(SigningSingleTest, TheDigestHasTheLengthThatTheLibraryReports) {
    for (const std::size_t size : {1U, 20U, 48U, 64U}) {
        world.digest = countingBytes(0x11, size);
        begin(CKM_ECDSA_SHA384);
        const Outcome outcome = sign({1});
        EXPECT_EQ(outcome.log, traced(CKM_ECDSA_SHA384, world.digest));
        EXPECT_EQ(outcome.device.back(), signHash(world.digest));
    }
}

TEST_F(SigningSingleTest, ADigestOfNoBytesIsSignedAsNothing) {
    world.digest.clear();
    begin(CKM_SHA512_RSA_PKCS);
    const Outcome outcome = sign({1});
    EXPECT_EQ(outcome.code, CKR_OK);
    EXPECT_EQ(outcome.log, (Lines{"DEBUG C_Sign", "DEBUG sign echanism : 66",
                                  "DEBUG Sign: password empty=0 hashLen=0 session state=1",
                                  "DEBUG Sign input hash : NULL or empty"}));
    EXPECT_TRUE(signsNothing(outcome.device.back())) << outcome.device.back();
}

TEST_F(SigningSingleTest, EveryStateSignsWithThePinThatIsCached) {
    struct Row {
        CK_STATE state;
        std::string pin;
    };
    for (const Row& row : {Row{CKS_RO_USER_FUNCTIONS, userPin}, Row{CKS_RW_PUBLIC_SESSION, ""},
                           Row{CKS_RW_USER_FUNCTIONS, userPin}, Row{CKS_RW_SO_FUNCTIONS, ""}}) {
        session = reopen(session, row.state);
        begin(CKM_RSA_PKCS);
        EXPECT_EQ(sign({0x0A, 0xBC}), (Outcome{CKR_OK,
                                               {"DEBUG C_Sign", "DEBUG sign echanism : 1",
                                                text("DEBUG Sign: password empty=", row.pin.empty() ? 1 : 0,
                                                     " hashLen=2 session state=", row.state),
                                                "DEBUG Sign input hash : 0ABC"},
                                               {signHash({0x0A, 0xBC}, false, "SN1", row.pin)}}));
    }
}

TEST_F(SigningSingleTest, ALogoutInBetweenOnlyTakesThePinAway) {
    begin(CKM_RSA_PKCS);
    ASSERT_EQ(api->C_Logout(session), CKR_OK);
    EXPECT_EQ(sign({7}),
              (Outcome{CKR_OK,
                       {"DEBUG C_Sign", "DEBUG sign echanism : 1",
                        "DEBUG Sign: password empty=1 hashLen=1 session state=0", "DEBUG Sign input hash : 07"},
                       {signHash({7}, false, "SN1", "")}}));
}

TEST_F(SigningSingleTest, TheSignatureIsMadeOnTheSessionsToken) {
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, fipsSlot);
    signInit(other, CKM_SHA256_RSA_PKCS_PSS, 5);
    EXPECT_EQ(signIn(other, {1}).device,
              (Lines{initHash(3, "SN2"), updateHash(1, {1}), finalHash(1), signHash(digest, true, "SN2")}));
}

TEST_F(SigningSingleTest, ASizeQueryComputesAndKeepsTheSignature) {
    for (const CK_MECHANISM_TYPE type : Numbers{CKM_RSA_PKCS, CKM_SHA256_RSA_PKCS}) {
        begin(type);
        length = 3;
        EXPECT_EQ(signSize({1, 2, 3}).device.back(), signHash(type == CKM_RSA_PKCS ? Bytes{1, 2, 3} : digest));
        EXPECT_EQ(length, 256U);

        // Whatever comes now, the waiting signature is the answer.
        world.signature = countingBytes(0x99, 10);
        const Outcome waiting = {CKR_OK, {"DEBUG C_Sign", text("DEBUG sign echanism : ", type)}};
        length = 3;
        EXPECT_EQ(signSize({4, 5}), waiting);
        EXPECT_EQ(length, 256U);
        EXPECT_EQ(sign({9, 9, 9, 9}), waiting);
        expectInRoom(signature);
        EXPECT_EQ(sign({1}), notInitialised("C_Sign"));
        world.signature = signature;
    }
}

TEST_F(SigningSingleTest, TheStatedCapacityIsNeverLookedAt) {
    for (const CK_ULONG capacity : Numbers{0, 1, 255, 256, 257, CK_UNAVAILABLE_INFORMATION}) {
        begin(CKM_RSA_PKCS);
        Room target(300);
        unsigned char data[1] = {1};
        CK_ULONG size = capacity;
        EXPECT_EQ(
            observe([&] { return api->C_Sign(session, data, 1, static_cast<CK_BYTE_PTR>(target.address()), &size); }),
            (Outcome{CKR_OK, traced(CKM_RSA_PKCS, {1}), {signHash({1})}}));
        EXPECT_EQ(size, 256U);
        EXPECT_EQ(target.first(256), signature);
        EXPECT_TRUE(target.untouchedFrom(256));
    }
}

TEST_F(SigningSingleTest, SignaturesOfEveryLength) {
    for (const std::size_t size : {1U, 64U, 96U, 132U, 384U, 512U, 1024U}) {
        world.signature = countingBytes(0x21, size);
        begin(CKM_ECDSA);
        EXPECT_EQ(sign({1}).code, CKR_OK);
        expectInRoom(world.signature);
    }
}

// Nothing waits after an empty signature, so a size query doesn't keep it and the next call signs again.
TEST_F(SigningSingleTest, AnEmptySignatureIsComputedAgain) {
    world.signature.clear();
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(signSize({1}).device, (Lines{signHash({1})}));
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(sign({2}).device, (Lines{signHash({2})}));
    expectInRoom({});
    EXPECT_EQ(sign({2}), notInitialised("C_Sign"));
}

TEST_F(SigningSingleTest, SessionsKeepTheirSignaturesApart) {
    const CK_SESSION_HANDLE other = openSession();
    begin(CKM_RSA_PKCS);
    signInit(other, CKM_SHA256_RSA_PKCS_PSS, 5);
    ASSERT_EQ(signSize({1}).code, CKR_OK);
    world.signature = countingBytes(0x01, 64);
    EXPECT_EQ(signIn(other, {2}).device,
              (Lines{initHash(3), updateHash(1, {2}), finalHash(1), signHash(digest, true)}));
    expectInRoom(world.signature);
    EXPECT_EQ(sign({3}).device, Lines{});
    expectInRoom(signature);
}

TEST_F(SigningSingleTest, LongInputReachesTheDeviceWhole) {
    const Bytes data = countingBytes(0, 1200);
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(sign(data), (Outcome{CKR_OK, traced(CKM_RSA_PKCS, data), {signHash(data)}}));
    begin(CKM_SHA256_RSA_PKCS);
    EXPECT_EQ(sign(data).device, (Lines{initHash(3), updateHash(1, data), finalHash(1), signHash(digest)}));
}

}  // namespace
