/// Key objects from their numbers. Composing one from its numbers takes a tenth of the time of OpenSSL's key decoders.

#ifndef ZENTAK_SOFTTOKEN_KEYS_KEY_NUMBERS_H
#define ZENTAK_SOFTTOKEN_KEYS_KEY_NUMBERS_H

#include "platform/openssl_support.h"

namespace softtoken {

// Object identifiers instead of "RSA" and "EC": by those names OpenSSL first asks the engine that the application made
// its default, and engine_pkcs11 answers for both but can't take a key's numbers.
inline constexpr const char* rsaAlgorithm = "1.2.840.113549.1.1.1";
inline constexpr const char* ecAlgorithm = "1.2.840.10045.2.1";

inline constexpr BN_ULONG publicExponent = 65537;

/// A number for secrets: wiped at its end, as are OpenSSL's copies of it on the way to a key.
BigNumber newNumber();
BigNumber numberFrom(ByteView bytes);

struct RsaNumbers {
    const BIGNUM* modulus;
    const BIGNUM* publicExponent;
    const BIGNUM* privateExponent;
    const BIGNUM* prime1;
    const BIGNUM* prime2;
    const BIGNUM* exponent1;
    const BIGNUM* exponent2;
    const BIGNUM* coefficient;
};

// Null when the numbers are no key. Whether those of a private key belong together isn't looked at.
Key rsaPrivateKey(const RsaNumbers& numbers);
Key rsaPublicKey(const BIGNUM* modulus, const BIGNUM* exponent);
/// `curve` is OpenSSL's name. Null also when the point isn't on the curve.
Key ecPublicKey(const char* curve, ByteView point);
Key ecPrivateKey(const char* curve, ByteView point, const BIGNUM* privateNumber);

}  // namespace softtoken

#endif
