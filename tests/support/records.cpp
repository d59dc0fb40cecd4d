#include "records.h"

#include <algorithm>
#include <stdexcept>

namespace support {
namespace {

template <typename Field>
void copyIntoField(Field& field, const unsigned char* source, std::size_t length) {
    if (length > sizeof field) throw std::length_error("more bytes than the field holds");
    auto* area = reinterpret_cast<unsigned char*>(&field);
    std::fill(area, area + sizeof field, static_cast<unsigned char>(0));
    std::copy(source, source + length, area);
}

const unsigned char* bytesIn(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

Bytes exampleKey(KeyType type) {
    constexpr int firstOfModulus = 0x80;
    constexpr unsigned char uncompressedPoint = 4;
    switch (type) {
        case rsa1024:
            return countingBytes(firstOfModulus, 128);
        case rsa2048:
            return countingBytes(firstOfModulus, 256);
        case rsa3072:
            return countingBytes(firstOfModulus, 384);
        case rsa4096:
            return countingBytes(firstOfModulus, 512);
        case p256:
        case p384:
        case p521:
            break;
    }
    const std::size_t coordinate = type == p256 ? 32 : type == p384 ? 48 : 66;
    Bytes point = countingBytes(1, 2 * coordinate);
    point.insert(point.begin(), uncompressedPoint);
    return point;
}

}  // namespace

TokenInfo makeTokenInfo(const std::string& serialNumber, const std::string& model) {
    TokenInfo info;
    info.serialNumber = serialNumber;
    info.text2 = "second text";
    info.label = "Token of " + serialNumber;
    info.text4 = "fourth text";
    info.model = model;
    info.firmwareVersion = "3.6";
    info.text7 = "seventh text";
    info.userPinChanged = 1;
    info.number2 = 102;
    info.userPinAttemptsLeft = 5;
    info.number4 = 104;
    info.text8 = "eighth text";
    return info;
}

Bytes countingBytes(int first, std::size_t count) {
    Bytes bytes;
    for (std::size_t i = 0; i < count; ++i) {
        bytes.push_back(static_cast<unsigned char>(static_cast<std::size_t>(first) + i));
    }
    return bytes;
}

ZentakKeyPair makeKeyPair(std::uint32_t id, KeyType type) {
    ZentakKeyPair keyPair = {};
    keyPair.id = id;
    const Bytes reference = countingBytes(static_cast<int>(id), sizeof keyPair.keyId);
    copyIntoField(keyPair.keyId, reference.data(), reference.size());
    setPublicKey(keyPair, exampleKey(type));
    keyPair.keyUsage = usageSign | usageEncrypt;
    keyPair.keyType = type;
    return keyPair;
}

std::string shownKeyReference(std::uint32_t id) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text = "<";
    for (const unsigned char byte : countingBytes(static_cast<int>(id), sizeof ZentakKeyPair::keyId)) {
        text += digits[byte >> 4U];
        text += digits[byte & 15U];
    }
    return text + ">";
}

void setPublicKey(ZentakKeyPair& keyPair, const Bytes& bytes) {
    copyIntoField(keyPair.publicKey, bytes.data(), bytes.size());
    keyPair.publicKeyLength = static_cast<std::int32_t>(bytes.size());
}

void setObjectId(ZentakKeyPair& keyPair, const Bytes& bytes) {
    copyIntoField(keyPair.objectId, bytes.data(), bytes.size());
    keyPair.objectIdLength = static_cast<std::int32_t>(bytes.size());
}

void setAlias(ZentakKeyPair& keyPair, std::string_view alias) {
    copyIntoField(keyPair.alias, bytesIn(alias), alias.size());
}

Bytes publicKeyOf(const ZentakKeyPair& keyPair) {
    return Bytes(keyPair.publicKey, keyPair.publicKey + keyPair.publicKeyLength);
}

ZentakCertificate makeCertificate(std::uint32_t id, const Bytes& der) {
    ZentakCertificate certificate = {};
    certificate.id = id;
    const Bytes reference = countingBytes(static_cast<int>(id) + 0x40, sizeof certificate.certId);
    copyIntoField(certificate.certId, reference.data(), reference.size());
    copyIntoField(certificate.der, der.data(), der.size());
    certificate.derLength = static_cast<std::int32_t>(der.size());
    return certificate;
}

void setObjectId(ZentakCertificate& certificate, const Bytes& bytes) {
    copyIntoField(certificate.objectId, bytes.data(), bytes.size());
    certificate.objectIdLength = static_cast<std::int32_t>(bytes.size());
}

void setLabel(ZentakCertificate& certificate, std::string_view label) {
    copyIntoField(certificate.label, bytesIn(label), label.size());
}

CertificateDetails makeDetails(const std::string& subjectCommonName, const std::string& issuer,
                               const Bytes& publicKey) {
    CertificateDetails details;
    details.text1 = "first text";
    details.subjectCommonName = subjectCommonName;
    details.issuer = issuer;
    details.publicKey = publicKey;
    return details;
}

Template& Template::addRaw(CK_ATTRIBUTE_TYPE type, void* value, CK_ULONG length) {
    CK_ATTRIBUTE attribute = {};
    attribute.type = type;
    attribute.pValue = value;
    attribute.ulValueLen = length;
    attributes_.push_back(attribute);
    return *this;
}

Template& Template::add(CK_ATTRIBUTE_TYPE type, const Bytes& value) {
    Bytes& kept = values_.emplace_back(value);
    return addRaw(type, kept.data(), static_cast<CK_ULONG>(kept.size()));
}

Template& Template::add(CK_ATTRIBUTE_TYPE type, const char* text) {
    const std::string_view view = text;
    Bytes& kept = values_.emplace_back(view.begin(), view.end());
    kept.push_back(0);
    return addRaw(type, kept.data(), static_cast<CK_ULONG>(view.size()));
}

Template& Template::add(CK_ATTRIBUTE_TYPE type, bool value) {
    return add(type, Bytes{static_cast<unsigned char>(value ? CK_TRUE : CK_FALSE)});
}

Template& Template::addNumber(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
    return add(type, bytesOf(value));
}

Template rsaKeyTemplate(const Bytes& modulus, const Bytes& exponent, const Bytes& prime) {
    Template wanted;
    wanted.addNumber(CKA_CLASS, CKO_PRIVATE_KEY)
        .add(CKA_MODULUS, modulus)
        .add(CKA_PRIVATE_EXPONENT, exponent)
        .add(CKA_PRIME_1, prime);
    return wanted;
}

}  // namespace support
