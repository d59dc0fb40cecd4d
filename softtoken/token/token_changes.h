/// Changes to what a token holds, as the library's operations and the tool make them alike. They work on the token's
/// data inside Store::change.

#ifndef ZENTAK_SOFTTOKEN_TOKEN_TOKEN_CHANGES_H
#define ZENTAK_SOFTTOKEN_TOKEN_TOKEN_CHANGES_H

#include <string>
#include <string_view>

#include "keys/keys.h"
#include "store/store.h"

namespace softtoken {

/// Bits of a key pair's usage.
inline constexpr std::uint32_t usageSign = 1;
inline constexpr std::uint32_t usageDecrypt = 2;

struct NewToken {
    std::string label;
    std::string model;
    std::string userPin;
    std::string officerPin;  ///< empty for none: then a locked PIN stays locked
    bool userPinChanged = true;
    int attempts = 5;
    KeyDerivation derivation;       ///< of the keys from the PINs
    std::uint32_t capacity = 1024;  ///< key pairs, and certificates
};

/// Makes a token with a serial number of its own, plugged in, and answers the number.
std::string createToken(Store& store, const NewToken& settings);

struct NewKeyPair {
    std::string alias;
    Bytes objectId;
    std::uint32_t keyUsage = usageSign | usageDecrypt;
};

/// Adds a key pair and answers its entry. Throws Error::unsupportedKey, Error::keyExists, Error::keyStorageFull and
/// Error::invalidArgument for a field too long.
KeyPairEntry addKeyPair(TokenData& token, ByteView tokenKey, const EVP_PKEY* key, const NewKeyPair& settings);

/// Adds a certificate and answers its entry. One that the token holds already isn't stored twice: it takes over the
/// label and the CKA_ID, each unless it's empty. `otherwiseObjectId` is for a certificate that would have no CKA_ID.
/// Throws Error::certificateInvalid, Error::certificateStorageFull, and Error::invalidArgument for a field too long.
CertificateEntry addCertificate(TokenData& token, ByteView der, std::string_view label, ByteView objectId,
                                ByteView otherwiseObjectId = {});

/// Throws Error::keyNotFound.
KeyPairEntry& findKeyPair(TokenData& token, const Reference& keyId);
const KeyPairEntry& findKeyPair(const TokenData& token, const Reference& keyId);
void deleteKeyPair(TokenData& token, const Reference& keyId);

/// Decrypts a private key and loads it. Throws Error::tokenDamaged when it was tampered with.
Key openPrivateKey(const TokenData& token, const KeyPairEntry& entry, ByteView tokenKey);

}  // namespace softtoken

#endif
