#include "token_stores.h"

#include <algorithm>
#include <cstdlib>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <stdexcept>

#include "platform/files.h"
#include "run_folder.h"
#include "test_certificates.h"
#include "token/token_changes.h"

namespace bench {

namespace {

/// As many keys of the file as there are.
Keys readKeys(const std::filesystem::path& file, std::size_t count) {
    Keys keys;
    const softtoken::Bio input(BIO_new_file(file.string().c_str(), "r"));
    while (input && keys.size() < count) {
        const softtoken::Key key = softtoken::ownKey(
            PEM_read_bio_PrivateKey_ex(input.get(), nullptr, nullptr, nullptr, softtoken::cryptoContext(), nullptr));
        if (!key) break;
        keys.push_back(key);
    }
    ERR_clear_error();
    return keys;
}

}  // namespace

Keys makeKeys(std::size_t count) {
    const std::filesystem::path file = support::programFile().parent_path() / "benchmark-keys.pem";
    Keys keys = readKeys(file, count);
    if (keys.size() == count) return keys;
    std::string pem;
    for (std::size_t i = 0; i < count; ++i) {
        if (i >= keys.size()) keys.push_back(softtoken::generateKey(*softtoken::keyTypeOfCode(i % 2 == 0 ? 2 : 5)));
        pem += softtoken::pemPrivateKey(keys[i]);
    }
    softtoken::replaceFile(file, pem);
    return keys;
}

std::vector<softtoken::Bytes> makeCertificates(const Keys& keys) {
    std::vector<softtoken::Bytes> certificates;
    for (const softtoken::Key& key : keys) {
        softtoken::CertificateSettings settings;
        settings.subject.back().second = "Holder of key " + std::to_string(certificates.size() + 1);
        certificates.push_back(softtoken::makeCertificate(key, settings));
    }
    return certificates;
}

void makeStore(const std::filesystem::path& folder, const Keys& keys, std::size_t count,
               std::span<const softtoken::Bytes> certificates) {
    softtoken::Store store(folder);
    softtoken::NewToken settings;
    settings.label = "Benchmark";
    settings.model = "ZS1 Software";
    settings.userPin = userPin;
    settings.derivation = softtoken::KeyDerivation::scrypt(1);
    const std::string serialNumber = softtoken::createToken(store, settings);
    const softtoken::SecretBytes tokenKey = store.checkPin(serialNumber, softtoken::Role::user, userPin);
    store.change(serialNumber, [&](softtoken::TokenData& token) {
        for (std::size_t i = 0; i < std::max(count, certificates.size()); ++i) {
            const std::string id = std::to_string(i + 1);
            softtoken::NewKeyPair pair;
            pair.alias = "key " + id;
            pair.objectId.assign(id.begin(), id.end());
            if (i < count) softtoken::addKeyPair(token, tokenKey, keys.at(i).get(), pair);
            if (i < certificates.size()) softtoken::addCertificate(token, certificates[i], pair.alias, pair.objectId);
        }
    });
}

const Keys& allKeys() {
    static const Keys keys = makeKeys(500);
    return keys;
}

void plugInSoftwareToken(const TokenSize& size) {
    static const std::vector<softtoken::Bytes> certificates = makeCertificates(allKeys());
    const std::filesystem::path folder =
        support::runFolder() / ("tokens-" + std::to_string(size.keyPairs) + "-" + std::to_string(size.certificates));
    if (size == fillable) std::filesystem::remove_all(folder);
    if (!std::filesystem::exists(folder)) {
        makeStore(folder, allKeys(), size.keyPairs, std::span(certificates).first(size.certificates));
    }
    support::setEnvironment("ZENTAK_TOKENS", folder.string());
}

std::size_t tokenFileSize() {
    for (const auto& file : std::filesystem::recursive_directory_iterator(std::getenv("ZENTAK_TOKENS"))) {
        if (file.path().filename() == "token") return file.file_size();
    }
    throw std::runtime_error("no token is plugged in");
}

}  // namespace bench
