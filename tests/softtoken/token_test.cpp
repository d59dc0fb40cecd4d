#include "token_test.h"

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

namespace softtoken {

namespace fs = std::filesystem;

TemporaryFolder::TemporaryFolder(const fs::path& parent)
    : path_(parent / ("zentak-softtoken-" + hexText(randomBytes(8)))) {
    fs::create_directories(path_);
    // A store doesn't lie where others may write, whatever the umask lets them.
    fs::permissions(path_, fs::perms::owner_all);
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

void setEnvironment(const std::string& name, const std::string& value) {
#ifdef _WIN32
    _putenv_s(name.c_str(), value.c_str());
#else
    if (value.empty()) {
        unsetenv(name.c_str());
    } else {
        setenv(name.c_str(), value.c_str(), 1);
    }
#endif
}

std::string fileContent(const fs::path& file) {
    std::ostringstream content;
    content << std::ifstream(file, std::ios::binary).rdbuf();
    return content.str();
}

void writeFile(const fs::path& file, std::string_view content) {
    std::ofstream(file, std::ios::binary) << content;
}

const Key& testKey(int keyType) {
    static std::map<int, Key> keys;
    Key& key = keys[keyType];
    // The library generates no RSA 1024, but takes it.
    if (!key) key = keyType == 1 ? ownKey(EVP_RSA_gen(1024)) : generateKey(*keyTypeOfCode(keyType));
    return key;
}

NewToken TokenTest::cheapToken() {
    NewToken token;
    token.label = "Test token";
    token.model = "ZS1 Software";
    token.userPin = userPin;
    token.officerPin = officerPin;
    token.derivation = KeyDerivation::scrypt(1);
    return token;
}

TokenTest::TokenTest() : store_(folder_.path()), serialNumber_(createToken(store_, cheapToken())) {
    setEnvironment("ZENTAK_TOKENS", folder_.path().string());
    zentak_createInstance(&instance_);
}

TokenTest::~TokenTest() {
    zentak_releaseInstance(instance_);
}

KeyPairEntry TokenTest::addKey(int keyType, std::uint32_t usage) {
    const SecretBytes tokenKey = store_.checkPin(serialNumber_, Role::user, userPin);
    KeyPairEntry entry;
    store_.change(serialNumber_, [&](TokenData& token) {
        entry = addKeyPair(token, tokenKey, testKey(keyType).get(), {"key", {1, 2, 3}, usage});
    });
    return entry;
}

void TokenTest::reopen() {
    zentak_releaseInstance(instance_);
    zentak_createInstance(&instance_);
}

}  // namespace softtoken
