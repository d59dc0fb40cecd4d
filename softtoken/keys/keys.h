/// Key objects: what kinds a token holds, making, decoding and composing them, and their public form.

#ifndef ZENTAK_SOFTTOKEN_KEYS_KEYS_H
#define ZENTAK_SOFTTOKEN_KEYS_KEYS_H

#include <optional>

#include "platform/openssl_support.h"

namespace softtoken {

/// One row for each key type code of the boundary.
struct KeyType {
    int code;
    int rsaBits;              ///< 0 for an EC key
    const char* curve;        ///< OpenSSL's name of it; null for an RSA key
    std::size_t fieldLength;  ///< of a coordinate and of each half of a signature, in bytes; 0 for an RSA key
};

/// Null for a code outside the table.
const KeyType* keyTypeOfCode(int code);
/// Null for a key that no token can hold: another algorithm, size or curve, or an RSA exponent other than 65537, which
/// the record of a key pair has no room for.
const KeyType* keyTypeOf(const EVP_PKEY* key);

/// Throws Error::unsupportedKey for RSA 1024, which is only imported.
Key generateKey(const KeyType& type);

/// The key of a modulus, a private exponent and one prime. Throws Error::unsupportedKey when the numbers don't make an
/// RSA key with the exponent 65537.
Key composeRsaKey(ByteView modulus, ByteView privateExponent, ByteView prime1);

/// PKCS #8 in DER. Throws Error::tokenDamaged when it isn't that.
Key decodePrivateKey(ByteView pkcs8);
SecretBytes encodePrivateKey(const EVP_PKEY* key);

/// The public half as records carry it: modulus without leading zero, or uncompressed point. Empty for a key of another
/// algorithm.
Bytes publicKeyBytes(const EVP_PKEY* key);

/// Reads a public key: SubjectPublicKeyInfo (begins with 0x30), or a point of the type's curve, or a modulus with the
/// exponent 65537. Null when it is none.
Key decodePublicKey(const KeyType* type, ByteView bytes);
Key decodeSubjectPublicKeyInfo(ByteView der);
/// The point may be compressed. Null when the bytes are none of the curve.
Key publicKeyFromPoint(const KeyType& type, ByteView point);

}  // namespace softtoken

#endif
