// C_CreateObject: its arguments and classes, and the import of a certificate that comes without its issuers.

#include <filesystem>

#include "creation_test.h"
#include "ignored_failure.h"
#include "scripted_call.h"

using namespace support;

namespace {

class CreationCertificateTest : public CreationTest {
protected:
    /// The leaf's key pair, which has no name.
    void addUnnamedKeyPair() {
        world.keyPairs["SN1"] = {labelledKeyPair(5, "")};
        leafDetails("Alice", "CN=Root", publicKeyOf(keyFive));
    }
    /// What a leaf leaves behind that isn't imported with its issuers.
    Lines imports(const std::string& label, const Bytes& id = {}, const Lines& more = {}) const {
        return Lines{readCertificate(leaf), scanFolder(folder), importCertificate(leaf, label, id), listCertificates,
                     listKeyPairs} +
               more;
    }
};

const std::string entered = "DEBUG C_CreateObject";
const std::string importFailed = "ERROR Leaf import failed: ";

Lines naming(const std::string& label) {
    return {"DEBUG Updating empty key pair alias to: " + label};
}

// --- Arguments and classes ------------------------------------------------------------------------------------------

TEST_F(CreationCertificateTest, ArgumentsAreCheckedInTheirOrder) {
    Template wanted;
    wanted.addNumber(CKA_CLASS, CKO_SECRET_KEY);
    EXPECT_EQ(observe([&] { return api->C_CreateObject(7, nullptr, 0, nullptr); }),
              refused(CKR_SESSION_HANDLE_INVALID, "C_CreateObject: invalid hSession=7"));
    EXPECT_EQ(observe([&] { return api->C_CreateObject(session, nullptr, 0, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_CreateObject: pTemplate is NULL"));
    EXPECT_EQ(observe([&] { return api->C_CreateObject(session, wanted.data(), 0, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_CreateObject: ulCount<=0"));
    EXPECT_EQ(observe([&] { return api->C_CreateObject(session, wanted.data(), 1, nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_CreateObject: phObject is NULL"));
    ASSERT_EQ(api->C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(observe([&] { return api->C_CreateObject(7, nullptr, 0, nullptr); }),
              refused(CKR_CRYPTOKI_NOT_INITIALIZED, "C_CreateObject: not initialized"));
}

TEST_F(CreationCertificateTest, PublicKeysAreAcceptedAndIgnored) {
    Template wanted;
    wanted.addNumber(CKA_CLASS, CKO_PUBLIC_KEY).add(CKA_VALUE, leaf).add(CKA_MODULUS, Bytes{1});
    EXPECT_EQ(
        create(wanted),
        (Outcome{CKR_OK, {entered, attributeLine(CKA_CLASS), attributeLine(CKA_VALUE), attributeLine(CKA_MODULUS)}}));
    EXPECT_EQ(created, untouched);
    Template narrow;  // four bytes in either binary form
    narrow.add(CKA_CLASS, Bytes{2, 0, 0, 0});
    EXPECT_EQ(create(narrow), (Outcome{CKR_OK, {entered, attributeLine(CKA_CLASS)}}));
}

TEST_F(CreationCertificateTest, OtherClassesAreRefused) {
    for (const CK_OBJECT_CLASS other : Numbers{CKO_DATA, CKO_SECRET_KEY, 5, 0x80000003, 0xFFFFFFFF}) {
        EXPECT_EQ(create(Template().addNumber(CKA_CLASS, other).add(CKA_VALUE, leaf)),
                  (Outcome{CKR_FUNCTION_NOT_SUPPORTED,
                           {entered, attributeLine(CKA_CLASS), attributeLine(CKA_VALUE),
                            text("ERROR Provided object class not supported : ", other)}}));
        EXPECT_EQ(created, untouched);
    }
}

TEST_F(CreationCertificateTest, TheLastOfSeveralClassesCounts) {
    Template wanted;
    wanted.addNumber(CKA_CLASS, CKO_SECRET_KEY).addNumber(CKA_CLASS, CKO_PUBLIC_KEY).addRaw(CKA_CLASS, nullptr, 4);
    EXPECT_EQ(create(wanted), (Outcome{CKR_OK, {entered, attributeLine(CKA_CLASS), attributeLine(CKA_CLASS)}}));
}

// --- A certificate alone --------------------------------------------------------------------------------------------

TEST_F(CreationCertificateTest, AValueAloneIsACertificate) {
    EXPECT_EQ(create(Template().add(CKA_VALUE, leaf)),
              (Outcome{CKR_OK,
                       {entered, attributeLine(CKA_VALUE), "DEBUG Label not provided, using: Alice_CN=Root", folderLine,
                        leafOnlyLine},
                       imports("Alice_CN=Root")}));
    EXPECT_EQ(created, certificate(9));
}

TEST_F(CreationCertificateTest, LabelAndIdentifierGoIntoTheRecord) {
    Template wanted;
    wanted.add(CKA_ID, Bytes{0, 7, 0})
        .add(CKA_LABEL, "mail")
        .addNumber(CKA_CLASS, CKO_CERTIFICATE)
        .add(CKA_VALUE, leaf)
        .addNumber(CKA_CERTIFICATE_TYPE, CKC_X_509)
        .addRaw(CKA_VALUE, nullptr, 9);
    EXPECT_EQ(create(wanted),
              (Outcome{CKR_OK,
                       {entered, attributeLine(CKA_ID), attributeLine(CKA_LABEL), attributeLine(CKA_CLASS),
                        attributeLine(CKA_VALUE), attributeLine(CKA_CERTIFICATE_TYPE), folderLine, leafOnlyLine},
                       imports("mail", {0, 7, 0})}));
    EXPECT_EQ(created, certificate(9));
}

TEST_F(CreationCertificateTest, LaterEntriesReplaceEarlierOnes) {
    Template wanted;
    wanted.add(CKA_VALUE, Bytes{1}).add(CKA_ID, Bytes{1, 2}).add(CKA_LABEL, "first label");
    wanted.add(CKA_VALUE, leaf).add(CKA_ID, Bytes{3}).add(CKA_LABEL, "mail");
    const Outcome outcome = create(wanted);
    EXPECT_EQ(outcome.code, CKR_OK);
    EXPECT_EQ(outcome.device, imports("mail", {3}));
}

TEST_F(CreationCertificateTest, ACertificateNeedsItsBytes) {
    unsigned char byte = 0;
    EXPECT_EQ(create(Template().add(CKA_LABEL, "mail").addRaw(CKA_VALUE, &byte, 0)),
              (Outcome{CKR_FUNCTION_FAILED,
                       {entered, attributeLine(CKA_LABEL), "ERROR Certificate data not available in create object"}}));
    EXPECT_EQ(created, untouched);
}

TEST_F(CreationCertificateTest, ACertificateMustFitIntoTheRecord) {
    const Bytes longest = countingBytes(0, 3072);
    world.certificateDetails[longest] = makeDetails("Bob", "CN=Root");
    const Outcome taken = create(Template().add(CKA_VALUE, longest).add(CKA_LABEL, "long"));
    EXPECT_EQ(taken.code, CKR_OK);
    EXPECT_EQ(taken.device, (Lines{readCertificate(longest), scanFolder(folder), importCertificate(longest, "long"),
                                   listCertificates, listKeyPairs}));
    const Bytes tooLong = countingBytes(0, 3073);
    world.certificateDetails[tooLong] = makeDetails("Bob", "CN=Root");
    const Outcome outcome = create(Template().add(CKA_VALUE, tooLong).add(CKA_LABEL, "long"));
    expectOneError(outcome, CKR_DATA_LEN_RANGE, "C_CreateObject");
    EXPECT_EQ(outcome.device, Lines{});
    EXPECT_EQ(created, untouched);
}

TEST_F(CreationCertificateTest, AnUnreadableCertificateIsRefused) {
    world.certificateDetails.clear();
    EXPECT_EQ(
        createMail(),
        (Outcome{CKR_DATA_INVALID,
                 {entered, attributeLine(CKA_VALUE), attributeLine(CKA_LABEL), "DEBUG certificate parsing failed"},
                 {readCertificate(leaf)}}));
    EXPECT_EQ(created, untouched);
}

TEST_F(CreationCertificateTest, AFailedImportIsReported) {
    for (const auto& [result, code] : importFailures) {
        world.results["zentak_importCertificate"] = result;
        EXPECT_EQ(createMail(),
                  (Outcome{code,
                           mailLines + Lines{leafOnlyLine, text(importFailed, result)},
                           {readCertificate(leaf), scanFolder(folder), importCertificate(leaf, "mail")}}));
        EXPECT_EQ(created, untouched);
    }
}

TEST_F(CreationCertificateTest, TheHandleComesFromTheList) {
    ZentakCertificate twin = labelledCertificate(0, "twin");
    std::copy_n(labelledCertificate(9, "").certId, sizeof twin.certId, twin.certId);
    world.certificates["SN1"] = {certificateFive, twin, labelledCertificate(9, "later")};
    EXPECT_EQ(createMail().code, CKR_OK);
    EXPECT_EQ(created, certificate(0));

    world.certificates["SN1"] = {certificateFive, certificateSeven};
    const Outcome outcome = createMail();
    EXPECT_EQ(outcome.code, CKR_OK);
    EXPECT_EQ(outcome.device.back(), listKeyPairs);
    EXPECT_EQ(created, untouched);

    world.importedCertificateId = countingBytes(0x49, 15);  // all sixteen bytes are compared
    world.certificates["SN1"] = {labelledCertificate(9, "nearly")};
    EXPECT_EQ(createMail().code, CKR_OK);
    EXPECT_EQ(created, untouched);
}

TEST_F(CreationCertificateTest, NeitherLoginNorAWritableSessionIsNeeded) {
    session = reopen(session, CKS_RO_PUBLIC_SESSION, fipsSlot);
    const Outcome outcome = createMail();
    EXPECT_EQ(outcome.code, CKR_OK);
    EXPECT_EQ(outcome.device,
              (Lines{readCertificate(leaf), scanFolder(folder), importCertificate(leaf, "mail", {}, "", "SN2"),
                     "zentak_getCertificateList(\"SN2\", instance)", "zentak_getKeyPairList(\"SN2\", instance)"}));
}

// --- Labels ---------------------------------------------------------------------------------------------------------

TEST_F(CreationCertificateTest, LabelsAreTrimmed) {
    addUnnamedKeyPair();
    EXPECT_EQ(create(Template().add(CKA_VALUE, leaf).add(CKA_LABEL, " \t\n\r\f\vmy  mail \v\f\r\n\t")),
              (Outcome{CKR_OK, mailLines + Lines{leafOnlyLine} + naming("my  mail"),
                       imports("my  mail", {}, {nameKeyPair(5, "my  mail")})}));
}

TEST_F(CreationCertificateTest, ABlankLabelIsNone) {
    const Outcome outcome = create(Template().add(CKA_VALUE, leaf).add(CKA_LABEL, " \t\n\r\f\v"));
    EXPECT_EQ(outcome.log, (Lines{entered, attributeLine(CKA_VALUE), attributeLine(CKA_LABEL),
                                  "DEBUG Label not provided, using: Alice_CN=Root", folderLine, leafOnlyLine}));
    ASSERT_EQ(outcome.device.size(), 5U);
    EXPECT_EQ(outcome.device[2], importCertificate(leaf, "Alice_CN=Root"));
}

TEST_F(CreationCertificateTest, ALabelIsCountedBytes) {
    char label[] = {'m', 'a', 'i', 'l', 'x'};
    const Outcome outcome = create(Template().add(CKA_VALUE, leaf).addRaw(CKA_LABEL, label, 4));
    ASSERT_EQ(outcome.device.size(), 5U);
    EXPECT_EQ(outcome.device[2], importCertificate(leaf, "mail"));
}

TEST_F(CreationCertificateTest, AGivenLabelIsCutInTheRecordAlone) {
    addUnnamedKeyPair();
    for (const std::size_t length : {128U, 129U, 160U, 300U}) {
        const std::string label(length, 'x');
        Template wanted;
        wanted.add(CKA_VALUE, leaf).add(CKA_LABEL, (" " + label + " ").c_str()).add(CKA_ID, countingBytes(0, length));
        EXPECT_EQ(create(wanted),
                  (Outcome{CKR_OK,
                           Lines{entered, attributeLine(CKA_VALUE), attributeLine(CKA_LABEL), attributeLine(CKA_ID),
                                 folderLine, leafOnlyLine} +
                               naming(label),
                           imports(std::string(128, 'x'), countingBytes(0, 128), {nameKeyPair(5, label)})}));
    }
}

TEST_F(CreationCertificateTest, AComputedLabelIsCutForGood) {
    world.keyPairs["SN1"] = {labelledKeyPair(5, "")};
    leafDetails(std::string(100, 'a'), std::string(100, 'b'), publicKeyOf(keyFive));
    const std::string label = std::string(100, 'a') + "_" + std::string(27, 'b');
    EXPECT_EQ(create(Template().add(CKA_VALUE, leaf)),
              (Outcome{CKR_OK,
                       Lines{entered, attributeLine(CKA_VALUE), "DEBUG Label not provided, using: " + label, folderLine,
                             leafOnlyLine} +
                           naming(label),
                       imports(label, {}, {nameKeyPair(5, label)})}));
}

TEST_F(CreationCertificateTest, ALabelOfEmptyTextsIsAnUnderscore) {
    leafDetails("", "");
    EXPECT_EQ(
        create(Template().add(CKA_VALUE, leaf)).log,
        (Lines{entered, attributeLine(CKA_VALUE), "DEBUG Label not provided, using: _", folderLine, leafOnlyLine}));
}

// --- The name of the key pair ---------------------------------------------------------------------------------------

TEST_F(CreationCertificateTest, OnlyAKeyPairWithoutANameIsNamed) {
    leafDetails("Alice", "CN=Root", publicKeyOf(keyFive));
    EXPECT_EQ(createMail().log, mailLines + Lines{leafOnlyLine});
    for (const char* alias : {"", " ", " \t\n\r\f\v "}) {
        world.keyPairs["SN1"] = {keySix, labelledKeyPair(5, alias)};
        const Outcome outcome = createMail();
        EXPECT_EQ(outcome.code, CKR_OK);
        EXPECT_EQ(outcome.log, mailLines + Lines{leafOnlyLine} + naming("mail"));
        EXPECT_EQ(outcome.device.back(), nameKeyPair(5, "mail"));
    }
}

TEST_F(CreationCertificateTest, TheWholeKeyMustBeTheSame) {
    const ZentakKeyPair unnamed = labelledKeyPair(5, "");
    world.keyPairs["SN1"] = {unnamed};
    Bytes shorter = publicKeyOf(unnamed);
    shorter.pop_back();
    Bytes longer = publicKeyOf(unnamed);
    longer.push_back(0);
    Bytes other = publicKeyOf(unnamed);
    other.back() ^= 1U;
    for (const Bytes& key : {shorter, longer, other}) {
        leafDetails("Alice", "CN=Root", key);
        const Outcome outcome = createMail();
        EXPECT_EQ(outcome.log, mailLines + Lines{leafOnlyLine});
        EXPECT_EQ(outcome.device.back(), listKeyPairs);
    }
}

TEST_F(CreationCertificateTest, OnlyTheFirstKeyPairWithTheKeyIsLookedAt) {
    ZentakKeyPair twin = labelledKeyPair(6, "");
    setPublicKey(twin, publicKeyOf(keyFive));
    leafDetails("Alice", "CN=Root", publicKeyOf(keyFive));
    world.keyPairs["SN1"] = {keyFive, twin};
    EXPECT_EQ(createMail().device.back(), listKeyPairs);
    world.keyPairs["SN1"] = {twin, labelledKeyPair(5, "")};
    const Outcome outcome = createMail();
    EXPECT_EQ(outcome.device.back(), nameKeyPair(6, "mail"));
    EXPECT_EQ(outcome.device.size(), 6U);
}

TEST_F(CreationCertificateTest, WithoutAPasswordTheNameIsOnlyAnnounced) {
    addUnnamedKeyPair();
    session = reopen(session, CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(createMail(), (Outcome{CKR_OK,
                                     mailLines + Lines{leafOnlyLine} + naming("mail"),
                                     {readCertificate(leaf), scanFolder(folder),
                                      importCertificate(leaf, "mail", {}, ""), listCertificates, listKeyPairs}}));
    EXPECT_EQ(created, certificate(9));
}

TEST_F(CreationCertificateTest, AFailedNamingDoesNotMatter) {
    addUnnamedKeyPair();
    world.results["zentak_updateKeyPairDetails"] = 40;
    const Outcome outcome = createMail();
    EXPECT_EQ(outcome.code, CKR_OK);
    EXPECT_EQ(outcome.log, mailLines + Lines{leafOnlyLine} + naming("mail"));
    EXPECT_EQ(outcome.device.back(), nameKeyPair(5, "mail"));
    EXPECT_EQ(created, certificate(9));
}

// --- The folder of the authorities ----------------------------------------------------------------------------------

TEST_F(CreationCertificateTest, TheFolderIsBelowTheInstallation) {
    for (const char* value : {"relative", "/with blank", "C:\\Zentak\\"}) {
        setEnvironment("ZENTAK_HOME", value);
        const std::string expected = text(value, "\\ZentakDSC\\Certificates");
        const Outcome outcome = createMail();
        EXPECT_EQ(outcome.log, (Lines{entered, attributeLine(CKA_VALUE), attributeLine(CKA_LABEL),
                                      "DEBUG CA Folder: " + expected, leafOnlyLine}));
        EXPECT_EQ(outcome.device[1], scanFolder(expected));
    }
}

TEST_F(CreationCertificateTest, WithoutAHomeTheInstallationIsLookedFor) {
    std::string installation = programFile().parent_path().string();
    for (const char* usual :
         {"C:/Program Files/Dravenko Sentronics/Zentak", "C:/Program Files (x86)/Dravenko Sentronics/Zentak"}) {
        if (std::filesystem::exists(usual)) installation = usual;
    }
    const std::string expected = installation + "\\ZentakDSC\\Certificates";
    for (const std::optional<std::string>& value : {std::optional<std::string>(), std::optional<std::string>("")}) {
        setEnvironment("ZENTAK_HOME", value);
        const Outcome outcome = createMail();
        EXPECT_EQ(outcome.code, CKR_OK);
        EXPECT_EQ(outcome.log, (Lines{entered, attributeLine(CKA_VALUE), attributeLine(CKA_LABEL),
                                      "DEBUG ZENTAK_HOME not set \u2014 Using Windows defaults",
                                      "DEBUG CA Folder: " + expected, leafOnlyLine}));
        EXPECT_EQ(outcome.device[1], scanFolder(expected));
    }
}

// --- Exceptions -----------------------------------------------------------------------------------------------------

TEST_F(CreationCertificateTest, AThrowingUpdateOfTheKeyPairIsOnlyLogged) {
    addUnnamedKeyPair();
    const Outcome undisturbed = createMail();
    ASSERT_EQ(undisturbed.code, CKR_OK);
    ASSERT_EQ(undisturbed.log.back(), "DEBUG Updating empty key pair alias to: mail");
    for (const ThrownCode& row : thrownCodes) {
        letThrow("zentak_updateKeyPairDetails", row.thrown);
        Outcome expected = undisturbed;
        expected.log.push_back(ignoredLine("C_CreateObject", "zentak_updateKeyPairDetails", row.thrown));
        EXPECT_EQ(createMail(), expected);
        EXPECT_EQ(created, certificate(9));
    }
}

// The library may give up its list in the very call that is given a reference out of it.
TEST_F(CreationCertificateTest, TheReferenceOfTheNamedKeyPairIsTheModulesOwn) {
    addUnnamedKeyPair();
    Bytes reference;
    world.addFault({.operation = "zentak_updateKeyPairDetails", .action = [&] {
                        for (ZentakKeyPair& record : world.hidden().keyPairList) record = labelledKeyPair(8, "");
                        const unsigned char* const given = world.hidden().keyReferenceGiven;
                        reference.assign(given, given + sizeof(ZentakKeyPair::keyId));
                    }});
    ASSERT_EQ(createMail().code, CKR_OK);
    EXPECT_EQ(reference, countingBytes(5, 16));
}

}  // namespace
