#include "token_test.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
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

std::map<std::string, std::string> filesBelow(const fs::path& folder) {
    std::map<std::string, std::string> all;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) all[entry.path().string()] = fileContent(entry.path());
    }
    return all;
}

Failure failureOf(const std::function<void()>& work) {
    try {
        work();
    } catch (const Failure& failure) {
        return failure;
    }
    ADD_FAILURE() << "nothing failed";
    return {Error::none, ""};
}

void expectFailure(Error error, const std::string& text, const std::function<void()>& work) {
    const Failure failure = failureOf(work);
    EXPECT_EQ(failure.error, error);
    EXPECT_EQ(failure.what(), text);
}

const Key& testKey(int keyType) {
    static std::map<int, Key> keys;
    Key& key = keys[keyType];
    // The library generates no RSA 1024, but takes it.
    if (!key) key = keyType == 1 ? ownKey(EVP_RSA_gen(1024)) : generateKey(*keyTypeOfCode(keyType));
    return key;
}

Bytes numberOf(const Key& key, const char* name) {
    BIGNUM* number = nullptr;
    if (EVP_PKEY_get_bn_param(key.get(), name, &number) != 1) return {};
    const BigNumber owned(number);
    return bytesOf(number);
}

Bytes bytesOf(const BIGNUM* number) {
    Bytes bytes(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    return bytes;
}

Bytes publicDer(const Key& key) {
    Bytes der(static_cast<std::size_t>(i2d_PUBKEY(key.get(), nullptr)));
    unsigned char* position = der.data();
    i2d_PUBKEY(key.get(), &position);
    return der;
}

ZentakCertificate recordOf(const Bytes& der, const std::string& label, const Bytes& objectId) {
    ZentakCertificate record{};
    std::copy_n(der.begin(), std::min(der.size(), sizeof record.der), record.der);
    record.derLength = static_cast<int>(der.size());
    std::copy(objectId.begin(), objectId.end(), record.objectId);
    record.objectIdLength = static_cast<int>(objectId.size());
    label.copy(record.label, sizeof record.label - 1);
    return record;
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

int TokenTest::generateP256() const {
    ZentakKeyPair record{};
    record.keyType = 5;
    return zentak_generateKeyPair(device(), userPin, &record, instance_);
}

int TokenTest::signWith(const Reference& keyId, const char* pin) const {
    const unsigned char hash[32] = {};
    unsigned char signature[1024];
    int length = sizeof signature;
    return zentak_signHash(device(), keyId.data(), pin, hash, 32, signature, &length, false, instance_, false);
}

int TokenTest::importCertificate(const Bytes& der) const {
    ZentakCertificate record = recordOf(der);
    return zentak_importCertificate(device(), "", &record, instance_);
}

}  // namespace softtoken
