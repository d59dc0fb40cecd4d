#include "tool/import_files.h"

#include <algorithm>
#include <exception>
#include <openssl/decoder.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <utility>

#include "keys/certificates.h"
#include "platform/environment.h"
#include "platform/errors.h"
#include "platform/files.h"

namespace softtoken::tool {

namespace {

/// A container of all keys and certificates that a token can hold is smaller.
constexpr std::size_t largestImportFile = 64 << 20;

std::string contentOf(const std::string& file) {
    auto content = readFile(pathFromUtf8(file), largestImportFile, Links::follow);
    if (!content) {
        throw Failure(Error::invalidArgument, "there is no file " + file);
    }
    return *std::move(content);
}

Bio bioOf(const std::string& content) {
    Bio bio(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
    requireCrypto(bio != nullptr, "reading a file");
    return bio;
}

/// No exception may pass through OpenSSL, so it waits here.
struct Question {
    const AskPassword& ask;
    std::exception_ptr failure;
};

/// OpenSSL's way of asking.
int passwordCallback(char* buffer, int size, int /*writing*/, void* data) {
    auto& question = *static_cast<Question*>(data);
    if (question.failure) {
        return -1;
    }
    try {
        const std::string password = question.ask();
        if (password.size() > static_cast<std::size_t>(size)) {
            return -1;
        }
        std::copy(password.begin(), password.end(), buffer);
        return static_cast<int>(password.size());
    } catch (...) {
        question.failure = std::current_exception();
        return -1;
    }
}

using Provider = std::unique_ptr<OSSL_PROVIDER, Releaser<&OSSL_PROVIDER_unload>>;

/// Containers of older programs are encrypted with RC2, which OpenSSL keeps in a module of its own. Null without it.
Provider oldCiphers() {
#ifdef _WIN32
    // The folder that our OpenSSL would load the module from is anybody's to write to.
    return nullptr;
#else
    return Provider(OSSL_PROVIDER_try_load(nullptr, "legacy", 1));
#endif
}

Bytes sha1(ByteView data) {
    Bytes digest(20);
    requireCrypto(EVP_Digest(data.data(), data.size(), digest.data(), nullptr, digestOfLength(20), nullptr) == 1,
                  "SHA-1");
    return digest;
}

}  // namespace

Key readPrivateKeyFile(const std::string& file, const AskPassword& askPassword) {
    const std::string content = contentOf(file);
    const Bio input = bioOf(content);
    EVP_PKEY* key = nullptr;
    Question question{askPassword, nullptr};
    const std::unique_ptr<OSSL_DECODER_CTX, Releaser<&OSSL_DECODER_CTX_free>> decoder(
        OSSL_DECODER_CTX_new_for_pkey(&key, nullptr, nullptr, nullptr, EVP_PKEY_KEYPAIR, cryptoContext(), nullptr));
    requireCrypto(decoder && OSSL_DECODER_CTX_set_pem_password_cb(decoder.get(), &passwordCallback, &question) == 1,
                  "reading a private key");
    // One block of PEM at a time, until one of them is the key.
    long before = -1;
    for (long position = 0; key == nullptr && !question.failure && position > before;
         before = std::exchange(position, BIO_tell(input.get()))) {
        static_cast<void>(OSSL_DECODER_from_bio(decoder.get(), input.get()));
    }
    if (question.failure) {
        std::rethrow_exception(question.failure);
    }
    if (key == nullptr) {
        throw Failure(Error::invalidArgument, "no private key can be read from " + file);
    }
    return ownKey(key);
}

std::vector<Bytes> readCertificateFile(const std::string& file) {
    std::vector<Bytes> certificates = certificatesOfFile(contentOf(file));
    if (certificates.empty()) {
        throw Failure(Error::invalidArgument, "there is no certificate in " + file);
    }
    for (const Bytes& der : certificates) {
        try {
            static_cast<void>(parseCertificate(der));
        } catch (const Failure& failure) {
            throw Failure(failure.error, file + ": " + failure.what());
        }
    }
    return certificates;
}

ImportedObjects readPkcs12File(const std::string& file, const AskPassword& askPassword) {
    const std::string content = contentOf(file);
    const std::unique_ptr<PKCS12, Releaser<&PKCS12_free>> container(d2i_PKCS12_bio(bioOf(content).get(), nullptr));
    if (!container) {
        throw Failure(Error::invalidArgument, file + " is no PKCS #12 file");
    }
    EVP_PKEY* key = nullptr;
    X509* own = nullptr;
    STACK_OF(X509)* others = nullptr;
    const Provider provider = oldCiphers();
    if (PKCS12_parse(container.get(), askPassword().c_str(), &key, &own, &others) != 1) {
        const bool password = ERR_GET_REASON(ERR_peek_last_error()) == PKCS12_R_MAC_VERIFY_FAILURE;
        throw Failure(Error::invalidArgument,
                      file + " can't be opened: " +
                          (password ? "the password is wrong" : "it is damaged, or its cipher isn't supported"));
    }
    ImportedObjects objects;
    if (key != nullptr) {
        int length = 0;
        const unsigned char* const name = own != nullptr ? X509_alias_get0(own, &length) : nullptr;
        const std::size_t size = name != nullptr ? static_cast<std::size_t>(length) : 0;
        objects.keys.push_back({ownKey(key), std::string(reinterpret_cast<const char*>(name), size)});
    }
    const auto add = [&](X509* certificate) {
        unsigned char* der = nullptr;
        const int length = i2d_X509(certificate, &der);
        if (length > 0) {
            objects.certificates.emplace_back(der, der + length);
        }
        OPENSSL_free(der);
    };
    if (own != nullptr) {
        add(own);
    }
    X509_free(own);
    for (int i = 0; i < sk_X509_num(others); ++i) {
        add(sk_X509_value(others, i));
    }
    sk_X509_pop_free(others, X509_free);
    return objects;
}

Bytes publicKeyIdentifier(const EVP_PKEY* key) {
    unsigned char* encoded = nullptr;
    const int length = i2d_PublicKey(key, &encoded);
    requireCrypto(length > 0, "encoding a public key");
    const Bytes bytes(encoded, encoded + length);
    OPENSSL_free(encoded);
    return sha1(bytes);
}

Bytes publicKeyIdentifier(ByteView certificate) {
    const Certificate parsed = parseCertificate(certificate);
    const ASN1_BIT_STRING* const key = X509_get0_pubkey_bitstr(parsed.get());
    return sha1({ASN1_STRING_get0_data(key), static_cast<std::size_t>(ASN1_STRING_length(key))});
}

}  // namespace softtoken::tool
