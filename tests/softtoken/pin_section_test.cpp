// The parts of a token's file that a PIN opens: what they are bound to, what a new one costs to try, those of
// version 1.

#include <functional>

#include "test_certificates.h"
#include "token_test.h"

namespace softtoken {

namespace {

namespace fs = std::filesystem;

using PinSectionTest = TokenTest;

/// What a PIN that is set costs to try, whatever the one before it cost.
void expectCostOfToday(const PinSection& section) {
    EXPECT_EQ(section.derivation.function, KeyDerivation::Function::scrypt);
    EXPECT_EQ(section.derivation.costLog2, 16U);
    EXPECT_EQ(section.derivation.blockSize, 8U);
    EXPECT_EQ(section.derivation.parallelization, 1U);
}

TEST_F(PinSectionTest, EveryNewPinGetsTheCostOfToday) {
    NewToken settings;
    settings.userPin = userPin;
    settings.officerPin = officerPin;
    const TokenData ordinary = store_.load(createToken(store_, settings));
    expectCostOfToday(ordinary.user);
    expectCostOfToday(*ordinary.officer);

    ASSERT_EQ(store_.load(serialNumber_).user.derivation.costLog2, 1U);
    EXPECT_TRUE(changePin(userPin, "654321"));
    expectCostOfToday(store_.load(serialNumber_).user);
    EXPECT_EQ(validate("654321"), 0);

    const OpenedToken opened = store_.open(serialNumber_, Role::officer, officerPin);
    store_.setPin(serialNumber_, Role::officer, "a new PIN", opened, true);
    expectCostOfToday(*store_.load(serialNumber_).officer);
    EXPECT_EQ(validate("a new PIN", nullptr, 2), 0);
}

/// Computed with Python's hashlib.
TEST_F(PinSectionTest, KeysAreThoseOfTheNamedFunctions) {
    PinSection section;
    section.salt = Bytes{1, 2, 3, 4, 5, 6, 7, 8};
    section.derivation = {KeyDerivation::Function::scrypt, 0, 10, 4, 2};
    EXPECT_EQ(hexText(derivePinKey(section, "123456")),
              "E1B8D82ECB6331A3CA48115E2D161E7FD7EF9C3C2E74A5A1B9F577A0E5F5250B");
    section.derivation = KeyDerivation::pbkdf2(1000);
    EXPECT_EQ(hexText(derivePinKey(section, "123456")),
              "88AE7A6B79599BDE1DC73CB0F8A66298192E4DA6085B9064AEA2D5B360389E10");
}

/// Whoever may write to the file can give it a right checksum. What decides about safety must not be changed that way.
TEST_F(PinSectionTest, ForgedFieldMakesTheRightPinFail) {
    const std::string whole = fileContent(tokenFile());
    const auto expectRefused = [&](const char* what, const std::function<void(TokenData&)>& forge) {
        SCOPED_TRACE(what);
        // The program knows the PIN already.
        ASSERT_EQ(validate(userPin), 0);
        store_.change(serialNumber_, forge);
        EXPECT_EQ(validate(userPin), number(Error::pinIncorrect));
        EXPECT_EQ(attemptsLeft(), 4);
        writeFile(tokenFile(), whole);
        EXPECT_EQ(validate(userPin), 0);
        EXPECT_EQ(attemptsLeft(), 5);
    };
    expectRefused("attempts", [](TokenData& token) { token.user.maximumAttempts = 1000; });
    expectRefused("cost", [](TokenData& token) { token.user.derivation.costLog2 = 2; });
    expectRefused("block size", [](TokenData& token) { token.user.derivation.blockSize = 4; });
    expectRefused("parallelization", [](TokenData& token) { token.user.derivation.parallelization = 2; });
    expectRefused("function", [](TokenData& token) { token.user.derivation = KeyDerivation::pbkdf2(1); });
    expectRefused("salt", [](TokenData& token) { token.user.salt[0] ^= 1; });
    expectRefused("model", [](TokenData& token) { token.model = "ZS3 Software"; });
    expectRefused("officer's section", [](TokenData& token) { token.user = *token.officer; });
}

/// Neither the parameters alone nor the key derived with them decide: also what was sealed names them.
TEST_F(PinSectionTest, BindingNamesEveryField) {
    TokenData token = store_.load(serialNumber_);
    const SecretBytes pinKey = derivePinKey(token.user, userPin);
    ASSERT_TRUE(openPinSection(token, Role::user, pinKey));
    const auto expectClosed = [&](const char* what, const std::function<void(TokenData&)>& forge) {
        TokenData forged = token;
        forge(forged);
        EXPECT_FALSE(openPinSection(forged, Role::user, pinKey)) << what;
    };
    expectClosed("serial number", [](TokenData& forged) { forged.serialNumber = "00AA"; });
    expectClosed("model", [](TokenData& forged) { forged.model += " "; });
    expectClosed("attempts", [](TokenData& forged) { ++forged.user.maximumAttempts; });
    expectClosed("function", [](TokenData& forged) { forged.user.derivation = KeyDerivation::pbkdf2(1); });
    expectClosed("cost", [](TokenData& forged) { ++forged.user.derivation.costLog2; });
    expectClosed("block size", [](TokenData& forged) { --forged.user.derivation.blockSize; });
    expectClosed("parallelization", [](TokenData& forged) { ++forged.user.derivation.parallelization; });
}

/// With the officer's PIN in the user's place its attempts would be counted elsewhere.
TEST_F(PinSectionTest, SectionOfOneRoleDoesNotServeTheOther) {
    for (const KeyDerivation& derivation : {KeyDerivation::scrypt(1), KeyDerivation::pbkdf2(1)}) {
        store_.change(serialNumber_, [&](TokenData& token) {
            const SecretBytes tokenKey = newTokenKey();
            token.user = makePinSection(token, Role::user, userPin, tokenKey, derivation, 5);
            token.officer = makePinSection(token, Role::officer, officerPin, tokenKey, derivation, 5);
        });
        ASSERT_EQ(validate(userPin), 0);
        ASSERT_EQ(validate(officerPin, nullptr, 2), 0);
        store_.change(serialNumber_, [](TokenData& token) { std::swap(token.user, *token.officer); });
        EXPECT_EQ(validate(officerPin), number(Error::pinIncorrect));
        EXPECT_EQ(validate(userPin, nullptr, 2), number(Error::pinIncorrect));
        store_.resetAttempts(serialNumber_, Role::user, 5);
        store_.resetAttempts(serialNumber_, Role::officer, 5);
    }
}

TEST_F(PinSectionTest, SectionOfAnotherTokenIsRefused) {
    const std::string other = createToken(store_, cheapToken());
    const PinSection foreign = store_.load(other).user;
    store_.change(serialNumber_, [&](TokenData& token) { token.user = foreign; });
    EXPECT_EQ(validate(userPin), number(Error::pinIncorrect));
    EXPECT_EQ(attemptsLeft(), 4);
}

TEST_F(PinSectionTest, OnlyAPinCanBeSet) {
    const OpenedToken opened = store_.open(serialNumber_, Role::user, userPin);
    const std::string before = fileContent(tokenFile());
    const std::vector<std::pair<std::string, Error>> texts = {
        {"", Error::pinRequired}, {"123", Error::pinLength}, {std::string(64, 'x'), Error::pinLength}};
    for (const auto& [text, error] : texts) {
        const std::function<void()> changes[] = {
            [&, pin = text] { store_.setPin(serialNumber_, Role::user, pin, opened, true); },
            [&, pin = text] { store_.renewTokenKey(serialNumber_, Role::user, pin, opened, officerPin); }};
        for (const auto& change : changes) EXPECT_EQ(failureOf(change).error, error);
    }
    EXPECT_EQ(fileContent(tokenFile()), before);
}

/// Two that change the PIN at once: the second is told instead of replacing the first one's PIN.
TEST_F(PinSectionTest, PinThatAnotherProcessSetIsNotReplaced) {
    const OpenedToken opened = store_.open(serialNumber_, Role::user, userPin);
    store_.setPin(serialNumber_, Role::user, "first", opened, true, KeyDerivation::scrypt(1));
    const std::string before = fileContent(tokenFile());
    const std::string text = "another process changed the PIN";
    expectFailure(Error::storeFailed, text, [&] { store_.setPin(serialNumber_, Role::user, "second", opened, true); });
    expectFailure(Error::storeFailed, text,
                  [&] { store_.renewTokenKey(serialNumber_, Role::user, "second", opened, officerPin); });
    EXPECT_EQ(fileContent(tokenFile()), before);
    EXPECT_EQ(validate("first"), 0);
    // The officer's PIN is another one, and may be changed.
    store_.setPin(serialNumber_, Role::officer, "third", opened, true, KeyDerivation::scrypt(1));
    EXPECT_EQ(validate("third", nullptr, 2), 0);
}

TEST_F(PinSectionTest, NewTokenKeySealsEveryPrivateKeyAnew) {
    const KeyPairEntry first = addKey(5);
    const KeyPairEntry second = addKey(6);
    const TokenData before = store_.load(serialNumber_);
    const OpenedToken opened = store_.open(serialNumber_, Role::user, userPin);
    store_.renewTokenKey(serialNumber_, Role::user, "654321", opened, officerPin);

    const TokenData after = store_.load(serialNumber_);
    expectCostOfToday(after.user);
    expectCostOfToday(*after.officer);
    const OpenedToken present = store_.open(serialNumber_, Role::user, "654321");
    EXPECT_NE(present.key, opened.key);
    EXPECT_EQ(store_.checkPin(serialNumber_, Role::officer, officerPin), present.key);
    EXPECT_THROW(store_.checkPin(serialNumber_, Role::user, userPin), PinFailure);
    ASSERT_EQ(after.keyPairs.size(), 2U);
    for (std::size_t i = 0; i < 2; ++i) {
        // What an old copy of the file and the old PIN give doesn't open the present file.
        EXPECT_THROW(openPrivateKey(after, after.keyPairs[i], opened.key), Failure);
        EXPECT_TRUE(openPrivateKey(after, after.keyPairs[i], present.key));
        KeyPairEntry expected = before.keyPairs[i];
        expected.sealedPrivateKey = after.keyPairs[i].sealedPrivateKey;
        EXPECT_EQ(after.keyPairs[i], expected);
    }
    EXPECT_THROW(requireKeyOf(after, opened), Failure);
    EXPECT_NO_THROW(requireKeyOf(after, present));
}

/// A program that has signed with the key before goes on with the new PIN, and not with the old one.
TEST_F(PinSectionTest, NewTokenKeyIsNoticedByARunningProgram) {
    const KeyPairEntry key = addKey(5);
    ASSERT_EQ(signWith(key.keyId), 0);
    const OpenedToken opened = store_.open(serialNumber_, Role::user, userPin);
    store_.renewTokenKey(serialNumber_, Role::user, "654321", opened, officerPin, KeyDerivation::scrypt(1));
    EXPECT_EQ(signWith(key.keyId), number(Error::pinIncorrect));
    EXPECT_EQ(signWith(key.keyId, "654321"), 0);
}

TEST_F(PinSectionTest, NewTokenKeyIsAllOrNothing) {
    addKey(5);
    store_.change(serialNumber_, [](TokenData& token) {
        token.keyPairs.push_back(token.keyPairs[0]);
        token.keyPairs[1].id = 2;
        token.keyPairs[1].keyId[0] ^= 1;
    });
    const std::string before = fileContent(tokenFile());
    const OpenedToken opened = store_.open(serialNumber_, Role::user, userPin);
    const auto renew = [&] {
        store_.renewTokenKey(serialNumber_, Role::user, "654321", opened, officerPin, KeyDerivation::scrypt(1));
    };
    EXPECT_EQ(failureOf(renew).error, Error::tokenDamaged) << "a key that doesn't open was dropped";
    EXPECT_THROW(store_.renewTokenKey(serialNumber_, Role::user, "654321", opened, "000000"), PinFailure);
    EXPECT_EQ(store_.loadAttempts(serialNumber_).officer, 4);
    EXPECT_EQ(fileContent(tokenFile()), before);
    EXPECT_EQ(validate(userPin), 0);
}

TEST_F(PinSectionTest, NewTokenKeyOfATokenWithoutOfficer) {
    NewToken settings = cheapToken();
    settings.officerPin.clear();
    serialNumber_ = createToken(store_, settings);
    addKey(5);
    const OpenedToken opened = store_.open(serialNumber_, Role::user, userPin);
    store_.renewTokenKey(serialNumber_, Role::user, "654321", opened, "", KeyDerivation::scrypt(1));
    const TokenData after = store_.load(serialNumber_);
    EXPECT_FALSE(after.officer);
    EXPECT_TRUE(openPrivateKey(after, after.keyPairs.at(0), store_.checkPin(serialNumber_, Role::user, "654321")));
}

// A token of version 1, with PBKDF2 of 1,000 iterations and one P-256 key, and its attempts.
constexpr const char* version1SerialNumber = "7D43A19A92C32174";
constexpr const char* version1Token =
    "7a656e74616b2d736f6674776172652d746f6b656e20310a1000000037443433413139413932433332313734090000005665"
    "7273696f6e20310c0000005a533120536f66747761726503000000312e300100000001000000e80300001000000022e2fe8f"
    "8d03c82a3adc95103a156fd33c0000002d4b8fd81ce0b01cc87491384162058f48eec2846ac6e47bcb364ba8c37c4089fe23"
    "3cb0b653760bb7cf4baca930650cfef5a7fbd0532e997af06ebb050000000100000001000000e8030000100000005132ca9f"
    "e194a2a40a42f0b3869bdc983c000000b4d971b24031a4eaa3f236c29804123578b4d41ba723a85c71c483689a30426574c2"
    "b49535eb8c054787c9fb903eaf9ebeae553c5df6b8b7b3d2a524050000000800000001000000000000000100000001000000"
    "10000000f70dc0bf2a642575d45e660257502ad80500000003000000030000006f6c641400000076a6644da04524fbaca63f"
    "eb8737141f123f6a234100000004f8f8849b9b95f920c4730a400e830588af5481e720eeba4caa633854114b291dd72ae57d"
    "4875ff0f6edda4d6abceae0514168bd586d246ba0dd3141ca68ca8cda60000008180d09770f8c266eda7064120237361b035"
    "a3932b380bbdb0425b4b84747de10d3d29b205b85623f3cbbb73c58a6c01940ab5415d357b87265d38d43c6a5416ef83afdb"
    "0c3f6bc3deea1db79d954be78807dfb369b3ff9a0406a637d811837ad795a304f7f2ad96470a1e89d3dc9c30481497652f61"
    "6b14f1688f0d4fbdedebeccf6b884c9a4a86a2c56745480e8adbf1073603f05f4f377c6425c7fd340317afe33fdc6d660000"
    "00004ca01dd59c9adbc7597f4138de626e695a2e9b266ff2926a66b57766f0f2bcda";
constexpr const char* version1Attempts =
    "7a656e74616b2d736f6674776172652d746f6b656e2d617474656d70747320310a05000000050000007f0e5bb778b448177e"
    "686c754a21f92da049adaa587ad5c9cea8a19d2d358dfc";

class Version1Test : public TokenTest {
protected:
    Version1Test() {
        serialNumber_ = version1SerialNumber;
        fs::create_directories(tokenFile().parent_path());
        write(tokenFile(), version1Token);
        write(tokenFile().parent_path() / "attempts", version1Attempts);
    }

    static void write(const fs::path& file, const char* hexadecimal) {
        const Bytes bytes = *bytesFromHex(hexadecimal);
        writeFile(file, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    }

    int sign(const char* pin) { return signWith(store_.load(serialNumber_).keyPairs.at(0).keyId, pin); }
};

TEST_F(Version1Test, IsUsedAndLeftAsItIs) {
    const std::string before = fileContent(tokenFile());
    const TokenData token = store_.load(serialNumber_);
    EXPECT_EQ(token.label, "Version 1");
    EXPECT_EQ(token.user.derivation, KeyDerivation::pbkdf2(1000));
    EXPECT_EQ(validate("000000"), number(Error::pinIncorrect));
    EXPECT_EQ(attemptsLeft(), 4);
    EXPECT_EQ(sign(userPin), 0);
    EXPECT_EQ(validate(officerPin, nullptr, 2), 0);
    EXPECT_EQ(attemptsLeft(), 5);
    EXPECT_EQ(fileContent(tokenFile()), before);
}

TEST_F(Version1Test, BecomesVersion2WithItsNextChange) {
    const TokenData before = store_.load(serialNumber_);
    ASSERT_EQ(importCertificate(makeCertificate(testKey(6))), 0);
    EXPECT_EQ(fileContent(tokenFile()).find("zentak-software-token 2\n"), 0U);
    const TokenData after = store_.load(serialNumber_);
    EXPECT_EQ(after.user, before.user);
    EXPECT_EQ(after.officer, before.officer);
    EXPECT_EQ(after.keyPairs, before.keyPairs);
    EXPECT_EQ(sign(userPin), 0);
    EXPECT_EQ(validate(officerPin, nullptr, 2), 0);
}

TEST_F(Version1Test, NewPinGetsTheCostOfToday) {
    const PinSection officer = *store_.load(serialNumber_).officer;
    EXPECT_TRUE(changePin(userPin, "654321"));
    expectCostOfToday(store_.load(serialNumber_).user);
    EXPECT_EQ(store_.load(serialNumber_).officer, officer);
    EXPECT_EQ(sign("654321"), 0);
    EXPECT_EQ(validate(officerPin, nullptr, 2), 0);
}

}  // namespace

}  // namespace softtoken
