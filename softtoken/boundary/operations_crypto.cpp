// Operations that compute: hashing, signing, verifying, encrypting, decrypting, key agreement, random bytes.

#include <openssl/rand.h>

#include "boundary/boundary.h"
#include "device/zentak_dsc_library.h"
#include "keys/key_operations.h"
#include "platform/environment.h"
#include "token/instance_handles.h"
#include "token/token_changes.h"

using namespace softtoken;

namespace {

/// What the caller of zentak_encrypt offers.
constexpr std::size_t encryptionAreaLength = 1024;

}  // namespace

int zentak_initHash(const char* deviceId, int hashCode, void** context, void* instance) {
    return statusOf([&] {
        requireArgument(context != nullptr);
        *context = nullptr;
        const auto found = findInstance(instance);
        if (!found->store().isPlugged(textOf(deviceId))) {
            throw Failure(Error::deviceNotPresent, "the token isn't plugged in");
        }
        *context = found->hashes.open(hashCode);
    });
}

int zentak_updateHash(void* context, const unsigned char* data, int length, void* instance) {
    return statusOf([&] { findInstance(instance)->hashes.update(context, bytesOf(data, length)); });
}

int zentak_finalHash(void* context, unsigned char* digest, int* length, void* instance) {
    return statusOf([&] {
        requireArgument(length != nullptr && *length >= 0 && (digest != nullptr || *length == 0));
        const Bytes whole = findInstance(instance)->hashes.finish(context);
        const std::size_t count = std::min(whole.size(), static_cast<std::size_t>(*length));
        std::copy_n(whole.begin(), count, digest);
        *length = static_cast<int>(count);
    });
}

int zentak_signHash(const char* deviceId, const unsigned char* keyId, const char* password, const unsigned char* data,
                    int length, unsigned char* signature, int* signatureLength, bool /*flag*/, void* instance,
                    bool pss) {
    return statusOf([&] {
        const auto found = findInstance(instance);
        const ByteView input = bytesOf(data, length);
        requireArgument(signature != nullptr && signatureLength != nullptr);
        const auto key = found->privateKey(textOf(deviceId), referenceOf(keyId), textOf(password), usageSign);
        const Bytes result = signHash(*key, input, pss);
        if (*signatureLength < 0 || static_cast<std::size_t>(*signatureLength) < result.size()) {
            throw Failure(Error::bufferTooSmall, "the signature doesn't fit");
        }
        std::copy(result.begin(), result.end(), signature);
        *signatureLength = static_cast<int>(result.size());
    });
}

int zentak_verifySignatureHash(unsigned int keyType, const char* /*deviceId*/, const unsigned char* hash,
                               int hashLength, const unsigned char* publicKey, int publicKeyLength,
                               const unsigned char* signature, int signatureLength, void* instance, bool pss) {
    return statusOf([&] {
        const auto found = findInstance(instance);
        const ByteView input = bytesOf(hash, hashLength);
        const ByteView signatureBytes = bytesOf(signature, signatureLength);
        const Key key = found->publicKeys.find(static_cast<int>(keyType), bytesOf(publicKey, publicKeyLength));
        if (!key) {
            throw Failure(Error::unsupportedKey, "not a public key");
        }
        if (!verifyHash(key.get(), input, signatureBytes, pss)) {
            throw Failure(Error::signatureInvalid, "the signature is wrong");
        }
    });
}

int zentak_encrypt(EncryptionType /*type*/, PaddingMode padding, const unsigned char* data, int length,
                   unsigned char* output, int* outputLength, const unsigned char* publicKeyDer, int publicKeyDerLength,
                   void* instance) {
    return statusOf([&] {
        const auto found = findInstance(instance);
        const ByteView input = bytesOf(data, length);
        const ByteView der = bytesOf(publicKeyDer, publicKeyDerLength);
        requireArgument(output != nullptr && outputLength != nullptr && !der.empty() && der[0] == 0x30);
        requireArgument(padding == PaddingMode::pkcs1 || padding == PaddingMode::oaep);
        const Key key = found->publicKeys.find(0, der);
        if (!key) {
            throw Failure(Error::unsupportedKey, "not a public key");
        }
        const Bytes result =
            encryptRsa(key.get(), input, padding == PaddingMode::pkcs1 ? Padding::pkcs1 : Padding::oaepSha1);
        if (result.size() > encryptionAreaLength) {
            throw Failure(Error::bufferTooSmall, "the result doesn't fit");
        }
        std::copy(result.begin(), result.end(), output);
        *outputLength = static_cast<int>(result.size());
    });
}

int zentak_decrypt(const char* deviceId, const unsigned char* keyId, const char* password, const unsigned char* data,
                   int length, unsigned char** output, int* outputLength, bool /*keyFlag*/, void* instance) {
    return statusOf([&] {
        requireArgument(output != nullptr && outputLength != nullptr);
        *output = nullptr;
        *outputLength = 0;
        const auto found = findInstance(instance);
        const ByteView input = bytesOf(data, length);
        const auto key = found->privateKey(textOf(deviceId), referenceOf(keyId), textOf(password), usageDecrypt);
        giveAllocated(decryptRsa(key->key.get(), input), output, outputLength);
    });
}

int zentak_ecdhDerive(const char* deviceId, const unsigned char* keyId, const char* password,
                      const unsigned char* publicData, int length, unsigned char** output, int* outputLength,
                      void* instance) {
    return statusOf([&] {
        requireArgument(output != nullptr && outputLength != nullptr);
        *output = nullptr;
        *outputLength = 0;
        const auto found = findInstance(instance);
        const ByteView peer = bytesOf(publicData, length);
        // Usage bits say nothing about key agreement.
        const auto key = found->privateKey(textOf(deviceId), referenceOf(keyId), textOf(password), 0);
        giveAllocated(deriveEcdh(key->key.get(), peer), output, outputLength);
    });
}

int zentak_generateRamdomNumber(const char* deviceId, int count, unsigned char* output, bool /*flag*/,
                                void* /*instance*/) {
    return statusOf([&] {
        requireArgument(count > 0 && output != nullptr);
        // Without an instance the token is looked for where a new one would.
        if (!Store(defaultStoreFolder()).isPlugged(textOf(deviceId))) {
            throw Failure(Error::deviceNotPresent, "the token isn't plugged in");
        }
        requireCrypto(RAND_bytes_ex(cryptoContext(), output, static_cast<std::size_t>(count), 0) == 1, "random bytes");
    });
}
