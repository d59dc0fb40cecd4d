/// What a key pair or a certificate answers to each attribute type.

#ifndef ZENTAK_OBJECTS_ATTRIBUTE_VALUES_H
#define ZENTAK_OBJECTS_ATTRIBUTE_VALUES_H

#include <optional>
#include <string>
#include <vector>

#include "device/records.h"
#include "module/cryptoki.h"

namespace zentak {

/// What a key type code of the device library means.
struct KeyTypeProperties {
    CK_KEY_TYPE keyType;
    CK_ULONG bits;
    CK_MECHANISM_TYPE generationMechanism;
    ByteView ecParameters;  ///< DER of the curve's object identifier; empty for RSA
};

/// Codes outside 1 to 7 count as RSA 2048.
const KeyTypeProperties& keyTypeProperties(std::int32_t keyTypeCode);

/// One object, prepared for reading its attributes. The views point into the lookup buffer of its kind.
struct ReadableObject {
    CK_OBJECT_HANDLE handle;
    CK_OBJECT_CLASS objectClass;
    std::string label;
    ByteView id;
    ByteView value;  ///< public key or certificate
    std::uint32_t keyUsage;
    KeyTypeProperties key;

    bool isPrivateKey() const { return objectClass == CKO_PRIVATE_KEY; }
    bool isPublicKey() const { return objectClass == CKO_PUBLIC_KEY; }
    bool isCertificate() const { return objectClass == CKO_CERTIFICATE; }
};

/// `objectClass` says which of its two objects.
ReadableObject readableKey(CK_OBJECT_HANDLE handle, CK_OBJECT_CLASS objectClass, const ZentakKeyPair& keyPair);

/// A certificate has no key properties of its own: it answers with those of RSA 2048.
ReadableObject readableCertificate(CK_OBJECT_HANDLE handle, const ZentakCertificate& certificate);

/// The value of one attribute; nothing where the object can't have it. A type that isn't known is an empty value. The
/// view points into the object or into `storage`, which is overwritten.
std::optional<ByteView> attributeValue(const ReadableObject& object, CK_ATTRIBUTE_TYPE type,
                                       std::vector<unsigned char>& storage);

}  // namespace zentak

#endif
