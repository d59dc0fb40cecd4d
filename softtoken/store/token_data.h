/// What a token holds, and its form on disk: a document with a format name, a version, fields and a checksum.

#ifndef ZENTAK_SOFTTOKEN_STORE_TOKEN_DATA_H
#define ZENTAK_SOFTTOKEN_STORE_TOKEN_DATA_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bytes.h"

namespace softtoken {

/// Object handles leave no room for larger numbers.
inline constexpr std::uint32_t largestObjectNumber = 0xFFF;

inline constexpr std::size_t maximumCertificateLength = 3072;
inline constexpr std::size_t maximumObjectIdLength = 128;
inline constexpr std::size_t maximumAliasLength = 131;
inline constexpr std::size_t maximumCertificateLabelLength = 151;
inline constexpr std::size_t maximumSerialNumberLength = 16;

/// How a key is derived from a PIN. What is made without numbers is what a new PIN gets.
struct KeyDerivation {
    enum class Function : std::uint32_t { pbkdf2 = 1, scrypt = 2 };

    Function function = Function::scrypt;
    std::uint32_t iterations = 0;  ///< of PBKDF2 with HMAC-SHA-256; 0 for scrypt
    /// Of scrypt, 0 for PBKDF2: the logarithm of N to the base 2, r and p. Takes 64 MiB and about 0.2 s.
    std::uint32_t costLog2 = 16;
    std::uint32_t blockSize = 8;
    std::uint32_t parallelization = 1;

    static KeyDerivation pbkdf2(std::uint32_t iterations) { return {Function::pbkdf2, iterations, 0, 0, 0}; }
    static KeyDerivation scrypt(std::uint32_t costLog2) { return {Function::scrypt, 0, costLog2, 8, 1}; }

    bool operator==(const KeyDerivation&) const = default;
};

/// A file that asks for more takes more than 256 MiB, or keeps an application waiting for minutes.
inline constexpr std::uint32_t maximumCostLog2 = 18;

/// The token key, wrapped under a key that is derived from a PIN.
struct PinSection {
    KeyDerivation derivation;
    Bytes salt;
    Bytes wrappedTokenKey;
    int maximumAttempts = 0;

    bool operator==(const PinSection&) const = default;
};

struct KeyPairEntry {
    std::uint32_t id = 0;
    Reference keyId{};
    int keyType = 0;
    std::uint32_t keyUsage = 0;
    std::string alias;
    Bytes objectId;
    Bytes publicKey;         ///< modulus or EC point
    Bytes sealedPrivateKey;  ///< PKCS #8, encrypted under the token key

    bool operator==(const KeyPairEntry&) const = default;
};

struct CertificateEntry {
    std::uint32_t id = 0;
    Reference certId{};
    std::string label;
    Bytes objectId;
    Bytes der;

    bool operator==(const CertificateEntry&) const = default;
};

struct TokenData {
    std::string serialNumber;
    std::string label;
    std::string model;
    std::string firmwareVersion;
    bool userPinChanged = false;
    PinSection user;
    std::optional<PinSection> officer;
    std::uint32_t capacity = 0;  ///< key pairs, and certificates, that the token can hold
    /// The number given last. Numbers of deleted objects come back as late as possible, because applications keep them.
    std::uint32_t lastKeyPairNumber = 0;
    std::uint32_t lastCertificateNumber = 0;
    std::vector<KeyPairEntry> keyPairs;
    std::vector<CertificateEntry> certificates;

    bool operator==(const TokenData&) const = default;
};

/// PIN attempts left. They have a file of their own, so that a login doesn't make everybody read the token anew.
struct Attempts {
    int user = 0;
    int officer = 0;

    bool operator==(const Attempts&) const = default;
};

/// The documents on disk. A token is read in the versions 1 and 2, and written in version 2. Reading throws
/// Error::unknownVersion for a version that isn't ours and Error::tokenDamaged for everything else that was not written
/// by these routines.
std::string writeTokenData(const TokenData& token);
TokenData readTokenData(std::string_view document);
std::string writeAttempts(const Attempts& attempts);
Attempts readAttempts(std::string_view document);

/// Whether the text is 1 to 16 digits and upper-case letters: what a serial number, and so a token's folder, may be.
bool isSerialNumber(std::string_view text);

}  // namespace softtoken

#endif
