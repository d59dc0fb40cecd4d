/// Safe views of the variable-length fields of the device library's records. A length or a missing terminator that
/// doesn't fit the field is cut to it, so that a broken record can't be read beyond its end. The views point into the
/// record.

#ifndef ZENTAK_DEVICE_RECORDS_H
#define ZENTAK_DEVICE_RECORDS_H

#include <algorithm>
#include <cstdint>
#include <limits>
#include <span>
#include <string_view>

#include "device/zentak_dsc_library.h"

namespace zentak {

using ByteView = std::span<const unsigned char>;

/// The most bytes that one argument of the device library can have: its lengths are int.
inline constexpr std::size_t longestArgument = std::numeric_limits<int>::max();

/// Bits of a key pair's usage.
inline constexpr std::uint32_t keyUsageSign = 1;     ///< signing and verification
inline constexpr std::uint32_t keyUsageEncrypt = 2;  ///< encryption and decryption

/// Key type codes.
inline constexpr std::int32_t keyTypeRsa1024 = 1;
inline constexpr std::int32_t keyTypeRsa2048 = 2;
inline constexpr std::int32_t keyTypeRsa3072 = 3;
inline constexpr std::int32_t keyTypeRsa4096 = 4;
inline constexpr std::int32_t keyTypeP256 = 5;
inline constexpr std::int32_t keyTypeP384 = 6;
inline constexpr std::int32_t keyTypeP521 = 7;

inline bool isEcKeyType(std::int32_t keyType) {
    return keyType >= keyTypeP256 && keyType <= keyTypeP521;
}

template <std::size_t FieldSize>
ByteView validBytes(const unsigned char (&field)[FieldSize], std::int32_t length) {
    return {field, std::min(static_cast<std::size_t>(std::max(length, 0)), FieldSize)};
}

inline ByteView publicKeyOf(const ZentakKeyPair& keyPair) {
    return validBytes(keyPair.publicKey, keyPair.publicKeyLength);
}
inline ByteView derOf(const ZentakCertificate& certificate) {
    return validBytes(certificate.der, certificate.derLength);
}
template <typename Record>
ByteView objectIdOf(const Record& record) {
    return validBytes(record.objectId, record.objectIdLength);
}

/// The lengths first: views of different lengths are never looked into.
inline bool sameBytes(ByteView left, ByteView right) {
    return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin());
}

/// The text of a zero-terminated field.
template <std::size_t FieldSize>
std::string_view textOf(const char (&field)[FieldSize]) {
    return {field, static_cast<std::size_t>(std::find(field, field + FieldSize, '\0') - field)};
}

/// Without the white space (of the "C" locale) at both ends.
inline std::string_view trimmed(std::string_view text) {
    constexpr std::string_view whiteSpace = " \t\n\r\f\v";
    const std::size_t last = text.find_last_not_of(whiteSpace);
    if (last == std::string_view::npos) {
        return {};
    }
    text = text.substr(0, last + 1);
    return text.substr(text.find_first_not_of(whiteSpace));
}

/// Labels that somebody has set; empty when the stored one is blank.
inline std::string_view storedLabel(const ZentakKeyPair& keyPair) {
    return trimmed(textOf(keyPair.alias));
}
inline std::string_view storedLabel(const ZentakCertificate& certificate) {
    return trimmed(textOf(certificate.label));
}

}  // namespace zentak

#endif
