// The label of an object that has none: computed on every read, and written back for a key pair when a PIN is known.

#include "ignored_failure.h"
#include "object_test.h"
#include "scripted_call.h"

using namespace support;

namespace {

/// Key pair 5 and certificate 5 have no label; certificate 7 is the key pair's.
class AttributesLabelTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        session = openSessionIn(CKS_RO_PUBLIC_SESSION);
        setAlias(world.keyPairs["SN1"][0], "");
        setLabel(world.certificates["SN1"][0], "");
        world.certificateDetails[derOf(certificateFive)] = makeDetails("Bob", "99", {1, 2, 3});
        world.certificateDetails[derOf(certificateSeven)] = makeDetails("Alice", "1234", publicKeyOf(keyFive));
    }

    /// Reads the label, whatever it is.
    Outcome read(CK_OBJECT_HANDLE object) { return readIn(session, object); }
    Outcome readIn(CK_SESSION_HANDLE where, CK_OBJECT_HANDLE object) {
        CK_ATTRIBUTE wanted = {CKA_LABEL, room.address(), 300};
        const Outcome outcome = observe([&] { return api->C_GetAttributeValue(where, object, &wanted, 1); });
        if (outcome.code == CKR_OK) {
            const Bytes value = room.first(wanted.ulValueLen);
            label = std::string(value.begin(), value.end());
        }
        return outcome;
    }

    std::string labelOf(CK_OBJECT_HANDLE object) {
        label = "unread";
        EXPECT_EQ(read(object).code, CKR_OK);
        return label;
    }

    /// What the label of key pair 5 takes.
    const Lines askedForTheKey = {listKeyPairs, listCertificates, askDetails(certificateFive),
                                  askDetails(certificateSeven)};
    CK_SESSION_HANDLE session = 0;
    Room room{300};
    std::string label;
};

const Lines started = {"DEBUG C_GetAttributeValue", "DEBUG C_GetAttributeValue count : 1"};

Lines walked(std::size_t length) {
    return {"DEBUG C_GetAttributeValue type : 3", text("DEBUG C_GetAttributeValue length : ", length)};
}

std::string writeBack(const std::string& label, const std::string& serial = "SN1", std::uint32_t id = 5) {
    return "zentak_updateKeyPairDetails(\"" + serial + "\", " + shownKeyReference(id) + ", \"246810\", \"" + label +
           "\", null, 0, instance)";
}

TEST_F(AttributesLabelTest, AKeyPairIsNamedAfterItsCertificate) {
    for (const CK_OBJECT_HANDLE object : Numbers{privateKey(5), publicKey(5), publicKey(5)}) {  // each time anew
        EXPECT_EQ(read(object),
                  (Outcome{CKR_OK, started + Lines{"DEBUG Empty key pair label, computed: Alice_1234"} + walked(10),
                           askedForTheKey}));
        EXPECT_EQ(label, "Alice_1234");
    }
}

TEST_F(AttributesLabelTest, TheComputedLabelIsWrittenBackWhenAPinIsCached) {
    session = reopen(session, CKS_RO_USER_FUNCTIONS);
    for (const int result : {0, 5}) {  // whether it worked or not
        world.results["zentak_updateKeyPairDetails"] = result;
        EXPECT_EQ(read(publicKey(5)),
                  (Outcome{CKR_OK, started + Lines{"DEBUG Empty key pair label, computed: Alice_1234"} + walked(10),
                           askedForTheKey + Lines{writeBack("Alice_1234")}}));
        EXPECT_EQ(label, "Alice_1234");
    }
}

TEST_F(AttributesLabelTest, ALabelWrittenBackIsFoundAndReadAfterwards) {
    world.addFault({.operation = "zentak_updateKeyPairDetails", .action = [this] {
                        world.change(
                            [](scripted::Device& changed) { setAlias(changed.keyPairs["SN1"][0], "Alice_1234"); });
                    }});
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    EXPECT_EQ(labelOf(privateKey(5)), "Alice_1234");
    EXPECT_EQ(read(privateKey(5)), (Outcome{CKR_OK, started + walked(10), {listKeyPairs}}));
    Template wanted;
    wanted.addNumber(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_LABEL, terminated("Alice_1234"));
    EXPECT_EQ(findInit(session, wanted).device, (Lines{listCertificates, listKeyPairs}));
    EXPECT_EQ(next(session, 9), (Handles{privateKey(5)}));
}

TEST_F(AttributesLabelTest, ThePinDecidesAndNotTheSessionsState) {
    // A PIN cached by one token's user serves another token's public session too.
    world.keyPairs["SN2"] = {labelledKeyPair(8, "")};
    world.certificates["SN2"] = {certificateSeven};
    world.certificateDetails[derOf(certificateSeven)].publicKey = publicKeyOf(world.keyPairs["SN2"][0]);
    const CK_SESSION_HANDLE other = openSession(0, fipsSlot);
    openSessionIn(CKS_RW_USER_FUNCTIONS);
    ASSERT_EQ(stateOf(other), CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(readIn(other, privateKey(8)).device,
              (Lines{"zentak_getKeyPairList(\"SN2\", instance)", "zentak_getCertificateList(\"SN2\", instance)",
                     askDetails(certificateSeven), writeBack("Alice_1234", "SN2", 8)}));
}

TEST_F(AttributesLabelTest, ASecurityOfficerHasNoPinToWriteBackWith) {
    session = reopen(session, CKS_RW_SO_FUNCTIONS);
    EXPECT_EQ(labelOf(privateKey(5)), "Alice_1234");
    EXPECT_EQ(world.countOf("zentak_updateKeyPairDetails"), 0);
}

TEST_F(AttributesLabelTest, AfterALogoutNothingIsWrittenBack) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    ASSERT_EQ(api->C_Logout(session), CKR_OK);
    EXPECT_EQ(labelOf(privateKey(5)), "Alice_1234");
    EXPECT_EQ(world.countOf("zentak_updateKeyPairDetails"), 0);
}

TEST_F(AttributesLabelTest, TheLabelIsComputedWhateverIsAsked) {
    session = reopen(session, CKS_RO_USER_FUNCTIONS);
    CK_ATTRIBUTE wanted = {CKA_TOKEN, nullptr, 0};
    EXPECT_EQ(observe([&] { return api->C_GetAttributeValue(session, privateKey(5), &wanted, 1); }),
              (Outcome{CKR_OK,
                       started + Lines{"DEBUG Empty key pair label, computed: Alice_1234",
                                       "DEBUG C_GetAttributeValue type : 1", "DEBUG C_GetAttributeValue length : 1"},
                       askedForTheKey + Lines{writeBack("Alice_1234")}}));
    EXPECT_EQ(observe([&] { return api->C_GetAttributeValue(session, certificate(5), &wanted, 1); }),
              (Outcome{CKR_OK,
                       started + Lines{"DEBUG Empty certificate label, computed: Bob_99",
                                       "DEBUG C_GetAttributeValue type : 1", "DEBUG C_GetAttributeValue length : 1"},
                       {listCertificates, askDetails(certificateFive)}}));
    unsigned char byte = 0;
    wanted = {CKA_ID, &byte, 1};
    EXPECT_EQ(observe([&] { return api->C_GetAttributeValue(session, privateKey(5), &wanted, 1); }).device,
              (askedForTheKey + Lines{writeBack("Alice_1234")}));
}

TEST_F(AttributesLabelTest, TheFirstMatchingCertificateEndsTheWalk) {
    world.certificateDetails[derOf(certificateFive)] = makeDetails("First", "1", publicKeyOf(keyFive));
    EXPECT_EQ(read(privateKey(5)).device, (Lines{listKeyPairs, listCertificates, askDetails(certificateFive)}));
    EXPECT_EQ(label, "First_1");
}

TEST_F(AttributesLabelTest, AKeyPairWithoutItsCertificateHasNoLabel) {
    session = reopen(session, CKS_RO_USER_FUNCTIONS);
    const Bytes key = publicKeyOf(keyFive);
    Bytes other = key;
    other.front() ^= 1;
    for (const Bytes& held : {Bytes(key.begin(), key.end() - 1), key + Bytes{0}, other, Bytes{}}) {
        world.certificateDetails[derOf(certificateSeven)].publicKey = held;
        EXPECT_EQ(read(privateKey(5)), (Outcome{CKR_OK, started + walked(0), askedForTheKey}));
        EXPECT_EQ(label, "");
    }
    world.certificates["SN1"].clear();
    EXPECT_EQ(read(privateKey(5)), (Outcome{CKR_OK, started + walked(0), {listKeyPairs, listCertificates}}));
}

TEST_F(AttributesLabelTest, CertificatesThatCannotBeReadArePassedOver) {
    world.certificateDetails.erase(derOf(certificateFive));
    EXPECT_EQ(labelOf(privateKey(5)), "Alice_1234");

    world.results["zentak_getCertificateDetails"] = -3;
    EXPECT_EQ(read(privateKey(5)), (Outcome{CKR_OK, started + walked(0), askedForTheKey}));
    EXPECT_EQ(read(certificate(5)),
              (Outcome{CKR_OK, started + walked(0), {listCertificates, askDetails(certificateFive)}}));
    EXPECT_EQ(label, "");
}

TEST_F(AttributesLabelTest, ACertificateIsNamedAfterItsOwnDetailsAndNothingIsWritten) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    EXPECT_EQ(read(certificate(5)),
              (Outcome{CKR_OK,
                       started + Lines{"DEBUG Empty certificate label, computed: Bob_99"} + walked(6),
                       {listCertificates, askDetails(certificateFive)}}));
    EXPECT_EQ(label, "Bob_99");
}

TEST_F(AttributesLabelTest, ACertificateWithoutDerIsNotAsked) {
    world.certificates["SN1"][0].derLength = 0;
    EXPECT_EQ(read(certificate(5)), (Outcome{CKR_OK, started + walked(0), {listCertificates}}));
}

TEST_F(AttributesLabelTest, ComputedLabelsAreCutTo128Characters) {
    const std::string half(100, 'a');
    const std::string rest(27, 'b');
    for (const std::string& extra : {std::string(), std::string("c"), std::string(500, 'c')}) {
        world.certificateDetails[derOf(certificateFive)] = makeDetails(half, rest + extra, {});
        world.certificateDetails[derOf(certificateSeven)] = makeDetails(half, rest + extra, publicKeyOf(keyFive));
        const std::string cut = half + "_" + rest;
        session = reopen(session, CKS_RW_USER_FUNCTIONS);
        const Outcome ofKey = read(privateKey(5));
        EXPECT_EQ(ofKey.log, started + Lines{"DEBUG Empty key pair label, computed: " + cut} + walked(128));
        EXPECT_EQ(ofKey.device.back(), writeBack(cut));
        EXPECT_EQ(label, cut);
        EXPECT_EQ(read(certificate(5)).log,
                  started + Lines{"DEBUG Empty certificate label, computed: " + cut} + walked(128));
        EXPECT_EQ(label, cut);
    }
}

TEST_F(AttributesLabelTest, EmptyDetailsStillMakeALabel) {
    world.certificateDetails[derOf(certificateFive)] = makeDetails("", "", {});
    EXPECT_EQ(labelOf(certificate(5)), "_");
}

TEST_F(AttributesLabelTest, StoredLabelsAreTrimmed) {
    session = reopen(session, CKS_RO_USER_FUNCTIONS);
    std::vector<std::pair<std::string, std::string>> rows = {
        {"plain", "plain"},
        {" \t\n\r\f\vinner  label\v\f\r\n\t ", "inner  label"},
        {"\xA0label\x85", "\xA0label\x85"},  // white space in other alphabets is none here
        {"x", "x"},
        {std::string(131, 'k'), std::string(131, 'k')},  // only computed labels are cut
    };
    for (const char blank : {' ', '\t', '\n', '\r', '\f', '\v'}) {
        rows.push_back({std::string(2, blank) + "label", "label"});
        rows.push_back({"label" + std::string(2, blank), "label"});
        rows.push_back({"la" + std::string(1, blank) + "bel", "la" + std::string(1, blank) + "bel"});
    }
    for (const auto& [stored, shown] : rows) {
        SCOPED_TRACE(stored);
        setAlias(world.keyPairs["SN1"][0], stored);
        setLabel(world.certificates["SN1"][0], stored);
        EXPECT_EQ(read(privateKey(5)), (Outcome{CKR_OK, started + walked(shown.size()), {listKeyPairs}}));
        EXPECT_EQ(label, shown);
        EXPECT_EQ(read(certificate(5)), (Outcome{CKR_OK, started + walked(shown.size()), {listCertificates}}));
        EXPECT_EQ(label, shown);
    }
}

TEST_F(AttributesLabelTest, ALabelOfWhiteSpaceIsAnEmptyLabel) {
    for (const std::string& blanks : {std::string(" "), std::string("\t\n\r\f\v "), std::string(131, ' ')}) {
        setAlias(world.keyPairs["SN1"][0], blanks);
        setLabel(world.certificates["SN1"][0], blanks);
        EXPECT_EQ(labelOf(privateKey(5)), "Alice_1234");
        EXPECT_EQ(labelOf(certificate(5)), "Bob_99");
    }
}

TEST_F(AttributesLabelTest, UnterminatedLabelsEndWithTheirField) {
    setAlias(world.keyPairs["SN1"][0], std::string(sizeof(ZentakKeyPair::alias), 'k'));
    setLabel(world.certificates["SN1"][0], std::string(sizeof(ZentakCertificate::label), 'c'));
    world.keyPairs["SN1"][0].keyUsage = 0x41414141;
    EXPECT_EQ(labelOf(privateKey(5)), std::string(sizeof(ZentakKeyPair::alias), 'k'));
    EXPECT_EQ(labelOf(certificate(5)), std::string(sizeof(ZentakCertificate::label), 'c'));
}

// The key that is read stays the key, though its certificates are listed and asked about in between.
TEST_F(AttributesLabelTest, OtherValuesAreThoseOfTheRecord) {
    session = reopen(session, CKS_RO_USER_FUNCTIONS);
    Room id(8);
    Room value(300);
    Template wanted;
    wanted.addRaw(CKA_ID, id.address(), 8).addRaw(CKA_VALUE, value.address(), 300);
    ASSERT_EQ(api->C_GetAttributeValue(session, privateKey(5), wanted.data(), 2), CKR_OK);
    EXPECT_EQ(id.first(2), (Bytes{0xA0, 5}));
    EXPECT_EQ(value.first(256), publicKeyOf(keyFive));
}

// The library's lists change under the walk, as any call may make them.
TEST_F(AttributesLabelTest, TheListsAreCopiesThatNoLaterCallDisturbs) {
    session = reopen(session, CKS_RO_USER_FUNCTIONS);
    for (const char* operation : {"zentak_getCertificateDetails", "zentak_updateKeyPairDetails"}) {
        world.addFault({.operation = operation, .action = [] {
                            zentak_getKeyPairList("nobody", nullptr).shrink_to_fit();
                            zentak_getCertificateList("nobody", nullptr).shrink_to_fit();
                        }});
        EXPECT_EQ(labelOf(privateKey(5)), "Alice_1234");
        EXPECT_EQ(labelOf(certificate(5)), "Bob_99");
    }
}

// Whether the token takes the label is of no importance, however it refuses.
TEST_F(AttributesLabelTest, AThrowingUpdateIsOnlyLogged) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    const Outcome undisturbed = read(privateKey(5));
    ASSERT_EQ(undisturbed.code, CKR_OK);
    ASSERT_EQ(undisturbed.log.at(2), "DEBUG Empty key pair label, computed: Alice_1234");
    for (const ThrownCode& thrown : thrownCodes) {
        Outcome expected = undisturbed;
        expected.log.insert(expected.log.begin() + 3,
                            ignoredLine("C_GetAttributeValue", "zentak_updateKeyPairDetails", thrown.thrown));
        letThrow("zentak_updateKeyPairDetails", thrown.thrown);
        EXPECT_EQ(read(privateKey(5)), expected);
        letThrow("zentak_updateKeyPairDetails", thrown.thrown);
        EXPECT_EQ(labelOf(privateKey(5)), "Alice_1234");
    }
}

// The key's certificate is found by its details, and asking for those may give the library another list.
TEST_F(AttributesLabelTest, AskingForDetailsDoesNotDisturbTheCertificates) {
    const ZentakCertificate foreign = labelledCertificate(3, "");
    const ZentakCertificate own = world.certificates["SN1"].at(1);
    world.certificateDetails[derOf(foreign)] = makeDetails("Somebody", "else", {1, 2, 3});
    const CertificateDetails wanted = makeDetails("The", "owner", publicKeyOf(keyFive));
    world.certificateDetails[derOf(own)] = wanted;
    world.certificates["SN1"] = {foreign, own};
    session = reopen(session, CKS_RO_USER_FUNCTIONS);
    world.addFault({.operation = "zentak_getCertificateDetails", .action = [&] {
                        for (ZentakCertificate& record : world.hidden().certificateList) record = foreign;
                    }});
    EXPECT_EQ(labelOf(privateKey(5)), "The_owner");
}

}  // namespace
