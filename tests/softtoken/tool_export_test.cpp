// Getting certificates out of a token by the tool.

#include "test_certificates.h"
#include "tool_test.h"

namespace softtoken {

namespace {

class ToolExportTest : public ToolTest {
protected:
    ToolExportTest() {
        create();
        import("first", own_);
        import("second", authority_);
    }

    void import(const std::string& label, const Bytes& der) {
        const std::string path = file(label, {der.begin(), der.end()});
        outputOf("import --label " + label + " --id 0" + std::to_string(++count_) + " --certificate " + path);
    }

    [[nodiscard]] std::string output() const { return (folder_.path() / "exported").string(); }

    int count_ = 0;
    const Bytes own_ = makeCertificate(testKey(5));
    const Bytes authority_ = makeCertificate(testKey(6));
};

TEST_F(ToolExportTest, CertificatesComeOutAsTheyWentIn) {
    // No PIN is needed for what is public.
    setEnvironment("ZENTAK_PIN", "");
    for (const char* choice : {"--number 2", "--label second", "--id 02", "--label second --id 02 --number 2"}) {
        EXPECT_EQ(outputOf("export-certificate " + std::string(choice)), pemCertificate(authority_));
    }
    EXPECT_EQ(run("export-certificate Demo --all").output, pemCertificate(own_) + pemCertificate(authority_));
}

TEST_F(ToolExportTest, FilesAreWrittenAsPemAndDer) {
    const std::string target = " --output \"" + output() + "\"";
    EXPECT_EQ(outputOf("export-certificate --number 1" + target), "");
    EXPECT_EQ(fileContent(output()), pemCertificate(own_));
    outputOf("export-certificate --number 1 --der" + target);
    EXPECT_EQ(fileContent(output()), std::string(own_.begin(), own_.end()));
}

TEST_F(ToolExportTest, Refusals) {
    expectError("export-certificate", "2 certificates fit: name one by --number, or take --all");
    expectError("export-certificate --label none", "the token has no such certificate");
    expectError("export-certificate --number 3", "the token has no such certificate");
    expectError("export-certificate --number 0", "--number");
    expectError("export-certificate --id xy", "hexadecimal");
    expectError("export-certificate --number 1 --der", "--output");
    expectError("export-certificate --number 1 --output \"" + (folder_.path() / "none" / "x").string() + "\"",
                "cannot write");
    expectError("export-certificate other --all", "there is no token other");
}

}  // namespace

}  // namespace softtoken
