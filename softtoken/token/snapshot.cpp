#include "token/snapshot.h"

#include <algorithm>
#include <string>

namespace softtoken {

namespace {

template <std::size_t size>
std::int32_t copyBytes(const Bytes& bytes, unsigned char (&field)[size]) {
    const std::size_t count = std::min(bytes.size(), size);
    std::copy_n(bytes.begin(), count, field);
    return static_cast<std::int32_t>(count);
}

template <std::size_t size>
void copyText(const std::string& text, char (&field)[size]) {
    std::copy_n(text.begin(), std::min(text.size(), size - 1), field);
}

ZentakKeyPair recordOf(const KeyPairEntry& entry) {
    ZentakKeyPair record{};
    record.id = entry.id;
    std::copy(entry.keyId.begin(), entry.keyId.end(), record.keyId);
    record.publicKeyLength = copyBytes(entry.publicKey, record.publicKey);
    record.objectIdLength = copyBytes(entry.objectId, record.objectId);
    copyText(entry.alias, record.alias);
    record.keyUsage = entry.keyUsage;
    record.keyType = entry.keyType;
    return record;
}

ZentakCertificate recordOf(const CertificateEntry& entry) {
    ZentakCertificate record{};
    record.id = entry.id;
    std::copy(entry.certId.begin(), entry.certId.end(), record.certId);
    record.derLength = copyBytes(entry.der, record.der);
    record.objectIdLength = copyBytes(entry.objectId, record.objectId);
    copyText(entry.label, record.label);
    return record;
}

}  // namespace

std::shared_ptr<Snapshot> snapshotOf(std::shared_ptr<const TokenData> token) {
    auto snapshot = std::make_shared<Snapshot>();
    snapshot->keyPairs.reserve(token->keyPairs.size());
    snapshot->certificates.reserve(token->certificates.size());
    for (const KeyPairEntry& entry : token->keyPairs) {
        snapshot->keyPairs.push_back(recordOf(entry));
    }
    for (const CertificateEntry& entry : token->certificates) {
        snapshot->certificates.push_back(recordOf(entry));
    }
    snapshot->token = std::move(token);
    return snapshot;
}

}  // namespace softtoken
