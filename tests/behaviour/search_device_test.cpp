// A search and its device library: tokens that must be initialised first, lists that change, calls that throw.

#include "object_test.h"

using namespace support;

namespace {

class SearchDeviceTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    }

    CK_SESSION_HANDLE session = 0;

    /// Lets zentak_initDevice fill the token.
    void fillTokenWhenInitialised() {
        scripted::Fault fault;
        fault.operation = "zentak_initDevice";
        fault.action = [this] {
            world.change([this](scripted::Device& changed) {
                changed.keyPairs["SN1"] = {keySix};
                changed.certificates["SN1"] = {certificateSeven};
            });
        };
        world.addFault(fault);
    }
};

const std::string initDevice = "zentak_initDevice(\"SN1\", true, instance)";
const Lines logOfEmptyTemplate = {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 0"};

TEST_F(SearchDeviceTest, AnEmptyListInitialisesTheDeviceAndListsAgain) {
    for (const bool keysMissing : {false, true}) {
        for (const bool certificatesMissing : {false, true}) {
            if (!keysMissing && !certificatesMissing) continue;
            world.keyPairs["SN1"] = {keyFive, keySix};
            world.certificates["SN1"] = {certificateFive, certificateSeven};
            if (keysMissing) world.keyPairs["SN1"].clear();
            if (certificatesMissing) world.certificates["SN1"].clear();
            fillTokenWhenInitialised();
            EXPECT_EQ(observe([&] { return api->C_FindObjectsInit(session, nullptr, 0); }),
                      (Outcome{CKR_OK,
                               logOfEmptyTemplate,
                               {listCertificates, listKeyPairs, initDevice, listCertificates, listKeyPairs}}));
            EXPECT_EQ(next(session, 10), (Handles{publicKey(6), certificate(7)}));
        }
    }
}

TEST_F(SearchDeviceTest, AFailedInitialisationIsOnlyLogged) {
    world.keyPairs["SN1"].clear();
    world.results["zentak_initDevice"] = 42;
    fillTokenWhenInitialised();  // what it brings isn't looked at
    EXPECT_EQ(observe([&] { return api->C_FindObjectsInit(session, nullptr, 0); }),
              (Outcome{CKR_OK,
                       logOfEmptyTemplate + Lines{"ERROR Init device for certificates in find objects failed : 42"},
                       {listCertificates, listKeyPairs, initDevice}}));
    EXPECT_EQ(next(session, 10), (Handles{certificate(5), certificate(7)}));

    world.results["zentak_initDevice"] = -1;
    world.certificates["SN1"].clear();
    world.keyPairs["SN1"].clear();
    EXPECT_EQ(
        findInit(session, Template().add(CKA_ID, Bytes{0x0F})),
        (Outcome{CKR_OK,
                 {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 1", "DEBUG Find object init type : 258",
                  "ERROR Init device for certificates in find objects failed : -1", "DEBUG Find init id : 0F"},
                 {listCertificates, listKeyPairs, initDevice}}));
    EXPECT_EQ(next(session, 10), Handles{});
}

// What was listed before counts, also where the library has given up its own list.
TEST_F(SearchDeviceTest, AFailedInitialisationDoesNotDisturbTheLists) {
    world.certificates["SN1"].clear();
    scripted::Fault fault;
    fault.operation = "zentak_initDevice";
    fault.result = 42;
    fault.action = [this] {
        world.change([this](scripted::Device& changed) { changed.keyPairs["SN1"] = {keySix, keySix}; });
        zentak_getKeyPairList("SN1", nullptr);
    };
    world.addFault(fault);
    EXPECT_EQ(findInit(session, Template().addNumber(CKA_CLASS, CKO_PUBLIC_KEY).add(CKA_ID, Bytes{0xA0, 5})).code,
              CKR_OK);
    EXPECT_EQ(next(session, 10), (Handles{publicKey(5)}));
}

// The library may give up a list of its own as soon as it is called again.
TEST_F(SearchDeviceTest, ListingTheKeyPairsDoesNotDisturbTheCertificates) {
    world.certificates["SN1"] = {certificateFive, certificateSeven};
    world.subjects[derOf(certificateSeven)] = Bytes{0x30, 7};
    const std::vector<std::pair<CK_ATTRIBUTE_TYPE, Bytes>> criteria = {
        {CKA_LABEL, terminated("Certificate seven")},
        {CKA_VALUE, derOf(certificateSeven)},
        {CKA_ID, Bytes{0xC0, 7}},
        {CKA_SUBJECT, Bytes{0x30, 7}},
        {CKA_CLASS, {}},
    };
    for (const auto& [type, value] : criteria) {
        SCOPED_TRACE(type);
        scripted::Fault fault;
        fault.operation = "zentak_getKeyPairList";
        fault.action = [this] {
            world.change([](scripted::Device& changed) {
                changed.certificates["SN1"] = {labelledCertificate(8, "Another"), labelledCertificate(9, "")};
            });
            zentak_getCertificateList("SN1", nullptr);
            world.change([this](scripted::Device& changed) {
                changed.certificates["SN1"] = {certificateFive, certificateSeven};
            });
        };
        world.addFault(fault);
        Template wanted;
        wanted.addNumber(CKA_CLASS, CKO_CERTIFICATE);
        if (type != CKA_CLASS) wanted.add(type, value);
        EXPECT_EQ(findInit(session, wanted).code, CKR_OK);
        EXPECT_EQ(next(session, 10),
                  type == CKA_CLASS ? (Handles{certificate(5), certificate(7)}) : (Handles{certificate(7)}));
    }
}

TEST_F(SearchDeviceTest, ATokenThatStaysEmptyIsInitialisedOnceInASearch) {
    world.keyPairs["SN1"].clear();
    world.certificates["SN1"].clear();
    for (int search = 0; search < 2; ++search) {
        EXPECT_EQ(observe([&] { return api->C_FindObjectsInit(session, nullptr, 0); }),
                  (Outcome{CKR_OK,
                           logOfEmptyTemplate,
                           {listCertificates, listKeyPairs, initDevice, listCertificates, listKeyPairs}}));
        EXPECT_EQ(next(session, 10), Handles{});
    }
}

TEST_F(SearchDeviceTest, TheInitialisationNamesTheSessionsToken) {
    session = openSession(0, fipsSlot);
    EXPECT_EQ(observe([&] { return api->C_FindObjectsInit(session, nullptr, 0); }).device,
              (Lines{"zentak_getCertificateList(\"SN2\", instance)", "zentak_getKeyPairList(\"SN2\", instance)",
                     "zentak_initDevice(\"SN2\", true, instance)", "zentak_getCertificateList(\"SN2\", instance)",
                     "zentak_getKeyPairList(\"SN2\", instance)"}));
}

TEST_F(SearchDeviceTest, ARefusedTemplateAsksTheDeviceNothing) {
    world.keyPairs["SN1"].clear();
    EXPECT_EQ(findInit(session, Template().add(CKA_ID, Bytes{1}).addRaw(CKA_LABEL, nullptr, 1)).device, Lines{});
}

// Each operation of a search in turn, and once more after the device was initialised.
TEST_F(SearchDeviceTest, ThrownExceptionsBecomeReturnCodes) {
    struct Row {
        const char* operation;
        int nth;
        bool emptyToken;
        CK_ATTRIBUTE_TYPE criterion;
    };
    const Row rows[] = {
        {"zentak_getCertificateList", 1, false, CKA_ID},
        {"zentak_getKeyPairList", 1, false, CKA_ID},
        {"zentak_initDevice", 1, true, CKA_ID},
        {"zentak_getCertificateList", 2, true, CKA_ID},
        {"zentak_getKeyPairList", 2, true, CKA_ID},
        {"zentak_getCertificateDetails", 1, false, CKA_LABEL},
        {"zentak_getCertificateSubject", 2, false, CKA_SUBJECT},
    };
    world.keyPairs["SN1"] = {labelledKeyPair(1, "")};
    for (const Row& row : rows) {
        for (const ThrownCode& thrown : thrownCodes) {
            SCOPED_TRACE(text(row.operation, " number ", row.nth));
            world.certificates["SN1"] = {labelledCertificate(1, ""), labelledCertificate(2, "")};
            if (row.emptyToken) world.certificates["SN1"].clear();
            Template wanted;
            wanted.addNumber(CKA_CLASS, CKO_CERTIFICATE).add(row.criterion, terminated("some"));
            letThrow(row.operation, thrown.thrown, row.nth);
            expectOneError(findInit(session, wanted), thrown.code, "C_FindObjectsInit");

            // No search has begun, and the next one is as good as ever.
            EXPECT_EQ(api->C_FindObjectsFinal(session), CKR_OPERATION_NOT_INITIALIZED);
            world.certificates["SN1"] = {certificateFive};
            Template all;
            EXPECT_EQ(search(session, all), (Handles{publicKey(1), certificate(5)}));
        }
    }
}

TEST_F(SearchDeviceTest, AnExceptionLeavesARunningSignatureAlone) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    signInit(session, CKM_RSA_PKCS, 5);
    letThrow("zentak_getKeyPairList", scripted::Throw::exception);
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_FUNCTION_FAILED);
    unsigned char data[3] = {1, 2, 3};
    CK_ULONG length = 0;
    EXPECT_EQ(api->C_Sign(session, data, 3, nullptr, &length), CKR_OK);
}

}  // namespace
