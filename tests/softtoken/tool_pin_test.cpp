// New PINs by the tool's command lines: what they cost to try, and a new token key with them.

#include "test_certificates.h"
#include "tool_test.h"

namespace softtoken {

namespace {

namespace fs = std::filesystem;

class ToolPinTest : public ToolTest {
protected:
    static constexpr const char* pin = "123456";
    static constexpr const char* officerPin = "98765432";
    static constexpr const char* newPin = "654321";

    ToolPinTest() : store_(folder_.path() / "tokens") { setEnvironment("ZENTAK_NEW_PIN", newPin); }

    /// A cheap token with a key.
    void makeToken() {
        serialNumber_ = create();
        outputOf("generate --type p-256");
    }
    [[nodiscard]] std::string content() const { return fileContent(store_.pluggedTokenFile(serialNumber_)); }

    static void expectCostOfToday(const PinSection& section) {
        EXPECT_EQ(section.derivation, (KeyDerivation{KeyDerivation::Function::scrypt, 0, 16, 8, 1}));
    }

    Store store_;
    std::string serialNumber_;
};

TEST_F(ToolPinTest, PinsCostWhatTheyShould) {
    outputOf("create --label Ordinary");
    const TokenData ordinary = store_.load(store_.plugged().at(0));
    expectCostOfToday(ordinary.user);
    expectCostOfToday(*ordinary.officer);
    outputOf("remove --yes");
    makeToken();
    EXPECT_EQ(store_.load(serialNumber_).user.derivation.costLog2, 1U);
    outputOf("unlock");
    expectCostOfToday(store_.load(serialNumber_).user);
    outputOf("set-pin --so");
    expectCostOfToday(*store_.load(serialNumber_).officer);
    expectError("create --label x --kdf-cost 19", "--kdf-cost");
    expectError("create --label x --kdf-cost 0", "--kdf-cost");
}

TEST_F(ToolPinTest, NewKeyClosesThePresentFileToTheOldKey) {
    makeToken();
    const SecretBytes oldKey = store_.checkPin(serialNumber_, Role::user, pin);
    EXPECT_EQ(outputOf("set-pin --new-key"), "PIN and token key changed on " + serialNumber_ + "\n");
    const TokenData token = store_.load(serialNumber_);
    const SecretBytes key = store_.checkPin(serialNumber_, Role::user, newPin);
    EXPECT_EQ(store_.checkPin(serialNumber_, Role::officer, officerPin), key);
    EXPECT_TRUE(openPrivateKey(token, token.keyPairs.at(0), key));
    EXPECT_THROW(openPrivateKey(token, token.keyPairs.at(0), oldKey), Failure);
}

TEST_F(ToolPinTest, NewKeyWithTheOfficersPin) {
    makeToken();
    const SecretBytes oldKey = store_.checkPin(serialNumber_, Role::user, pin);
    outputOf("set-pin --so --new-key");
    const SecretBytes key = store_.checkPin(serialNumber_, Role::officer, newPin);
    EXPECT_NE(key, oldKey);
    EXPECT_EQ(store_.checkPin(serialNumber_, Role::user, pin), key);
}

TEST_F(ToolPinTest, NewKeyNeedsTheOtherPinToo) {
    makeToken();
    const std::string before = content();
    setEnvironment("ZENTAK_SO_PIN", "");
    expectError("set-pin --new-key", "--so-pin-file");
    setEnvironment("ZENTAK_SO_PIN", "00000000");
    expectError("set-pin --new-key", "security officer's PIN: the PIN is wrong, attempts left: 4");
    EXPECT_EQ(store_.loadAttempts(serialNumber_), (Attempts{5, 4}));
    EXPECT_EQ(content(), before);
    // A token that has no officer needs none.
    outputOf("remove --yes");
    setEnvironment("ZENTAK_SO_PIN", "");
    makeToken();
    outputOf("set-pin --new-key");
    EXPECT_NO_THROW(store_.checkPin(serialNumber_, Role::user, newPin));
}

}  // namespace

}  // namespace softtoken
