// C_CreateObject: the import of a certificate together with the authorities that issued it.

#include "creation_test.h"

using namespace support;

namespace {

class CreationChainTest : public CreationTest {
protected:
    /// The reading of every file in the folder, after that of the leaf and the folder itself.
    Lines readings() const {
        Lines calls = {readCertificate(leaf), scanFolder(folder)};
        for (const auto& [name, der] : world.files) {
            if (!der.empty()) calls.push_back(readCertificate(der));
        }
        return calls;
    }
    /// The leaf alone, with the name of the issuer that is missing.
    Outcome leafAlone(const std::string& missing) const {
        return {CKR_OK, mailLines + Lines{notFoundLine(missing), leafOnlyLine},
                readings() + Lines{importCertificate(leaf, "mail"), listCertificates, listKeyPairs}};
    }
    /// A chain of these imports, the last of them the leaf's.
    Outcome chainOf(const Lines& imports) const {
        return {CKR_OK, mailLines + Lines(imports.size(), importedLine), readings() + imports + Lines{listKeyPairs}};
    }

    const Bytes root = {0xA0};
    const Bytes middle = {0xB0, 0xB1};
    const Bytes other = {0xC0};
    const std::string importedRoot = importCertificate(root, "Root");
    const std::string importedMiddle = importCertificate(middle, "Middle");
    const std::string importedLeaf = importCertificate(leaf, "mail");
};

TEST_F(CreationChainTest, TheRootGoesFirstAndTheLeafLast) {
    leafDetails("Alice", "CN=Middle");
    addAuthority(middle, "CN=Middle", "CN=Root");
    addAuthority(other, "CN=Other", "CN=Other");
    addAuthority(root, "CN=Root", "CN=Root");
    EXPECT_EQ(createMail(), chainOf({importedRoot, importedMiddle, importedLeaf}));
    EXPECT_EQ(created, untouched);
}

TEST_F(CreationChainTest, TheLeafKeepsItsIdentifierAndTheAuthoritiesHaveNone) {
    addAuthority(root, "CN=Root", "CN=Root");
    EXPECT_EQ(
        create(Template().add(CKA_VALUE, leaf).add(CKA_ID, Bytes{1, 2})),
        (Outcome{CKR_OK,
                 {"DEBUG C_CreateObject", attributeLine(CKA_VALUE), attributeLine(CKA_ID),
                  "DEBUG Label not provided, using: Alice_CN=Root", folderLine, importedLine, importedLine},
                 readings() + Lines{importedRoot, importCertificate(leaf, "Alice_CN=Root", {1, 2}), listKeyPairs}}));
}

TEST_F(CreationChainTest, ALongChainIsFollowed) {
    Lines imports;
    for (unsigned char i = 0; i < 20; ++i) {
        const int issuer = i == 0 ? 0 : i - 1;
        addAuthority({0x77, i}, text("CN=Authority ", int{i}, ", O=Zentak"), text("CN=Authority ", issuer));
        imports.push_back(importCertificate({0x77, i}, text("Authority ", int{i})));
    }
    leafDetails("Alice", "O=Zentak, CN=Authority 19");
    EXPECT_EQ(createMail(), chainOf(imports + Lines{importedLeaf}));
}

TEST_F(CreationChainTest, AnUnknownIssuerLeavesTheLeafAlone) {
    addAuthority(other, "CN=Other", "CN=Other");
    EXPECT_EQ(createMail(), leafAlone("Root"));
    EXPECT_EQ(created, certificate(9));
}

TEST_F(CreationChainTest, AnUnknownIssuerFurtherUpDropsTheWholeChain) {
    leafDetails("Alice", "CN=Middle");
    addAuthority(middle, "CN=Middle", "CN=Root");
    EXPECT_EQ(createMail(), leafAlone("Root"));
    EXPECT_EQ(created, certificate(9));
}

TEST_F(CreationChainTest, TwoAuthoritiesInACircleDropTheChain) {
    addAuthority(root, "CN=Root", "CN=Middle");
    addAuthority(middle, "CN=Middle", "CN=Root");
    addAuthority(other, "CN=Other", "CN=Root");
    for (const char* issuer : {"CN=Root", "CN=Other"}) {  // in the circle, or leading into it
        leafDetails("Alice", issuer);
        const Outcome outcome = createMail();
        EXPECT_EQ(outcome.code, CKR_OK);
        EXPECT_EQ(outcome.log.back(), leafOnlyLine);
        EXPECT_EQ(std::count(outcome.log.begin(), outcome.log.end(), importedLine), 0);
        EXPECT_EQ(outcome.device, leafAlone("").device);
        EXPECT_EQ(created, certificate(9));
    }
}

TEST_F(CreationChainTest, ASelfSignedLeafFromTheFolderIsStoredTwice) {
    world.files.emplace_back("alice.pem", leaf);
    leafDetails("Alice", "CN=Alice");
    EXPECT_EQ(createMail(), chainOf({importCertificate(leaf, "Alice"), importedLeaf}));
    EXPECT_EQ(created, untouched);
}

TEST_F(CreationChainTest, ALeafWithoutAnIssuerIsAChain) {
    leafDetails("Alice", "");
    addAuthority(root, "CN=Root", "CN=Root");
    EXPECT_EQ(createMail(), chainOf({importedLeaf}));
    EXPECT_EQ(created, untouched);
}

TEST_F(CreationChainTest, AnAuthorityWithoutAnIssuerEndsTheChain) {
    addAuthority(root, "CN=Root", "");
    EXPECT_EQ(createMail(), chainOf({importedRoot, importedLeaf}));
}

TEST_F(CreationChainTest, WithoutFilesNoIssuerIsLookedFor) {
    leafDetails("Alice", "");
    EXPECT_EQ(createMail(), (Outcome{CKR_OK, mailLines + Lines{leafOnlyLine},
                                     readings() + Lines{importedLeaf, listCertificates, listKeyPairs}}));
    EXPECT_EQ(created, certificate(9));
}

TEST_F(CreationChainTest, EmptyAndUnreadableFilesArePassedOver) {
    world.files.emplace_back("empty.cer", Bytes{});
    world.certificateDetails[Bytes{}] = makeDetails("nothing", "CN=Root");
    world.certificateDetails[Bytes{}].subject = "CN=Root";
    world.files.emplace_back("unreadable.cer", other);
    addAuthority(root, "CN=Root", "CN=Root");
    EXPECT_EQ(createMail(), chainOf({importedRoot, importedLeaf}));
    world.files.pop_back();
    EXPECT_EQ(createMail(), leafAlone("Root"));
}

TEST_F(CreationChainTest, AnAuthorityBeyondTheRecordIsPassedOver) {
    const Bytes tooLong = countingBytes(0, 3073);
    addAuthority(tooLong, "CN=Root", "CN=Root");
    const Outcome outcome = createMail();
    EXPECT_EQ(outcome.code, CKR_OK);
    EXPECT_EQ(outcome.log, mailLines + (Lines{notFoundLine("Root"), leafOnlyLine}));
    EXPECT_EQ(std::count(outcome.device.begin(), outcome.device.end(), importedLeaf), 1);
    EXPECT_EQ(world.countOf("zentak_importCertificate"), 1);

    const Bytes longest = countingBytes(0, 3072);
    world.files.clear();
    addAuthority(longest, "CN=Root", "CN=Root");
    EXPECT_EQ(createMail(), chainOf({importCertificate(longest, "Root"), importedLeaf}));
}

TEST_F(CreationChainTest, OfTwoFilesTheFirstGivesTheCertificateAndTheLastTheDetails) {
    addAuthority(root, "CN=Root", "CN=Middle");
    addAuthority(other, "CN=Root", "CN=Root");
    addAuthority(middle, "CN=Middle", "CN=Middle");
    EXPECT_EQ(createMail(), chainOf({importedRoot, importedLeaf}));

    world.files.clear();
    addAuthority(root, "CN=Root", "CN=Root");
    addAuthority(middle, "CN=Middle", "CN=Middle");
    addAuthority(other, "O=Elsewhere, CN=Root", "CN=Middle");
    EXPECT_EQ(createMail(), chainOf({importedMiddle, importedRoot, importedLeaf}));
}

// --- Failures -------------------------------------------------------------------------------------------------------

TEST_F(CreationChainTest, AFailureInTheMiddleEndsTheCall) {
    leafDetails("Alice", "CN=Middle", publicKeyOf(keyFive));
    world.keyPairs["SN1"] = {labelledKeyPair(5, "")};
    addAuthority(middle, "CN=Middle", "CN=Root");
    addAuthority(root, "CN=Root", "CN=Root");
    const Lines imports = {importedRoot, importedMiddle, importedLeaf};
    for (const auto& [result, code] : importFailures) {
        for (std::size_t failing = 0; failing < imports.size(); ++failing) {
            setResultOfCall("zentak_importCertificate", static_cast<int>(failing) + 1, result);
            const Lines made(imports.begin(), imports.begin() + static_cast<std::ptrdiff_t>(failing) + 1);
            EXPECT_EQ(createMail(), (Outcome{code,
                                             mailLines + Lines(failing, importedLine) +
                                                 Lines{text("ERROR Leaf import failed: ", result)},
                                             readings() + made}));
            EXPECT_EQ(created, untouched);
        }
    }
}

// --- The name of the key pair ---------------------------------------------------------------------------------------

TEST_F(CreationChainTest, TheKeyPairIsNamedAfterTheLeaf) {
    leafDetails("Alice", "CN=Root", publicKeyOf(keyFive));
    addAuthority(root, "CN=Root", "CN=Root");
    world.certificateDetails[root].publicKey = publicKeyOf(keySix);
    world.keyPairs["SN1"] = {labelledKeyPair(6, ""), labelledKeyPair(5, "")};
    EXPECT_EQ(
        createMail(),
        (Outcome{CKR_OK, mailLines + Lines{importedLine, importedLine, "DEBUG Updating empty key pair alias to: mail"},
                 readings() + Lines{importedRoot, importedLeaf, listKeyPairs, nameKeyPair(5, "mail")}}));
    EXPECT_EQ(created, untouched);
}

TEST_F(CreationChainTest, WithoutAPasswordTheNameIsOnlyAnnounced) {
    leafDetails("Alice", "CN=Root", publicKeyOf(keyFive));
    addAuthority(root, "CN=Root", "CN=Root");
    world.keyPairs["SN1"] = {labelledKeyPair(5, "")};
    session = reopen(session, CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(
        createMail(),
        (Outcome{CKR_OK, mailLines + Lines{importedLine, importedLine, "DEBUG Updating empty key pair alias to: mail"},
                 readings() + Lines{importCertificate(root, "Root", {}, ""), importCertificate(leaf, "mail", {}, ""),
                                    listKeyPairs}}));
}

// --- Common names ---------------------------------------------------------------------------------------------------

TEST_F(CreationChainTest, CommonNames) {
    const std::pair<std::string, std::string> rows[] = {
        {"CN=Root", "Root"},
        {"C=XX, O=Org, CN=Root CA, OU=Unit", "Root CA"},
        {"CN=First, CN=Second", "First"},
        {"O=Org\nCN=Root\nOU=Unit", "Root"},
        {"O=Org\r\nCN=Root\r\n", "Root"},
        {"CN= Root ", " Root "},
        {"CN=a=b;c+d", "a=b;c+d"},
        {"CN=CN=Root", "CN=Root"},
        {"ICN=inner", "inner"},
        {"CN=,CN=Second", "Second"},
        {"CN=\nCN=Second", "Second"},
        {"CN=", "CN="},
        {"CN=,", "CN=,"},
        {"CN", "CN"},
        {"cn=Root, O=Org", "cn=Root, O=Org"},
        {"O=Org, OU=Unit", "O=Org, OU=Unit"},
    };
    addAuthority(other, "CN=Elsewhere", "CN=Elsewhere");
    for (const auto& [distinguishedName, commonName] : rows) {
        SCOPED_TRACE(distinguishedName);
        leafDetails("Alice", distinguishedName);
        EXPECT_EQ(createMail(), leafAlone(commonName));

        addAuthority(root, distinguishedName, distinguishedName);
        EXPECT_EQ(createMail(), chainOf({importCertificate(root, commonName), importedLeaf}));
        world.files.pop_back();
    }
}

TEST_F(CreationChainTest, AuthoritiesAreComparedByTheirWholeName) {
    const std::string stem(128, 'n');
    addAuthority(root, "CN=" + stem + "1", "CN=" + stem + "1");
    addAuthority(middle, "CN=" + stem + "2", "CN=" + stem + "1");
    leafDetails("Alice", "CN=" + stem + "2");
    EXPECT_EQ(createMail(), chainOf({importCertificate(root, stem), importCertificate(middle, stem), importedLeaf}));
}

TEST_F(CreationChainTest, NamesOfAnyLengthAreFollowed) {
    const std::string name(500000, 'n');
    for (const std::string& distinguishedName : {"CN=" + name, name, "O=" + name + ", CN=" + name}) {
        world.files.clear();
        addAuthority(root, distinguishedName, distinguishedName);
        leafDetails("Alice", distinguishedName);
        EXPECT_EQ(createMail(), chainOf({importCertificate(root, name.substr(0, 128)), importedLeaf}));
    }
}

}  // namespace
