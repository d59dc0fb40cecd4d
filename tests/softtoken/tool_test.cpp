// The tool's command lines, with the program itself.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "certificates.h"
#include "platform.h"
#include "test_certificates.h"
#include "token_test.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/wait.h>
#endif

namespace softtoken {

namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;

/// The folder of the test program, where the tool lies too.
fs::path programFolder() {
#ifdef _WIN32
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return fs::path(path).parent_path();
#else
    return fs::read_symlink("/proc/self/exe").parent_path();
#endif
}

class ToolTest : public testing::Test {
protected:
    struct Answer {
        int exitCode;
        std::string output;
        std::string errors;
    };

    ToolTest() {
        setEnvironment("ZENTAK_TOKENS", (folder_.path() / "tokens").string());
        setEnvironment("ZENTAK_PIN", "123456");
        setEnvironment("ZENTAK_SO_PIN", "98765432");
        setEnvironment("ZENTAK_NEW_PIN", "");
    }
    ~ToolTest() override {
        for (const char* name : {"ZENTAK_PIN", "ZENTAK_SO_PIN", "ZENTAK_NEW_PIN", "ZENTAK_FILE_PASSWORD"}) {
            setEnvironment(name, "");
        }
    }

    Answer run(const std::string& arguments) {
        const fs::path output = folder_.path() / "output";
        const fs::path errors = folder_.path() / "errors";
#ifdef _WIN32
        const std::string nothing = "NUL";
        const std::string program = (programFolder() / "zentak-token.exe").string();
        // The shell takes the outermost quotes away.
        const std::string line = "\"\"" + program + "\" " + arguments + " <" + nothing + " >\"" + output.string() +
                                 "\" 2>\"" + errors.string() + "\"\"";
        const int exitCode = std::system(line.c_str());
#else
        const std::string program = (programFolder() / "zentak-token").string();
        const std::string line =
            "'" + program + "' " + arguments + " </dev/null >'" + output.string() + "' 2>'" + errors.string() + "'";
        const int status = std::system(line.c_str());
        const int exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
        return {exitCode, fileContent(output), fileContent(errors)};
    }

    /// Fails with one clear line.
    void expectError(const std::string& arguments, const std::string& text) {
        const Answer answer = run(arguments);
        EXPECT_NE(answer.exitCode, 0) << arguments;
        EXPECT_NE(answer.errors.find(text), std::string::npos) << answer.errors;
        EXPECT_EQ(answer.errors.find("zentak-token: "), 0U) << answer.errors;
        EXPECT_EQ(std::count(answer.errors.begin(), answer.errors.end(), '\n'), 1) << answer.errors;
        EXPECT_EQ(answer.output, "");
    }

    std::string create(const std::string& options = "") {
        const Answer answer = run("create --label Demo --kdf-iterations 1 --json " + options);
        EXPECT_EQ(answer.exitCode, 0) << answer.errors;
        const Json json = Json::parse(answer.output, nullptr, false);
        EXPECT_TRUE(json.is_object()) << answer.output;
        return json.value("serialNumber", "");
    }

    Json jsonOf(const std::string& arguments) {
        const Answer answer = run(arguments);
        EXPECT_EQ(answer.exitCode, 0) << answer.errors;
        return Json::parse(answer.output, nullptr, false);
    }

    /// Writes a file and answers its path in quotes.
    std::string file(const std::string& name, const std::string& content) {
        writeFile(folder_.path() / name, content);
        return "\"" + (folder_.path() / name).string() + "\"";
    }

    TemporaryFolder folder_;
};

TEST_F(ToolTest, CreatePrintsSerialNumberAndLabel) {
    const Answer answer = run("create --label \"My token\" --kdf-iterations 1");
    EXPECT_EQ(answer.exitCode, 0);
    const Json tokens = jsonOf("list --json");
    ASSERT_EQ(tokens.size(), 1U);
    EXPECT_EQ(answer.output, "Serial number: " + tokens[0]["serialNumber"].get<std::string>() + "\nLabel: My token\n");
    EXPECT_EQ(answer.errors, "");
}

TEST_F(ToolTest, CreateOptionsAreKept) {
    const std::string ordinary = create();
    const std::string fips = create("--fips --initial-pin --attempts 7");
    const std::string model = create("--model AB1C");
    const Store store(folder_.path() / "tokens");
    EXPECT_EQ(store.load(ordinary).model.at(2), '1');
    EXPECT_TRUE(store.load(ordinary).userPinChanged);
    EXPECT_NE(store.load(fips).model.at(2), '1');
    EXPECT_FALSE(store.load(fips).userPinChanged);
    EXPECT_EQ(store.loadAttempts(fips), (Attempts{7, 7}));
    EXPECT_EQ(store.load(model).model, "AB1C");
    EXPECT_EQ(jsonOf("list --json").size(), 3U);
}

TEST_F(ToolTest, StoreOptionWinsOverTheEnvironment) {
    const std::string store = " --store \"" + (folder_.path() / "other").string() + "\"";
    const std::string serialNumber = create(store);
    EXPECT_EQ(jsonOf("list --json").size(), 0U);
    EXPECT_EQ(jsonOf("list --json" + store).size(), 1U);
    EXPECT_TRUE(Store(folder_.path() / "other").isPlugged(serialNumber));
}

TEST_F(ToolTest, PinFromFileWinsOverTheEnvironment) {
    const std::string pin = file("pin", "secret pin\r\nsecond line\n");
    create("--pin-file " + pin);
    const std::string key = file("key.pem", pemPrivateKey(testKey(5)));
    expectError("import --key " + key, "the PIN is wrong, attempts left: 4");
    EXPECT_EQ(run("import --key " + key + " --pin-file " + pin).exitCode, 0);
}

TEST_F(ToolTest, ImportedKeyAndCertificateBelongTogether) {
    const std::string serialNumber = create();
    const std::string key = file("key.pem", pemPrivateKey(testKey(2)));
    const std::string certificate = file("certificate.pem", pemCertificate(makeCertificate(testKey(2))));
    const Answer answer = run("import --key " + key + " --certificate " + certificate + " --label mine --usage sign");
    EXPECT_EQ(answer.exitCode, 0) << answer.errors;
    const TokenData token = Store(folder_.path() / "tokens").load(serialNumber);
    ASSERT_EQ(token.keyPairs.size(), 1U);
    ASSERT_EQ(token.certificates.size(), 1U);
    EXPECT_EQ(token.keyPairs[0].alias, "mine");
    EXPECT_EQ(token.keyPairs[0].keyUsage, usageSign);
    EXPECT_EQ(token.certificates[0].label, "mine");
    // The identifier that certificates carry of their key by custom.
    const Certificate parsed = parseCertificate(token.certificates[0].der);
    const ASN1_BIT_STRING* const bits = X509_get0_pubkey_bitstr(parsed.get());
    Bytes expected(20);
    EVP_Digest(ASN1_STRING_get0_data(bits), static_cast<std::size_t>(ASN1_STRING_length(bits)), expected.data(),
               nullptr, EVP_sha1(), nullptr);
    EXPECT_EQ(token.keyPairs[0].objectId, expected);
    EXPECT_EQ(token.certificates[0].objectId, expected);
}

TEST_F(ToolTest, ImportTakesAnIdAndSeveralCertificates) {
    const std::string serialNumber = create();
    const std::string key = file("key.pem", pemPrivateKey(testKey(5)));
    const std::string own = file("own.pem", pemCertificate(makeCertificate(testKey(5))));
    const Bytes authority = makeCertificate(testKey(6));
    const std::string other = file("authority.der", {authority.begin(), authority.end()});
    EXPECT_EQ(run("import Demo --key " + key + " --certificate " + other + " --certificate " + own +
                  " --id 00aaFF --label mine")
                  .exitCode,
              0);
    const TokenData token = Store(folder_.path() / "tokens").load(serialNumber);
    ASSERT_EQ(token.certificates.size(), 2U);
    EXPECT_EQ(token.keyPairs.at(0).objectId, (Bytes{0x00, 0xAA, 0xFF}));
    EXPECT_EQ(token.certificates[0].label, "");
    EXPECT_EQ(token.certificates[1].objectId, (Bytes{0x00, 0xAA, 0xFF}));
    EXPECT_EQ(token.certificates[1].label, "mine");
}

TEST_F(ToolTest, CertificateAloneNeedsNoPin) {
    create();
    setEnvironment("ZENTAK_PIN", "");
    const std::string certificate = file("c.pem", pemCertificate(makeCertificate(testKey(5))));
    EXPECT_EQ(run("import --certificate " + certificate).exitCode, 0);
    EXPECT_EQ(jsonOf("show --json")["certificates"].size(), 1U);
}

TEST_F(ToolTest, ImportRefusals) {
    create();
    const std::string key = file("key.pem", pemPrivateKey(testKey(5)));
    const std::string text = file("text", "no key at all");
    expectError("import", "nothing to import");
    expectError("import --key " + text, "no private key can be read");
    expectError("import --certificate " + text, "not a certificate");
    expectError("import --certificate none.pem", "there is no file none.pem");
    expectError("import --key " + key + " --id 0", "hexadecimal");
    expectError("import --key " + key + " --usage fly", "usage");
    expectError("import 00 --key " + key, "there is no token 00");
    EXPECT_EQ(run("import --key " + key).exitCode, 0);
    expectError("import --key " + key, "holds this key already");
    setEnvironment("ZENTAK_PIN", "");
    expectError("import --key " + key, "--pin-file");
    setEnvironment("ZENTAK_PIN", "123");
    expectError("import --key " + key, "4 to 63");
    EXPECT_EQ(jsonOf("show --json")["keyPairs"].size(), 1U);
}

TEST_F(ToolTest, FailedImportChangesNothing) {
    const std::string serialNumber = create("--capacity 1");
    const std::string key = file("key.pem", pemPrivateKey(testKey(5)));
    const std::string certificates =
        file("c.pem", pemCertificate(makeCertificate(testKey(5))) + pemCertificate(makeCertificate(testKey(6))));
    expectError("import --key " + key + " --certificate " + certificates, "full");
    const TokenData token = Store(folder_.path() / "tokens").load(serialNumber);
    EXPECT_TRUE(token.keyPairs.empty());
    EXPECT_TRUE(token.certificates.empty());
}

TEST_F(ToolTest, PlugAndUnplug) {
    const std::string serialNumber = create();
    const Store store(folder_.path() / "tokens");
    EXPECT_EQ(run("unplug").exitCode, 0);
    EXPECT_FALSE(store.isPlugged(serialNumber));
    EXPECT_FALSE(jsonOf("list --json")[0]["plugged"].get<bool>());
    EXPECT_EQ(run("unplug Demo").exitCode, 0);
    EXPECT_EQ(run("plug " + serialNumber).exitCode, 0);
    EXPECT_TRUE(store.isPlugged(serialNumber));
    expectError("plug other", "there is no token other");
}

TEST_F(ToolTest, TokenMustBeNamedWhenThereAreSeveral) {
    create();
    create();
    expectError("unplug", "several");
    expectError("unplug Demo", "several tokens have the label Demo");
}

TEST_F(ToolTest, PinsAreChangedAndUnlocked) {
    const std::string serialNumber = create();
    Store store(folder_.path() / "tokens");
    setEnvironment("ZENTAK_NEW_PIN", "654321");
    EXPECT_EQ(run("set-pin").exitCode, 0);
    EXPECT_NO_THROW(store.checkPin(serialNumber, Role::user, "654321"));
    expectError("set-pin", "the PIN is wrong");
    for (int i = 0; i < 4; ++i) EXPECT_THROW(store.checkPin(serialNumber, Role::user, "000000"), PinFailure);
    expectError("set-pin", "locked");
    EXPECT_EQ(run("unlock --new-pin-file " + file("new", "abcdef")).exitCode, 0);
    EXPECT_NO_THROW(store.checkPin(serialNumber, Role::user, "abcdef"));
    EXPECT_EQ(run("set-pin --so").exitCode, 0);
    EXPECT_NO_THROW(store.checkPin(serialNumber, Role::officer, "654321"));
    expectError("unlock", "the PIN is wrong");
}

TEST_F(ToolTest, RemoveAsksForCertainty) {
    create();
    expectError("remove", "--yes");
    EXPECT_EQ(jsonOf("list --json").size(), 1U);
    EXPECT_EQ(run("remove --yes").exitCode, 0);
    EXPECT_EQ(jsonOf("list --json").size(), 0U);
}

TEST_F(ToolTest, DamagedTokenIsShownAsSuchAndNotTouched) {
    const std::string serialNumber = create();
    const fs::path path = Store(folder_.path() / "tokens").pluggedTokenFile(serialNumber);
    writeFile(path, "{}");
    const Json tokens = jsonOf("list --json");
    EXPECT_FALSE(tokens.at(0)["usable"].get<bool>());
    expectError("show", "damaged");
    expectError("import --key " + file("key.pem", pemPrivateKey(testKey(5))), "damaged");
    EXPECT_EQ(fileContent(path), "{}");
}

TEST_F(ToolTest, WrongCommandLines) {
    expectError("", "subcommand");
    expectError("create", "--label");
    expectError("create --label x --attempts 2", "--attempts");
    expectError("create --label x --nonsense", "--nonsense");
    expectError("create --label x --model 12345678901234567", "model");
    EXPECT_EQ(jsonOf("list --json").size(), 0U);
}

TEST_F(ToolTest, EveryCommandHasHelp) {
    for (const char* command :
         {"", "create", "list", "show", "import", "plug", "unplug", "set-pin", "unlock", "remove"}) {
        const Answer answer = run(std::string(command) + " --help");
        EXPECT_EQ(answer.exitCode, 0) << command;
        EXPECT_NE(answer.output.find("Usage: "), std::string::npos) << command;
        EXPECT_EQ(answer.errors, "");
    }
}

}  // namespace

}  // namespace softtoken
