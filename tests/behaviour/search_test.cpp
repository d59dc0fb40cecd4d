// C_FindObjectsInit: what it refuses, in which order, and what it makes of a template.

#include "object_test.h"

using namespace support;

namespace {

class SearchTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    }

    CK_SESSION_HANDLE session = 0;
};

const std::string name = "DEBUG C_FindObjectsInit";

Lines started(int count) {
    return {name, text("DEBUG Find object init count : ", count)};
}

TEST_F(SearchTest, ModuleAndSessionComeBeforeTheArguments) {
    const auto expectRefusals = [&](CK_SESSION_HANDLE where, CK_RV code, const std::string& reason) {
        EXPECT_EQ(observe([&] { return api->C_FindObjectsInit(where, nullptr, 3); }),
                  refused(code, "C_FindObjectsInit" + reason));
        EXPECT_EQ(observe([&] { return api->C_FindObjects(where, nullptr, 3, nullptr); }),
                  refused(code, "C_FindObjects" + reason));
        EXPECT_EQ(observe([&] { return api->C_FindObjectsFinal(where); }),
                  refused(code, "C_FindObjectsFinal" + reason));
    };
    expectRefusals(1610612889, CKR_SESSION_HANDLE_INVALID, ": invalid hSession=1610612889");
    expectRefusals(0, CKR_SESSION_HANDLE_INVALID, ": invalid hSession=0");
    ASSERT_EQ(api->C_Finalize(nullptr), CKR_OK);
    expectRefusals(1, CKR_CRYPTOKI_NOT_INITIALIZED, ": not initialized");
}

TEST_F(SearchTest, InitRefusesANullTemplateWithACount) {
    EXPECT_EQ(observe([&] { return api->C_FindObjectsInit(session, nullptr, 3); }),
              refused(CKR_ARGUMENTS_BAD, "C_FindObjectsInit: pTemplate is NULL with ulCount=3"));
    EXPECT_EQ(
        observe([&] { return api->C_FindObjectsFinal(session); }),
        refused(CKR_OPERATION_NOT_INITIALIZED, "C_FindObjectsFinal: operation not initialized, activeOperation=0"));
}

TEST_F(SearchTest, ANullTemplateWithACountLeavesARunningSearchAsItIs) {
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    ASSERT_EQ(next(session, 1), (Handles{publicKey(5)}));
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 1), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(next(session, 10), (Handles{publicKey(6), certificate(5), certificate(7)}));
}

TEST_F(SearchTest, InitWithoutTemplateListsTheTokenOnce) {
    EXPECT_EQ(observe([&] { return api->C_FindObjectsInit(session, nullptr, 0); }),
              (Outcome{CKR_OK, started(0), {listCertificates, listKeyPairs}}));
    EXPECT_EQ(next(session, 10), (Handles{publicKey(5), publicKey(6), certificate(5), certificate(7)}));
}

TEST_F(SearchTest, ATemplatePointerWithoutCountIsAnEmptyTemplate) {
    CK_ATTRIBUTE unread = {CKA_CLASS, nullptr, 0};
    EXPECT_EQ(observe([&] { return api->C_FindObjectsInit(session, &unread, 0); }),
              (Outcome{CKR_OK, started(0), {listCertificates, listKeyPairs}}));
}

// Each entry breaks at least one rule; where it breaks two, the line shows which is asked first.
TEST_F(SearchTest, InitRefusesTemplateEntriesInTheirOrder) {
    unsigned char byte = 1;
    unsigned char eight[2 * sizeof(CK_ULONG)] = {};
    constexpr auto wrongSize = static_cast<CK_ULONG>(sizeof(eight));
    struct Row {
        std::vector<CK_ATTRIBUTE> entries;
        Lines log;
    };
    const std::string noValue = "ERROR C_FindObjectsInit: pValue is NULL at attribute index=";
    const std::string noLength = "ERROR C_FindObjectsInit: ulValueLen<=0 at attribute index=";
    const std::string wrongClass = "ERROR C_FindObjectsInit: wrong size for CKA_CLASS at index=";
    const std::vector<Row> rows = {
        {{{CKA_ID, nullptr, 4}}, {noValue + "0 type=258"}},
        {{{CKA_ID, nullptr, 0}}, {noValue + "0 type=258"}},
        {{{CKA_ID, &byte, 0}}, {noLength + "0 type=258"}},
        {{{CKA_LABEL, nullptr, 0}}, {noValue + "0 type=3"}},
        {{{CKA_LABEL, &byte, 0}}, {noLength + "0 type=3"}},
        {{{CKA_CLASS, nullptr, sizeof(CK_ULONG)}}, {noValue + "0 type=0"}},
        {{{CKA_CLASS, nullptr, wrongSize}}, {noValue + "0 type=0"}},
        {{{CKA_CLASS, eight, 0}}, {noLength + "0 type=0"}},
        {{{CKA_CLASS, eight, wrongSize}},
         {"DEBUG Find object init type : 0", text(wrongClass, "0 ulValueLen=", wrongSize)}},
        {{{CKA_CLASS, eight, 1}}, {"DEBUG Find object init type : 0", wrongClass + "0 ulValueLen=1"}},
        {{{CKA_CLASS, eight, sizeof(CK_ULONG) - 1}},
         {"DEBUG Find object init type : 0", text(wrongClass, "0 ulValueLen=", sizeof(CK_ULONG) - 1)}},
        // Types that mean nothing to a search are held to the same rules.
        {{{CKA_TOKEN, nullptr, 1}}, {noValue + "0 type=1"}},
        {{{CKA_TOKEN, &byte, 0}}, {noLength + "0 type=1"}},
        {{{0x80000001, nullptr, 1}}, {noValue + "0 type=2147483649"}},
        // The first wrong entry answers.
        {{{CKA_TOKEN, &byte, 1}, {CKA_CLASS, eight, wrongSize}, {CKA_ID, nullptr, 1}},
         {"DEBUG Find object init type : 1", "DEBUG Find object init type : 0",
          text(wrongClass, "1 ulValueLen=", wrongSize)}},
        {{{CKA_MODULUS, &byte, 1}, {CKA_ID, nullptr, 1}, {CKA_CLASS, eight, wrongSize}},
         {"DEBUG Find object init type : 288", "DEBUG Modulus provided length : 1", noValue + "1 type=258"}},
    };
    for (Row row : rows) {
        const auto count = static_cast<CK_ULONG>(row.entries.size());
        EXPECT_EQ(observe([&] { return api->C_FindObjectsInit(session, row.entries.data(), count); }),
                  (Outcome{CKR_ATTRIBUTE_VALUE_INVALID, started(static_cast<int>(count)) + row.log}));
    }
}

TEST_F(SearchTest, InitLogsEachEntryAndTheIdAfterListing) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    Template wanted;
    wanted.add(CKA_TOKEN, Bytes{1})
        .addNumber(CKA_CLASS, CKO_PRIVATE_KEY)
        .add(CKA_MODULUS, Bytes(300, 7))
        .add(CKA_ID, Bytes{0xA0, 5});
    EXPECT_EQ(findInit(session, wanted),
              (Outcome{CKR_OK,
                       started(4) + Lines{"DEBUG Find object init type : 1", "DEBUG Find object init type : 0",
                                          "DEBUG Find object class : 3", "DEBUG Find object init type : 288",
                                          "DEBUG Modulus provided length : 300", "DEBUG Find object init type : 258",
                                          "DEBUG Find init id : A005"},
                       {listCertificates, listKeyPairs}}));
    EXPECT_EQ(next(session, 10), (Handles{privateKey(5)}));
}

TEST_F(SearchTest, TheIdIsLoggedWithoutAClassToo) {
    EXPECT_EQ(findInit(session, Template().add(CKA_ID, Bytes{0x00, 0xFF, 0x1B})),
              (Outcome{CKR_OK,
                       started(1) + Lines{"DEBUG Find object init type : 258", "DEBUG Find init id : 00FF1B"},
                       {listCertificates, listKeyPairs}}));
    // Without a class the rest of the template decides nothing.
    EXPECT_EQ(next(session, 10), (Handles{publicKey(5), publicKey(6), certificate(5), certificate(7)}));
}

TEST_F(SearchTest, LaterOccurrencesReplaceEarlierOnes) {
    const auto searchPublic = [&](CK_ATTRIBUTE_TYPE type, const Bytes& first, const Bytes& second) {
        return search(session, Template().add(type, first).addNumber(CKA_CLASS, CKO_PUBLIC_KEY).add(type, second));
    };
    EXPECT_EQ(search(session, Template().addNumber(CKA_CLASS, CKO_CERTIFICATE).addNumber(CKA_CLASS, CKO_PUBLIC_KEY)),
              (Handles{publicKey(5), publicKey(6)}));
    EXPECT_EQ(searchPublic(CKA_LABEL, terminated("Key five"), terminated("Key six")), (Handles{publicKey(6)}));
    EXPECT_EQ(searchPublic(CKA_ID, {0xA0, 6}, {0xA0, 5}), (Handles{publicKey(5)}));
    // An empty label replaces the earlier one, and counts as none.
    EXPECT_EQ(searchPublic(CKA_LABEL, terminated("Key five"), {0}), (Handles{publicKey(5), publicKey(6)}));
}

TEST_F(SearchTest, ARefusedTemplateClearsTheSearchAndKeepsTheOperation) {
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    ASSERT_EQ(next(session, 1).size(), 1U);

    CK_ATTRIBUTE wrong = {CKA_ID, nullptr, 1};
    ASSERT_EQ(api->C_FindObjectsInit(session, &wrong, 1), CKR_ATTRIBUTE_VALUE_INVALID);

    CK_OBJECT_HANDLE handle = 77;
    CK_ULONG count = 99;
    EXPECT_EQ(observe([&] { return api->C_FindObjects(session, &handle, 1, &count); }),
              (Outcome{CKR_OK,
                       {"DEBUG C_FindObjects", "DEBUG C_FindObjects find object count : 0",
                        "DEBUG C_FindObjects find object count 0"}}));
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(handle, 77U);
}

TEST_F(SearchTest, ARefusedTemplateStartsNoSearch) {
    CK_ATTRIBUTE wrong = {CKA_ID, nullptr, 1};
    ASSERT_EQ(api->C_FindObjectsInit(session, &wrong, 1), CKR_ATTRIBUTE_VALUE_INVALID);
    CK_ULONG count = 99;
    EXPECT_EQ(observe([&] { return api->C_FindObjects(session, nullptr, 0, &count); }),
              refused(CKR_OPERATION_NOT_INITIALIZED, "C_FindObjects: operation not initialized, activeOperation=0"));
    EXPECT_EQ(count, 99U);
}

TEST_F(SearchTest, ASearchAbandonsASignature) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    signInit(session, CKM_RSA_PKCS, 5);
    EXPECT_EQ(observe([&] { return api->C_FindObjectsInit(session, nullptr, 0); }),
              (Outcome{CKR_OK, started(0), {listCertificates, listKeyPairs}}));

    Bytes data = {1, 2, 3};
    CK_ULONG length = 0;
    EXPECT_EQ(observe([&] { return api->C_Sign(session, data.data(), 3, nullptr, &length); }),
              refused(CKR_OPERATION_NOT_INITIALIZED, "C_Sign: operation not initialized, activeOperation=1"));
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    EXPECT_EQ(observe([&] { return api->C_SignInit(session, &mechanism, privateKey(5)); }),
              refused(CKR_OPERATION_ACTIVE, "C_SignInit: operation already active, activeOperation=1"));
    ASSERT_EQ(api->C_FindObjectsFinal(session), CKR_OK);
    EXPECT_EQ(api->C_SignInit(session, &mechanism, privateKey(5)), CKR_OK);
}

TEST_F(SearchTest, ARefusedTemplateLeavesASignatureRunning) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    signInit(session, CKM_RSA_PKCS, 5);
    CK_ATTRIBUTE wrong = {CKA_CLASS, nullptr, 4};
    ASSERT_EQ(api->C_FindObjectsInit(session, &wrong, 1), CKR_ATTRIBUTE_VALUE_INVALID);

    CK_ULONG count = 0;
    EXPECT_EQ(observe([&] { return api->C_FindObjects(session, nullptr, 0, &count); }),
              refused(CKR_OPERATION_NOT_INITIALIZED, "C_FindObjects: operation not initialized, activeOperation=5"));
    Bytes data = {1, 2, 3};
    CK_ULONG length = 0;
    EXPECT_EQ(api->C_Sign(session, data.data(), 3, nullptr, &length), CKR_OK);
}

TEST_F(SearchTest, TheTemplateIsReadAtAnyAddress) {
    const CK_OBJECT_CLASS wantedClass = CKO_CERTIFICATE;
    Room objectClass(sizeof wantedClass);
    std::memcpy(objectClass.address(), &wantedClass, sizeof wantedClass);
    Template wanted;
    wanted.addRaw(CKA_CLASS, objectClass.address(), sizeof wantedClass).add(CKA_ID, Bytes{0xC0, 7});
    EXPECT_EQ(search(session, wanted), (Handles{certificate(7)}));

    if constexpr (alignof(CK_ATTRIBUTE) == 1) {
        Room memory(2 * sizeof(CK_ATTRIBUTE));
        std::memcpy(memory.address(), wanted.data(), 2 * sizeof(CK_ATTRIBUTE));
        ASSERT_EQ(api->C_FindObjectsInit(session, static_cast<CK_ATTRIBUTE_PTR>(memory.address()), 2), CKR_OK);
        EXPECT_EQ(next(session, 10), (Handles{certificate(7)}));
    }
}

}  // namespace
