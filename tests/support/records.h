/// Builders for the records of the device library and for attribute templates.

#ifndef ZENTAK_TESTS_SUPPORT_RECORDS_H
#define ZENTAK_TESTS_SUPPORT_RECORDS_H

#include <algorithm>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "module/cryptoki.h"
#include "scripted_library.h"

namespace support {

using scripted::Bytes;

/// Code of `ZentakKeyPair::keyType`.
enum KeyType { rsa1024 = 1, rsa2048, rsa3072, rsa4096, p256, p384, p521 };

/// Bits of `ZentakKeyPair::keyUsage`.
constexpr std::uint32_t usageSign = 1;
constexpr std::uint32_t usageEncrypt = 2;

/// A token in order: label "Token of <serial>", firmware 3.6, user PIN changed, 5 attempts left.
TokenInfo makeTokenInfo(const std::string& serialNumber, const std::string& model = "AB1X");

/// A model that makes a FIPS 140-3 token, and one that doesn't.
constexpr const char* fipsModel = "AB3X";
constexpr const char* ordinaryModel = "AB1X";

/// `count` bytes first, first + 1, …
Bytes countingBytes(int first, std::size_t count);

/// A key pair with the key reference id, id + 1, …; the public key of its type's size (RSA: a modulus of counting bytes
/// from 0x80; EC: 04 and counting bytes) and no alias, no object id, both usages.
ZentakKeyPair makeKeyPair(std::uint32_t id, KeyType type = rsa2048);
/// The key reference that `makeKeyPair(id)` has, as the scripted library's record shows it: <0506…14>.
std::string shownKeyReference(std::uint32_t id);

void setPublicKey(ZentakKeyPair& keyPair, const Bytes& bytes);
void setObjectId(ZentakKeyPair& keyPair, const Bytes& bytes);
void setAlias(ZentakKeyPair& keyPair, std::string_view alias);  ///< at most 132 bytes; 132 has no terminator
Bytes publicKeyOf(const ZentakKeyPair& keyPair);

/// A certificate without label and object id.
ZentakCertificate makeCertificate(std::uint32_t id, const Bytes& der);
void setObjectId(ZentakCertificate& certificate, const Bytes& bytes);
void setLabel(ZentakCertificate& certificate, std::string_view label);  ///< at most 152 bytes

/// Details with the two halves of the default label and the public key.
CertificateDetails makeDetails(const std::string& subjectCommonName, const std::string& issuer,
                               const Bytes& publicKey = {});

/// A template that owns its values.
///
///     Template wanted;
///     wanted.add(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_TOKEN, true).add(CKA_ID, Bytes{1, 2});
///     functions().C_FindObjectsInit(session, wanted.data(), wanted.count());
class Template {
public:
    Template& add(CK_ATTRIBUTE_TYPE type, const Bytes& value);
    /// The text without its terminator, which stands behind it all the same: a label is searched for as a C string.
    Template& add(CK_ATTRIBUTE_TYPE type, const char* text);
    Template& add(CK_ATTRIBUTE_TYPE type, bool value);
    Template& addNumber(CK_ATTRIBUTE_TYPE type, CK_ULONG value);
    /// The entry as it stands, whatever it points at.
    Template& addRaw(CK_ATTRIBUTE_TYPE type, void* value, CK_ULONG length);

    CK_ATTRIBUTE* data() { return attributes_.data(); }
    CK_ULONG count() const { return static_cast<CK_ULONG>(attributes_.size()); }
    CK_ATTRIBUTE& operator[](std::size_t index) { return attributes_[index]; }

private:
    std::vector<CK_ATTRIBUTE> attributes_;
    std::deque<Bytes> values_;
};

/// What imports an RSA private key of 2048 bits.
Template rsaKeyTemplate(const Bytes& modulus = Bytes(256, 0xC1), const Bytes& exponent = Bytes(256, 0x21),
                        const Bytes& prime = Bytes(128, 0xE1));

/// The bytes of a structure or number, for comparing wholes: EXPECT_EQ(bytesOf(info), bytesOf(expected)).
template <typename Record>
Bytes bytesOf(const Record& record) {
    const auto* first = reinterpret_cast<const unsigned char*>(&record);
    return Bytes(first, first + sizeof record);
}

/// A structure whose every byte is `pattern`.
template <typename Record>
Record filledWith(unsigned char pattern) {
    Record record;
    auto* first = reinterpret_cast<unsigned char*>(&record);
    std::fill(first, first + sizeof record, pattern);
    return record;
}

}  // namespace support

#endif
