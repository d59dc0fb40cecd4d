// Operations on the key pairs and certificates that a token holds.

#include "base/no_destructor.h"
#include "boundary/boundary.h"
#include "device/zentak_dsc_library.h"
#include "token/instance_handles.h"
#include "token/token_changes.h"

using namespace softtoken;

namespace {

/// A list of the token's present snapshot, or an empty one that nobody else writes to.
template <typename Record>
std::vector<Record>& listOf(const char* deviceId, void* instance, std::vector<Record> Snapshot::*list) {
    static zentak::NoDestructor<std::vector<Record>> none;
    auto* const found = valueOf([&]() -> std::vector<Record>* {
        // The instance keeps the snapshot alive for a while after this reference is gone.
        return &(*findInstance(instance)->snapshot(textOf(deviceId)).*list);
    });
    return found != nullptr ? *found : *none;
}

NewKeyPair settingsOf(const ZentakKeyPair& record) {
    NewKeyPair settings;
    settings.alias = fieldText(record.alias);
    const ByteView objectId = fieldBytes(record.objectId, record.objectIdLength);
    settings.objectId.assign(objectId.begin(), objectId.end());
    settings.keyUsage = record.keyUsage;
    return settings;
}

void requireRoomForKeyPair(Instance& instance, std::string_view deviceId) {
    const auto snapshot = instance.snapshot(deviceId);
    if (snapshot->token->keyPairs.size() >= snapshot->token->capacity) {
        throw Failure(Error::keyStorageFull, "the token is full");
    }
}

}  // namespace

std::vector<ZentakKeyPair>& zentak_getKeyPairList(const char* deviceId, void* instance) {
    return listOf(deviceId, instance, &Snapshot::keyPairs);
}

std::vector<ZentakCertificate>& zentak_getCertificateList(const char* deviceId, void* instance) {
    return listOf(deviceId, instance, &Snapshot::certificates);
}

int zentak_updateKeyPairDetails(const char* deviceId, const unsigned char* keyId, const char* password,
                                const char* label, const unsigned char* objectId, int objectIdLength, void* instance) {
    return statusOf([&] {
        const auto found = findInstance(instance);
        const Reference reference = referenceOf(keyId);
        const std::string_view newLabel = textOf(label);
        const ByteView newObjectId = objectId == nullptr ? ByteView() : bytesOf(objectId, objectIdLength);
        requireArgument(newLabel.size() <= maximumAliasLength && newObjectId.size() <= maximumObjectIdLength);
        static_cast<void>(found->open(textOf(deviceId), textOf(password)));
        found->change(textOf(deviceId), [&](TokenData& token) {
            KeyPairEntry& entry = findKeyPair(token, reference);
            if (!newLabel.empty()) {
                entry.alias = newLabel;
            }
            if (!newObjectId.empty()) {
                entry.objectId.assign(newObjectId.begin(), newObjectId.end());
            }
        });
    });
}

int zentak_deleteKeyPair(const char* deviceId, const unsigned char* keyId, const char* password, bool /*keyFlag*/,
                         void* instance) {
    return statusOf([&] {
        const auto found = findInstance(instance);
        const Reference reference = referenceOf(keyId);
        static_cast<void>(found->open(textOf(deviceId), textOf(password)));
        found->change(textOf(deviceId), [&](TokenData& token) { deleteKeyPair(token, reference); });
    });
}

int zentak_importCertificate(const char* deviceId, const char* /*password*/, ZentakCertificate* certificate,
                             void* instance) {
    // A certificate is public and may come in a public session, so the PIN isn't looked at.
    return statusOf([&] {
        const auto found = findInstance(instance);
        requireArgument(certificate != nullptr);
        const ByteView der = fieldBytes(certificate->der, certificate->derLength);
        const ByteView objectId = fieldBytes(certificate->objectId, certificate->objectIdLength);
        const std::string_view label = fieldText(certificate->label);
        CertificateEntry entry;
        found->change(textOf(deviceId), [&](TokenData& token) { entry = addCertificate(token, der, label, objectId); });
        certificate->id = entry.id;
        std::copy(entry.certId.begin(), entry.certId.end(), certificate->certId);
    });
}

int zentak_importPfx(const char* deviceId, const char* password, ImportPFXDetails* details, void* instance) {
    return statusOf([&] {
        const auto found = findInstance(instance);
        requireArgument(details != nullptr);
        const OpenedToken opened = found->open(textOf(deviceId), textOf(password));
        requireRoomForKeyPair(*found, textOf(deviceId));
        const auto& parts = details->components;
        const Key key = composeRsaKey(parts[0], parts[2], parts[3]);
        const NewKeyPair settings{details->label, details->objectId, details->keyUsage};
        KeyPairEntry entry;
        found->change(textOf(deviceId), [&](TokenData& token) {
            requireKeyOf(token, opened);
            entry = addKeyPair(token, opened.key, key.get(), settings);
        });
        std::copy(entry.keyId.begin(), entry.keyId.end(), details->keyId);
    });
}

int zentak_generateKeyPair(const char* deviceId, const char* password, ZentakKeyPair* keyPair, void* instance) {
    return statusOf([&] {
        const auto found = findInstance(instance);
        requireArgument(keyPair != nullptr);
        const NewKeyPair settings = settingsOf(*keyPair);
        const KeyType* const type = keyTypeOfCode(keyPair->keyType);
        if (type == nullptr) {
            throw Failure(Error::unsupportedKey, "there is no such kind of key");
        }
        const OpenedToken opened = found->open(textOf(deviceId), textOf(password));
        requireRoomForKeyPair(*found, textOf(deviceId));
        const Key key = generateKey(*type);
        KeyPairEntry entry;
        found->change(textOf(deviceId), [&](TokenData& token) {
            requireKeyOf(token, opened);
            entry = addKeyPair(token, opened.key, key.get(), settings);
        });
        keyPair->id = entry.id;
        std::copy(entry.keyId.begin(), entry.keyId.end(), keyPair->keyId);
        std::copy(entry.publicKey.begin(), entry.publicKey.end(), keyPair->publicKey);
        keyPair->publicKeyLength = static_cast<std::int32_t>(entry.publicKey.size());
    });
}
