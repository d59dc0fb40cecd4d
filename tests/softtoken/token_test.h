/// What the tests of the software token share: a store in a temporary folder, a token in it, an instance of the library
/// that works on it.

#ifndef ZENTAK_TESTS_SOFTTOKEN_TOKEN_TEST_H
#define ZENTAK_TESTS_SOFTTOKEN_TOKEN_TEST_H

#include <filesystem>
#include <gtest/gtest.h>
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

/// A key made once in the process for each type code.
const Key& testKey(int keyType);

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

    int validate(const char* pin, int* attemptsLeft = nullptr, int userKind = 1) {
        return zentak_validatePassword(device(), pin, userKind, attemptsLeft, instance_);
    }
    [[nodiscard]] int attemptsLeft() const { return zentak_getTokenInfo(device(), instance_).userPinAttemptsLeft; }

    TemporaryFolder folder_;
    Store store_;
    std::string serialNumber_;
    void* instance_ = nullptr;
};

}  // namespace softtoken

#endif
