// Which objects a template finds: the class, the first criterion that is present, the login state, stored labels.

#include <cstddef>
#include <deque>

#include "object_test.h"

using namespace support;

namespace {

class SearchMatchTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    }

    CK_SESSION_HANDLE session = 0;

    Handles labelled(CK_OBJECT_CLASS objectClass, std::string_view label) {
        return search(session, Template().addNumber(CKA_CLASS, objectClass).add(CKA_LABEL, terminated(label)));
    }
    Handles ofClass(CK_OBJECT_CLASS objectClass) {
        return search(session, Template().addNumber(CKA_CLASS, objectClass));
    }

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
    for (const CK_STATE state : everyState) {
        SCOPED_TRACE(text("state ", state));
        const bool user = state == CKS_RO_USER_FUNCTIONS || state == CKS_RW_USER_FUNCTIONS;
        session = reopen(session, state);

        Template all;
        EXPECT_EQ(search(session, all), publicKeys + (user ? privateKeys : Handles{}) + certificates);
        EXPECT_EQ(ofClass(CKO_PRIVATE_KEY), user ? privateKeys : Handles{});
        EXPECT_EQ(ofClass(CKO_PUBLIC_KEY), publicKeys);
        EXPECT_EQ(ofClass(CKO_CERTIFICATE), certificates);
    }
}

TEST_F(SearchMatchTest, TheLoginStateCountsWhenTheSearchStarts) {
    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    login(session, userPin);
    EXPECT_EQ(next(session, 10), publicKeys + certificates);

    ASSERT_EQ(api->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    ASSERT_EQ(api->C_Logout(session), CKR_OK);
    EXPECT_EQ(next(session, 10), publicKeys + privateKeys + certificates);
}

TEST_F(SearchMatchTest, OtherClassesFindNothing) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    for (const CK_OBJECT_CLASS objectClass : Numbers{CKO_DATA, CKO_SECRET_KEY, CKO_HW_FEATURE, CKO_DOMAIN_PARAMETERS,
                                                     CKO_MECHANISM, 0x80000001UL, 0xFFFFFFFFUL}) {
        EXPECT_EQ(findInit(session, Template().addNumber(CKA_CLASS, objectClass)),
                  (Outcome{CKR_OK,
                           {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 1",
                            "DEBUG Find object init type : 0", text("DEBUG Find object class : ", objectClass)},
                           {listCertificates, listKeyPairs}}));
        EXPECT_EQ(next(session, 10), Handles{});
    }
}

TEST_F(SearchMatchTest, TheVendorClassIsHeldLikeNoClass) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    EXPECT_EQ(search(session, Template().addNumber(CKA_CLASS, 0x80000000).add(CKA_ID, Bytes{0xA0, 5})),
              publicKeys + privateKeys + certificates);
}

TEST_F(SearchMatchTest, WideClassesAreNotCut) {
    if constexpr (sizeof(CK_ULONG) == 8) {
        session = reopen(session, CKS_RW_USER_FUNCTIONS);
        for (const std::uint64_t low : {1U, 2U, 3U, 0x80000000U}) {
            const auto wide = static_cast<CK_OBJECT_CLASS>((std::uint64_t{1} << 32U) + low);
            EXPECT_EQ(ofClass(wide), Handles{}) << low;
        }
    }
}

TEST_F(SearchMatchTest, WithoutAClassNoCriterionDecides) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
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

/// What describes an object: each criterion with its right value.
struct Description {
    Bytes label;
    Bytes value;
    Bytes id;
    Bytes other;
};

// The first is described rightly by the first criterion and wrongly by all that follow, then the other way.
TEST_F(SearchMatchTest, TheFirstCriterionDecides) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    world.subjects[derOf(certificateFive)] = {0x30, 0x01, 0x05};
    world.subjects[derOf(certificateSeven)] = {0x30, 0x01, 0x07};
    const Bytes modulus = publicKeyOf(keyFive);
    const Description keys[] = {{terminated("Key five"), modulus, {0xA0, 5}, modulus},
                                {terminated("Key six"), publicKeyOf(keySix), {0xA0, 6}, publicKeyOf(keySix)}};
    const Description ofCertificates[] = {
        {terminated("Certificate five"), derOf(certificateFive), {0xC0, 5}, {0x30, 0x01, 0x05}},
        {terminated("Certificate seven"), derOf(certificateSeven), {0xC0, 7}, {0x30, 0x01, 0x07}}};
    for (const CK_OBJECT_CLASS objectClass : Numbers{CKO_PUBLIC_KEY, CKO_PRIVATE_KEY, CKO_CERTIFICATE}) {
        const bool isKey = objectClass != CKO_CERTIFICATE;
        const auto& [first, second] = isKey ? keys : ofCertificates;
        // A key pair's last criterion is its modulus, a certificate's its subject; the other one says nothing.
        const CK_ATTRIBUTE_TYPE last = isKey ? CKA_MODULUS : CKA_SUBJECT;
        const Handles both = isKey ? objectClass == CKO_PUBLIC_KEY ? publicKeys : privateKeys : certificates;
        const Handles one = {both[0]};
        const Handles none = {};
        SearchRows rows;
        rows.add("label", {both[1]}).add(CKA_LABEL, second.label);
        rows.add("label before all others", one)
            .add(last, second.other)
            .add(CKA_ID, second.id)
            .add(CKA_VALUE, second.value)
            .add(CKA_LABEL, first.label);
        rows.add("a wrong label", none)
            .add(CKA_LABEL, terminated(isKey ? "Key" : "Cert"))
            .add(CKA_VALUE, first.value)
            .add(CKA_ID, first.id)
            .add(last, first.other);
        rows.add("value before id and the last", one)
            .add(last, second.other)
            .add(CKA_ID, second.id)
            .add(CKA_VALUE, first.value);
        rows.add("a wrong value", none).add(CKA_VALUE, Bytes{1}).add(CKA_ID, first.id).add(last, first.other);
        rows.add("id before the last", one).add(last, second.other).add(CKA_ID, first.id);
        rows.add("a wrong id", none).add(last, first.other).add(CKA_ID, Bytes{first.id[0]});
        rows.add("the last", {both[1]}).add(last, second.other);
        rows.add("the last, too long", none).add(last, second.other + Bytes{0});
        rows.add("the last, too short", none).add(last, Bytes(second.other.begin(), second.other.end() - 1));
        rows.add("value too long", none).add(CKA_VALUE, first.value + Bytes{0});
        rows.add("id too long", none).add(CKA_ID, first.id + Bytes{0});
        rows.add("what says nothing", both).add(isKey ? CKA_SUBJECT : CKA_MODULUS, Bytes{0x30, 0x00});
        const int asked = world.countOf("zentak_getCertificateSubject");
        for (SearchRow& row : rows.all) {
            SCOPED_TRACE(text("class ", objectClass, ", ", row.what));
            row.wanted.addNumber(CKA_CLASS, objectClass);
            EXPECT_EQ(search(session, row.wanted), row.found);
        }
        EXPECT_EQ(world.countOf("zentak_getCertificateSubject") == asked, isKey);
    }
}

TEST_F(SearchMatchTest, TheSubjectIsAskedOnceForEachCertificate) {
    EXPECT_EQ(findInit(session, Template().addNumber(CKA_CLASS, CKO_CERTIFICATE).add(CKA_SUBJECT, Bytes{0x30})).device,
              (Lines{listCertificates, listKeyPairs,
                     text("zentak_getCertificateSubject(", shown(derOf(certificateFive)), ", null)"),
                     text("zentak_getCertificateSubject(", shown(derOf(certificateSeven)), ", null)")}));
}

TEST_F(SearchMatchTest, SeveralMatchesKeepTheOrderOfTheList) {
    for (const std::uint32_t id : {9U, 2U, 4U}) {
        world.keyPairs["SN1"].push_back(labelledKeyPair(id, "twin"));
        world.certificates["SN1"].push_back(labelledCertificate(id, "twin"));
    }
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    EXPECT_EQ(labelled(CKO_PRIVATE_KEY, "twin"), (Handles{privateKey(9), privateKey(2), privateKey(4)}));
    EXPECT_EQ(labelled(CKO_CERTIFICATE, "twin"), (Handles{certificate(9), certificate(2), certificate(4)}));
}

TEST_F(SearchMatchTest, TheLabelOfATemplateEndsAtItsTerminator) {
    unsigned char label[] = "Key five\0behind";
    for (const CK_ULONG length : Numbers{1, 3, 8, 9, 15}) {
        EXPECT_EQ(search(session, Template().addNumber(CKA_CLASS, CKO_PUBLIC_KEY).addRaw(CKA_LABEL, label, length)),
                  (Handles{publicKey(5)}))
            << length;
    }
}

TEST_F(SearchMatchTest, AnEmptyLabelIsNoCriterion) {
    Template byId;
    byId.addNumber(CKA_CLASS, CKO_PUBLIC_KEY).add(CKA_LABEL, Bytes{0}).add(CKA_ID, Bytes{0xA0, 6});
    EXPECT_EQ(search(session, byId), (Handles{publicKey(6)}));
    EXPECT_EQ(search(session, Template().addNumber(CKA_CLASS, CKO_CERTIFICATE).add(CKA_LABEL, Bytes{0, 'x', 0})),
              certificates);
}

TEST_F(SearchMatchTest, StoredLabelsAreTrimmedAndTheTemplateIsNot) {
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
        EXPECT_EQ(labelled(CKO_PUBLIC_KEY, row.wanted), row.found ? Handles{publicKey(5)} : Handles{});
        EXPECT_EQ(labelled(CKO_CERTIFICATE, row.wanted), row.found ? Handles{certificate(7)} : Handles{});
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
    struct Row {
        CK_OBJECT_CLASS objectClass;
        CK_ATTRIBUTE_TYPE type;
        Bytes value;
    };
    const Bytes key = memoryOf(keyPair, offsetof(ZentakKeyPair, publicKey), sizeof keyPair.publicKey + 1);
    const Row rows[] = {
        {CKO_PUBLIC_KEY, CKA_VALUE, key},
        {CKO_PUBLIC_KEY, CKA_MODULUS, key},
        {CKO_PUBLIC_KEY, CKA_ID, memoryOf(keyPair, offsetof(ZentakKeyPair, objectId), sizeof keyPair.objectId + 1)},
        {CKO_CERTIFICATE, CKA_VALUE, memoryOf(record, offsetof(ZentakCertificate, der), sizeof record.der + 1)},
        {CKO_CERTIFICATE, CKA_ID, memoryOf(record, offsetof(ZentakCertificate, objectId), sizeof record.objectId + 1)}};
    for (const Row& row : rows) {
        EXPECT_EQ(search(session, Template().addNumber(CKA_CLASS, row.objectClass).add(row.type, row.value)), Handles{})
            << row.objectClass << " " << row.type;
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
        session = reopen(session, CKS_RW_USER_FUNCTIONS);
        for (const CK_ATTRIBUTE_TYPE type : Numbers{CKA_LABEL, CKA_VALUE, CKA_ID, CKA_MODULUS, CKA_SUBJECT}) {
            for (const CK_OBJECT_CLASS objectClass : Numbers{CKO_CERTIFICATE, CKO_PRIVATE_KEY}) {
                EXPECT_EQ(
                    findInit(session, Template().addNumber(CKA_CLASS, objectClass).add(type, terminated("some"))).code,
                    CKR_OK);
            }
        }
    }
}

TEST_F(SearchMatchTest, UnterminatedLabelsEndWithTheirField) {
    std::memset(world.keyPairs["SN1"][0].alias, 'k', sizeof(ZentakKeyPair::alias));
    std::memset(world.certificates["SN1"][0].label, 'c', sizeof(ZentakCertificate::label));
    EXPECT_EQ(labelled(CKO_PUBLIC_KEY, std::string(sizeof(ZentakKeyPair::alias), 'k')), (Handles{publicKey(5)}));
    EXPECT_EQ(labelled(CKO_CERTIFICATE, std::string(sizeof(ZentakCertificate::label), 'c')), (Handles{certificate(5)}));
}

}  // namespace
