#include "platform/openssl_support.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "platform/errors.h"

namespace softtoken {

OSSL_LIB_CTX* cryptoContext() {
    static OSSL_LIB_CTX* const context = [] {
#ifdef _WIN32
        // This copy of OpenSSL is ours alone. It reads no configuration file, which anybody could put at its
        // compiled-in path, and does nothing at process exit, when a thread of the host may still be inside an
        // operation.
        OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT, nullptr);
#endif
        return OSSL_LIB_CTX_new();
    }();
    requireCrypto(context != nullptr, "creating a library context");
    return context;
}

void requireCrypto(bool succeeded, const char* what) {
    if (!succeeded) {
        throw Failure(Error::cryptoFailed, std::string("the crypto library failed at ") + what);
    }
}

namespace {

/// Once for each name, and not before it is used: a fetch takes a hundredth of a program's start.
template <std::size_t length>
const EVP_MD* digestNamed(const char* name) {
    static const EVP_MD* const digest = EVP_MD_fetch(cryptoContext(), name, nullptr);
    return digest;
}

}  // namespace

const EVP_MD* digestOfLength(std::size_t length) {
    switch (length) {
        case 20:
            return digestNamed<20>("SHA1");
        case 28:
            return digestNamed<28>("SHA2-224");
        case 32:
            return digestNamed<32>("SHA2-256");
        case 48:
            return digestNamed<48>("SHA2-384");
        case 64:
            return digestNamed<64>("SHA2-512");
        default:
            return nullptr;
    }
}

Bytes randomBytes(std::size_t count) {
    Bytes bytes(count);
    requireCrypto(RAND_bytes_ex(cryptoContext(), bytes.data(), bytes.size(), 0) == 1, "random bytes");
    return bytes;
}

SecretBytes randomSecret(std::size_t count) {
    SecretBytes bytes(count);
    requireCrypto(RAND_priv_bytes_ex(cryptoContext(), bytes.data(), bytes.size(), 0) == 1, "random bytes");
    return bytes;
}

std::array<unsigned char, 32> sha256(ByteView first, ByteView second) {
    std::array<unsigned char, 32> digest{};
    const DigestContext context(EVP_MD_CTX_new());
    requireCrypto(context && EVP_DigestInit_ex2(context.get(), digestOfLength(digest.size()), nullptr) == 1 &&
                      EVP_DigestUpdate(context.get(), first.data(), first.size()) == 1 &&
                      EVP_DigestUpdate(context.get(), second.data(), second.size()) == 1 &&
                      EVP_DigestFinal_ex(context.get(), digest.data(), nullptr) == 1,
                  "SHA-256");
    return digest;
}

}  // namespace softtoken
