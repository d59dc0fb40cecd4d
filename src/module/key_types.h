/// What the device library's key types mean to Cryptoki.

#ifndef ZENTAK_MODULE_KEY_TYPES_H
#define ZENTAK_MODULE_KEY_TYPES_H

#include <cstdint>

#include "base/byte_view.h"
#include "module/cryptoki.h"

namespace zentak {

struct KeyTypeProperties {
    CK_KEY_TYPE keyType;
    CK_ULONG bits;
    CK_MECHANISM_TYPE generationMechanism;
    ByteView ecParameters;  ///< DER of the curve's object identifier; empty for RSA
};

/// The properties of a key type of device/codes.h. Codes outside 1 to 7 count as RSA 2048.
const KeyTypeProperties& keyTypeProperties(std::int32_t keyTypeCode);

}  // namespace zentak

#endif
