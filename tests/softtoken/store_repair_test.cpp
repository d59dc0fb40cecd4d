// verify and repair: what is told about a token, what is mended, and what is left alone.

#include <functional>

#include "store/repair.h"
#include "test_certificates.h"
#include "tool_test.h"

namespace softtoken {

namespace {

namespace fs = std::filesystem;

using Json = nlohmann::json;
using Lines = std::vector<std::string>;

class StoreRepairTest : public ToolTest {
protected:
    StoreRepairTest() : store_(folder_.path() / "tokens"), serialNumber_(create()) {}

    [[nodiscard]] fs::path tokenFile() const { return store_.folderOf(serialNumber_) / "token"; }
    [[nodiscard]] fs::path attemptsFile() const { return store_.folderOf(serialNumber_) / "attempts"; }
    [[nodiscard]] Lines faults() const { return faultsOf(store_, serialNumber_); }

    /// Nothing in the store is touched by it.
    void expectNotRepaired(const std::string& reason) {
        const auto before = filesBelow(folder_.path() / "tokens");
        EXPECT_EQ(run("repair"), (Answer{1, serialNumber_ + "  not repaired: " + reason + "\n",
                                         "zentak-token: 1 of 1 tokens can't be repaired\n"}));
        EXPECT_EQ(filesBelow(folder_.path() / "tokens"), before);
    }

    void expectFault(const std::string& fault) {
        EXPECT_EQ(run("verify"), (Answer{1, serialNumber_ + "  plugged in  faulty: " + fault + "\n",
                                         "zentak-token: 1 of 1 tokens are faulty\n"}));
    }

    Store store_;
    std::string serialNumber_;
};

std::string flipped(std::string content) {
    content[content.size() / 2] = static_cast<char>(content[content.size() / 2] ^ 1);
    return content;
}

TEST_F(StoreRepairTest, NothingIsWrong) {
    const std::string other = create();
    store_.unplug(other);
    outputOf("generate " + other + " --type p-256");
    const std::string token = fileContent(tokenFile());
    EXPECT_EQ(run("verify"),
              (Answer{0, serialNumber_ + "  plugged in  in order\n" + other + "  unplugged   in order\n", ""}));
    EXPECT_EQ(jsonOf("verify --json " + other),
              (Json::array({{{"serialNumber", other}, {"plugged", false}, {"faults", Json::array()}}})));
    // Used up attempts are no damage, and stay used up.
    EXPECT_THROW(store_.checkPin(serialNumber_, Role::user, "000000"), PinFailure);
    const std::string attempts = fileContent(attemptsFile());
    const std::string unchanged = "  in order, nothing was changed\n";
    EXPECT_EQ(run("repair"), (Answer{0, serialNumber_ + unchanged + other + unchanged, ""}));
    EXPECT_EQ(fileContent(tokenFile()), token);
    EXPECT_EQ(fileContent(attemptsFile()), attempts);
}

TEST_F(StoreRepairTest, LostCountersComeBackWithOneAttempt) {
    const std::string whole = fileContent(attemptsFile());
    const std::string missing = "the token's PIN counters are missing";
    fs::remove(attemptsFile());
    expectFault(missing);
    EXPECT_EQ(run("list").exitCode, 1);
    const Answer answer = run("repair " + serialNumber_);
    EXPECT_EQ(answer.exitCode, 0) << answer.errors;
    EXPECT_EQ(answer.output,
              serialNumber_ + "  repaired: " + missing + "; they were made anew, with one attempt left for each PIN\n");
    EXPECT_EQ(store_.loadAttempts(serialNumber_), (Attempts{1, 1}));
    outputOf("verify");
    EXPECT_THROW(store_.checkPin(serialNumber_, Role::officer, "000000"), PinFailure);
    EXPECT_EQ(store_.loadAttempts(serialNumber_), (Attempts{1, 0}));
    // The right PIN gives all of them back.
    static_cast<void>(store_.checkPin(serialNumber_, Role::user, "123456"));
    EXPECT_EQ(store_.loadAttempts(serialNumber_), (Attempts{5, 0}));
    for (const std::string& damaged : {std::string(), whole.substr(0, 40), flipped(whole), whole + "x"}) {
        writeFile(attemptsFile(), damaged);
        EXPECT_EQ(run("verify").exitCode, 1);
        outputOf("repair");
        EXPECT_EQ(store_.loadAttempts(serialNumber_), (Attempts{1, 1}));
    }
}

TEST_F(StoreRepairTest, CountersBeyondTheirLimitAreMadeAnew) {
    const std::string fault = "the token's PIN counters say more attempts than it gives";
    for (const Attempts& attempts : {Attempts{6, 5}, Attempts{5, 6}}) {
        writeFile(attemptsFile(), writeAttempts(attempts));
        expectFault(fault);
        outputOf("repair");
        EXPECT_EQ(store_.loadAttempts(serialNumber_), (Attempts{1, 1}));
    }
}

TEST_F(StoreRepairTest, TokenWithoutOfficerHasNoneAfterwards) {
    setEnvironment("ZENTAK_SO_PIN", "");
    const std::string other = create();
    fs::remove(store_.folderOf(other) / "attempts");
    EXPECT_EQ(repairToken(store_, other).size(), 1U);
    EXPECT_EQ(store_.loadAttempts(other), (Attempts{1, 0}));
    writeFile(store_.folderOf(other) / "attempts", writeAttempts({5, 1}));
    EXPECT_EQ(faultsOf(store_, other), Lines{"the token's PIN counters say more attempts than it gives"});
}

TEST_F(StoreRepairTest, LostTokenComesBackFromTheWholeNewOne) {
    const std::string whole = fileContent(tokenFile());
    const fs::path fresh = tokenFile().parent_path() / "token.new";
    fs::rename(tokenFile(), fresh);
    expectFault("the token's file is missing");
    EXPECT_EQ(run("show " + serialNumber_).exitCode, 1);
    const Answer answer = run("repair");
    EXPECT_EQ(answer.exitCode, 0) << answer.output;
    EXPECT_EQ(answer.output,
              serialNumber_ +
                  "  repaired: the token's file was missing; the whole one that a change had left beside it took its "
                  "place\n");
    EXPECT_EQ(fileContent(tokenFile()), whole);
    EXPECT_FALSE(fs::exists(fresh));
    EXPECT_EQ(faults(), Lines());
    // Both at once.
    fs::rename(tokenFile(), fresh);
    fs::remove(attemptsFile());
    EXPECT_EQ(repairToken(store_, serialNumber_).size(), 2U);
    EXPECT_EQ(fileContent(tokenFile()), whole);
}

TEST_F(StoreRepairTest, WhatCannotBeMendedIsLeftAlone) {
    const std::string whole = fileContent(tokenFile());
    const fs::path fresh = tokenFile().parent_path() / "token.new";
    const std::string missing = "the token's file is missing: put back a good copy";
    fs::remove(tokenFile());
    expectNotRepaired(missing);
    const std::string other = create();
    const std::string foreign = fileContent(store_.folderOf(other) / "token");
    store_.remove(other);
    for (const std::string& useless : {std::string(), whole.substr(0, whole.size() - 1), flipped(whole), foreign}) {
        writeFile(fresh, useless);
        expectNotRepaired(missing);
    }
    // A new file beside one that is there means nothing.
    writeFile(fresh, whole);
    writeFile(tokenFile(), flipped(whole));
    expectNotRepaired("the token's file is damaged: the checksum doesn't match");
    writeFile(tokenFile(), foreign);
    expectNotRepaired("the token's file is that of another token");
    fs::remove(attemptsFile());
    expectNotRepaired("the token's file is that of another token");
}

TEST_F(StoreRepairTest, CountersOfAnotherVersionAreLeftAlone) {
    std::string content = fileContent(attemptsFile());
    content.replace(content.find('1'), 1, "2");
    writeFile(attemptsFile(), content);
    expectNotRepaired("the token's file is of version 2, this program knows version 1");
}

TEST_F(StoreRepairTest, FaultsWithinAWholeFile) {
    outputOf("generate --type p-256");
    const Bytes der = makeCertificate(testKey(5));
    const std::string certificate = file("certificate.der", std::string(der.begin(), der.end()));
    outputOf("import --certificate " + certificate);
    const TokenData token = store_.load(serialNumber_);
    const auto faultsWith = [&](const std::function<void(TokenData&)>& change) {
        TokenData changed = token;
        change(changed);
        writeFile(tokenFile(), writeTokenData(changed));
        return faults();
    };
    EXPECT_EQ(faultsWith([](TokenData& /*changed*/) {}), Lines());
    EXPECT_EQ(faultsWith([](TokenData& changed) { changed.capacity = 0; }),
              (Lines{"it holds 1 key pairs, and has room for 0", "it holds 1 certificates, and has room for 0"}));
    EXPECT_EQ(faultsWith([](TokenData& changed) { changed.keyPairs[0].publicKey[5] ^= 1; }),
              Lines{"key pair 1 can't be read"});
    EXPECT_EQ(faultsWith([](TokenData& changed) { changed.keyPairs[0].keyType = 6; }),
              Lines{"key pair 1 can't be read"});
    EXPECT_EQ(faultsWith([](TokenData& changed) {
                  changed.keyPairs.push_back(changed.keyPairs[0]);
                  changed.keyPairs[1].id = 2;
              }),
              Lines{"key pair 2 has the reference of another one"});
    EXPECT_EQ(faultsWith([](TokenData& changed) { changed.certificates[0].der.pop_back(); }),
              Lines{"certificate 1 can't be read"});
    expectNotRepaired("certificate 1 can't be read");
    // What can be shown is shown.
    const Answer shown = run("show");
    EXPECT_EQ(shown.exitCode, 1);
    EXPECT_NE(shown.output.find("Certificate\nid: 1\n"), std::string::npos) << shown.output;
    EXPECT_EQ(shown.errors, "zentak-token: certificate 1 can't be used: not a certificate\n");
}

TEST_F(StoreRepairTest, ListAndShowEndWithOneWhenSomethingIsUnusable) {
    const std::string other = create();
    fs::remove(store_.folderOf(other) / "attempts");
    const std::string reason = "the token's PIN counters are missing";
    for (const char* form : {"list", "list --json"}) {
        const Answer listed = run(form);
        EXPECT_EQ(listed.exitCode, 1);
        EXPECT_NE(listed.output.find(serialNumber_), std::string::npos);
        EXPECT_NE(listed.output.find(reason), std::string::npos);
        EXPECT_EQ(listed.errors, "zentak-token: 1 of 2 tokens can't be used\n");
    }
    outputOf("show " + serialNumber_);
    for (const std::string& form : {"show " + other, "show --json " + other}) {
        const Answer shown = run(form);
        EXPECT_EQ(shown.exitCode, 1);
        EXPECT_NE(shown.output.find(reason), std::string::npos);
        EXPECT_EQ(shown.errors, "zentak-token: the token can't be used: " + reason + "\n");
    }
    const Json verified = Json::parse(run("verify --json").output, nullptr, false);
    EXPECT_EQ(verified.at(serialNumber_ < other ? 1 : 0)["faults"], (Json::array({reason})));
    outputOf("repair");
    outputOf("list");
}

}  // namespace

}  // namespace softtoken
