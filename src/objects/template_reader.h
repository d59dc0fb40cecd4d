/// Reading of a caller's template entry by entry, values at any alignment.

#ifndef ZENTAK_OBJECTS_TEMPLATE_READER_H
#define ZENTAK_OBJECTS_TEMPLATE_READER_H

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include "frame/entry_frame.h"
#include "objects/records.h"

namespace zentak {

/// Calls `use(type, value)` for each entry that has a value, in order; entries without one are passed over.
template <typename Use>
void forEachValue(const CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount, const Use& use) {
    for (CK_ULONG index = 0; index < ulCount; ++index) {
        const CK_ATTRIBUTE entry = pTemplate[index];
        if (entry.pValue != nullptr && entry.ulValueLen != 0) {
            use(entry.type, ByteView(static_cast<const unsigned char*>(entry.pValue), entry.ulValueLen));
        }
    }
}

/// CKR_OK for a value that may be read. No value is as long as CK_UNAVAILABLE_INFORMATION, which reading of attributes
/// leaves in templates that hosts use again: CKR_DATA_LEN_RANGE, with the attribute's name in the log.
[[nodiscard]] inline CK_RV requireReadable(const char* function, const char* attribute, ByteView value) noexcept {
    return value.size() <= longestArgument ? CKR_OK
                                           : refuse(CKR_DATA_LEN_RANGE, function, ": ", attribute,
                                                    " too long for the device library, length=", value.size());
}

/// A value with the name of its attribute.
struct NamedValue {
    const char* attribute;
    ByteView value;
};

/// The same for several values, in their order.
[[nodiscard]] inline CK_RV requireReadable(const char* function, std::initializer_list<NamedValue> values) noexcept {
    for (const auto& [attribute, value] : values) {
        if (const CK_RV readable = requireReadable(function, attribute, value); readable != CKR_OK) {
            return readable;
        }
    }
    return CKR_OK;
}

/// A value as a number: its first bytes, at most as many as a CK_ULONG has; what is missing is zero. `otherwise` where
/// there is no value.
inline CK_ULONG numberIn(ByteView value, CK_ULONG otherwise = 0) {
    if (value.empty()) {
        return otherwise;
    }
    CK_ULONG number = 0;
    std::memcpy(&number, value.data(), std::min(value.size(), sizeof(number)));
    return number;
}

/// A value as text that needs no terminator.
inline std::string_view textIn(ByteView value) {
    return {reinterpret_cast<const char*>(value.data()), value.size()};
}

/// The usage bits that CKA_SIGN and CKA_DECRYPT of a template ask for: each by a non-zero first byte.
inline std::uint32_t usageIn(ByteView sign, ByteView decrypt) {
    const auto isTrue = [](ByteView value) { return !value.empty() && value[0] != 0; };
    return (isTrue(sign) ? keyUsageSign : 0U) | (isTrue(decrypt) ? keyUsageEncrypt : 0U);
}

/// Makes at most `limit` bytes the content of a field and fills the rest with zeros; how many it were.
template <typename Byte, std::size_t FieldSize>
std::int32_t replaceField(Byte (&field)[FieldSize], std::string_view bytes, std::size_t limit) {
    const std::size_t count = std::min({bytes.size(), limit, FieldSize});
    std::memset(field, 0, FieldSize);
    std::copy_n(bytes.begin(), count, field);
    return static_cast<std::int32_t>(count);
}

}  // namespace zentak

#endif
