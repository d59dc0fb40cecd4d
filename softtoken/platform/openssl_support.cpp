#include "platform/openssl_support.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "platform/errors.h"

namespace softtoken {

OSSL_LIB_CTX* cryptoContext() {
    static OSSL_LIB_CTX* const context = [] {
#ifdef _WIN32
        // Nobody else uses this copy of OpenSSL. It reads no configuration file, which anybody could put at its
        // compiled-in path, and does nothing at process exit, when a thread of the application may still be inside an
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

std::string hexText(ByteView bytes) {
    // The zero at the end is written, too.
    std::string text(2 * bytes.size() + 1, '\0');
    requireCrypto(bytes.empty() ||
                      OPENSSL_buf2hexstr_ex(text.data(), text.size(), nullptr, bytes.data(), bytes.size(), '\0') == 1,
                  "writing hexadecimal digits");
    text.pop_back();
    return text;
}

std::optional<Bytes> bytesFromHex(const std::string& text) {
    const ErrorQueueGuard guard;
    Bytes bytes(text.size() / 2);
    std::size_t length = 0;
    if (!text.empty() && OPENSSL_hexstr2buf_ex(bytes.data(), bytes.size(), &length, text.c_str(), '\0') != 1) {
        return std::nullopt;
    }
    // What follows a zero byte isn't read.
    return length == bytes.size() && text.size() % 2 == 0 ? std::optional(std::move(bytes)) : std::nullopt;
}

}  // namespace softtoken
