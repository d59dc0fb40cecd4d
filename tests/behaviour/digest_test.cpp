// C_DigestInit, C_Digest, C_DigestUpdate and C_DigestFinal.

#include "signing_test.h"

using namespace support;

namespace {

struct DigestMechanism {
    CK_MECHANISM_TYPE type;
    int hashCode;
};

constexpr DigestMechanism digestMechanisms[] = {
    {CKM_SHA_1, 2}, {CKM_SHA256, 3}, {CKM_SHA224, 6}, {CKM_SHA384, 4}, {CKM_SHA512, 5}};

std::string finalDigest(int context) {
    return text("zentak_finalHash(", contextName(context), ", out, *128, instance)");
}

class DigestTest : public SigningTest {
protected:
    Outcome digestInit(CK_MECHANISM_TYPE type) {
        CK_MECHANISM mechanism = {type, nullptr, 0};
        return observe([&] { return api->C_DigestInit(session, &mechanism); });
    }
    /// C_Digest into `room`; the capacity isn't looked at.
    Outcome digestData(const Bytes& data) { return giveForRoom(api->C_Digest, data, 0); }
    Outcome digestUpdate(const Bytes& part) { return give(api->C_DigestUpdate, part); }
    Outcome digestFinal() {
        room = Room(2000);
        length = 0;
        return observe([&] { return api->C_DigestFinal(session, static_cast<CK_BYTE_PTR>(room.address()), &length); });
    }
    Outcome sizeOf(const Bytes& data) { return give(api->C_Digest, data, nullptr, &length); }
};

Outcome delivered(const std::string& function, const Lines& device = {}) {
    return {CKR_OK, {"DEBUG " + function, "DEBUG " + function + " Success"}, device};
}

TEST_F(DigestTest, InitChecksInItsOrder) {
    CK_MECHANISM sha1 = {CKM_SHA_1, nullptr, 0};
    EXPECT_EQ(observe([&] { return api->C_DigestInit(7, nullptr); }),
              refused(CKR_SESSION_HANDLE_INVALID, "C_DigestInit: invalid hSession=7"));
    EXPECT_EQ(api->C_Logout(session), CKR_OK);
    api->C_FindObjectsInit(session, nullptr, 0);
    EXPECT_EQ(observe([&] { return api->C_DigestInit(session, nullptr); }),
              refused(CKR_SESSION_HANDLE_INVALID, "C_DigestInit: invalid session state=0"));
    login(session, userPin);
    EXPECT_EQ(observe([&] { return api->C_DigestInit(session, nullptr); }),
              refused(CKR_OPERATION_ACTIVE, "C_DigestInit: operation already active, activeOperation=1"));
    api->C_FindObjectsFinal(session);
    EXPECT_EQ(observe([&] { return api->C_DigestInit(session, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_DigestInit mechanism pointer in NULL"));
    EXPECT_EQ(observe([&] { return api->C_DigestInit(session, &sha1); }).code, CKR_OK);
}

TEST_F(DigestTest, Sha1IsRefusedOnAFipsToken) {
    session = openSession(CKF_RW_SESSION, fipsSlot);
    EXPECT_EQ(digestInit(CKM_SHA_1),
              refused(CKR_MECHANISM_INVALID, "C_DigestInit: SHA-1 not allowed on FIPS 140-3 token"));
    EXPECT_EQ(digestInit(CKM_SHA224), succeeded("C_DigestInit", {initHash(6, "SN2")}));
}

TEST_F(DigestTest, OtherMechanismsAreUnknown) {
    const Numbers others =
        withWide({CKM_MD5, CKM_SHA256_RSA_PKCS, CKM_SHA256_HMAC, 0, CK_UNAVAILABLE_INFORMATION}, {0x100000250});
    for (const CK_MECHANISM_TYPE type : others) {
        EXPECT_EQ(digestInit(type), refused(CKR_MECHANISM_INVALID, "C_DigestInit mechanism not supported"));
    }
}

TEST_F(DigestTest, EachMechanismHashesWithItsCode) {
    const Bytes data = {1, 2, 3};
    int context = 0;
    for (const DigestMechanism& mechanism : digestMechanisms) {
        ++context;
        EXPECT_EQ(digestInit(mechanism.type), succeeded("C_DigestInit", {initHash(mechanism.hashCode)}));
        EXPECT_EQ(digestData(data), delivered("C_Digest", {updateHash(context, data), finalDigest(context)}));
        expectInRoom(digest);
        EXPECT_EQ(digestData(data), notInitialised("C_Digest"));
    }
}

TEST_F(DigestTest, ParametersAreIgnored) {
    unsigned char parameter = 0;
    CK_MECHANISM mechanism = {CKM_SHA256, &parameter, 1};
    EXPECT_EQ(api->C_DigestInit(session, &mechanism), CKR_OK);
}

TEST_F(DigestTest, AFailedInitLeavesNoOperation) {
    setResult("zentak_initHash", 9);
    EXPECT_EQ(digestInit(CKM_SHA256),
              failed(CKR_FUNCTION_FAILED, "C_DigestInit", "Init hash in diges init failed : 9", {initHash(3)}));
    EXPECT_EQ(digestData({1}), notInitialised("C_Digest"));
}

TEST_F(DigestTest, ArgumentsAreCheckedInTheirOrderAndKeepTheOperation) {
    EXPECT_EQ(observe([&] { return api->C_Digest(session, nullptr, 4, nullptr, nullptr); }),
              notInitialised("C_Digest"));
    digestInit(CKM_SHA256);
    EXPECT_EQ(observe([&] { return api->C_Digest(session, nullptr, 4, nullptr, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_Digest: pData is NULL with ulDataLen=4"));
    EXPECT_EQ(observe([&] { return api->C_Digest(session, nullptr, 0, nullptr, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_Digest: pulDigestLen is NULL"));
    unsigned char part = 1;
    for (const auto& [address, count] : {std::pair<CK_BYTE_PTR, CK_ULONG>{nullptr, 3}, {&part, 0}}) {
        EXPECT_EQ(
            observe([&, address = address, count = count] { return api->C_DigestUpdate(session, address, count); }),
            refused(CKR_ARGUMENTS_BAD, text("C_DigestUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=", count)));
    }
    EXPECT_EQ(observe([&] { return api->C_DigestFinal(session, nullptr, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_DigestFinal: pulDigestLen is NULL"));
    EXPECT_EQ(digestData({1}).code, CKR_OK);
}

TEST_F(DigestTest, TheOtherFunctionsNeedTheOperationToo) {
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(digestUpdate({1}), notInitialised("C_DigestUpdate", 5));
    EXPECT_EQ(digestFinal(), notInitialised("C_DigestFinal", 5));
    EXPECT_EQ(digestInit(CKM_SHA256).code, CKR_OPERATION_ACTIVE);
}

TEST_F(DigestTest, TheEmptyMessageIsHashed) {
    digestInit(CKM_SHA256);
    const Outcome outcome = digestData({});
    EXPECT_EQ(outcome.code, CKR_OK);
    EXPECT_EQ(outcome.device, (Lines{"zentak_updateHash(context#1, null, 0, instance)", finalDigest(1)}));
}

TEST_F(DigestTest, ASizeQueryKeepsTheDigestForTheNextCall) {
    digestInit(CKM_SHA256);
    EXPECT_EQ(sizeOf({1}), delivered("C_Digest", {updateHash(1, {1}), finalDigest(1)}));
    EXPECT_EQ(length, 32U);
    EXPECT_EQ(digestData({2, 3}), delivered("C_Digest"));
    EXPECT_EQ(room.first(32), digest);

    digestInit(CKM_SHA256);
    ASSERT_EQ(digestUpdate({1}).code, CKR_OK);
    EXPECT_EQ(observe([&] { return api->C_DigestFinal(session, nullptr, &length); }),
              delivered("C_DigestFinal", {finalDigest(2)}));
    EXPECT_EQ(digestFinal(), delivered("C_DigestFinal"));
    EXPECT_EQ(room.first(32), digest);
    EXPECT_EQ(digestFinal(), notInitialised("C_DigestFinal"));
}

// The digest of a size query stays the answer, and a part that comes afterwards is fed to a finished hash.
TEST_F(DigestTest, APartAfterASizeQueryDoesNotChangeTheDigest) {
    digestInit(CKM_SHA256);
    ASSERT_EQ(digestUpdate({1}).code, CKR_OK);
    ASSERT_EQ(api->C_DigestFinal(session, nullptr, &length), CKR_OK);
    world.digest = {9, 9};
    EXPECT_EQ(digestUpdate({2}), succeeded("C_DigestUpdate", {updateHash(1, {2})}));
    EXPECT_EQ(digestFinal(), delivered("C_DigestFinal"));
    expectInRoom(digest);
}

TEST_F(DigestTest, ANewDigestDeliversNothingThatWasLeftBehind) {
    digestInit(CKM_SHA256);
    ASSERT_EQ(sizeOf({1}).code, CKR_OK);
    abandon();
    digestInit(CKM_SHA256);
    world.digest = {9, 9};
    EXPECT_EQ(digestData({2}), delivered("C_Digest", {updateHash(2, {2}), finalDigest(2)}));
    expectInRoom({9, 9});

    // Parts of a signature are no digest either.
    beginWith(CKM_RSA_PKCS, {7, 7, 7});
    abandon();
    digestInit(CKM_SHA256);
    EXPECT_EQ(digestFinal().device, (Lines{finalDigest(3)}));
    EXPECT_EQ(room.first(2), (Bytes{9, 9}));
}

TEST_F(DigestTest, ADeliveredDigestDoesNotJoinTheNextSignature) {
    digestInit(CKM_SHA256);
    ASSERT_EQ(digestData({1}).code, CKR_OK);
    beginWith(CKM_RSA_PKCS, {7});
    EXPECT_EQ(finish().device, (Lines{signHash({7})}));
    digestInit(CKM_SHA256);
    ASSERT_EQ(digestFinal().code, CKR_OK);
    beginWith(CKM_RSA_PKCS, {8});
    EXPECT_EQ(finish().device, (Lines{signHash({8})}));
}

TEST_F(DigestTest, PartsAreFedAsTheyCome) {
    digestInit(CKM_SHA512);
    EXPECT_EQ(digestUpdate({1, 2}), succeeded("C_DigestUpdate", {updateHash(1, {1, 2})}));
    EXPECT_EQ(digestUpdate({3}), succeeded("C_DigestUpdate", {updateHash(1, {3})}));
    EXPECT_EQ(digestFinal(), delivered("C_DigestFinal", {finalDigest(1)}));
    EXPECT_EQ(room.first(32), digest);
}

TEST_F(DigestTest, FailuresEndTheOperation) {
    digestInit(CKM_SHA256);
    setResult("zentak_updateHash", 5);
    EXPECT_EQ(digestData({1}).log, (Lines{"DEBUG C_Digest", "ERROR Update hash data in diget failed : 5"}));
    EXPECT_EQ(digestData({1}), notInitialised("C_Digest"));
    digestInit(CKM_SHA256);
    EXPECT_EQ(digestUpdate({1}), failed(CKR_FUNCTION_FAILED, "C_DigestUpdate",
                                        "Update hash data in digest update failed : 5", {updateHash(2, {1})}));
    EXPECT_EQ(digestUpdate({1}), notInitialised("C_DigestUpdate"));
    setResult("zentak_updateHash", 0);
    setResult("zentak_finalHash", -6);
    digestInit(CKM_SHA256);
    EXPECT_EQ(digestData({1}).log, (Lines{"DEBUG C_Digest", "ERROR Final hash data in diget failed : -6"}));
    EXPECT_EQ(digestData({1}), notInitialised("C_Digest"));
    digestInit(CKM_SHA256);
    EXPECT_EQ(digestFinal(),
              failed(CKR_FUNCTION_FAILED, "C_DigestFinal", "Final hash data in diget failed : -6", {finalDigest(4)}));
    EXPECT_EQ(digestFinal(), notInitialised("C_DigestFinal"));
}

TEST_F(DigestTest, ALengthBeyondTheAreaIsAFailure) {
    for (const int reported : {129, -1}) {
        digestInit(CKM_SHA256);
        world.reportedLength = reported;
        expectOneError(digestData({1}), CKR_FUNCTION_FAILED, "C_Digest");
        world.reportedLength.reset();
        EXPECT_EQ(digestData({1}), notInitialised("C_Digest"));
    }
}

TEST_F(DigestTest, AFinishedContextStaysAndIsUsedByALaterMultiPartSignature) {
    digestInit(CKM_SHA256);
    ASSERT_EQ(digestData({1}).code, CKR_OK);
    begin(CKM_SHA512_RSA_PKCS);
    EXPECT_EQ(update({7}), succeeded("C_SignUpdate", {updateHash(1, {7})}));
}

}  // namespace
