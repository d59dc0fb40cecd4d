// C_SetAttributeValue and C_DestroyObject.

#include "object_test.h"

using namespace support;

namespace {

const std::string entered = "DEBUG C_SetAttributeValue";
const std::string ended = "DEBUG Set attribute end";

std::string attribute(CK_ATTRIBUTE_TYPE type) {
    return text("DEBUG C_SetAttributeValue - attrip type : ", type);
}

std::string listKeyPairsOf(const std::string& token) {
    return "zentak_getKeyPairList(\"" + token + "\", instance)";
}

/// `identifier` as the record shows it, with its length.
std::string updateKeyPair(std::uint32_t id, const std::string& label, const std::string& identifier = "null, 0",
                          const std::string& pin = "246810", const std::string& token = "SN1") {
    return text("zentak_updateKeyPairDetails(\"", token, "\", ", shownKeyReference(id), ", \"", pin, "\", \"", label,
                "\", ", identifier, ", instance)");
}

std::string deleteKeyPair(std::uint32_t id, bool keyFlag = false, const std::string& pin = "246810",
                          const std::string& token = "SN1") {
    return text("zentak_deleteKeyPair(\"", token, "\", ", shownKeyReference(id), ", \"", pin, "\", ",
                keyFlag ? "true" : "false", ", instance)");
}

/// What is logged before the key pair is looked for.
Lines deleting(CK_OBJECT_HANDLE object) {
    return {"DEBUG C_DestroyObject", text("DEBUG Delete key pair id : ", object)};
}

class ChangeTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        session = openSessionIn(CKS_RW_USER_FUNCTIONS);
    }
    Outcome set(CK_OBJECT_HANDLE object, Template& wanted) { return setIn(session, object, wanted); }
    Outcome setIn(CK_SESSION_HANDLE where, CK_OBJECT_HANDLE object, Template& wanted) {
        return observe([&] { return api->C_SetAttributeValue(where, object, wanted.data(), wanted.count()); });
    }
    Outcome destroy(CK_OBJECT_HANDLE object) { return destroyIn(session, object); }
    Outcome destroyIn(CK_SESSION_HANDLE where, CK_OBJECT_HANDLE object) {
        return observe([&] { return api->C_DestroyObject(where, object); });
    }

    /// A success after these attributes.
    static Outcome changed(const Lines& attributes, const Lines& update = {}) {
        return {CKR_OK, Lines{entered} + attributes + Lines{ended}, Lines{listKeyPairs} + update};
    }

    CK_SESSION_HANDLE session = 0;
};

// --- C_SetAttributeValue --------------------------------------------------------------------------------------------

TEST_F(ChangeTest, SettingChecksInItsOrder) {
    Template wanted;
    wanted.add(CKA_LABEL, "new");
    EXPECT_EQ(observe([&] { return api->C_SetAttributeValue(7, 5, nullptr, 0); }),
              refused(CKR_SESSION_HANDLE_INVALID, "C_SetAttributeValue: invalid hSession=7"));
    EXPECT_EQ(observe([&] { return api->C_SetAttributeValue(session, 5, nullptr, 0); }),
              refused(CKR_ARGUMENTS_BAD, "C_SetAttributeValue: pTemplate is NULL"));
    EXPECT_EQ(observe([&] { return api->C_SetAttributeValue(session, 5, wanted.data(), 0); }),
              refused(CKR_ARGUMENTS_BAD, "C_SetAttributeValue: ulCount<=0"));
    EXPECT_EQ(set(5, wanted), refused(CKR_OBJECT_HANDLE_INVALID, "C_SetAttributeValue: invalid hObject=5"));
    ASSERT_EQ(api->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(observe([&] { return api->C_SetAttributeValue(7, 5, nullptr, 0); }),
              refused(CKR_CRYPTOKI_NOT_INITIALIZED, "C_SetAttributeValue: not initialized"));
}

TEST_F(ChangeTest, OnlyHandlesOfKeyPairsAreTaken) {
    Template wanted;
    wanted.add(CKA_LABEL, "new");
    const Numbers handles =
        withWide({0, 0x6FFFFFFF, certificate(0), certificate(5), 0x70003000, 0xFFFFFFFF}, {0x170000005});
    for (const CK_OBJECT_HANDLE handle : handles) {
        EXPECT_EQ(set(handle, wanted),
                  refused(CKR_OBJECT_HANDLE_INVALID, text("C_SetAttributeValue: invalid hObject=", handle)));
    }
    for (const CK_OBJECT_HANDLE handle : Numbers{privateKey(0), privateKey(7), 0x70000FFF, publicKey(7), 0x70001FFF}) {
        EXPECT_EQ(set(handle, wanted), failed(CKR_OBJECT_HANDLE_INVALID, "C_SetAttributeValue",
                                              text("Key pair not found in Set attribute : ", handle), {listKeyPairs}));
    }
}

TEST_F(ChangeTest, TheEndsOfBothRangesAreFound) {
    world.keyPairs["SN1"] = {labelledKeyPair(0, "first"), labelledKeyPair(0xFFF, "last")};
    Template wanted;
    wanted.add(CKA_LABEL, "new");
    for (const CK_OBJECT_HANDLE base : Numbers{privateKeyBase, publicKeyBase}) {
        EXPECT_EQ(set(base, wanted).device, (Lines{listKeyPairs, updateKeyPair(0, "new")}));
        EXPECT_EQ(set(base + 0xFFF, wanted).device, (Lines{listKeyPairs, updateKeyPair(0xFFF, "new")}));
    }
}

TEST_F(ChangeTest, ALabelIsGivenThroughEitherObject) {
    for (const CK_OBJECT_HANDLE handle : {privateKey(6), publicKey(6)}) {
        EXPECT_EQ(set(handle, Template().add(CKA_LABEL, "new name")),
                  changed({attribute(CKA_LABEL)}, {updateKeyPair(6, "new name")}));
    }
}

TEST_F(ChangeTest, AnIdentifierIsGivenAlone) {
    EXPECT_EQ(set(privateKey(5), Template().add(CKA_ID, Bytes{0, 0xB1, 0})),
              changed({attribute(CKA_ID)}, {updateKeyPair(5, "", "<00B100>, 3")}));
}

TEST_F(ChangeTest, LongValuesAreHandedOnWhole) {
    const std::string label(200, 'x');
    const Bytes identifier = countingBytes(0, 200);
    EXPECT_EQ(set(privateKey(5), Template().add(CKA_LABEL, label.c_str()).add(CKA_ID, identifier)),
              changed({attribute(CKA_LABEL), attribute(CKA_ID)}, {updateKeyPair(5, label, shown(identifier))}));
}

TEST_F(ChangeTest, ALabelIsCountedBytes) {
    char label[] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(set(privateKey(5), Template().addRaw(CKA_LABEL, label, 3)).device,
              (Lines{listKeyPairs, updateKeyPair(5, "abc")}));
}

TEST_F(ChangeTest, TheLastOfSeveralCounts) {
    Template wanted;
    wanted.add(CKA_LABEL, "one").add(CKA_ID, Bytes{1}).add(CKA_ID, Bytes{2, 3}).add(CKA_LABEL, "two");
    EXPECT_EQ(set(privateKey(5), wanted),
              changed({attribute(CKA_LABEL), attribute(CKA_ID), attribute(CKA_ID), attribute(CKA_LABEL)},
                      {updateKeyPair(5, "two", "<0203>, 2")}));
}

TEST_F(ChangeTest, EntriesWithoutAValueAreSkippedSilently) {
    char label[] = "unused";
    Template wanted;
    wanted.add(CKA_LABEL, "kept").addRaw(CKA_LABEL, label, 0).addRaw(CKA_ID, nullptr, 4).addRaw(CKA_LABEL, nullptr, 0);
    EXPECT_EQ(set(privateKey(5), wanted), changed({attribute(CKA_LABEL)}, {updateKeyPair(5, "kept")}));
    EXPECT_EQ(set(privateKey(5), Template().addRaw(CKA_LABEL, label, 0).addRaw(CKA_ID, nullptr, 4)), changed({}));
}

TEST_F(ChangeTest, OtherAttributesAreIgnored) {
    Template wanted;
    wanted.add(CKA_MODIFIABLE, true);
    EXPECT_EQ(set(privateKey(5), wanted), changed({attribute(CKA_MODIFIABLE)}));
    wanted.addNumber(CKA_CLASS, CKO_DATA).add(CKA_LABEL, "new").add(0x80000001, true);
    EXPECT_EQ(set(privateKey(5), wanted),
              changed({attribute(CKA_MODIFIABLE), attribute(CKA_CLASS), attribute(CKA_LABEL), attribute(0x80000001)},
                      {updateKeyPair(5, "new")}));
    if constexpr (sizeof(CK_ULONG) == 8) {
        EXPECT_EQ(set(privateKey(5), Template().add(static_cast<CK_ULONG>(0x100000003ULL), Bytes{'x'})).device,
                  (Lines{listKeyPairs}));
    }
}

TEST_F(ChangeTest, AFailedUpdateIsReported) {
    for (const int result : {1, -3, 40, 242}) {
        world.results["zentak_updateKeyPairDetails"] = result;
        EXPECT_EQ(set(publicKey(5), Template().add(CKA_LABEL, "new")),
                  (Outcome{CKR_FUNCTION_FAILED,
                           {entered, attribute(CKA_LABEL), text("ERROR Update key pair details failed : ", result)},
                           {listKeyPairs, updateKeyPair(5, "new")}}));
    }
}

TEST_F(ChangeTest, TheDeviceDecidesWithThePasswordItIsGiven) {
    world.keyPairs["SN2"] = {keyFive};
    api->C_Logout(session);
    api->C_CloseAllSessions(firstSlot);
    Template wanted;
    wanted.add(CKA_LABEL, "new");
    const CK_SESSION_HANDLE readOnly = openSessionIn(CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(setIn(readOnly, publicKey(5), wanted),
              changed({attribute(CKA_LABEL)}, {updateKeyPair(5, "new", "null, 0", "")}));
    const CK_SESSION_HANDLE other = openSession(0, fipsSlot);
    EXPECT_EQ(setIn(other, publicKey(5), wanted).device,
              (Lines{listKeyPairsOf("SN2"), updateKeyPair(5, "new", "null, 0", "", "SN2")}));
    login(readOnly, userPin);
    EXPECT_EQ(setIn(readOnly, publicKey(5), wanted).device, (Lines{listKeyPairs, updateKeyPair(5, "new")}));
}

// --- C_DestroyObject ------------------------------------------------------------------------------------------------

TEST_F(ChangeTest, DestroyingNeedsTheModule) {
    ASSERT_EQ(api->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(destroyIn(7, 5), refused(CKR_CRYPTOKI_NOT_INITIALIZED, "C_DestroyObject: not initialized"));
}

TEST_F(ChangeTest, DestroyingChecksInItsOrder) {
    EXPECT_EQ(destroyIn(7, 5),
              (Outcome{CKR_SESSION_HANDLE_INVALID, {"DEBUG C_DestroyObject", "DEBUG Delete session state invalid"}}));
    const CK_SESSION_HANDLE readOnly = openSession();
    for (const CK_OBJECT_HANDLE handle : Numbers{5, privateKey(5), publicKey(5), certificate(5)}) {
        EXPECT_EQ(
            destroyIn(readOnly, handle),
            (Outcome{CKR_SESSION_READ_ONLY, {"DEBUG C_DestroyObject", "DEBUG Delete session state invalid : 1"}}));
    }
    for (const CK_OBJECT_HANDLE handle : Numbers{0, 5, 0x6FFFFFFF}) {
        EXPECT_EQ(destroy(handle),
                  (Outcome{CKR_OBJECT_HANDLE_INVALID,
                           deleting(handle) + Lines{text("ERROR C_DestroyObject: invalid hObject=", handle)}}));
    }
}

TEST_F(ChangeTest, AReadOnlyPublicSessionDestroysNothing) {
    closeEverything(session);
    const CK_SESSION_HANDLE readOnly = openSessionIn(CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(destroyIn(readOnly, privateKey(5)),
              (Outcome{CKR_SESSION_READ_ONLY, {"DEBUG C_DestroyObject", "DEBUG Delete session state invalid : 0"}}));
}

TEST_F(ChangeTest, APrivateKeyTakesItsKeyPairAlong) {
    EXPECT_EQ(destroy(privateKey(6)), (Outcome{CKR_OK, deleting(privateKey(6)), {listKeyPairs, deleteKeyPair(6)}}));
    ZentakKeyPair flagged = keyFive;
    flagged.keyFlag = true;
    world.keyPairs["SN1"] = {flagged};
    EXPECT_EQ(destroy(privateKey(5)).device, (Lines{listKeyPairs, deleteKeyPair(5, true)}));
}

TEST_F(ChangeTest, TheEndsOfTheRangeAreDeleted) {
    world.keyPairs["SN1"] = {labelledKeyPair(0, "first"), labelledKeyPair(0xFFF, "last")};
    EXPECT_EQ(destroy(privateKey(0)).device, (Lines{listKeyPairs, deleteKeyPair(0)}));
    EXPECT_EQ(destroy(0x70000FFF).device, (Lines{listKeyPairs, deleteKeyPair(0xFFF)}));
}

TEST_F(ChangeTest, OtherObjectsAreLeftAlone) {
    const Numbers handles =
        withWide({publicKey(0), publicKey(5), certificate(0), certificate(5), 0x70003000, 0xFFFFFFFF}, {0x170000005});
    for (const CK_OBJECT_HANDLE handle : handles) EXPECT_EQ(destroy(handle), (Outcome{CKR_OK, deleting(handle)}));
}

TEST_F(ChangeTest, WhatIsGoneAlreadyIsDestroyed) {
    const Lines gone = {text("DEBUG Input keypair not found in destroy : ", privateKey(7))};
    EXPECT_EQ(destroy(privateKey(7)), (Outcome{CKR_OK, deleting(privateKey(7)) + gone, {listKeyPairs}}));
}

TEST_F(ChangeTest, AFailedDeletionIsReported) {
    for (const int result : {1, -3, 40, 242}) {
        world.results["zentak_deleteKeyPair"] = result;
        const Lines failed = {text("ERROR Delete keypair in destroy object failed : ", result)};
        EXPECT_EQ(destroy(privateKey(5)),
                  (Outcome{CKR_FUNCTION_FAILED, deleting(privateKey(5)) + failed, {listKeyPairs, deleteKeyPair(5)}}));
    }
}

TEST_F(ChangeTest, EveryWritableSessionMayDestroy) {
    closeEverything(session);
    const CK_SESSION_HANDLE open = openSessionIn(CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(destroyIn(open, privateKey(5)).device, (Lines{listKeyPairs, deleteKeyPair(5, false, "")}));
    closeEverything(open);
    const CK_SESSION_HANDLE officer = openSessionIn(CKS_RW_SO_FUNCTIONS);
    EXPECT_EQ(destroyIn(officer, privateKey(5)).device, (Lines{listKeyPairs, deleteKeyPair(5, false, "")}));
    closeEverything(officer);
    world.keyPairs["SN2"] = {keyFive};
    const CK_SESSION_HANDLE other = openSessionIn(CKS_RW_USER_FUNCTIONS, fipsSlot);
    EXPECT_EQ(destroyIn(other, privateKey(5)).device,
              (Lines{listKeyPairsOf("SN2"), deleteKeyPair(5, false, "246810", "SN2")}));
}

TEST_F(ChangeTest, ARunningSearchKeepsItsResults) {
    Template wanted;
    wanted.addNumber(CKA_CLASS, CKO_PRIVATE_KEY);
    ASSERT_EQ(findInit(session, wanted).code, CKR_OK);
    world.keyPairs["SN1"] = {keyFive, keySix};
    ASSERT_EQ(destroy(privateKey(5)).code, CKR_OK);
    world.keyPairs["SN1"] = {keySix};
    const Handles found = next(session, 10);
    EXPECT_EQ(std::count(found.begin(), found.end(), privateKey(5)), 1);
    api->C_FindObjectsFinal(session);
    EXPECT_EQ(search(session, wanted), (Handles{privateKey(6)}));
}

}  // namespace
