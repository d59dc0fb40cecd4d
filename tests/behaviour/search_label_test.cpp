// Searching by label where objects have none of their own: the label made from a certificate's details.

#include "object_test.h"

using namespace support;

namespace {

/// Key pairs and certificates without labels: key 1 belongs to certificate 1, key 2 to certificate 3, key 3 to none.
class SearchLabelTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        world.keyPairs["SN1"] = {one, two, three};
        world.certificates["SN1"] = {certificateOne, certificateTwo, certificateThree};
        world.certificateDetails[derOf(certificateOne)] = makeDetails("Alice", "1234", publicKeyOf(one));
        world.certificateDetails[derOf(certificateTwo)] = makeDetails("Bob", "5678", {9, 9, 9});
        world.certificateDetails[derOf(certificateThree)] = makeDetails("Carol", "9", publicKeyOf(two));
        session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    }

    Handles publicKeysNamed(std::string_view label) {
        return search(session, Template().addNumber(CKA_CLASS, CKO_PUBLIC_KEY).add(CKA_LABEL, terminated(label)));
    }

    Handles certificatesNamed(std::string_view label) {
        return search(session, Template().addNumber(CKA_CLASS, CKO_CERTIFICATE).add(CKA_LABEL, terminated(label)));
    }

    CK_SESSION_HANDLE session = 0;
    const ZentakKeyPair one = labelledKeyPair(1, "");
    const ZentakKeyPair two = labelledKeyPair(2, " \t");
    const ZentakKeyPair three = labelledKeyPair(3, "");
    const ZentakCertificate certificateOne = labelledCertificate(1, "");
    const ZentakCertificate certificateTwo = labelledCertificate(2, "\n");
    const ZentakCertificate certificateThree = labelledCertificate(3, "");
};

Outcome labelSearch(CK_OBJECT_CLASS objectClass, const Lines& deviceCalls) {
    return {CKR_OK,
            {"DEBUG C_FindObjectsInit", "DEBUG Find object init count : 2", "DEBUG Find object init type : 0",
             text("DEBUG Find object class : ", objectClass), "DEBUG Find object init type : 3"},
            deviceCalls};
}

// Nothing is logged or written back for a computed label, whoever is logged in.
TEST_F(SearchLabelTest, AKeyPairIsNamedAfterItsCertificate) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    world.keyPairs["SN1"] = {one};
    Template wanted;
    wanted.addNumber(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_LABEL, terminated("Alice_1234"));
    EXPECT_EQ(findInit(session, wanted),
              labelSearch(CKO_PRIVATE_KEY, {listCertificates, listKeyPairs, askDetails(certificateOne)}));
    EXPECT_EQ(next(session, 10), (Handles{privateKey(1)}));
}

TEST_F(SearchLabelTest, EachCertificateIsAskedAtMostOnceInASearch) {
    world.results["zentak_getCertificateDetails"] = 0;
    world.certificateDetails.erase(derOf(certificateTwo));  // a certificate that can't be read isn't asked again either
    for (int search = 0; search < 2; ++search) {            // and a new search asks anew
        EXPECT_EQ(
            findInit(session, Template().addNumber(CKA_CLASS, CKO_PUBLIC_KEY).add(CKA_LABEL, terminated("Carol_9"))),
            labelSearch(CKO_PUBLIC_KEY, {listCertificates, listKeyPairs, askDetails(certificateOne),
                                         askDetails(certificateTwo), askDetails(certificateThree)}));
        EXPECT_EQ(next(session, 10), (Handles{publicKey(2)}));
    }
}

TEST_F(SearchLabelTest, NoCertificateIsAskedForAKeyPairWithALabel) {
    setAlias(world.keyPairs["SN1"][0], "Own");
    setAlias(world.keyPairs["SN1"][1], "Alice_1234");
    setAlias(world.keyPairs["SN1"][2], " . ");
    Template wanted;
    wanted.addNumber(CKA_CLASS, CKO_PUBLIC_KEY).add(CKA_LABEL, terminated("Alice_1234"));
    EXPECT_EQ(findInit(session, wanted), labelSearch(CKO_PUBLIC_KEY, {listCertificates, listKeyPairs}));
    EXPECT_EQ(next(session, 10), (Handles{publicKey(2)}));
}

TEST_F(SearchLabelTest, TheFirstMatchingCertificateNamesTheKeyPair) {
    world.certificateDetails[derOf(certificateTwo)] = makeDetails("Bob", "5678", publicKeyOf(two));
    EXPECT_EQ(publicKeysNamed("Bob_5678"), (Handles{publicKey(2)}));
    EXPECT_EQ(publicKeysNamed("Carol_9"), Handles{});
}

TEST_F(SearchLabelTest, TheCertificateMustHoldExactlyTheKey) {
    const Bytes key = publicKeyOf(one);
    Bytes other = key;
    other.back() ^= 1;
    for (const Bytes& held : {Bytes(key.begin(), key.end() - 1), key + Bytes{0}, other, Bytes{}}) {
        world.certificateDetails[derOf(certificateOne)].publicKey = held;
        EXPECT_EQ(publicKeysNamed("Alice_1234"), Handles{}) << held.size();
    }
}

TEST_F(SearchLabelTest, AKeyPairWithoutCertificateHasNoLabel) {
    EXPECT_EQ(publicKeysNamed("_"), Handles{});
    EXPECT_EQ(publicKeysNamed("Bob_5678"), Handles{});
}

TEST_F(SearchLabelTest, ComputedLabelsAreCutTo128Characters) {
    CertificateDetails& details = world.certificateDetails[derOf(certificateOne)];
    details.subjectCommonName = std::string(100, 'a');
    const std::string rest(27, 'b');
    const std::string whole = details.subjectCommonName + "_" + rest;  // 128 characters
    for (const std::string& more : {std::string(), std::string("c")}) {
        details.issuer = rest + more;
        EXPECT_EQ(publicKeysNamed(whole), (Handles{publicKey(1)}));
        EXPECT_EQ(certificatesNamed(whole), (Handles{certificate(1)}));
        EXPECT_EQ(publicKeysNamed(whole + "c"), Handles{});
        EXPECT_EQ(certificatesNamed(whole + "c"), Handles{});
    }
}

TEST_F(SearchLabelTest, ComputedLabelsAreNotTrimmed) {
    world.certificateDetails[derOf(certificateOne)].subjectCommonName = " Alice";
    world.certificateDetails[derOf(certificateOne)].issuer = "1234 ";
    EXPECT_EQ(publicKeysNamed(" Alice_1234 "), (Handles{publicKey(1)}));
    EXPECT_EQ(publicKeysNamed("Alice_1234"), Handles{});
}

TEST_F(SearchLabelTest, ACertificateIsNamedAfterItsOwnDetails) {
    setLabel(world.certificates["SN1"][0], "Own");
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    Template wanted;
    wanted.addNumber(CKA_CLASS, CKO_CERTIFICATE).add(CKA_LABEL, terminated("Bob_5678"));
    EXPECT_EQ(findInit(session, wanted),
              labelSearch(CKO_CERTIFICATE,
                          {listCertificates, listKeyPairs, askDetails(certificateTwo), askDetails(certificateThree)}));
    EXPECT_EQ(next(session, 10), (Handles{certificate(2)}));
    EXPECT_EQ(certificatesNamed("Own"), (Handles{certificate(1)}));
}

TEST_F(SearchLabelTest, ACertificateThatCannotBeReadHasNoLabel) {
    world.certificateDetails.erase(derOf(certificateTwo));
    EXPECT_EQ(certificatesNamed("Bob_5678"), Handles{});
    EXPECT_EQ(certificatesNamed("_"), Handles{});
    EXPECT_EQ(certificatesNamed("Carol_9"), (Handles{certificate(3)}));
}

TEST_F(SearchLabelTest, ACertificateWithoutDerIsNotAskedForItsLabel) {
    world.certificates["SN1"] = {certificateOne, certificateTwo};
    world.certificates["SN1"][0].derLength = 0;
    world.certificateDetails[{}] = makeDetails("Empty", "0", {1});
    Template wanted;
    wanted.addNumber(CKA_CLASS, CKO_CERTIFICATE).add(CKA_LABEL, terminated("Empty_0"));
    EXPECT_EQ(findInit(session, wanted),
              labelSearch(CKO_CERTIFICATE, {listCertificates, listKeyPairs, askDetails(certificateTwo)}));
    EXPECT_EQ(next(session, 10), Handles{});
}

// The library's lists change under the walk, as any call may make them.
TEST_F(SearchLabelTest, TheListsAreCopiesThatNoLaterCallDisturbs) {
    for (int nth = 1; nth <= 3; ++nth) {
        world.addFault({.operation = "zentak_getCertificateDetails", .nth = nth, .action = [] {
                            zentak_getKeyPairList("nobody", nullptr).shrink_to_fit();
                            zentak_getCertificateList("nobody", nullptr).shrink_to_fit();
                        }});
    }
    EXPECT_EQ(publicKeysNamed("Carol_9"), (Handles{publicKey(2)}));
    EXPECT_EQ(certificatesNamed("Carol_9"), (Handles{certificate(3)}));
}

TEST_F(SearchLabelTest, OtherCriteriaAskNoDetails) {
    session = reopen(session, CKS_RW_USER_FUNCTIONS);
    EXPECT_EQ(findInit(session, Template().addNumber(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_ID, Bytes{0xA0, 1})).device,
              (Lines{listCertificates, listKeyPairs}));
    EXPECT_EQ(next(session, 10), (Handles{privateKey(1)}));
}

}  // namespace
