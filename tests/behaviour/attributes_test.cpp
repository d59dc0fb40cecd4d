// C_GetAttributeValue: what it refuses and in which order, and how a template is walked.

#include "object_test.h"

using namespace support;

namespace {

class AttributesTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    }

    Outcome read(CK_OBJECT_HANDLE object, Template& wanted) {
        return observe([&] { return api->C_GetAttributeValue(session, object, wanted.data(), wanted.count()); });
    }

    static Numbers lengthsOf(Template& wanted) {
        Numbers lengths;
        for (CK_ULONG i = 0; i < wanted.count(); ++i) lengths.push_back(wanted[i].ulValueLen);
        return lengths;
    }

    CK_SESSION_HANDLE session = 0;
};

const std::string name = "DEBUG C_GetAttributeValue";

Lines started(int count) {
    return {name, text("DEBUG C_GetAttributeValue count : ", count)};
}

TEST_F(AttributesTest, ModuleAndSessionComeBeforeTheTemplateAndThatBeforeTheCount) {
    const auto withoutTemplate = [&](CK_SESSION_HANDLE where, CK_OBJECT_HANDLE object, CK_ULONG count) {
        return observe([&] { return api->C_GetAttributeValue(where, object, nullptr, count); });
    };
    for (const auto& [object, count] : {std::pair<CK_OBJECT_HANDLE, CK_ULONG>{0, 0}, {privateKey(5), 2}}) {
        EXPECT_EQ(withoutTemplate(session, object, count),
                  refused(CKR_ARGUMENTS_BAD, "C_GetAttributeValue template is null"));
    }
    EXPECT_EQ(withoutTemplate(1610612889, 0, 0),
              refused(CKR_SESSION_HANDLE_INVALID, "C_GetAttributeValue: invalid hSession=1610612889"));
    ASSERT_EQ(api->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(withoutTemplate(1, 0, 0), refused(CKR_CRYPTOKI_NOT_INITIALIZED, "C_GetAttributeValue: not initialized"));
}

TEST_F(AttributesTest, TheCountComesBeforeTheObject) {
    CK_ATTRIBUTE unread = {CKA_CLASS, nullptr, 77};
    const Outcome refused = {CKR_ARGUMENTS_BAD, started(0) + Lines{"ERROR C_GetAttributeValue: ulCount<=0"}};
    for (const CK_OBJECT_HANDLE object : Numbers{0, privateKey(5), 0x70003000}) {
        EXPECT_EQ(observe([&] { return api->C_GetAttributeValue(session, object, &unread, 0); }), refused);
    }
}

TEST_F(AttributesTest, ObjectsThatAreNotThereAreRefused) {
    struct Row {
        CK_OBJECT_HANDLE object;
        std::string reason;
        Lines device;
    };
    const std::string keyPair = "ERROR Key pair not found in get attribute : ";
    const std::string certificateLine = "ERROR Certificate not found in get attribute : ";
    const std::string invalid = "ERROR Input hobject not valid in get attribute : ";
    const std::string derived = "ERROR C_GetAttributeValue: derived key handle not found=";
    const Row rows[] = {
        {0, invalid, {}},
        {0x50000001, invalid, {}},
        {session, invalid, {}},
        {0x6FFFFFFF, invalid, {}},
        {0x70000000, keyPair, {listKeyPairs}},
        {0x70000007, keyPair, {listKeyPairs}},
        {0x70000FFF, keyPair, {listKeyPairs}},
        {0x70001000, keyPair, {listKeyPairs}},
        {0x70001FFF, keyPair, {listKeyPairs}},
        {0x70002000, invalid, {}},
        {0x70002001, certificateLine, {listCertificates}},
        {0x70002FFF, certificateLine, {listCertificates}},
        {0xFFFFFFFF, derived, {}},
    };
    world.certificates["SN1"].push_back(labelledCertificate(0, "zero"));  // has a handle that isn't accepted here
    for (const Row& row : rows) {
        Room room(16);
        Template wanted;
        wanted.addRaw(CKA_ID, room.address(), 16).addRaw(CKA_CLASS, nullptr, 33);
        EXPECT_EQ(read(row.object, wanted),
                  (Outcome{CKR_OBJECT_HANDLE_INVALID, started(2) + Lines{text(row.reason, row.object)}, row.device}));
        EXPECT_EQ(lengthsOf(wanted), (Numbers{16, 33}));
        EXPECT_TRUE(room.untouchedFrom(0));
    }
}

TEST_F(AttributesTest, ASizeQueryReportsEveryLength) {
    Template wanted;
    for (const CK_ATTRIBUTE_TYPE type : Numbers{CKA_ID, CKA_MODULUS, CKA_EC_PARAMS, CKA_START_DATE, CKA_CLASS}) {
        wanted.addRaw(type, nullptr, type == CKA_MODULUS ? 3 : 0);
    }
    EXPECT_EQ(
        read(privateKey(5), wanted),
        (Outcome{CKR_OK,
                 started(5) + Lines{"DEBUG C_GetAttributeValue type : 258", "DEBUG C_GetAttributeValue length : 2",
                                    "DEBUG C_GetAttributeValue type : 288", "DEBUG C_GetAttributeValue length : 256",
                                    "DEBUG C_GetAttributeValue type : 384", "DEBUG C_GetAttributeValue type : 272",
                                    "DEBUG C_GetAttributeValue length : 0", "DEBUG C_GetAttributeValue type : 0",
                                    text("DEBUG C_GetAttributeValue length : ", sizeof(CK_ULONG))},
                 {listKeyPairs}}));
    EXPECT_EQ(lengthsOf(wanted), (Numbers{2, 256, CK_UNAVAILABLE_INFORMATION, 0, sizeof(CK_ULONG)}));
}

TEST_F(AttributesTest, ATooSmallBufferStopsTheWalk) {
    // The id has 2 bytes, the value 256, the label 8. One of them in turn gets a byte too little.
    const CK_ATTRIBUTE_TYPE types[] = {CKA_ID, CKA_VALUE, CKA_LABEL};
    const CK_ULONG lengths[] = {2, 256, 8};
    const Bytes values[] = {{0xA0, 5}, publicKeyOf(keyFive), charactersOf("Key five")};
    for (std::size_t small = 0; small < 3; ++small) {
        SCOPED_TRACE(small);
        std::vector<Room> rooms(3, Room(300));
        Template wanted;
        Lines log = started(3);
        for (std::size_t i = 0; i < 3; ++i) {
            wanted.addRaw(types[i], rooms[i].address(), i == small ? lengths[i] - 1 : 300);
            if (i > small) continue;
            log.push_back(text("DEBUG C_GetAttributeValue type : ", types[i]));
            log.push_back(i == small ? text("ERROR C_GetAttributeValue: buffer too small at index=", i,
                                            " type=", types[i], " provided=", lengths[i] - 1, " required=", lengths[i])
                                     : text("DEBUG C_GetAttributeValue length : ", lengths[i]));
        }
        EXPECT_EQ(read(privateKey(5), wanted), (Outcome{CKR_BUFFER_TOO_SMALL, log, {listKeyPairs}}));
        for (std::size_t i = 0; i < 3; ++i) {
            const CK_ULONG length = i < small ? lengths[i] : i == small ? lengths[i] - 1 : 300;
            EXPECT_EQ(+wanted[i].ulValueLen, length);
            if (i < small) {
                EXPECT_EQ(rooms[i].first(lengths[i]), values[i]);
            }
            EXPECT_TRUE(rooms[i].untouchedFrom(i < small ? lengths[i] : 0));
        }
    }
}

TEST_F(AttributesTest, ABufferOfNoBytesIsTooSmall) {
    Room room(4);
    EXPECT_EQ(read(privateKey(5), Template().addRaw(CKA_TOKEN, room.address(), 0)),
              (Outcome{CKR_BUFFER_TOO_SMALL,
                       started(1) + Lines{"DEBUG C_GetAttributeValue type : 1",
                                          "ERROR C_GetAttributeValue: buffer too small at index=0 type=1 provided=0 "
                                          "required=1"},
                       {listKeyPairs}}));
    EXPECT_TRUE(room.untouchedFrom(0));
}

TEST_F(AttributesTest, UnavailableAndEmptyValuesNeedNoRoom) {
    Room room(4);
    Template wanted;
    wanted.addRaw(CKA_EC_POINT, room.address(), 0).addRaw(CKA_APPLICATION, room.address(), 0);
    wanted.addRaw(CKA_ISSUER, room.address(), 4).addRaw(CKA_EC_PARAMS, room.address(), 4);
    EXPECT_EQ(
        read(privateKey(5), wanted),
        (Outcome{CKR_OK,
                 started(4) + Lines{"DEBUG C_GetAttributeValue type : 385", "DEBUG C_GetAttributeValue type : 16",
                                    "DEBUG C_GetAttributeValue length : 0", "DEBUG C_GetAttributeValue type : 129",
                                    "DEBUG C_GetAttributeValue length : 0", "DEBUG C_GetAttributeValue type : 384"},
                 {listKeyPairs}}));
    EXPECT_EQ(lengthsOf(wanted), (Numbers{CK_UNAVAILABLE_INFORMATION, 0, 0, CK_UNAVAILABLE_INFORMATION}));
    EXPECT_TRUE(room.untouchedFrom(0));
}

TEST_F(AttributesTest, AnUnavailableValueDoesNotStopTheWalk) {
    Room id(8);
    Room small(1);
    Template wanted;
    wanted.addRaw(CKA_EC_PARAMS, nullptr, 5).addRaw(CKA_ID, id.address(), 8).addRaw(CKA_EC_POINT, nullptr, 5);
    wanted.addRaw(CKA_ID, small.address(), 1).addRaw(CKA_EC_POINT, nullptr, 5);
    EXPECT_EQ(read(publicKey(5), wanted).code, CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(lengthsOf(wanted), (Numbers{CK_UNAVAILABLE_INFORMATION, 2, CK_UNAVAILABLE_INFORMATION, 1, 5}));
    EXPECT_EQ(id.first(2), (Bytes{0xA0, 5}));
}

TEST_F(AttributesTest, TheSameTypeMayBeAskedTwice) {
    Room first(8);
    Room second(8);
    EXPECT_EQ(
        read(certificate(7), Template().addRaw(CKA_ID, first.address(), 8).addRaw(CKA_ID, second.address(), 2)).code,
        CKR_OK);
    EXPECT_EQ(first.first(2), (Bytes{0xC0, 7}));
    EXPECT_EQ(second.first(2), (Bytes{0xC0, 7}));
    EXPECT_TRUE(first.untouchedFrom(2));
    EXPECT_TRUE(second.untouchedFrom(2));
}

TEST_F(AttributesTest, ACapacityBeyondAllMemoryIsJustEnough) {
    Room room(8);
    EXPECT_EQ(read(privateKey(5), Template().addRaw(CKA_ID, room.address(), CK_UNAVAILABLE_INFORMATION)).code, CKR_OK);
    EXPECT_EQ(room.first(2), (Bytes{0xA0, 5}));
    EXPECT_TRUE(room.untouchedFrom(2));
}

TEST_F(AttributesTest, TheTemplateIsReadAndWrittenAtAnyAddress) {
    if constexpr (alignof(CK_ATTRIBUTE) == 1) {
        Room value(sizeof(CK_ULONG));
        Room memory(2 * sizeof(CK_ATTRIBUTE));
        const CK_ATTRIBUTE entries[] = {{CKA_MODULUS_BITS, value.address(), sizeof(CK_ULONG)},
                                        {CKA_MODULUS, nullptr, 0}};
        std::memcpy(memory.address(), entries, sizeof entries);
        auto* odd = static_cast<CK_ATTRIBUTE_PTR>(memory.address());
        ASSERT_EQ(api->C_GetAttributeValue(session, publicKey(5), odd, 2), CKR_OK);
        EXPECT_EQ(value.first(sizeof(CK_ULONG)), bytesOf(CK_ULONG{2048}));
        EXPECT_EQ(+odd[1].ulValueLen, 256U);
    }
}

TEST_F(AttributesTest, EverySessionStateMayReadEveryObject) {
    for (const CK_STATE state : everyState) {
        session = reopen(session, state);
        for (const CK_OBJECT_HANDLE object : Numbers{privateKey(5), publicKey(5), certificate(5)}) {
            Room value(1);
            EXPECT_EQ(read(object, Template().addRaw(CKA_TRUSTED, value.address(), 1)).code, CKR_OK);
            EXPECT_EQ(value.first(1), (Bytes{CK_TRUE}));
        }
    }
}

// An attribute may be read in the middle of another operation, which goes on.
TEST_F(AttributesTest, ReadingDisturbsNoRunningSearch) {
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    ASSERT_EQ(next(session, 1), (Handles{publicKey(5)}));
    EXPECT_EQ(read(publicKey(5), Template().addRaw(CKA_ID, nullptr, 0)).code, CKR_OK);
    EXPECT_EQ(next(session, 1), (Handles{publicKey(6)}));
}

}  // namespace
