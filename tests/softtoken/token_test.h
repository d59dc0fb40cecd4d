/// What the tests of the software token share: a store in a temporary folder, a token in it, an instance of the library
/// that works on it.

#ifndef ZENTAK_TESTS_SOFTTOKEN_TOKEN_TEST_H
#define ZENTAK_TESTS_SOFTTOKEN_TOKEN_TEST_H

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <string>

#include "device/zentak_dsc_library.h"
#include "keys/keys.h"
#include "platform/errors.h"
#include "store/store.h"
#include "token/token_changes.h"

namespace softtoken {

constexpr int number(Error error) {
    return static_cast<int>(error);
}

/// A new folder in the system's temporary one or in another, removed at the end.
class TemporaryFolder {
public:
    explicit TemporaryFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path());
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder();

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

/// Sets a variable of the environment, or removes it when the value is empty.
void setEnvironment(const std::string& name, const std::string& value);

std::string fileContent(const std::filesystem::path& file);
void writeFile(const std::filesystem::path& file, std::string_view content);

/// All files below a folder, whole.
std::map<std::string, std::string> filesBelow(const std::filesystem::path& folder);

/// What the work fails with; the test fails when it doesn't.
Failure failureOf(const std::function<void()>& work);
void expectFailure(Error error, const std::string& text, const std::function<void()>& work);

/// A key made once in the process for each type code.
const Key& testKey(int keyType);

/// One of the numbers a key is made of, by its OpenSSL name; nothing when the key has no such number.
Bytes numberOf(const Key& key, const char* name);
Bytes bytesOf(const BIGNUM* number);
/// The public half as a SubjectPublicKeyInfo in DER.
Bytes publicDer(const Key& key);

/// The record of a certificate to be imported.
ZentakCertificate recordOf(const Bytes& der, const std::string& label = "", const Bytes& objectId = {});

/// A store with one plugged-in token: user PIN "123456", officer's PIN "98765432", five attempts.
class TokenTest : public testing::Test {
protected:
    static constexpr const char* userPin = "123456";
    static constexpr const char* officerPin = "98765432";

    TokenTest();
    ~TokenTest() override;

    /// Settings of a token that is cheap to unlock.
    static NewToken cheapToken();
    [[nodiscard]] const char* device() const { return serialNumber_.c_str(); }
    [[nodiscard]] std::filesystem::path tokenFile() const { return store_.pluggedTokenFile(serialNumber_); }

    /// Puts a key on the token by the store's routines and answers its entry.
    KeyPairEntry addKey(int keyType, std::uint32_t usage = usageSign | usageDecrypt);
    /// Opens another instance, as another process would have.
    void reopen();

    // What the library answers.
    int validate(const char* pin, int* attemptsLeft = nullptr, int userKind = 1) const {
        return zentak_validatePassword(device(), pin, userKind, attemptsLeft, instance_);
    }
    bool changePin(const char* oldPin, const char* newPin, int* failures = nullptr) const {
        return zentak_changeUserPassword(device(), oldPin, newPin, failures, false, false, instance_);
    }
    [[nodiscard]] int attemptsLeft() const { return zentak_getTokenInfo(device(), instance_).userPinAttemptsLeft; }
    [[nodiscard]] const std::vector<ZentakKeyPair>& keyPairs() const {
        return zentak_getKeyPairList(device(), instance_);
    }
    /// Generates a P-256 key pair.
    int generateP256() const;
    /// Signs a hash of zero bytes.
    int signWith(const Reference& keyId, const char* pin = userPin) const;
    int importCertificate(const Bytes& der) const;

    TemporaryFolder folder_;
    Store store_;
    std::string serialNumber_;
    void* instance_ = nullptr;
};

}  // namespace softtoken

#endif
