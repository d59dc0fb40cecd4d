// The tool's command lines, with the program itself.

#include "tool_test.h"

#include "test_certificates.h"

namespace softtoken {

namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;

TEST_F(ToolTest, CreatePrintsSerialNumberAndLabel) {
    const Answer answer = run("create --label \"My token\" --kdf-cost 1");
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
    outputOf("import --key " + key + " --pin-file " + pin);
}

TEST_F(ToolTest, FileOfAPinHasALimit) {
    const std::string limit(65536, '\n');
    outputOf("create --label Short --kdf-cost 1 --pin-file " + file("pin", "1234" + limit.substr(4)));
    expectError("create --label Long --pin-file " + file("pin", "1234" + limit), "pin is larger than 65536 bytes");
}

TEST_F(ToolTest, PlugAndUnplug) {
    const std::string serialNumber = create();
    const Store store(folder_.path() / "tokens");
    outputOf("unplug");
    EXPECT_FALSE(store.isPlugged(serialNumber));
    EXPECT_FALSE(jsonOf("list --json")[0]["plugged"].get<bool>());
    outputOf("unplug Demo");
    outputOf("plug " + serialNumber);
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
    outputOf("set-pin");
    EXPECT_NO_THROW(store.checkPin(serialNumber, Role::user, "654321"));
    expectError("set-pin", "the PIN is wrong");
    for (int i = 0; i < 4; ++i) EXPECT_THROW(store.checkPin(serialNumber, Role::user, "000000"), PinFailure);
    expectError("set-pin", "locked");
    outputOf("unlock --new-pin-file " + file("new", "abcdef"));
    EXPECT_NO_THROW(store.checkPin(serialNumber, Role::user, "abcdef"));
    outputOf("set-pin --so");
    EXPECT_NO_THROW(store.checkPin(serialNumber, Role::officer, "654321"));
    expectError("unlock", "the PIN is wrong");
}

TEST_F(ToolTest, RemoveAsksForCertainty) {
    create();
    expectError("remove", "--yes");
    EXPECT_EQ(jsonOf("list --json").size(), 1U);
    outputOf("remove --yes");
    EXPECT_EQ(jsonOf("list --json").size(), 0U);
}

TEST_F(ToolTest, DamagedTokenIsShownAsSuchAndNotTouched) {
    const std::string serialNumber = create();
    const fs::path path = Store(folder_.path() / "tokens").pluggedTokenFile(serialNumber);
    writeFile(path, "{}");
    const Json tokens = jsonOf("list --json", 1);
    EXPECT_FALSE(tokens.at(0)["usable"].get<bool>());
    expectError("show", "damaged");
    expectError("import --key " + file("key.pem", pemPrivateKey(testKey(5))), "damaged");
    EXPECT_EQ(fileContent(path), "{}");
}

TEST_F(ToolTest, UnknownVersionIsNamedAndNotTouched) {
    const std::string serialNumber = create();
    const fs::path path = Store(folder_.path() / "tokens").pluggedTokenFile(serialNumber);
    std::string content = fileContent(path);
    content.replace(content.find('2'), 1, "3");
    writeFile(path, content);
    const std::string reason = "the token's file is of version 3, this program knows version 1 to 2";
    EXPECT_EQ(jsonOf("list --json", 1).at(0)["reason"], reason);
    EXPECT_EQ(run("list").output, serialNumber + "  plugged in  unusable: " + reason + "\n");
    for (const char* command : {"show", "set-pin", "unlock", "generate", "export-certificate"}) {
        expectError(command, reason);
    }
    EXPECT_EQ(fileContent(path), content);
}

TEST_F(ToolTest, GenerateMakesKeysOfEveryKind) {
    const std::string serialNumber = create();
    for (const char* kind : {"rsa-2048", "p-256", "p-384", "p-521"}) {
        outputOf("generate --label " + std::string(kind) + " --type " + kind);
    }
    outputOf("generate Demo --type p-256 --id 0aFF --usage sign");
    const Json keys = jsonOf("show --json")["keyPairs"];
    ASSERT_EQ(keys.size(), 5U);
    EXPECT_EQ(keys[0]["type"], "RSA 2048");
    EXPECT_EQ(keys[0]["label"], "rsa-2048");
    EXPECT_EQ(keys[0]["objectId"].get<std::string>().size(), 40U);
    EXPECT_EQ(keys[3]["type"], "EC P-521");
    EXPECT_EQ(keys[4]["objectId"], "0AFF");
    EXPECT_FALSE(keys[4]["decrypt"].get<bool>());
    expectError("generate --type rsa-1024", "--type");
    expectError("generate --type p-256 --id 0", "hexadecimal");
    setEnvironment("ZENTAK_PIN", "000000");
    expectError("generate --type p-256", "the PIN is wrong, attempts left: 4");
    EXPECT_EQ(jsonOf("show --json")["keyPairs"].size(), 5U);
}

TEST_F(ToolTest, LongWorkIsAnnounced) {
    const std::string line = "zentak-token: making the token ...\n";
    const auto said = [&] {
        std::string text = fileContent(folder_.path() / "errors");
        std::erase(text, '\r');
        return text;
    };
    create();
    Answer slow;
    {
        // It is kept from its work until the line is there.
        std::optional<FileLock> lock(std::in_place, folder_.path() / "tokens" / "lock");
        std::thread tool([&] { slow = run("create --label Slow --kdf-cost 1"); });
        const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (said() != line && std::chrono::steady_clock::now() < patience) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        lock.reset();
        tool.join();
    }
    EXPECT_EQ(slow.exitCode, 0);
    EXPECT_EQ(slow.errors, line);
    const Answer quick = run("create --label Quick --kdf-cost 1");
    EXPECT_EQ(quick.errors, "");
}

TEST_F(ToolTest, NamesCannotMoveTheCursor) {
    create();
    Store store(folder_.path() / "tokens");
    store.change(store.plugged().at(0), [](TokenData& token) { token.label = "a\x1B[2Jb\nc"; });
    EXPECT_NE(run("list").output.find("a?[2Jb?c\n"), std::string::npos);
    EXPECT_NE(run("show").output.find("label: a?[2Jb?c\n"), std::string::npos);
    EXPECT_EQ(jsonOf("list --json").at(0)["label"], "a\x1B[2Jb\nc");
    expectError("show \"\x1B[2J\"", "there is no token ?[2J");
}

/// Some terminals take U+0080 to U+009F for commands, and marks of direction turn around what follows them.
TEST_F(ToolTest, NothingButTextReachesTheTerminal) {
    create();
    Store store(folder_.path() / "tokens");
    const auto shownAs = [&](const std::string& label) {
        store.change(store.plugged().at(0), [&](TokenData& token) { token.label = label; });
        const std::string shown = run("list").output;
        const std::string before = "plugged in  ";
        const std::size_t begin = shown.find(before) + before.size();
        EXPECT_EQ(run("show").output.find("label: " + shown.substr(begin)) == std::string::npos, false);
        return shown.substr(begin, shown.size() - 1 - begin);
    };
    const std::vector<std::string> harmful = {"\x7F",         "\xC2\x80",     "\xC2\x9B",     "\xC2\x9F",
                                              "\xD8\x9C",     "\xE2\x80\x8E", "\xE2\x80\x8F", "\xE2\x80\xAA",
                                              "\xE2\x80\xAE", "\xE2\x81\xA6", "\xE2\x81\xA9"};
    const std::vector<std::string> escaped = {"\\u007f", "\\u0080", "\\u009b", "\\u009f", "\\u061c", "\\u200e",
                                              "\\u200f", "\\u202a", "\\u202e", "\\u2066", "\\u2069"};
    for (std::size_t i = 0; i < harmful.size(); ++i) {
        const std::string label = "a" + harmful[i] + "b";
        EXPECT_EQ(shownAs(label), "a?b");
        for (const char* command : {"list --json", "show --json"}) {
            const std::string json = run(command).output;
            EXPECT_EQ(json.find(harmful[i]), std::string::npos) << escaped[i];
            EXPECT_NE(json.find("\"a" + escaped[i] + "b\""), std::string::npos) << json;
        }
        EXPECT_EQ(jsonOf("list --json").at(0)["label"], label);
    }
    // Neighbours of these, and characters of every length.
    const std::string text =
        "~\xC2\xA0\xC3\xBC\xD8\x9B\xE2\x80\x8D\xE2\x80\xA9\xE2\x80\xAF\xE2\x81\xAA\xE2\x82\xAC\xF0\x9F\x94\x91";
    EXPECT_EQ(shownAs(text), text);
    EXPECT_NE(run("list --json").output.find(text), std::string::npos);
    // Not UTF-8: alone, cut off, longer than need be, a surrogate, beyond the last character.
    EXPECT_EQ(shownAs("a\x9Bz"), "a?z");
    EXPECT_EQ(shownAs("a\xE2\x82"), "a??");
    EXPECT_EQ(shownAs("a\xC0\xAFz"), "a??z");
    EXPECT_EQ(shownAs("a\xE0\x80\xAFz"), "a???z");
    EXPECT_EQ(shownAs("a\xED\xA0\x80z"), "a???z");
    EXPECT_EQ(shownAs("a\xF4\x90\x80\x80z"), "a????z");
    EXPECT_EQ(shownAs("a\xFFz"), "a?z");
    EXPECT_EQ(jsonOf("list --json").at(0)["label"], "a\xEF\xBF\xBDz");
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
    for (const char* command : {"", "create", "list", "show", "generate", "import", "export-certificate", "plug",
                                "unplug", "set-pin", "unlock", "remove", "verify", "repair"}) {
        const Answer answer = run(std::string(command) + " --help");
        EXPECT_EQ(answer.exitCode, 0) << command;
        EXPECT_NE(answer.output.find("Usage: "), std::string::npos) << command;
        EXPECT_EQ(answer.errors, "");
    }
}

}  // namespace

}  // namespace softtoken
