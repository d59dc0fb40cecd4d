/// The little DER that the module reads and writes itself.

#ifndef ZENTAK_CRYPTO_DER_H
#define ZENTAK_CRYPTO_DER_H

#include <vector>

#include "base/byte_view.h"

namespace zentak {

/// The SubjectPublicKeyInfo (RFC 5280) of an RSA key with this modulus and the exponent 65537. The modulus is
/// big-endian and kept as it is, leading zero bytes included.
std::vector<unsigned char> rsaSubjectPublicKeyInfo(ByteView modulus);

/// The hash inside a DigestInfo (RFC 8017), or `data` as it is if it doesn't look like one. A view into `data`;
/// nothing beyond it is read.
ByteView hashInDigestInfo(ByteView data);

}  // namespace zentak

#endif
