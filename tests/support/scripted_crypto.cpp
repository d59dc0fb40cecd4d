// The operations that make and use keys; the others are in scripted_library.cpp.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "scripted_call.h"
#include "scripted_library.h"

using scripted::Bytes;
using scripted::Call;
using scripted::copyInto;
using scripted::Device;

namespace {

/// Writes at most the `*length` bytes that `area` holds, and how many there are.
void deliver(const Bytes& source, unsigned char* area, int* length, std::optional<int> reportedLength) {
    if (area == nullptr || length == nullptr) return;
    const std::size_t written = std::min(source.size(), static_cast<std::size_t>(std::max(*length, 0)));
    copyInto(area, source, written);
    *length = reportedLength.value_or(static_cast<int>(written));
}

int handOut(Device& device, int result, const Bytes& source, unsigned char** output, int* length) {
    if (result == 0 && device.lengthOfNothing) {
        *output = nullptr;
        *length = *device.lengthOfNothing;
    } else if (result == 0 || device.handsOutOnFailure) {
        auto* buffer = static_cast<unsigned char*>(std::malloc(std::max<std::size_t>(source.size(), 1)));
        if (buffer == nullptr) throw std::bad_alloc();
        copyInto(buffer, source, source.size());
        *output = buffer;
        device.hidden().lastHandedOut = buffer;
        *length = static_cast<int>(source.size());
        ++device.hidden().buffersHandedOut;
    }
    return result;
}

}  // namespace

int zentak_generateKeyPair(const char* deviceId, const char* password, ZentakKeyPair* keyPair, void* instance) {
    return Call("zentak_generateKeyPair")
        .user(deviceId, password)
        .keyPair(keyPair)
        .instance(instance)
        .perform([&](Device& device, int result) {
            if (result == 0) {
                keyPair->id = device.generated.id;
                std::memcpy(keyPair->keyId, device.generated.keyId, sizeof keyPair->keyId);
                std::memcpy(keyPair->publicKey, device.generated.publicKey, sizeof keyPair->publicKey);
                keyPair->publicKeyLength = device.generated.publicKeyLength;
            }
            return result;
        });
}

int zentak_initHash(const char* deviceId, int hashCode, void** context, void* instance) {
    return Call("zentak_initHash")
        .text(deviceId)
        .number(hashCode)
        .out(context)
        .instance(instance)
        .perform([&](Device& device, int result) {
            if (result == 0) *context = &device.hidden().contexts.emplace_back();
            return result;
        });
}

int zentak_updateHash(void* context, const unsigned char* data, int length, void* instance) {
    return Call("zentak_updateHash").context(context).bytes(data, length).instance(instance).answer();
}

int zentak_finalHash(void* context, unsigned char* digest, int* length, void* instance) {
    return Call("zentak_finalHash")
        .context(context)
        .out(digest)
        .inOut(length)
        .instance(instance)
        .perform([&](Device& device, int result) {
            if (result == 0) {
                deliver(device.digest, digest, length, device.reportedLength);
            } else if (device.reportedLength && length != nullptr)
                *length = *device.reportedLength;
            return result;
        });
}

int zentak_signHash(const char* deviceId, const unsigned char* keyId, const char* password, const unsigned char* data,
                    int length, unsigned char* signature, int* signatureLength, bool flag, void* instance, bool pss) {
    return Call("zentak_signHash")
        .key(deviceId, keyId, password)
        .bytes(data, length)
        .out(signature)
        .inOut(signatureLength)
        .boolean(flag)
        .instance(instance)
        .boolean(pss)
        .perform([&](Device& device, int result) {
            if (result == 0) deliver(device.signature, signature, signatureLength, device.reportedLength);
            return result;
        });
}

int zentak_verifySignatureHash(unsigned int keyType, const char* deviceId, const unsigned char* hash, int hashLength,
                               const unsigned char* publicKey, int publicKeyLength, const unsigned char* signature,
                               int signatureLength, void* instance, bool pss) {
    return Call("zentak_verifySignatureHash")
        .number(keyType)
        .text(deviceId)
        .bytes(hash, hashLength)
        .bytes(publicKey, publicKeyLength)
        .bytes(signature, signatureLength)
        .instance(instance)
        .boolean(pss)
        .answer();
}

int zentak_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* data, int length,
                   unsigned char* output, int* outputLength, const unsigned char* publicKeyDer, int publicKeyDerLength,
                   void* instance) {
    return Call("zentak_encrypt")
        .number(static_cast<int>(type))
        .number(static_cast<int>(padding))
        .bytes(data, length)
        .out(output)
        .inOut(outputLength)
        .bytes(publicKeyDer, publicKeyDerLength)
        .instance(instance)
        .perform([&](Device& device, int result) {
            if (result == 0) {
                constexpr std::size_t outputArea = 1024;  // agreed; the length says 0 on entry
                const std::size_t written = std::min(device.ciphertext.size(), outputArea);
                copyInto(output, device.ciphertext, written);
                *outputLength = device.reportedLength.value_or(static_cast<int>(written));
            }
            return result;
        });
}

int zentak_decrypt(const char* deviceId, const unsigned char* keyId, const char* password, const unsigned char* data,
                   int length, unsigned char** output, int* outputLength, bool keyFlag, void* instance) {
    return Call("zentak_decrypt")
        .key(deviceId, keyId, password)
        .bytes(data, length)
        .out(output)
        .inOut(outputLength)
        .boolean(keyFlag)
        .instance(instance)
        .perform([&](Device& device, int result) {
            return handOut(device, result, device.plaintext, output, outputLength);
        });
}

int zentak_ecdhDerive(const char* deviceId, const unsigned char* keyId, const char* password,
                      const unsigned char* publicData, int length, unsigned char** output, int* outputLength,
                      void* instance) {
    return Call("zentak_ecdhDerive")
        .key(deviceId, keyId, password)
        .bytes(publicData, length)
        .out(output)
        .inOut(outputLength)
        .instance(instance)
        .perform([&](Device& device, int result) {
            return handOut(device, result, device.sharedSecret, output, outputLength);
        });
}

int zentak_generateRamdomNumber(const char* deviceId, int count, unsigned char* output, bool flag, void* instance) {
    return Call("zentak_generateRamdomNumber")
        .text(deviceId)
        .number(count)
        .out(output)
        .boolean(flag)
        .instance(instance)
        .perform([&](Device& device, int result) {
            if (result == 0 && output != nullptr && !device.random.empty()) {
                for (int i = 0; i < count; ++i) {
                    output[i] = device.random[static_cast<std::size_t>(i) % device.random.size()];
                }
            }
            return result;
        });
}
