// PINs: checking, counting, locking, changing, and what survives a restart.

#include "token_test.h"

namespace softtoken {

namespace {

using PinTest = TokenTest;

TEST_F(PinTest, RightPinIsAccepted) {
    int left = 0;
    EXPECT_EQ(validate(userPin, &left), 0);
    EXPECT_EQ(left, 5);
    EXPECT_EQ(validate(officerPin, &left, 2), 0);
    EXPECT_EQ(left, 5);
}

TEST_F(PinTest, UserAndOfficerHaveDifferentPins) {
    EXPECT_EQ(validate(officerPin), number(Error::pinIncorrect));
    EXPECT_EQ(validate(userPin, nullptr, 2), number(Error::pinIncorrect));
    EXPECT_EQ(attemptsLeft(), 4);
    EXPECT_EQ(store_.loadAttempts(serialNumber_), (Attempts{4, 4}));
}

TEST_F(PinTest, WrongPinsCountDownAndLock) {
    int left = -1;
    for (const int expected : {4, 3, 2, 1}) {
        EXPECT_EQ(validate("000000", &left), number(Error::pinIncorrect));
        EXPECT_EQ(left, expected);
        EXPECT_EQ(attemptsLeft(), expected);
    }
    EXPECT_EQ(validate("000000", &left), number(Error::pinLocked));
    EXPECT_EQ(left, 0);
    EXPECT_EQ(validate(userPin, &left), number(Error::pinLocked));
    EXPECT_EQ(left, 0);
    EXPECT_EQ(attemptsLeft(), 0);
}

TEST_F(PinTest, AttemptsSurviveReopening) {
    EXPECT_NE(validate("000000"), 0);
    EXPECT_NE(validate("000000"), 0);
    reopen();
    EXPECT_EQ(attemptsLeft(), 3);
    int left = -1;
    EXPECT_NE(validate("000000", &left), 0);
    EXPECT_EQ(left, 2);
}

TEST_F(PinTest, LockSurvivesReopening) {
    for (int i = 0; i < 5; ++i) EXPECT_NE(validate("000000"), 0);
    reopen();
    EXPECT_EQ(validate(userPin), number(Error::pinLocked));
}

TEST_F(PinTest, RightPinGivesAllAttemptsBack) {
    EXPECT_NE(validate("000000"), 0);
    EXPECT_EQ(validate(userPin), 0);
    EXPECT_EQ(attemptsLeft(), 5);
    // Also when the PIN is known to this process already.
    EXPECT_NE(validate("000000"), 0);
    EXPECT_EQ(attemptsLeft(), 4);
    EXPECT_EQ(validate(userPin), 0);
    EXPECT_EQ(attemptsLeft(), 5);
}

TEST_F(PinTest, KnownPinIsRefusedOnceAnotherProcessLockedTheToken) {
    EXPECT_EQ(validate(userPin), 0);
    for (int i = 0; i < 5; ++i) EXPECT_THROW(store_.checkPin(serialNumber_, Role::user, "000000"), PinFailure);
    int left = -1;
    EXPECT_EQ(validate(userPin, &left), number(Error::pinLocked));
    EXPECT_EQ(left, 0);
}

TEST_F(PinTest, TextsThatCannotBePinsCostNothing) {
    int left = -1;
    for (const std::string& pin : {std::string(), std::string("123"), std::string(64, '1')}) {
        EXPECT_NE(validate(pin.c_str(), &left), 0) << pin;
        EXPECT_EQ(left, 5);
    }
    EXPECT_NE(validate(nullptr, &left), 0);
    EXPECT_EQ(attemptsLeft(), 5);
}

TEST_F(PinTest, PinsOfFourAndOf63BytesWork) {
    const std::string longest(63, 'x');
    int failures = -1;
    EXPECT_TRUE(changePin(userPin, longest.c_str(), &failures));
    EXPECT_EQ(validate(longest.c_str()), 0);
    EXPECT_TRUE(changePin(longest.c_str(), "\xC3\xA4xx", &failures));
    EXPECT_EQ(validate("\xC3\xA4xx"), 0);
}

TEST_F(PinTest, ChangedPinReplacesTheOldOne) {
    EXPECT_EQ(validate(userPin), 0);
    int failures = -1;
    EXPECT_TRUE(changePin(userPin, "654321", &failures));
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(validate(userPin), number(Error::pinIncorrect));
    EXPECT_EQ(validate("654321"), 0);
    reopen();
    EXPECT_EQ(validate("654321"), 0);
}

TEST_F(PinTest, ChangeWithWrongOldPinIsRefusedAndCounted) {
    int failures = 0;
    EXPECT_FALSE(changePin("000000", "654321", &failures));
    EXPECT_EQ(failures, 1);
    EXPECT_FALSE(changePin("000000", "654321", &failures));
    EXPECT_EQ(failures, 2);
    EXPECT_EQ(attemptsLeft(), 3);
    EXPECT_EQ(validate(userPin), 0);
}

TEST_F(PinTest, NewPinMustBeAPin) {
    int failures = 0;
    EXPECT_FALSE(changePin(userPin, "123", &failures));
    EXPECT_FALSE(changePin(userPin, nullptr));
    EXPECT_EQ(attemptsLeft(), 5);
    EXPECT_EQ(validate(userPin), 0);
}

TEST_F(PinTest, ChangeIsRemembered) {
    NewToken settings = cheapToken();
    settings.userPinChanged = false;
    const std::string other = createToken(store_, settings);
    EXPECT_EQ(zentak_getTokenInfo(other.c_str(), instance_).userPinChanged, 0);
    EXPECT_TRUE(zentak_changeUserPassword(other.c_str(), userPin, "654321", nullptr, false, false, instance_));
    EXPECT_EQ(zentak_getTokenInfo(other.c_str(), instance_).userPinChanged, 1);
}

TEST_F(PinTest, KeysStayUsableAfterAChange) {
    const KeyPairEntry key = addKey(5);
    EXPECT_TRUE(changePin(userPin, "654321"));
    EXPECT_EQ(signWith(key.keyId, "654321"), 0);
}

TEST_F(PinTest, SameWrongPinInOperationsCostsOneAttemptOnly) {
    const KeyPairEntry key = addKey(5);
    const auto expectOneLost = [&] {
        for (int i = 0; i < 8; ++i) EXPECT_EQ(signWith(key.keyId, "000000"), number(Error::pinIncorrect));
        EXPECT_EQ(attemptsLeft(), 4);
    };
    expectOneLost();
    // Until the right one has come: then somebody is guessing.
    EXPECT_EQ(signWith(key.keyId), 0);
    EXPECT_EQ(attemptsLeft(), 5);
    expectOneLost();
}

/// Programs that save space give files of the same content one file with several names.
TEST_F(PinTest, CountersOfAnotherTokenAreLeftAlone) {
    const std::filesystem::path attempts = tokenFile().parent_path() / "attempts";
    const std::filesystem::path other = folder_.path() / "other";
    const std::string whole = fileContent(attempts);
    std::filesystem::create_hard_link(attempts, other);
    EXPECT_EQ(validate("000000"), number(Error::pinIncorrect));
    EXPECT_EQ(attemptsLeft(), 4);
    EXPECT_EQ(fileContent(other), whole);
}

TEST_F(PinTest, LockedTokenIsUnlockedByTheOfficer) {
    for (int i = 0; i < 5; ++i) EXPECT_NE(validate("000000"), 0);
    const OpenedToken opened = store_.open(serialNumber_, Role::officer, officerPin);
    store_.setPin(serialNumber_, Role::user, "654321", opened, true);
    EXPECT_EQ(attemptsLeft(), 5);
    EXPECT_EQ(validate("654321"), 0);
}

TEST_F(PinTest, TokenWithoutOfficerRefusesTheOfficer) {
    NewToken settings = cheapToken();
    settings.officerPin.clear();
    const std::string other = createToken(store_, settings);
    int left = -1;
    EXPECT_EQ(zentak_validatePassword(other.c_str(), officerPin, 2, &left, instance_), number(Error::pinLocked));
    EXPECT_EQ(left, 0);
}

TEST_F(PinTest, UnknownUserKindIsRefused) {
    for (const int kind : {0, 3, -1}) EXPECT_EQ(validate(userPin, nullptr, kind), number(Error::invalidArgument));
}

TEST_F(PinTest, MissingTokenIsADeviceThatDoesNotAnswer) {
    store_.unplug(serialNumber_);
    EXPECT_EQ(validate(userPin), number(Error::deviceNotPresent));
    store_.plug(serialNumber_);
    EXPECT_EQ(validate(userPin), 0);
}

TEST_F(PinTest, FilesHoldNoPin) {
    EXPECT_EQ(validate(userPin), 0);
    for (const auto& [file, content] : filesBelow(folder_.path())) {
        EXPECT_EQ(content.find(userPin), std::string::npos) << file;
        EXPECT_EQ(content.find(officerPin), std::string::npos) << file;
    }
}

}  // namespace

}  // namespace softtoken
