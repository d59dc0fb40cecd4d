// The operations: each names its arguments for the record and answers from the world that the test has set.

#include "scripted_library.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "scripted_call.h"

using scripted::Bytes;
using scripted::Call;
using scripted::Device;

namespace {

/// The value in `map` under `key`, or an empty one.
template <typename Map, typename Key>
typename Map::mapped_type valueOrEmpty(const Map& map, const Key& key) {
    const auto found = map.find(key);
    return found == map.end() ? typename Map::mapped_type{} : found->second;
}

std::string textOf(const char* value) {
    return value == nullptr ? "" : value;
}

Bytes bytesOf(const unsigned char* value, int length) {
    return value == nullptr || length <= 0 ? Bytes{} : Bytes(value, value + length);
}

void copyInto(unsigned char* area, const Bytes& source, std::size_t capacity) {
    std::copy_n(source.begin(), std::min(source.size(), capacity), area);
}

/// Writes at most the `*length` bytes that `area` holds, and how many there are.
void deliver(const Bytes& source, unsigned char* area, int* length, std::optional<int> reportedLength) {
    if (area == nullptr || length == nullptr) {
        return;
    }
    const std::size_t written = std::min(source.size(), static_cast<std::size_t>(std::max(*length, 0)));
    copyInto(area, source, written);
    *length = reportedLength.value_or(static_cast<int>(written));
}

int handOut(Device& device, int result, const Bytes& source, unsigned char** output, int* length) {
    if (result == 0 || device.handsOutOnFailure) {
        auto* buffer = static_cast<unsigned char*>(std::malloc(std::max<std::size_t>(source.size(), 1)));
        if (buffer == nullptr) {
            throw std::bad_alloc();
        }
        copyInto(buffer, source, source.size());
        *output = buffer;
        *length = static_cast<int>(source.size());
        ++device.hidden().buffersHandedOut;
    }
    return result;
}

}  // namespace

void zentak_createInstance(void** instance) {
    Call("zentak_createInstance").out(instance).perform([&](Device& device, int) {
        if (device.givesInstance) {
            Device::Hidden& hidden = device.hidden();
            hidden.instance = &hidden.instanceMarks[hidden.instancesGiven++ % 16];
            *instance = hidden.instance;
        }
    });
}

void zentak_releaseInstance(void* instance) {
    Call("zentak_releaseInstance").instance(instance).perform([&](Device& device, int) {
        if (device.hidden().instance == instance) {
            device.hidden().instance = nullptr;
        }
    });
}

std::vector<std::string> zentak_getConnectedDeviceList(bool flag, void* instance) {
    return Call("zentak_getConnectedDeviceList").boolean(flag).instance(instance).perform([](Device& device, int) {
        return device.connectedDevices;
    });
}

TokenInfo zentak_getTokenInfo(const char* device, void* instance) {
    return Call("zentak_getTokenInfo").text(device).instance(instance).perform([&](Device& world, int) {
        return valueOrEmpty(world.tokenInfo, textOf(device));
    });
}

int zentak_initDevice(const char* deviceId, bool flag, void* instance) {
    return Call("zentak_initDevice").text(deviceId).boolean(flag).instance(instance).perform([](Device&, int result) {
        return result;
    });
}

int zentak_validatePassword(const char* deviceId, const char* pin, int userKind, int* attemptsLeft, void* instance) {
    return Call("zentak_validatePassword")
        .text(deviceId)
        .text(pin)
        .number(userKind)
        .inOut(attemptsLeft)
        .instance(instance)
        .perform([&](Device& device, int result) {
            if (attemptsLeft != nullptr) {
                *attemptsLeft = device.attemptsLeft;
            }
            return result;
        });
}

bool zentak_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin, int* failureCount,
                               bool flag1, bool flag2, void* instance) {
    return Call("zentak_changeUserPassword")
        .text(deviceId)
        .text(oldPin)
        .text(newPin)
        .inOut(failureCount)
        .boolean(flag1)
        .boolean(flag2)
        .instance(instance)
        .perform(
            [&](Device& device, int result) {
                if (failureCount != nullptr) {
                    *failureCount = device.failureCount;
                }
                return result != 0;
            },
            1);
}

std::vector<ZentakKeyPair>& zentak_getKeyPairList(const char* deviceId, void* instance) {
    return *Call("zentak_getKeyPairList").text(deviceId).instance(instance).perform([&](Device& device, int) {
        device.hidden().keyPairList = valueOrEmpty(device.keyPairs, textOf(deviceId));
        return &device.hidden().keyPairList;
    });
}

std::vector<ZentakCertificate>& zentak_getCertificateList(const char* deviceId, void* instance) {
    return *Call("zentak_getCertificateList").text(deviceId).instance(instance).perform([&](Device& device, int) {
        device.hidden().certificateList = valueOrEmpty(device.certificates, textOf(deviceId));
        return &device.hidden().certificateList;
    });
}

int zentak_getCertificateDetails(const unsigned char* der, int length, CertificateDetails* details, void* instance) {
    return Call("zentak_getCertificateDetails")
        .bytes(der, length)
        .out(details)
        .instance(instance)
        .perform([&](Device& device, int result) {
            const auto found = device.certificateDetails.find(bytesOf(der, length));
            if (result == 0 && found == device.certificateDetails.end()) {
                return device.unknownCertificateResult;
            }
            if (result == 0) {
                *details = found->second;
            }
            return result;
        });
}

std::vector<unsigned char> zentak_getCertificateSubject(const unsigned char* der, int length, void* instance) {
    return Call("zentak_getCertificateSubject").bytes(der, length).instance(instance).perform([&](Device& device, int) {
        return valueOrEmpty(device.subjects, bytesOf(der, length));
    });
}

std::vector<unsigned char> zentak_getCertificateIssuer(const unsigned char* der, int length, void* instance) {
    return Call("zentak_getCertificateIssuer").bytes(der, length).instance(instance).perform([&](Device& device, int) {
        return valueOrEmpty(device.issuers, bytesOf(der, length));
    });
}

std::vector<unsigned char> zentak_getCertificateSerialDER(const unsigned char* der, int length, void* instance) {
    return Call("zentak_getCertificateSerialDER")
        .bytes(der, length)
        .instance(instance)
        .perform([&](Device& device, int) { return valueOrEmpty(device.serials, bytesOf(der, length)); });
}

int zentak_updateKeyPairDetails(const char* deviceId, const unsigned char* keyId, const char* password,
                                const char* label, const unsigned char* objectId, int objectIdLength, void* instance) {
    return Call("zentak_updateKeyPairDetails")
        .text(deviceId)
        .keyReference(keyId)
        .text(password)
        .text(label)
        .bytes(objectId, objectIdLength)
        .instance(instance)
        .perform([](Device&, int result) { return result; });
}

int zentak_deleteKeyPair(const char* deviceId, const unsigned char* keyId, const char* password, bool keyFlag,
                         void* instance) {
    return Call("zentak_deleteKeyPair")
        .text(deviceId)
        .keyReference(keyId)
        .text(password)
        .boolean(keyFlag)
        .instance(instance)
        .perform([](Device&, int result) { return result; });
}

int zentak_importCertificate(const char* deviceId, const char* password, ZentakCertificate* certificate,
                             void* instance) {
    return Call("zentak_importCertificate")
        .text(deviceId)
        .text(password)
        .certificate(certificate)
        .instance(instance)
        .perform([&](Device& device, int result) {
            if (result == 0) {
                copyInto(certificate->certId, device.importedCertificateId, sizeof certificate->certId);
            }
            return result;
        });
}

int zentak_importPfx(const char* deviceId, const char* password, ImportPFXDetails* details, void* instance) {
    return Call("zentak_importPfx")
        .text(deviceId)
        .text(password)
        .pfx(details)
        .instance(instance)
        .perform([&](Device& device, int result) {
            if (result == 0) {
                std::memcpy(details->keyId, device.generated.keyId, sizeof details->keyId);
            }
            return result;
        });
}

std::vector<std::pair<std::string, std::vector<unsigned char>>> zentak_getFilesWithExtensionsAndConvertDER(
    const char* folder, const std::vector<std::string>& extensions, void* instance) {
    return Call("zentak_getFilesWithExtensionsAndConvertDER")
        .text(folder)
        .texts(extensions)
        .instance(instance)
        .perform([](Device& device, int) { return device.files; });
}

int zentak_generateKeyPair(const char* deviceId, const char* password, ZentakKeyPair* keyPair, void* instance) {
    return Call("zentak_generateKeyPair")
        .text(deviceId)
        .text(password)
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
            if (result == 0) {
                *context = &device.hidden().contexts.emplace_back();
            }
            return result;
        });
}

int zentak_updateHash(void* context, const unsigned char* data, int length, void* instance) {
    return Call("zentak_updateHash")
        .context(context)
        .bytes(data, length)
        .instance(instance)
        .perform([](Device&, int result) { return result; });
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
            }
            return result;
        });
}

int zentak_signHash(const char* deviceId, const unsigned char* keyId, const char* password, const unsigned char* data,
                    int length, unsigned char* signature, int* signatureLength, bool flag, void* instance, bool pss) {
    return Call("zentak_signHash")
        .text(deviceId)
        .keyReference(keyId)
        .text(password)
        .bytes(data, length)
        .out(signature)
        .inOut(signatureLength)
        .boolean(flag)
        .instance(instance)
        .boolean(pss)
        .perform([&](Device& device, int result) {
            if (result == 0) {
                deliver(device.signature, signature, signatureLength, device.reportedLength);
            }
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
        .perform([](Device&, int result) { return result; });
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
        .text(deviceId)
        .keyReference(keyId)
        .text(password)
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
        .text(deviceId)
        .keyReference(keyId)
        .text(password)
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
