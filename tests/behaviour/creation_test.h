/// What the tests of C_CreateObject share: a certificate that the device library can read, authorities in the
/// certificate authority folder, and the calls that an import makes.

#ifndef ZENTAK_TESTS_BEHAVIOUR_CREATION_TEST_H
#define ZENTAK_TESTS_BEHAVIOUR_CREATION_TEST_H

#include <cstdlib>
#include <optional>

#include "object_test.h"
#include "run_folder.h"

namespace support {

inline std::string attributeLine(CK_ATTRIBUTE_TYPE type) {
    return text("DEBUG C_CreateObject - attrip type : ", type);
}

inline const std::string leafOnlyLine = "DEBUG Chain import skipped or failed \u2014 Performing normal leaf import";
inline const std::string importedLine = "DEBUG Certificate imported successfully";

inline std::string notFoundLine(const std::string& name) {
    return "DEBUG Issuer '" + name + "' NOT found \u2014 skipping chain import";
}

inline std::string readCertificate(const Bytes& der) {
    return "zentak_getCertificateDetails(" + shown(der) + ", out, null)";
}

inline std::string scanFolder(const std::string& folder) {
    return text("zentak_getFilesWithExtensionsAndConvertDER(\"", folder,
                "\", [\".cer\", \".der\", \".pem\", \".crt\"], null)");
}

inline std::string importCertificate(const Bytes& der, const std::string& label, const Bytes& id = {},
                                     const std::string& pin = "246810", const std::string& token = "SN1") {
    return text("zentak_importCertificate(\"", token, "\", \"", pin, "\", {der=<", hexadecimal(der), ">, objectId=<",
                hexadecimal(id), ">, label=\"", label, "\"}, instance)");
}

/// Naming the key pair with that id.
inline std::string nameKeyPair(std::uint32_t id, const std::string& label, const std::string& pin = "246810") {
    return text("zentak_updateKeyPairDetails(\"SN1\", ", shownKeyReference(id), ", \"", pin, "\", \"", label,
                "\", null, 0, instance)");
}

/// Results of an import, and the codes that they become.
inline const std::pair<int, CK_RV> importFailures[] = {
    {40, CKR_DEVICE_MEMORY},  {242, CKR_DEVICE_MEMORY},   {39, CKR_FUNCTION_FAILED},  {41, CKR_FUNCTION_FAILED},
    {1, CKR_FUNCTION_FAILED}, {-40, CKR_FUNCTION_FAILED}, {-242, CKR_FUNCTION_FAILED}};

/// A user is logged in; the next certificate that is imported becomes number 9 of the token's list, and nobody's key
/// belongs to it.
class CreationTest : public ObjectTest {
protected:
    static constexpr CK_OBJECT_HANDLE untouched = 0xEEEEEEEE;

    void SetUp() override {
        ObjectTest::SetUp();
        if (const char* value = std::getenv("ZENTAK_HOME")) originalHome_ = value;
        setEnvironment("ZENTAK_HOME", home);
        leafDetails("Alice", "CN=Root");
        world.importedCertificateId = countingBytes(0x49, 16);
        world.certificates["SN1"].push_back(labelledCertificate(9, "Certificate nine"));
        session = openSessionIn(CKS_RW_USER_FUNCTIONS);
    }

    void TearDown() override {
        setEnvironment("ZENTAK_HOME", originalHome_);
        ObjectTest::TearDown();
    }

    Outcome create(Template& wanted) { return createIn(session, wanted); }
    Outcome createIn(CK_SESSION_HANDLE where, Template& wanted) {
        created = untouched;
        return observe([&] { return api->C_CreateObject(where, wanted.data(), wanted.count(), &created); });
    }
    /// Creation of the leaf with the label "mail".
    Outcome createMail() {
        Template wanted;
        wanted.add(CKA_VALUE, leaf).add(CKA_LABEL, "mail");
        return create(wanted);
    }

    void leafDetails(const std::string& subjectCommonName, const std::string& issuer,
                     const Bytes& publicKey = {1, 2, 3}) {
        world.certificateDetails[leaf] = makeDetails(subjectCommonName, issuer, publicKey);
        world.certificateDetails[leaf].subject = "CN=Alice";
    }

    /// A file in the folder, whose certificate the device library can read.
    void addAuthority(const Bytes& der, const std::string& subject, const std::string& issuer) {
        world.files.emplace_back("file.cer", der);
        CertificateDetails details = makeDetails("unused", issuer);
        details.subject = subject;
        world.certificateDetails[der] = details;
    }

    void setResultOfCall(const std::string& operation, int nth, int result) {
        world.addFault({.operation = operation, .nth = nth, .result = result});
    }

    const std::string home = "/opt/zentak";
    const std::string folder = "/opt/zentak\\ZentakDSC\\Certificates";
    const std::string folderLine = "DEBUG CA Folder: " + folder;
    /// What `createMail` logs before anything is imported.
    const Lines mailLines = {"DEBUG C_CreateObject", attributeLine(CKA_VALUE), attributeLine(CKA_LABEL), folderLine};
    const Bytes leaf = {0x30, 0x03, 0xDE, 0x01, 0x01};
    CK_SESSION_HANDLE session = 0;
    CK_OBJECT_HANDLE created = untouched;  ///< behind `phObject` after the last call

private:
    std::optional<std::string> originalHome_;
};

}  // namespace support

#endif
