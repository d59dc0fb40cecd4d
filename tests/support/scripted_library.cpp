// The operations, but for those of scripted_crypto.cpp: each names its arguments for the record and answers from the
// world that the test has set.

#include "scripted_library.h"

#include <cstring>

#include "scripted_call.h"

using scripted::Bytes;
using scripted::Call;
using scripted::copyInto;
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
        if (device.hidden().instance == instance) device.hidden().instance = nullptr;
    });
}

std::vector<std::string> zentak_getConnectedDeviceList(bool flag, void* instance) {
    if (scripted::device().isPoll()) {
        return Call(scripted::poll.data()).boolean(flag).instance(instance).perform([](Device& device, int) {
            return device.hidden().shownToMonitor;
        });
    }
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
    return Call("zentak_initDevice").text(deviceId).boolean(flag).instance(instance).answer();
}

int zentak_validatePassword(const char* deviceId, const char* pin, int userKind, int* attemptsLeft, void* instance) {
    return Call("zentak_validatePassword")
        .user(deviceId, pin)
        .number(userKind)
        .inOut(attemptsLeft)
        .instance(instance)
        .perform([&](Device& device, int result) {
            if (attemptsLeft != nullptr) *attemptsLeft = device.attemptsLeft;
            return result;
        });
}

bool zentak_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin, int* failureCount,
                               bool flag1, bool flag2, void* instance) {
    return Call("zentak_changeUserPassword")
        .text(deviceId)
        .text(oldPin)
        .password(newPin)
        .inOut(failureCount)
        .boolean(flag1)
        .boolean(flag2)
        .instance(instance)
        .perform(
            [&](Device& device, int result) {
                if (failureCount != nullptr) *failureCount = device.failureCount;
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
            if (result == 0 && found == device.certificateDetails.end()) return device.unknownCertificateResult;
            if (result == 0) *details = found->second;
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
        .key(deviceId, keyId, password)
        .text(label)
        .bytes(objectId, objectIdLength)
        .instance(instance)
        .answer();
}

int zentak_deleteKeyPair(const char* deviceId, const unsigned char* keyId, const char* password, bool keyFlag,
                         void* instance) {
    return Call("zentak_deleteKeyPair").key(deviceId, keyId, password).boolean(keyFlag).instance(instance).answer();
}

int zentak_importCertificate(const char* deviceId, const char* password, ZentakCertificate* certificate,
                             void* instance) {
    return Call("zentak_importCertificate")
        .user(deviceId, password)
        .certificate(certificate)
        .instance(instance)
        .perform([&](Device& device, int result) {
            if (result == 0) copyInto(certificate->certId, device.importedCertificateId, sizeof certificate->certId);
            return result;
        });
}

int zentak_importPfx(const char* deviceId, const char* password, ImportPFXDetails* details, void* instance) {
    return Call("zentak_importPfx")
        .user(deviceId, password)
        .pfx(details)
        .instance(instance)
        .perform([&](Device& device, int result) {
            if (result == 0) std::memcpy(details->keyId, device.generated.keyId, sizeof details->keyId);
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
