/// What a key pair or a certificate answers to each attribute type.

#ifndef ZENTAK_OBJECTS_ATTRIBUTE_VALUES_H
#define ZENTAK_OBJECTS_ATTRIBUTE_VALUES_H

#include <optional>
#include <string>
#include <vector>

#include "base/byte_view.h"
#include "device/zentak_dsc_library.h"
#include "module/cryptoki.h"
#include "module/key_types.h"

namespace zentak {

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

/// The value of one attribute; nothing if the object can't have it. A type that isn't known is an empty value. The
/// view points into the object or into `storage`, which is overwritten.
std::optional<ByteView> attributeValue(const ReadableObject& object, CK_ATTRIBUTE_TYPE type,
                                       std::vector<unsigned char>& storage);

}  // namespace zentak

#endif
