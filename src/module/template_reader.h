/// Reading of a caller's template entry by entry, values at any alignment.

#ifndef ZENTAK_MODULE_TEMPLATE_READER_H
#define ZENTAK_MODULE_TEMPLATE_READER_H

#include <algorithm>
#include <cstring>
#include <initializer_list>

#include "base/byte_view.h"
#include "device/result.h"
#include "module/entry_frame.h"

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

/// A value with the name of its attribute.
struct NamedValue {
    const char* attribute;
    ByteView value;
};

/// CKR_OK for values that may be copied whole. No value is as long as CK_UNAVAILABLE_INFORMATION, which reading of
/// attributes leaves in templates that applications use again: CKR_DATA_LEN_RANGE, with the attribute's name in the
/// log. Numbers and truth values need no such look: of them no more is read than they have.
[[nodiscard]] inline CK_RV requireReadable(const char* function, std::initializer_list<NamedValue> values) noexcept {
    for (const auto& [attribute, value] : values) {
        if (value.size() > device::longestInput) {
            return refuse(CKR_DATA_LEN_RANGE, function, ": ", attribute,
                          " too long for the device library, length=", value.size());
        }
    }
    return CKR_OK;
}

/// A value as a number: its first bytes, at most as many as a CK_ULONG has; what is missing is zero.
inline CK_ULONG numberIn(ByteView value) {
    CK_ULONG number = 0;
    std::memcpy(&number, value.data(), std::min(value.size(), sizeof(number)));
    return number;
}

/// The usage bits that CKA_SIGN and CKA_DECRYPT of a template set: a non-zero first byte sets the bit, anything else
/// clears it.
inline void setUsage(std::uint32_t& usage, std::uint32_t bit, ByteView value) {
    usage = value[0] != 0 ? usage | bit : usage & ~bit;
}

}  // namespace zentak

#endif
