#include "objects/attribute_values.h"

#include <array>

#include "device/codes.h"
#include "device/library.h"
#include "device/record_views.h"

namespace zentak {

namespace {

constexpr std::array<unsigned char, 3> publicExponent = {0x01, 0x00, 0x01};

/// DER OCTET STRING with a length of one byte, which is what EC points need.
void encodeOctetString(ByteView bytes, std::vector<unsigned char>& storage) {
    storage.assign(1, 0x04);
    if (bytes.size() >= 128) {
        storage.push_back(0x81);
    }
    storage.push_back(static_cast<unsigned char>(bytes.size()));
    storage.insert(storage.end(), bytes.begin(), bytes.end());
}

}  // namespace

ReadableObject readableKey(CK_OBJECT_HANDLE handle, CK_OBJECT_CLASS objectClass, const ZentakKeyPair& keyPair) {
    return {handle,
            objectClass,
            std::string(storedLabel(keyPair)),
            objectIdOf(keyPair),
            publicKeyOf(keyPair),
            keyPair.keyUsage,
            keyTypeProperties(keyPair.keyType)};
}

ReadableObject readableCertificate(CK_OBJECT_HANDLE handle, const ZentakCertificate& certificate) {
    return {handle,
            CKO_CERTIFICATE,
            std::string(storedLabel(certificate)),
            objectIdOf(certificate),
            derOf(certificate),
            0,
            keyTypeProperties(keyTypeRsa2048)};
}

// One flat table of all attribute types.
// NOLINTNEXTLINE(readability-function-size)
std::optional<ByteView> attributeValue(const ReadableObject& object, CK_ATTRIBUTE_TYPE type,
                                       std::vector<unsigned char>& storage) {
    const auto number = [&](CK_ULONG value) -> ByteView {
        const auto* bytes = reinterpret_cast<const unsigned char*>(&value);
        storage.assign(bytes, bytes + sizeof(value));
        return storage;
    };
    const auto boolean = [&](bool value) -> ByteView {
        storage.assign(1, value ? CK_TRUE : CK_FALSE);
        return storage;
    };
    /// What the device library reads from a certificate; a key has no such value.
    const auto fromCertificate = [&](auto& read) -> ByteView {
        storage.clear();
        if (object.isCertificate()) {
            storage = read(object.value);
        }
        return storage;
    };
    const auto permits = [&](std::uint32_t usage) { return (object.keyUsage & usage) != 0; };
    const bool isRsa = object.key.keyType == CKK_RSA;
    const bool isEc = object.key.keyType == CKK_EC;

    switch (type) {
        case CKA_CLASS:
            return number(object.objectClass);
        case CKA_TOKEN:
        case CKA_TRUSTED:
        case CKA_LOCAL:
            return boolean(true);
        case CKA_PRIVATE:
        case CKA_SENSITIVE:
            return boolean(object.isPrivateKey());
        case CKA_LABEL:
            return ByteView(reinterpret_cast<const unsigned char*>(object.label.data()), object.label.size());
        case CKA_VALUE:
            return object.value;
        case CKA_OBJECT_ID:
            // Serves as the object's number.
            return number(object.handle);
        case CKA_CERTIFICATE_TYPE:
            return number(CKC_X_509);
        case CKA_ISSUER:
            return fromCertificate(device::certificateIssuer);
        case CKA_SERIAL_NUMBER:
            return fromCertificate(device::certificateSerialNumber);
        case CKA_SUBJECT:
            return fromCertificate(device::certificateSubject);
        case CKA_KEY_TYPE:
            return number(object.key.keyType);
        case CKA_ID:
            return object.id;
        case CKA_ENCRYPT:
            return boolean(object.isPublicKey() && permits(keyUsageEncrypt));
        case CKA_DECRYPT:
            return boolean(object.isPrivateKey() && permits(keyUsageEncrypt));
        case CKA_SIGN:
            return boolean(object.isPrivateKey() && permits(keyUsageSign));
        case CKA_VERIFY:
            return boolean(object.isPublicKey() && permits(keyUsageSign));
        case CKA_WRAP:
        case CKA_VERIFY_RECOVER:
        case CKA_DERIVE:
            return boolean(false);
        case CKA_MODULUS:
            // A certificate has the key type RSA, so it answers its DER here.
            return isRsa ? std::optional(object.value) : std::nullopt;
        case CKA_MODULUS_BITS:
            return isRsa ? std::optional(number(object.key.bits)) : std::nullopt;
        case CKA_PUBLIC_EXPONENT:
            return isRsa ? std::optional<ByteView>(publicExponent) : std::nullopt;
        case CKA_EXTRACTABLE:
            return boolean(!object.isPrivateKey());
        case CKA_KEY_GEN_MECHANISM:
            return number(object.key.generationMechanism);
        case CKA_MODIFIABLE:
            return boolean(object.isCertificate());
        case CKA_EC_PARAMS:
            return isEc ? std::optional(object.key.ecParameters) : std::nullopt;
        case CKA_EC_POINT:
            if (!isEc) {
                return std::nullopt;
            }
            encodeOctetString(object.value, storage);
            return storage;
        default:
            return ByteView();
    }
}

}  // namespace zentak
