// Which objects a template finds: the class, the first criterion that is present, the login state, stored labels.

#include <cstddef>
#include <deque>

#include "object_test.h"

using namespace support;

namespace {

class SearchMatchTest : public ObjectTest {
protected:
    const Handles publicKeys = {publicKey(5), publicKey(6)};
    const Handles privateKeys = {privateKey(5), privateKey(6)};
    const Handles certificates = {certificate(5), certificate(7)};
};

struct SearchRow {
    const char* what;
    Handles found;
    Template wanted = {};
};

/// Rows that stay where they are, as their templates point into themselves.
struct SearchRows {
    std::deque<SearchRow> all;

    Template& add(const char* what, const Handles& found) { return all.emplace_back(SearchRow{what, found}).wanted; }
};

TEST_F(SearchMatchTest, PrivateKeysShowOnlyToALoggedInUser) {
    for (const CK_STATE state : Numbers{CKS_RO_PUBLIC_SESSION, CKS_RO_USER_FUNCTIONS, CKS_RW_PUBLIC_SESSION,
                                        CKS_RW_USER_FUNCTIONS, CKS_RW_SO_FUNCTIONS}) {
        SCOPED_TRACE(text("state ", state));
        const bool user = state == CKS_RO_USER_FUNCTIONS || state == CKS_RW_USER_FUNCTIONS;
        const CK_SESSION_HANDLE session = openSessionIn(state);

        Template all;
        EXPECT_EQ(search(session, all), publicKeys + (user ? privateKeys : Handles{}) + certificates);
        Template privateClass;
        privateClass.addNumber(CKA_CLASS, CKO_PRIVATE_KEY);
        EXPECT_EQ(search(session, privateClass), user ? privateKeys : Handles{});
        Template publicClass;
        publicClass.addNumber(CKA_CLASS, CKO_PUBLIC_KEY);
        EXPECT_EQ(search(session, publicClass), publicKeys);
        Template certificateClass;
        certificateClass.addNumber(CKA_CLASS, CKO_CERTIFICATE);
        EXPECT_EQ(search(session, certificateClass), certificates);
        closeEverything(session);
    }
}

TEST_F(SearchMatchTest, TheLoginStateCountsWhenTheSearchStarts) {
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    login(session, userPin);
    EXPECT_EQ(next(session, 10), publicKeys + certificates);

    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    ASSERT_EQ(api->C_Logout(session), CKR_OK);
    EXPECT_EQ(next(session, 10), publicKeys + privateKeys + certificates);
}

TEST_F(SearchMatchTest, OtherClassesFindNothing) {
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RW_USER_FUNCTIONS);
    for (const CK_OBJECT_CLASS objectClass : Numbers{CKO_DATA, CKO_SECRET_KEY, CKO_HW_FEATURE, CKO_DOMAIN_PARAMETERS,
                                                     CKO_MECHANISM, 0x80000001UL, 0xFFFFFFFFUL}) {
        Template wanted;
        wanted.addNumber(CKA_CLASS, objectClass);
        EXPECT_EQ(findInit(session, wanted),
                  (Outcome{CKR_OK,
                           {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 1",
                            "DEBUG Find object init type : 0", text("DEBUG Find object class : ", objectClass)},
                           {listCertificates, listKeyPairs}}));
        EXPECT_EQ(next(session, 10), Handles{});
    }
}

TEST_F(SearchMatchTest, TheVendorClassIsHeldLikeNoClass) {
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RW_USER_FUNCTIONS);
    Template wanted;
    wanted.addNumber(CKA_CLASS, 0x80000000).add(CKA_ID, Bytes{0xA0, 5});
    EXPECT_EQ(search(session, wanted), publicKeys + privateKeys + certificates);
}

TEST_F(SearchMatchTest, WideClassesAreNotCut) {
    if constexpr (sizeof(CK_ULONG) == 8) {
        const CK_SESSION_HANDLE session = openSessionIn(CKS_RW_USER_FUNCTIONS);
        for (const std::uint64_t low : {1U, 2U, 3U, 0x80000000U}) {
            Template wanted;
            wanted.addNumber(CKA_CLASS, static_cast<CK_OBJECT_CLASS>((std::uint64_t{1} << 32U) + low));
            EXPECT_EQ(search(session, wanted), Handles{}) << low;
        }
    }
}

TEST_F(SearchMatchTest, WithoutAClassNoCriterionDecides) {
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RW_USER_FUNCTIONS);
    Template wanted;
    wanted.add(CKA_LABEL, terminated("nobody"))
        .add(CKA_VALUE, Bytes{1})
        .add(CKA_ID, Bytes{2})
        .add(CKA_SUBJECT, Bytes{3});
    wanted.add(CKA_MODULUS, Bytes{4});
    EXPECT_EQ(search(session, wanted), publicKeys + privateKeys + certificates);
    EXPECT_EQ(world.countOf("zentak_getCertificateDetails"), 0);
    EXPECT_EQ(world.countOf("zentak_getCertificateSubject"), 0);
}

// Key five is described rightly by the first criterion and wrongly by all that follow, then key six the other way.
TEST_F(SearchMatchTest, TheFirstCriterionOfAKeyPairDecidesAlone) {
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RW_USER_FUNCTIONS);
    const Bytes valueFive = publicKeyOf(keyFive);
    const Bytes valueSix = publicKeyOf(keySix);
    const Bytes idFive = {0xA0, 5};
    const Bytes idSix = {0xA0, 6};
    SearchRows rows;
    rows.add("label", {publicKey(5)}).add(CKA_LABEL, terminated("Key five"));
    rows.add("label before value, id and modulus", {publicKey(5)})
        .add(CKA_MODULUS, valueSix)
        .add(CKA_ID, idSix)
        .add(CKA_VALUE, valueSix)
        .add(CKA_LABEL, terminated("Key five"));
    rows.add("a wrong label", {})
        .add(CKA_LABEL, terminated("Key"))
        .add(CKA_VALUE, valueFive)
        .add(CKA_ID, idFive)
        .add(CKA_MODULUS, valueFive);
    rows.add("value before id and modulus", {publicKey(5)})
        .add(CKA_MODULUS, valueSix)
        .add(CKA_ID, idSix)
        .add(CKA_VALUE, valueFive);
    rows.add("a wrong value", {}).add(CKA_ID, idFive).add(CKA_VALUE, Bytes{1}).add(CKA_MODULUS, valueFive);
    rows.add("id before modulus", {publicKey(5)}).add(CKA_MODULUS, valueSix).add(CKA_ID, idFive);
    rows.add("a wrong id", {}).add(CKA_MODULUS, valueFive).add(CKA_ID, Bytes{0xA0});
    rows.add("modulus", {publicKey(6)}).add(CKA_MODULUS, valueSix);
    rows.add("modulus too short", {}).add(CKA_MODULUS, Bytes(valueSix.begin(), valueSix.end() - 1));
    rows.add("value too long", {}).add(CKA_VALUE, valueSix + Bytes{0});
    rows.add("id too long", {}).add(CKA_ID, idSix + Bytes{0});
    rows.add("subject says nothing", publicKeys).add(CKA_SUBJECT, Bytes{0x30, 0x00});
    for (SearchRow& entry : rows.all) {
        SCOPED_TRACE(entry.what);
        entry.wanted.addNumber(CKA_CLASS, CKO_PUBLIC_KEY);
        EXPECT_EQ(search(session, entry.wanted), entry.found);

        Handles privateFound;
        for (const CK_OBJECT_HANDLE handle : entry.found) privateFound.push_back(handle - 0x1000);
        entry.wanted.addNumber(CKA_CLASS, CKO_PRIVATE_KEY);  // replaces the first class
        EXPECT_EQ(search(session, entry.wanted), privateFound);
    }
    EXPECT_EQ(world.countOf("zentak_getCertificateSubject"), 0);
}

TEST_F(SearchMatchTest, TheFirstCriterionOfACertificateDecidesAlone) {
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    const Bytes derFive = derOf(certificateFive);
    const Bytes derSeven = derOf(certificateSeven);
    const Bytes idFive = {0xC0, 5};
    const Bytes idSeven = {0xC0, 7};
    const Bytes subjectFive = {0x30, 0x01, 0x05};
    const Bytes subjectSeven = {0x30, 0x01, 0x07};
    world.subjects[derFive] = subjectFive;
    world.subjects[derSeven] = subjectSeven;
    SearchRows rows;
    rows.add("label", {certificate(7)}).add(CKA_LABEL, terminated("Certificate seven"));
    rows.add("label before value, id and subject", {certificate(5)})
        .add(CKA_SUBJECT, subjectSeven)
        .add(CKA_ID, idSeven)
        .add(CKA_VALUE, derSeven)
        .add(CKA_LABEL, terminated("Certificate five"));
    rows.add("a wrong label", {})
        .add(CKA_LABEL, terminated("Cert"))
        .add(CKA_VALUE, derFive)
        .add(CKA_ID, idFive)
        .add(CKA_SUBJECT, subjectFive);
    rows.add("value before id and subject", {certificate(5)})
        .add(CKA_SUBJECT, subjectSeven)
        .add(CKA_ID, idSeven)
        .add(CKA_VALUE, derFive);
    rows.add("a wrong value", {}).add(CKA_VALUE, Bytes{1}).add(CKA_ID, idFive).add(CKA_SUBJECT, subjectFive);
    rows.add("id before subject", {certificate(5)}).add(CKA_SUBJECT, subjectSeven).add(CKA_ID, idFive);
    rows.add("a wrong id", {}).add(CKA_SUBJECT, subjectFive).add(CKA_ID, Bytes{0xC0});
    rows.add("subject", {certificate(7)}).add(CKA_SUBJECT, subjectSeven);
    rows.add("subject too long", {}).add(CKA_SUBJECT, subjectSeven + Bytes{0});
    rows.add("subject too short", {}).add(CKA_SUBJECT, Bytes{0x30, 0x01});
    rows.add("value too long", {}).add(CKA_VALUE, derFive + Bytes{0});
    rows.add("id too long", {}).add(CKA_ID, idFive + Bytes{0});
    rows.add("modulus says nothing", certificates).add(CKA_MODULUS, Bytes{1, 2, 3});
    for (SearchRow& entry : rows.all) {
        SCOPED_TRACE(entry.what);
        entry.wanted.addNumber(CKA_CLASS, CKO_CERTIFICATE);
        EXPECT_EQ(search(session, entry.wanted), entry.found);
    }
}

TEST_F(SearchMatchTest, TheSubjectIsAskedOnceForEachCertificate) {
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    Template wanted;
    wanted.addNumber(CKA_CLASS, CKO_CERTIFICATE).add(CKA_SUBJECT, Bytes{0x30});
    EXPECT_EQ(findInit(session, wanted).device,
              (Lines{listCertificates, listKeyPairs,
                     text("zentak_getCertificateSubject(", shown(derOf(certificateFive)), ", null)"),
                     text("zentak_getCertificateSubject(", shown(derOf(certificateSeven)), ", null)")}));
}

TEST_F(SearchMatchTest, SeveralMatchesKeepTheOrderOfTheList) {
    for (const std::uint32_t id : {9U, 2U, 4U}) {
        world.keyPairs["SN1"].push_back(labelledKeyPair(id, "twin"));
        world.certificates["SN1"].push_back(labelledCertificate(id, "twin"));
    }
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RW_USER_FUNCTIONS);
    Template keys;
    keys.addNumber(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_LABEL, terminated("twin"));
    EXPECT_EQ(search(session, keys), (Handles{privateKey(9), privateKey(2), privateKey(4)}));
    Template wantedCertificates;
    wantedCertificates.addNumber(CKA_CLASS, CKO_CERTIFICATE).add(CKA_LABEL, terminated("twin"));
    EXPECT_EQ(search(session, wantedCertificates), (Handles{certificate(9), certificate(2), certificate(4)}));
}

TEST_F(SearchMatchTest, TheLabelOfATemplateEndsAtItsTerminator) {
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    unsigned char label[] = "Key five\0behind";
    for (const CK_ULONG length : Numbers{1, 3, 8, 9, 15}) {
        Template wanted;
        wanted.addNumber(CKA_CLASS, CKO_PUBLIC_KEY).addRaw(CKA_LABEL, label, length);
        EXPECT_EQ(search(session, wanted), (Handles{publicKey(5)})) << length;
    }
}

TEST_F(SearchMatchTest, AnEmptyLabelIsNoCriterion) {
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    Template byId;
    byId.addNumber(CKA_CLASS, CKO_PUBLIC_KEY).add(CKA_LABEL, Bytes{0}).add(CKA_ID, Bytes{0xA0, 6});
    EXPECT_EQ(search(session, byId), (Handles{publicKey(6)}));
    Template all;
    all.addNumber(CKA_CLASS, CKO_CERTIFICATE).add(CKA_LABEL, Bytes{0, 'x', 0});
    EXPECT_EQ(search(session, all), certificates);
}

TEST_F(SearchMatchTest, StoredLabelsAreTrimmedAndTheTemplateIsNot) {
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    struct Row {
        std::string stored;
        std::string wanted;
        bool found;
    };
    std::vector<Row> rows = {
        {" \t\n\r\f\vinner label\v\f\r\n\t ", "inner label", true},
        {"inner  label", "inner label", false},
        {"inner label", "Inner label", false},
        {"inner label", "inner labe", false},
        {"inner label", "inner label ", false},
        {" inner label", " inner label", false},
        {"\xA0label\x85", "\xA0label\x85", true},  // white space in other alphabets is none here
        {"\x1Flabel\x01", "\x1Flabel\x01", true},
    };
    for (const char blank : {' ', '\t', '\n', '\r', '\f', '\v'}) {
        rows.push_back({std::string(1, blank) + "label", "label", true});
        rows.push_back({"label" + std::string(1, blank), "label", true});
        rows.push_back({"la" + std::string(1, blank) + "bel", "label", false});
    }
    for (const Row& row : rows) {
        SCOPED_TRACE(row.stored);
        setAlias(world.keyPairs["SN1"][0], row.stored);
        setLabel(world.certificates["SN1"][1], row.stored);
        Template keys;
        keys.addNumber(CKA_CLASS, CKO_PUBLIC_KEY).add(CKA_LABEL, terminated(row.wanted));
        EXPECT_EQ(search(session, keys), row.found ? Handles{publicKey(5)} : Handles{});
        Template wantedCertificates;
        wantedCertificates.addNumber(CKA_CLASS, CKO_CERTIFICATE).add(CKA_LABEL, terminated(row.wanted));
        EXPECT_EQ(search(session, wantedCertificates), row.found ? Handles{certificate(7)} : Handles{});
    }
}

TEST_F(SearchMatchTest, EachTokenIsSearchedForItself) {
    world.keyPairs["SN2"] = {labelledKeyPair(8, "Key eight")};
    world.certificates["SN2"] = {labelledCertificate(9, "Certificate nine")};
    const CK_SESSION_HANDLE first = openSessionIn(CKS_RO_PUBLIC_SESSION);
    const CK_SESSION_HANDLE second = openSession(0, fipsSlot);
    ASSERT_EQ(api->C_FindObjectsInit(first, nullptr, 0), CKR_OK);
    EXPECT_EQ(observe([&] { return api->C_FindObjectsInit(second, nullptr, 0); }).device,
              (Lines{"zentak_getCertificateList(\"SN2\", instance)", "zentak_getKeyPairList(\"SN2\", instance)"}));
    EXPECT_EQ(next(second, 1), (Handles{publicKey(8)}));
    EXPECT_EQ(next(first, 10), publicKeys + certificates);
    EXPECT_EQ(next(second, 10), (Handles{certificate(9)}));
}

/// The memory of a record from `offset` on.
template <typename Record>
Bytes memoryOf(const Record& record, std::size_t offset, std::size_t length) {
    const auto* first = reinterpret_cast<const unsigned char*>(&record) + offset;
    return Bytes(first, first + length);
}

// The template asks for exactly what lies in the record's memory, one byte further than the field.
TEST_F(SearchMatchTest, RecordsAreNeverReadBeyondTheirFields) {
    ZentakKeyPair& keyPair = world.keyPairs["SN1"][0];
    ZentakCertificate& record = world.certificates["SN1"][0];
    keyPair.publicKeyLength = sizeof keyPair.publicKey + 1;
    keyPair.objectIdLength = sizeof keyPair.objectId + 1;
    record.derLength = sizeof record.der + 1;
    record.objectIdLength = sizeof record.objectId + 1;
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    SearchRows rows;
    rows.add("public key", {})
        .addNumber(CKA_CLASS, CKO_PUBLIC_KEY)
        .add(CKA_VALUE, memoryOf(keyPair, offsetof(ZentakKeyPair, publicKey), sizeof keyPair.publicKey + 1));
    rows.add("modulus", {})
        .addNumber(CKA_CLASS, CKO_PUBLIC_KEY)
        .add(CKA_MODULUS, memoryOf(keyPair, offsetof(ZentakKeyPair, publicKey), sizeof keyPair.publicKey + 1));
    rows.add("object id of a key pair", {})
        .addNumber(CKA_CLASS, CKO_PUBLIC_KEY)
        .add(CKA_ID, memoryOf(keyPair, offsetof(ZentakKeyPair, objectId), sizeof keyPair.objectId + 1));
    rows.add("DER", {})
        .addNumber(CKA_CLASS, CKO_CERTIFICATE)
        .add(CKA_VALUE, memoryOf(record, offsetof(ZentakCertificate, der), sizeof record.der + 1));
    rows.add("object id of a certificate", {})
        .addNumber(CKA_CLASS, CKO_CERTIFICATE)
        .add(CKA_ID, memoryOf(record, offsetof(ZentakCertificate, objectId), sizeof record.objectId + 1));
    for (SearchRow& row : rows.all) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(search(session, row.wanted), row.found);
    }
}

TEST_F(SearchMatchTest, OddLengthsInARecordAreHarmless) {
    for (const std::int32_t length : {-1, INT32_MIN, 129, 1025, 3073, INT32_MAX}) {
        SCOPED_TRACE(length);
        ZentakKeyPair& keyPair = world.keyPairs["SN1"][0];
        ZentakCertificate& record = world.certificates["SN1"][0];
        keyPair.publicKeyLength = keyPair.objectIdLength = length;
        record.derLength = record.objectIdLength = length;
        setAlias(keyPair, "");
        setLabel(record, "");
        const CK_SESSION_HANDLE session = openSessionIn(CKS_RW_USER_FUNCTIONS);
        for (const CK_ATTRIBUTE_TYPE type : Numbers{CKA_LABEL, CKA_VALUE, CKA_ID, CKA_MODULUS, CKA_SUBJECT}) {
            for (const CK_OBJECT_CLASS objectClass : Numbers{CKO_CERTIFICATE, CKO_PRIVATE_KEY}) {
                Template wanted;
                wanted.addNumber(CKA_CLASS, objectClass).add(type, terminated("some"));
                EXPECT_EQ(findInit(session, wanted).code, CKR_OK);
            }
        }
        closeEverything(session);
    }
}

TEST_F(SearchMatchTest, UnterminatedLabelsEndWithTheirField) {
    std::memset(world.keyPairs["SN1"][0].alias, 'k', sizeof(ZentakKeyPair::alias));
    std::memset(world.certificates["SN1"][0].label, 'c', sizeof(ZentakCertificate::label));
    const CK_SESSION_HANDLE session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    Template keys;
    keys.addNumber(CKA_CLASS, CKO_PUBLIC_KEY)
        .add(CKA_LABEL, terminated(std::string(sizeof(ZentakKeyPair::alias), 'k')));
    EXPECT_EQ(search(session, keys), (Handles{publicKey(5)}));
    Template wantedCertificates;
    wantedCertificates.addNumber(CKA_CLASS, CKO_CERTIFICATE)
        .add(CKA_LABEL, terminated(std::string(sizeof(ZentakCertificate::label), 'c')));
    EXPECT_EQ(search(session, wantedCertificates), (Handles{certificate(5)}));
}

}  // namespace
