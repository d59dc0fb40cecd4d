/// Object handles: computed from the number that the device library gives a record, so that the module keeps no object
/// store. Each range begins at the number below; a key pair is two objects, one in each of its ranges.

#ifndef ZENTAK_MODULE_OBJECT_HANDLES_H
#define ZENTAK_MODULE_OBJECT_HANDLES_H

#include "module/cryptoki.h"

namespace zentak {

inline constexpr CK_OBJECT_HANDLE privateKeyBase = 0x70000000;
inline constexpr CK_OBJECT_HANDLE publicKeyBase = 0x70001000;
inline constexpr CK_OBJECT_HANDLE certificateBase = 0x70002000;
inline constexpr CK_OBJECT_HANDLE derivedSecretBase = 0x70003000;

inline bool isPrivateKeyHandle(CK_OBJECT_HANDLE handle) {
    return handle >= privateKeyBase && handle < publicKeyBase;
}
inline bool isPublicKeyHandle(CK_OBJECT_HANDLE handle) {
    return handle >= publicKeyBase && handle < certificateBase;
}

/// Identifier of the key pair that either of its handles means; what is above the two ranges counts as public.
inline CK_ULONG keyPairIdentifier(CK_OBJECT_HANDLE handle) {
    return handle - (handle < publicKeyBase ? privateKeyBase : publicKeyBase);
}

}  // namespace zentak

#endif
