/// What the software token shares of OpenSSL: owning handles, its own library context, random bytes, SHA-256.

#ifndef ZENTAK_SOFTTOKEN_PLATFORM_OPENSSL_SUPPORT_H
#define ZENTAK_SOFTTOKEN_PLATFORM_OPENSSL_SUPPORT_H

#include <array>
#include <memory>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/x509.h>
#include <optional>
#include <string>

#include "platform/bytes.h"

namespace softtoken {

template <auto release>
struct Releaser {
    template <typename T>
    void operator()(T* object) const noexcept {
        release(object);
    }
};

using BigNumber = std::unique_ptr<BIGNUM, Releaser<&BN_clear_free>>;
using BigNumberContext = std::unique_ptr<BN_CTX, Releaser<&BN_CTX_free>>;
using Bio = std::unique_ptr<BIO, Releaser<&BIO_free_all>>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Releaser<&EVP_CIPHER_CTX_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Releaser<&EVP_MD_CTX_free>>;
using EcdsaSignature = std::unique_ptr<ECDSA_SIG, Releaser<&ECDSA_SIG_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Releaser<&EVP_PKEY_CTX_free>>;
using ParameterBuilder = std::unique_ptr<OSSL_PARAM_BLD, Releaser<&OSSL_PARAM_BLD_free>>;
using Parameters = std::unique_ptr<OSSL_PARAM, Releaser<&OSSL_PARAM_free>>;
using Certificate = std::unique_ptr<X509, Releaser<&X509_free>>;

/// Key objects are shared between the caches and the operations that are using them.
using Key = std::shared_ptr<EVP_PKEY>;

inline Key ownKey(EVP_PKEY* key) {
    return {key, &EVP_PKEY_free};
}

/// The library context of everything here. It is never the application's default one, which may be configured to use
/// a PKCS #11 provider, which would call back into the module that is calling us. Lives until the process ends.
OSSL_LIB_CTX* cryptoContext();

/// Throws Error::cryptoFailed when OpenSSL didn't do what it was asked.
void requireCrypto(bool succeeded, const char* what);

/// The digest fetched once for SHA-1 (20), SHA-224 (28), SHA-256 (32), SHA-384 (48) or SHA-512 (64) by its length in
/// bytes; null for any other length.
const EVP_MD* digestOfLength(std::size_t length);

Bytes randomBytes(std::size_t count);
SecretBytes randomSecret(std::size_t count);

std::array<unsigned char, 32> sha256(ByteView first, ByteView second = {});

/// Upper-case hexadecimal text, two digits a byte.
std::string hexText(ByteView bytes);
/// Nothing when the text isn't pairs of hexadecimal digits.
std::optional<Bytes> bytesFromHex(const std::string& text);

/// Takes back what OpenSSL put into the thread's error queue, which may be shared with the application.
class ErrorQueueGuard {
public:
    ErrorQueueGuard() { ERR_set_mark(); }
    ErrorQueueGuard(const ErrorQueueGuard&) = delete;
    ErrorQueueGuard& operator=(const ErrorQueueGuard&) = delete;
    ~ErrorQueueGuard() { ERR_pop_to_mark(); }
};

}  // namespace softtoken

#endif
