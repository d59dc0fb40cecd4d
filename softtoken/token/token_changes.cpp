#include "token/token_changes.h"

#include <algorithm>

#include "keys/certificates.h"
#include "platform/errors.h"

namespace softtoken {

namespace {

void requireLength(std::size_t length, std::size_t largest, const char* what) {
    if (length > largest) {
        throw Failure(Error::invalidArgument, std::string(what) + " is too long");
    }
}

void requireText(std::string_view text, std::size_t largest, const char* what) {
    requireLength(text.size(), largest, what);
    if (text.find('\0') != std::string_view::npos) {
        throw Failure(Error::invalidArgument, std::string(what) + " contains a zero byte");
    }
}

/// The next number after the last one given, round again, that nobody has. Throws `full` when there is none.
template <typename Entries>
std::uint32_t nextNumber(const Entries& entries, std::uint32_t& last, std::uint32_t capacity, Error full) {
    if (entries.size() >= capacity) {
        throw Failure(full, "the token is full");
    }
    for (std::uint32_t step = 0; step < largestObjectNumber; ++step) {
        last = last % largestObjectNumber + 1;
        const bool taken =
            std::any_of(entries.begin(), entries.end(), [&](const auto& entry) { return entry.id == last; });
        if (!taken) {
            return last;
        }
    }
    throw Failure(full, "the token is full");
}

Reference randomReference() {
    Reference reference{};
    const Bytes bytes = randomBytes(reference.size());
    std::copy(bytes.begin(), bytes.end(), reference.begin());
    return reference;
}

template <typename Data>
auto& findIn(Data& token, const Reference& keyId) {
    for (auto& entry : token.keyPairs) {
        if (entry.keyId == keyId) {
            return entry;
        }
    }
    throw Failure(Error::keyNotFound, "the token has no such key pair");
}

}  // namespace

std::string createToken(Store& store, const NewToken& settings) {
    requirePinLength(settings.userPin);
    requireText(settings.label, 64, "the label");
    requireText(settings.model, 16, "the model");
    TokenData token;
    token.serialNumber = hexText(randomBytes(maximumSerialNumberLength / 2));
    token.label = settings.label;
    token.model = settings.model;
    token.firmwareVersion = "1.0";
    token.userPinChanged = settings.userPinChanged;
    token.capacity = settings.capacity;
    const SecretBytes tokenKey = newTokenKey();
    token.user = makePinSection(token, Role::user, settings.userPin, tokenKey, settings.derivation, settings.attempts);
    if (!settings.officerPin.empty()) {
        requirePinLength(settings.officerPin);
        token.officer =
            makePinSection(token, Role::officer, settings.officerPin, tokenKey, settings.derivation, settings.attempts);
    }
    store.add(token, Attempts{settings.attempts, settings.officerPin.empty() ? 0 : settings.attempts});
    return token.serialNumber;
}

KeyPairEntry addKeyPair(TokenData& token, ByteView tokenKey, const EVP_PKEY* key, const NewKeyPair& settings) {
    requireText(settings.alias, maximumAliasLength, "the label");
    requireLength(settings.objectId.size(), maximumObjectIdLength, "the object's id");
    const KeyType* const type = keyTypeOf(key);
    if (type == nullptr) {
        throw Failure(Error::unsupportedKey,
                      "a token holds RSA keys of 1024 to 4096 bits with the exponent 65537, and P-256, P-384, P-521");
    }
    KeyPairEntry entry;
    entry.publicKey = publicKeyBytes(key);
    for (const KeyPairEntry& other : token.keyPairs) {
        if (other.publicKey == entry.publicKey) {
            throw Failure(Error::keyExists, "the token holds this key already");
        }
    }
    entry.id = nextNumber(token.keyPairs, token.lastKeyPairNumber, token.capacity, Error::keyStorageFull);
    entry.keyId = randomReference();
    entry.keyType = type->code;
    entry.keyUsage = settings.keyUsage;
    entry.alias = settings.alias;
    entry.objectId = settings.objectId;
    entry.sealedPrivateKey = seal(tokenKey, keyPairBinding(token.serialNumber, entry), encodePrivateKey(key));
    token.keyPairs.push_back(entry);
    return entry;
}

CertificateEntry addCertificate(TokenData& token, ByteView der, std::string_view label, ByteView objectId,
                                ByteView otherwiseObjectId) {
    requireText(label, maximumCertificateLabelLength, "the label");
    requireLength(std::max(objectId.size(), otherwiseObjectId.size()), maximumObjectIdLength, "the object's id");
    requireLength(der.size(), maximumCertificateLength, "the certificate");
    static_cast<void>(parseCertificate(der));
    for (CertificateEntry& other : token.certificates) {
        if (!std::equal(der.begin(), der.end(), other.der.begin(), other.der.end())) {
            continue;
        }
        if (!label.empty()) {
            other.label = label;
        }
        const ByteView newId = objectId.empty() && other.objectId.empty() ? otherwiseObjectId : objectId;
        if (!newId.empty()) {
            other.objectId.assign(newId.begin(), newId.end());
        }
        return other;
    }
    CertificateEntry entry;
    entry.id =
        nextNumber(token.certificates, token.lastCertificateNumber, token.capacity, Error::certificateStorageFull);
    entry.certId = randomReference();
    entry.label = label;
    const ByteView newId = objectId.empty() ? otherwiseObjectId : objectId;
    entry.objectId.assign(newId.begin(), newId.end());
    entry.der.assign(der.begin(), der.end());
    token.certificates.push_back(entry);
    return entry;
}

KeyPairEntry& findKeyPair(TokenData& token, const Reference& keyId) {
    return findIn(token, keyId);
}

const KeyPairEntry& findKeyPair(const TokenData& token, const Reference& keyId) {
    return findIn(token, keyId);
}

void deleteKeyPair(TokenData& token, const Reference& keyId) {
    const KeyPairEntry& entry = findKeyPair(token, keyId);
    token.keyPairs.erase(token.keyPairs.begin() + (&entry - token.keyPairs.data()));
}

Key openPrivateKey(const TokenData& token, const KeyPairEntry& entry, ByteView tokenKey) {
    const auto pkcs8 = unseal(tokenKey, keyPairBinding(token.serialNumber, entry), entry.sealedPrivateKey);
    if (!pkcs8) {
        throw Failure(Error::tokenDamaged, "a private key of the token was tampered with");
    }
    return decodePrivateKey(*pkcs8);
}

}  // namespace softtoken
