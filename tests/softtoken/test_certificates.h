/// Certificates made for a test, by OpenSSL directly.

#ifndef ZENTAK_TESTS_SOFTTOKEN_TEST_CERTIFICATES_H
#define ZENTAK_TESTS_SOFTTOKEN_TEST_CERTIFICATES_H

#include <string>
#include <utility>
#include <vector>

#include "platform/openssl_support.h"

namespace softtoken {

/// Parts of a name in the order of the certificate: short name and text in UTF-8.
using NameParts = std::vector<std::pair<std::string, std::string>>;

struct CertificateSettings {
    NameParts subject = {{"C", "XX"}, {"O", "Org"}, {"CN", "Alice"}};
    NameParts issuer = {{"C", "XX"}, {"O", "Org"}, {"CN", "Root"}};
    Bytes serialNumber = {0x12, 0x34};
    std::size_t paddingLength = 0;  ///< bytes of a comment extension, to make the certificate longer
};

/// In DER, signed with `key` and holding its public half.
Bytes makeCertificate(const Key& key, const CertificateSettings& settings = {});

std::string pemCertificate(ByteView der);
std::string pemPrivateKey(const Key& key);

}  // namespace softtoken

#endif
