#include "store/vault.h"

#include <algorithm>
#include <openssl/core_names.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>

#include "platform/errors.h"
#include "platform/openssl_support.h"

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

/// More than the costliest section that is read takes: OpenSSL refuses beyond it.
constexpr std::uint64_t scryptMemory = std::uint64_t{512} << 20;

/// What a section was sealed with, apart from the PIN: whatever decides about the PIN's safety and the token's. The
/// model is last, because it may be any text.
Bytes pinBinding(const TokenData& token, Role role, const PinSection& section) {
    std::string text = "zentak token key " + token.serialNumber + (role == Role::user ? " user" : " officer");
    const KeyDerivation& derivation = section.derivation;
    // Sections with PBKDF2 are those of version 1, which bound no more.
    if (derivation.function == KeyDerivation::Function::scrypt) {
        text += " scrypt";
        for (const std::uint32_t number : {derivation.costLog2, derivation.blockSize, derivation.parallelization,
                                           static_cast<std::uint32_t>(section.maximumAttempts)}) {
            text += " " + std::to_string(number);
        }
        text += " " + hexText(viewOf(token.model));
    }
    return {text.begin(), text.end()};
}

void derive(EVP_KDF* function, const OSSL_PARAM* parameters, SecretBytes& key) {
    const std::unique_ptr<EVP_KDF_CTX, Releaser<&EVP_KDF_CTX_free>> context(EVP_KDF_CTX_new(function));
    requireCrypto(context && EVP_KDF_derive(context.get(), key.data(), key.size(), parameters) == 1,
                  "deriving a key from the PIN");
}

int intOf(std::size_t size) {
    return static_cast<int>(size);
}

}  // namespace

void requirePinLength(std::string_view pin) {
    if (pin.empty()) {
        throw Failure(Error::pinRequired, "a PIN is needed");
    }
    if (pin.size() < minimumPinLength || pin.size() > maximumPinLength) {
        throw Failure(Error::pinLength, "a PIN has 4 to 63 bytes");
    }
}

SecretBytes derivePinKey(const PinSection& section, std::string_view pin) {
    const KeyDerivation& derivation = section.derivation;
    SecretBytes password(pin.begin(), pin.end());
    Bytes salt = section.salt;
    SecretBytes key(keyLength);
    const OSSL_PARAM passwordParameter =
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD, password.data(), password.size());
    const OSSL_PARAM saltParameter = OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, salt.data(), salt.size());
    if (derivation.function == KeyDerivation::Function::pbkdf2) {
        static EVP_KDF* const function = EVP_KDF_fetch(cryptoContext(), "PBKDF2", nullptr);
        std::string digest = "SHA2-256";
        unsigned int iterations = derivation.iterations;
        // The check for iterations and lengths fit for a standard is off: tests use cheap parameters.
        int lenient = 1;
        const OSSL_PARAM parameters[] = {
            OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest.data(), 0),
            passwordParameter,
            saltParameter,
            OSSL_PARAM_construct_uint(OSSL_KDF_PARAM_ITER, &iterations),
            OSSL_PARAM_construct_int(OSSL_KDF_PARAM_PKCS5, &lenient),
            OSSL_PARAM_construct_end(),
        };
        derive(function, parameters, key);
        return key;
    }
    static EVP_KDF* const function = EVP_KDF_fetch(cryptoContext(), "SCRYPT", nullptr);
    std::uint64_t cost = std::uint64_t{1} << derivation.costLog2;
    std::uint32_t blockSize = derivation.blockSize;
    std::uint32_t parallelization = derivation.parallelization;
    std::uint64_t memory = scryptMemory;
    const OSSL_PARAM parameters[] = {
        passwordParameter,
        saltParameter,
        OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_N, &cost),
        OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_R, &blockSize),
        OSSL_PARAM_construct_uint32(OSSL_KDF_PARAM_SCRYPT_P, &parallelization),
        OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_SCRYPT_MAXMEM, &memory),
        OSSL_PARAM_construct_end(),
    };
    derive(function, parameters, key);
    return key;
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
    if (sealed.size() < nonceLength + tagLength) {
        return std::nullopt;
    }
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
    if (!opened) {
        return std::nullopt;
    }
    return plaintext;
}

PinSection makePinSection(const TokenData& token, Role role, std::string_view pin, ByteView tokenKey,
                          const KeyDerivation& derivation, int maximumAttempts) {
    PinSection section;
    section.derivation = derivation;
    section.salt = randomBytes(saltLength);
    section.maximumAttempts = maximumAttempts;
    section.wrappedTokenKey = seal(derivePinKey(section, pin), pinBinding(token, role, section), tokenKey);
    return section;
}

const PinSection& pinSectionOf(const TokenData& token, Role role) {
    if (role == Role::user) {
        return token.user;
    }
    if (!token.officer) {
        throw PinFailure(Error::pinLocked, 0, "the token has no security officer's PIN");
    }
    return *token.officer;
}

std::optional<SecretBytes> openPinSection(const TokenData& token, Role role, ByteView pinKey) {
    const PinSection& section = pinSectionOf(token, role);
    auto tokenKey = unseal(pinKey, pinBinding(token, role, section), section.wrappedTokenKey);
    if (tokenKey && tokenKey->size() != keyLength) {
        throw Failure(Error::tokenDamaged, "the token key is damaged");
    }
    return tokenKey;
}

Bytes keyPairBinding(std::string_view serialNumber, const KeyPairEntry& entry) {
    const std::string text = "zentak private key " + std::string(serialNumber) + " " + hexText(entry.keyId) + " " +
                             std::to_string(entry.keyType) + " " + std::to_string(entry.keyUsage) + " " +
                             hexText(entry.publicKey);
    return {text.begin(), text.end()};
}

}  // namespace softtoken
