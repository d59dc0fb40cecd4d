// The store: life cycle of a token, changes that are whole or not at all, damaged and foreign files.

#include <cstring>
#include <functional>

#include "token_test.h"

namespace softtoken {

namespace {

namespace fs = std::filesystem;

using StoreTest = TokenTest;

TEST_F(StoreTest, NewTokenIsPluggedInAndDescribed) {
    EXPECT_EQ(zentak_getConnectedDeviceList(false, instance_), std::vector<std::string>{serialNumber_});
    const TokenInfo info = zentak_getTokenInfo(device(), instance_);
    EXPECT_EQ(info.serialNumber, serialNumber_);
    EXPECT_EQ(info.label, "Test token");
    EXPECT_EQ(info.model, "ZS1 Software");
    EXPECT_EQ(info.firmwareVersion, "1.0");
    EXPECT_EQ(info.userPinChanged, 1);
    EXPECT_EQ(info.userPinAttemptsLeft, 5);
    EXPECT_TRUE(isSerialNumber(serialNumber_));
    EXPECT_EQ(zentak_initDevice(device(), true, instance_), 0);
    EXPECT_TRUE(keyPairs().empty());
    EXPECT_TRUE(zentak_getCertificateList(device(), instance_).empty());
}

TEST_F(StoreTest, SeveralTokensAreListedInAscendingOrder) {
    std::vector<std::string> expected = {serialNumber_};
    for (int i = 0; i < 4; ++i) expected.push_back(createToken(store_, cheapToken()));
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(zentak_getConnectedDeviceList(false, instance_), expected);
}

TEST_F(StoreTest, UnpluggedTokenIsGoneAndComesBackUnchanged) {
    addKey(5);
    ASSERT_EQ(keyPairs().size(), 1U);
    store_.unplug(serialNumber_);
    EXPECT_TRUE(zentak_getConnectedDeviceList(false, instance_).empty());
    EXPECT_EQ(zentak_getTokenInfo(device(), instance_).serialNumber, "");
    EXPECT_EQ(zentak_initDevice(device(), true, instance_), number(Error::deviceNotPresent));
    EXPECT_TRUE(keyPairs().empty());
    store_.plug(serialNumber_);
    EXPECT_EQ(zentak_getConnectedDeviceList(false, instance_).size(), 1U);
    EXPECT_EQ(keyPairs().size(), 1U);
}

TEST_F(StoreTest, RemovedTokenLeavesNothing) {
    store_.remove(serialNumber_);
    EXPECT_TRUE(zentak_getConnectedDeviceList(false, instance_).empty());
    for (const auto& entry : fs::recursive_directory_iterator(folder_.path())) {
        EXPECT_EQ(entry.path().string().find(serialNumber_), std::string::npos) << entry.path();
    }
}

TEST_F(StoreTest, TokenSurvivesReopening) {
    const KeyPairEntry key = addKey(5, usageSign);
    reopen();
    const auto& list = keyPairs();
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].id, 1U);
    EXPECT_EQ(std::memcmp(list[0].keyId, key.keyId.data(), 16), 0);
    EXPECT_EQ(list[0].keyType, 5);
    EXPECT_EQ(list[0].keyUsage, usageSign);
    EXPECT_STREQ(list[0].alias, "key");
    EXPECT_EQ(list[0].objectIdLength, 3);
    EXPECT_EQ(list[0].publicKeyLength, 65);
    EXPECT_EQ(list[0].publicKey[0], 0x04);
}

TEST_F(StoreTest, AnotherProcessesChangeIsSeenAtOnce) {
    for (std::size_t count = 1; count <= 20; ++count) {
        store_.change(serialNumber_, [&](TokenData& token) {
            CertificateEntry entry;
            entry.id = static_cast<std::uint32_t>(count);
            entry.der = {0x30, static_cast<unsigned char>(count)};
            token.certificates.push_back(entry);
        });
        ASSERT_EQ(zentak_getCertificateList(device(), instance_).size(), count);
    }
}

TEST_F(StoreTest, ChangeOfAnotherProcessIsKeptByOnesOwn) {
    // The instance knows the token's state from its own last change, and must notice that it isn't the present one.
    ZentakKeyPair record{};
    record.keyType = 5;
    ASSERT_EQ(zentak_generateKeyPair(device(), userPin, &record, instance_), 0);
    store_.change(serialNumber_, [](TokenData& token) { token.label = "changed"; });
    ASSERT_EQ(zentak_deleteKeyPair(device(), record.keyId, userPin, false, instance_), 0);
    EXPECT_EQ(store_.load(serialNumber_).label, "changed");
    EXPECT_TRUE(store_.load(serialNumber_).keyPairs.empty());
    EXPECT_EQ(zentak_getTokenInfo(device(), instance_).label, "changed");
}

TEST_F(StoreTest, OutdatedKnowledgeIsNotWritten) {
    const StoredToken known = *readStoredToken(tokenFile(), serialNumber_);
    const std::string before = fileContent(tokenFile());
    store_.change(serialNumber_, [](TokenData& token) { token.label = "first"; });
    store_.change(
        serialNumber_, [](TokenData& token) { token.model = "second"; }, &known);
    EXPECT_EQ(store_.load(serialNumber_).label, "first");
    EXPECT_EQ(store_.load(serialNumber_).model, "second");
    // The same stamp on another content, as a clock without resolution would have it.
    const StoredToken mistaken{known.data, TokenVersion(*fileStamp(tokenFile()), fileClockNow(), before)};
    store_.change(
        serialNumber_, [](TokenData& token) { token.model = "third"; }, &mistaken);
    EXPECT_EQ(store_.load(serialNumber_).label, "first");
    EXPECT_EQ(store_.load(serialNumber_).model, "third");
}

TEST_F(StoreTest, ReferenceToAListOutlivesAChange) {
    addKey(5);
    const auto& before = keyPairs();
    addKey(6);
    EXPECT_EQ(keyPairs().size(), 2U);
    ASSERT_EQ(before.size(), 1U);
    EXPECT_EQ(before[0].keyType, 5);
}

TEST_F(StoreTest, LeftoverOfAKilledProcessDoesNotMatter) {
    addKey(5);
    fs::path leftover = tokenFile();
    leftover += ".new";
    writeFile(leftover, "zentak-soft");
    reopen();
    EXPECT_EQ(zentak_getConnectedDeviceList(false, instance_).size(), 1U);
    EXPECT_EQ(keyPairs().size(), 1U);
    addKey(6);
    EXPECT_EQ(keyPairs().size(), 2U);
    EXPECT_FALSE(fs::exists(leftover));
}

TEST_F(StoreTest, TokenThatAKilledProcessLeftHalfMadeIsRemoved) {
    const fs::path leftover = folder_.path() / ".zentak-scratch" / "00AA";
    const auto leave = [&] {
        fs::create_directories(leftover);
        writeFile(leftover / "attempts", "zentak-soft");
        writeFile(leftover / "token.new", "zentak-soft");
    };
    leave();
    const std::string other = createToken(store_, cheapToken());
    EXPECT_FALSE(fs::exists(leftover));
    leave();
    store_.remove(other);
    EXPECT_FALSE(fs::exists(leftover));
    EXPECT_TRUE(fs::is_empty(folder_.path() / ".zentak-scratch"));
}

/// A store may be put into a folder where other things lie.
TEST_F(StoreTest, FoldersAndFilesOfOthersStay) {
    const std::vector<std::string> names = {"scratch/thesis.txt", "scratch/00AA/token", ".zentak-scratch/thesis.txt",
                                            ".zentak-scratch/notes/thesis.txt", ".zentak-scratch/00AB"};
    for (const std::string& name : names) {
        fs::create_directories((folder_.path() / name).parent_path());
        writeFile(folder_.path() / name, name);
    }
    const std::string other = createToken(store_, cheapToken());
    store_.remove(other);
    for (const std::string& name : names) EXPECT_EQ(fileContent(folder_.path() / name), name);
}

TEST_F(StoreTest, TokenInTheStoreIsNotReplacedByAnotherOne) {
    const TokenData token = store_.load(serialNumber_);
    const auto expectRefused = [&] {
        const auto before = filesBelow(folder_.path());
        TokenData other = token;
        other.label = "another one";
        expectFailure(Error::storeFailed, "there is a token " + serialNumber_ + " already", [&] {
            store_.add(other, {5, 5});
        });
        EXPECT_EQ(store_.load(serialNumber_), token);
        EXPECT_EQ(store_.plugged().size() + store_.unplugged().size(), 1U);
        EXPECT_EQ(filesBelow(folder_.path()), before);
    };
    expectRefused();
    store_.unplug(serialNumber_);
    expectRefused();
}

TEST_F(StoreTest, ChangeThatThrowsChangesNothing) {
    const std::string before = fileContent(tokenFile());
    EXPECT_THROW(store_.change(serialNumber_,
                               [](TokenData& token) {
                                   token.label = "other";
                                   throw Failure(Error::internal, "no");
                               }),
                 Failure);
    EXPECT_EQ(fileContent(tokenFile()), before);
}

/// What a damaged file must not do: it isn't used, and nothing overwrites it.
class DamagedStoreTest : public TokenTest {
protected:
    void expectRefused(const std::string& content, Error error) {
        writeFile(tokenFile(), content);
        const TokenInfo info = zentak_getTokenInfo(device(), instance_);
        EXPECT_EQ(info.serialNumber, "");
        EXPECT_EQ(zentak_initDevice(device(), true, instance_), number(error));
        EXPECT_TRUE(keyPairs().empty());
        EXPECT_EQ(validate(userPin), number(error));
        EXPECT_EQ(generateP256(), number(error));
        EXPECT_EQ(fileContent(tokenFile()), content);
    }
};

TEST_F(DamagedStoreTest, OtherDocuments) {
    for (const char* content :
         {"\n", "{}", "zentak-software-token", "zentak-software-token\n", "\xFF\xFE", "zentak-software-token 1\n",
          "zentak-software-token 2\n", "zentak-software-token-attempts 1\n"}) {
        expectRefused(content, Error::tokenDamaged);
    }
    expectRefused(std::string(100000, '\n'), Error::tokenDamaged);
    expectRefused(std::string(100000, '\0'), Error::tokenDamaged);
    // The other document of the same token.
    expectRefused(fileContent(tokenFile().parent_path() / "attempts"), Error::tokenDamaged);
}

TEST_F(DamagedStoreTest, UnknownVersion) {
    std::string content = fileContent(tokenFile());
    const std::string line = "zentak-software-token 2\n";
    ASSERT_EQ(content.find(line), 0U);
    const auto ofVersion = [&](const std::string& version) {
        return "zentak-software-token " + version + "\n" + content.substr(line.size());
    };
    for (const char* version : {"3", "0", "10", "999999999"}) expectRefused(ofVersion(version), Error::unknownVersion);
    for (const char* version : {"", "1 ", "-1", "0x1", "9999999999", "\x1B[2J"}) {
        expectRefused(ofVersion(version), Error::tokenDamaged);
    }
}

TEST_F(DamagedStoreTest, FileOfAnotherToken) {
    const std::string other = createToken(store_, cheapToken());
    expectRefused(fileContent(store_.pluggedTokenFile(other)), Error::tokenDamaged);
}

TEST_F(DamagedStoreTest, MissingFile) {
    fs::remove(tokenFile());
    EXPECT_EQ(zentak_initDevice(device(), true, instance_), number(Error::tokenDamaged));
    EXPECT_EQ(zentak_getTokenInfo(device(), instance_).serialNumber, "");
    EXPECT_EQ(zentak_getConnectedDeviceList(false, instance_).size(), 1U);
}

TEST_F(DamagedStoreTest, MissingPinCounterRefusesEveryPin) {
    fs::remove(tokenFile().parent_path() / "attempts");
    EXPECT_EQ(validate(userPin), number(Error::tokenDamaged));
    EXPECT_EQ(zentak_getTokenInfo(device(), instance_).serialNumber, "");
}

TEST_F(DamagedStoreTest, DamageHealsWhenTheFileIsRestored) {
    const std::string whole = fileContent(tokenFile());
    expectRefused("{}", Error::tokenDamaged);
    writeFile(tokenFile(), whole);
    EXPECT_EQ(validate(userPin), 0);
}

/// Somebody who knows the format can give a changed file a new checksum; keys are protected by more than that.
TEST_F(DamagedStoreTest, ForgedUsageOrTypeMakesTheKeyUnusable) {
    const KeyPairEntry key = addKey(5, usageDecrypt);
    store_.change(serialNumber_, [](TokenData& token) { token.keyPairs[0].keyUsage |= usageSign; });
    EXPECT_EQ(signWith(key.keyId), number(Error::tokenDamaged));
}

TEST_F(DamagedStoreTest, ForgedUsageIsRefusedAlsoForALoadedKey) {
    const KeyPairEntry key = addKey(5, usageSign);
    ASSERT_EQ(signWith(key.keyId), 0);
    store_.change(serialNumber_, [](TokenData& token) { token.keyPairs[0].keyUsage = 0xFF; });
    EXPECT_EQ(signWith(key.keyId), number(Error::tokenDamaged));
}

TEST(TokenDataTest, DocumentGivesBackWhatWasWritten) {
    TokenData token;
    token.serialNumber = "00AA11BB";
    token.label = "\xC3\xA4 \"quoted\" \\";
    token.model = "\xFF\xFE no UTF-8";
    token.user = {KeyDerivation::scrypt(16), Bytes(16, 1), Bytes(60, 2), 5};
    token.keyPairs.push_back({4095, Reference{1}, 7, 3, "\x80", Bytes(128, 9), Bytes(133, 4), Bytes(300, 5)});
    token.certificates.push_back({1, Reference{2}, "", {}, Bytes(3072, 6)});
    EXPECT_EQ(readTokenData(writeTokenData(token)), token);
    token.officer = PinSection{KeyDerivation::pbkdf2(7), Bytes(16, 3), Bytes(60, 4), 3};
    EXPECT_EQ(readTokenData(writeTokenData(token)), token);
}

TEST(TokenDataTest, FieldsBeyondTheirLimitsAreRefused) {
    TokenData good;
    good.serialNumber = "00AA11BB";
    good.user = {KeyDerivation::scrypt(18), Bytes(16, 1), Bytes(60, 2), 5};
    good.officer = PinSection{KeyDerivation::pbkdf2(20'000'000), Bytes(16, 1), Bytes(60, 2), 5};
    good.keyPairs.push_back({1, Reference{1}, 7, 3, "a", {}, Bytes(133, 4), Bytes(300, 5)});
    good.certificates.push_back({1, Reference{2}, "", {}, Bytes(100, 6)});
    ASSERT_EQ(readTokenData(writeTokenData(good)), good);
    const auto expectRefused = [&](const std::function<void(TokenData&)>& spoil) {
        TokenData bad = good;
        spoil(bad);
        EXPECT_THROW(readTokenData(writeTokenData(bad)), Failure);
    };
    expectRefused([](TokenData& token) { token.serialNumber = "../x"; });
    expectRefused([](TokenData& token) { token.label = std::string(1025, 'a'); });
    // The boundary's texts would end there.
    expectRefused([](TokenData& token) { token.label = std::string("a\0b", 3); });
    expectRefused([](TokenData& token) { token.keyPairs[0].alias = std::string("a\0b", 3); });
    expectRefused([](TokenData& token) { token.officer->derivation.iterations = 0; });
    expectRefused([](TokenData& token) { token.officer->derivation.iterations = 20'000'001; });
    expectRefused([](TokenData& token) { token.user.derivation.costLog2 = 0; });
    expectRefused([](TokenData& token) { token.user.derivation.costLog2 = 19; });
    expectRefused([](TokenData& token) { token.user.derivation.blockSize = 1; });
    expectRefused([](TokenData& token) { token.user.derivation.blockSize = 9; });
    expectRefused([](TokenData& token) { token.user.derivation.parallelization = 0; });
    expectRefused([](TokenData& token) { token.user.derivation.parallelization = 17; });
    expectRefused([](TokenData& token) { token.user.derivation.function = static_cast<KeyDerivation::Function>(3); });
    expectRefused([](TokenData& token) { token.user.maximumAttempts = -1; });
    expectRefused([](TokenData& token) { token.keyPairs[0].id = 0; });
    expectRefused([](TokenData& token) { token.keyPairs[0].id = 0x1000; });
    expectRefused([](TokenData& token) { token.keyPairs[0].keyType = 8; });
    expectRefused([](TokenData& token) { token.keyPairs[0].alias = std::string(132, 'a'); });
    expectRefused([](TokenData& token) { token.keyPairs[0].objectId = Bytes(129, 1); });
    expectRefused([](TokenData& token) { token.keyPairs[0].publicKey = Bytes(1025, 1); });
    expectRefused([](TokenData& token) { token.keyPairs.push_back(token.keyPairs[0]); });
    expectRefused([](TokenData& token) { token.certificates[0].der = Bytes(3073, 1); });
    expectRefused([](TokenData& token) { token.certificates[0].label = std::string(152, 'a'); });
}

}  // namespace

}  // namespace softtoken
