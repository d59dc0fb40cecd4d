/// Safe views of the variable-length fields of the device library's records. A length or a missing terminator that
/// doesn't fit the field is cut to it, so that a broken record can't be read beyond its end. The views point into the
/// record.

#ifndef ZENTAK_DEVICE_RECORD_VIEWS_H
#define ZENTAK_DEVICE_RECORD_VIEWS_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "base/byte_view.h"
#include "device/zentak_dsc_library.h"

namespace zentak {

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

/// The text of a zero-terminated field.
template <std::size_t FieldSize>
std::string_view textOf(const char (&field)[FieldSize]) {
    return {field, static_cast<std::size_t>(std::find(field, field + FieldSize, '\0') - field)};
}

/// Labels that somebody has set; empty when the stored one is blank.
inline std::string_view storedLabel(const ZentakKeyPair& keyPair) {
    return trimmed(textOf(keyPair.alias));
}
inline std::string_view storedLabel(const ZentakCertificate& certificate) {
    return trimmed(textOf(certificate.label));
}

/// Makes at most `limit` bytes the content of a field and fills the rest with zeros. Returns how many bytes it took.
template <typename Byte, std::size_t FieldSize>
std::int32_t replaceField(Byte (&field)[FieldSize], std::string_view bytes, std::size_t limit) {
    const std::size_t count = std::min({bytes.size(), limit, FieldSize});
    std::memset(field, 0, FieldSize);
    std::copy_n(bytes.begin(), count, field);
    return static_cast<std::int32_t>(count);
}

}  // namespace zentak

#endif
