// Files of a token that were cut off, changed, replaced or taken away: refused, never half read, and left as they are.

#include "store/document.h"
#include "test_certificates.h"
#include "token_test.h"

namespace softtoken {

namespace {

namespace fs = std::filesystem;

class DamageTest : public TokenTest {
protected:
    [[nodiscard]] fs::path attemptsFile() const { return tokenFile().parent_path() / "attempts"; }

    static bool isRefusal(int result) {
        return result == number(Error::tokenDamaged) || result == number(Error::unknownVersion);
    }

    /// Everything that reads the token's main file refuses it, and nothing writes to it.
    void expectTokenRefused(const std::string& content) {
        writeFile(tokenFile(), content);
        ASSERT_TRUE(isRefusal(zentak_initDevice(device(), true, instance_)));
        EXPECT_TRUE(isRefusal(validate(userPin)));
        EXPECT_EQ(zentak_getTokenInfo(device(), instance_).serialNumber, "");
        EXPECT_TRUE(keyPairs().empty());
        ZentakCertificate certificate{};
        EXPECT_TRUE(isRefusal(zentak_importCertificate(device(), userPin, &certificate, instance_)));
        EXPECT_FALSE(changePin(userPin, "654321"));
        EXPECT_EQ(fileContent(tokenFile()), content);
    }

    void expectAttemptsRefused(const std::string& content) {
        writeFile(attemptsFile(), content);
        ASSERT_TRUE(isRefusal(validate(userPin)));
        EXPECT_TRUE(isRefusal(validate("000000")));
        EXPECT_TRUE(isRefusal(validate(officerPin, nullptr, 2)));
        EXPECT_EQ(zentak_getTokenInfo(device(), instance_).serialNumber, "");
        EXPECT_EQ(fileContent(attemptsFile()), content);
    }
};

std::string flipped(std::string content, std::size_t position) {
    content[position] = static_cast<char>(content[position] ^ (1 << position % 8));
    return content;
}

std::string withChecksum(const std::string& content) {
    const auto checksum = sha256(viewOf(content));
    return content + std::string(checksum.begin(), checksum.end());
}

TEST_F(DamageTest, EveryByteFlippedOnce) {
    addKey(5);
    for (const fs::path& file : {tokenFile(), attemptsFile()}) {
        const std::string whole = fileContent(file);
        for (std::size_t i = 0; i < whole.size(); ++i) {
            SCOPED_TRACE(file.filename().string() + ", byte " + std::to_string(i));
            ASSERT_NO_FATAL_FAILURE(file == tokenFile() ? expectTokenRefused(flipped(whole, i))
                                                        : expectAttemptsRefused(flipped(whole, i)));
        }
        writeFile(file, whole);
        EXPECT_EQ(validate(userPin), 0);
        EXPECT_EQ(attemptsLeft(), 5);
    }
}

TEST_F(DamageTest, FilesCutOffAtEveryLength) {
    const std::string token = fileContent(tokenFile());
    for (std::size_t length = 0; length < token.size(); ++length) {
        ASSERT_NO_FATAL_FAILURE(expectTokenRefused(token.substr(0, length))) << length;
    }
    ASSERT_NO_FATAL_FAILURE(expectTokenRefused(token + '\0'));
    writeFile(tokenFile(), token);
    const std::string attempts = fileContent(attemptsFile());
    for (std::size_t length = 0; length < attempts.size(); ++length) {
        ASSERT_NO_FATAL_FAILURE(expectAttemptsRefused(attempts.substr(0, length))) << length;
    }
}

/// Whoever can compute the checksum can say anything in the fields; that must neither crash nor take long.
TEST_F(DamageTest, EveryByteFlippedUnderARightChecksum) {
    addKey(5);
    const std::string whole = fileContent(tokenFile());
    const std::size_t begin = whole.find('\n') + 1;
    const std::size_t end = whole.size() - 32;
    int readable = 0;
    for (std::size_t i = begin; i < end; ++i) {
        try {
            static_cast<void>(readTokenData(withChecksum(flipped(whole.substr(0, end), i))));
            ++readable;
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.error, Error::tokenDamaged);
        }
    }
    // Contents of texts and byte fields are anybody's, lengths and numbers aren't.
    EXPECT_GT(readable, 0);
    EXPECT_LT(static_cast<std::size_t>(readable), end - begin);
}

TEST_F(DamageTest, NothingMayFollowTheLastField) {
    addKey(5);
    const auto lengthened = [](const std::string& whole, const std::string& more) {
        return withChecksum(whole.substr(0, whole.size() - checksumLength) + more);
    };
    const std::string token = fileContent(tokenFile());
    const std::string attempts = fileContent(attemptsFile());
    ASSERT_EQ(lengthened(token, ""), token);
    ASSERT_EQ(lengthened(attempts, ""), attempts);
    for (const std::string& more : {std::string(1, '\0'), std::string("x"), std::string(4, '\0'), token}) {
        ASSERT_NO_FATAL_FAILURE(expectTokenRefused(lengthened(token, more)));
        writeFile(tokenFile(), token);
        ASSERT_NO_FATAL_FAILURE(expectAttemptsRefused(lengthened(attempts, more)));
        writeFile(attemptsFile(), attempts);
    }
}

TEST_F(DamageTest, HugeFileIsNotRead) {
    fs::resize_file(tokenFile(), (64 << 20) + 1);
    EXPECT_EQ(zentak_initDevice(device(), true, instance_), number(Error::tokenDamaged));
    EXPECT_EQ(validate(userPin), number(Error::tokenDamaged));
    EXPECT_EQ(fs::file_size(tokenFile()), (64 << 20) + 1);
}

TEST_F(DamageTest, FolderInThePlaceOfAFile) {
    fs::remove(attemptsFile());
    fs::create_directory(attemptsFile());
    EXPECT_EQ(validate(userPin), number(Error::tokenDamaged));
    fs::remove(tokenFile());
    fs::create_directory(tokenFile());
    EXPECT_EQ(zentak_initDevice(device(), true, instance_), number(Error::tokenDamaged));
}

/// Each write begins with a new file beside the old one, which can't be made here.
TEST_F(DamageTest, WriteThatFailsChangesNothing) {
    ASSERT_EQ(validate(userPin), 0);
    const std::string before = fileContent(tokenFile());
    fs::path obstacle = tokenFile();
    obstacle += ".new";
    fs::create_directories(obstacle / "in the way");
    EXPECT_EQ(generateP256(), number(Error::storeFailed));
    EXPECT_TRUE(keyPairs().empty());
    EXPECT_EQ(fileContent(tokenFile()), before);
    fs::remove_all(obstacle);
    EXPECT_EQ(generateP256(), 0);
}

TEST_F(DamageTest, StoreRemovedUnderARunningProgram) {
    const KeyPairEntry key = addKey(5);
    ASSERT_EQ(validate(userPin), 0);
    ASSERT_EQ(signWith(key.keyId), 0);
    fs::remove_all(folder_.path());
    EXPECT_TRUE(zentak_getConnectedDeviceList(false, instance_).empty());
    EXPECT_EQ(signWith(key.keyId), number(Error::deviceNotPresent));
    EXPECT_EQ(validate(userPin), number(Error::deviceNotPresent));
    EXPECT_TRUE(keyPairs().empty());
    EXPECT_EQ(zentak_getTokenInfo(device(), instance_).serialNumber, "");
    ZentakCertificate certificate{};
    EXPECT_EQ(zentak_importCertificate(device(), userPin, &certificate, instance_), number(Error::deviceNotPresent));
    EXPECT_FALSE(fs::exists(folder_.path()));
    // A store that comes back is used again, by the same program.
    serialNumber_ = createToken(store_, cheapToken());
    EXPECT_EQ(zentak_getConnectedDeviceList(false, instance_), std::vector<std::string>{serialNumber_});
    EXPECT_EQ(validate(userPin), 0);
}

TEST_F(DamageTest, TokenFolderRemovedUnderARunningProgram) {
    ASSERT_EQ(validate(userPin), 0);
    fs::remove_all(tokenFile().parent_path());
    EXPECT_EQ(validate(userPin), number(Error::deviceNotPresent));
    EXPECT_TRUE(zentak_getConnectedDeviceList(false, instance_).empty());
}

}  // namespace

}  // namespace softtoken
