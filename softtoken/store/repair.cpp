#include "store/repair.h"

#include <algorithm>
#include <set>

#include "keys/certificates.h"
#include "keys/keys.h"
#include "platform/errors.h"

namespace softtoken {

namespace fs = std::filesystem;

namespace {

/// The whole token that a change had written beside its file; nothing when there is none.
std::optional<std::string> writtenBeside(const fs::path& tokenFile, std::string_view serialNumber) {
    fs::path fresh = tokenFile;
    fresh += ".new";
    try {
        auto document = readTokenFile(fresh);
        if (document) {
            static_cast<void>(readTokenDataOf(serialNumber, *document));
        }
        return document;
    } catch (const Failure&) {
        return std::nullopt;
    }
}

/// Whether nothing at all has the name, be it a link that leads nowhere.
bool isFree(const fs::path& name) {
    std::error_code error;
    return fs::symlink_status(name, error).type() == fs::file_type::not_found;
}

void requirePossible(const TokenData& token, const Attempts& attempts) {
    const int officerMaximum = token.officer ? token.officer->maximumAttempts : 0;
    if (attempts.user > token.user.maximumAttempts || attempts.officer > officerMaximum) {
        throw Failure(Error::tokenDamaged, "the token's PIN counters say more attempts than it gives");
    }
}

template <typename Entry>
void lookOver(const std::vector<Entry>& entries, Reference Entry::*reference, std::uint32_t capacity,
              const std::string& kind, std::vector<std::string>& faults, bool (*isReadable)(const Entry&)) {
    if (entries.size() > capacity) {
        faults.push_back("it holds " + std::to_string(entries.size()) + " " + kind + "s, and has room for " +
                         std::to_string(capacity));
    }
    std::set<Reference> references;
    for (const Entry& entry : entries) {
        const std::string name = kind + " " + std::to_string(entry.id);
        if (!references.insert(entry.*reference).second) {
            faults.push_back(name + " has the reference of another one");
        }
        if (!isReadable(entry)) {
            faults.push_back(name + " can't be read");
        }
    }
}

bool hasPublicKey(const KeyPairEntry& entry) {
    const Key key = decodePublicKey(keyTypeOfCode(entry.keyType), entry.publicKey);
    const KeyType* const type = key ? keyTypeOf(key.get()) : nullptr;
    return type != nullptr && type->code == entry.keyType;
}

bool isCertificate(const CertificateEntry& entry) {
    try {
        return certificateFacts(entry.der) != nullptr;
    } catch (const Failure&) {
        return false;
    }
}

std::vector<std::string> faultsWithin(const TokenData& token) {
    std::vector<std::string> faults;
    lookOver(token.keyPairs, &KeyPairEntry::keyId, token.capacity, "key pair", faults, &hasPublicKey);
    lookOver(token.certificates, &CertificateEntry::certId, token.capacity, "certificate", faults, &isCertificate);
    return faults;
}

}  // namespace

std::vector<std::string> faultsOf(const Store& store, std::string_view serialNumber) {
    std::vector<std::string> faults;
    std::optional<TokenData> token;
    try {
        token = store.load(serialNumber);
        faults = faultsWithin(*token);
    } catch (const Failure& failure) {
        if (failure.error == Error::deviceNotPresent) {
            throw;
        }
        faults.emplace_back(failure.what());
    }
    try {
        const Attempts attempts = store.loadAttempts(serialNumber);
        if (token) {
            requirePossible(*token, attempts);
        }
    } catch (const Failure& failure) {
        if (failure.error == Error::deviceNotPresent) {
            throw;
        }
        // What is wrong with the folder is wrong with both files.
        if (faults.empty() || faults.front() != failure.what()) {
            faults.emplace_back(failure.what());
        }
    }
    return faults;
}

std::vector<std::string> repairToken(const Store& store, std::string_view serialNumber) {
    std::vector<std::string> done;
    const FileLock lock = store.lockFor(serialNumber);
    const fs::path folder = store.folderOf(serialNumber);
    const fs::path tokenFile = folder / tokenFileName;
    if (isFree(tokenFile)) {
        const auto document = writtenBeside(tokenFile, serialNumber);
        if (!document) {
            throw Failure(Error::tokenDamaged, "the token's file is missing: put back a good copy");
        }
        fs::path fresh = tokenFile;
        fresh += ".new";
        // It may have lost its name before its content had reached the disk.
        overwriteFile(fresh, *document, Lasting::atOnce);
        moveFolder(fresh, tokenFile);
        done.emplace_back(
            "the token's file was missing; the whole one that a change had left beside it took its place");
    }
    const TokenData token = store.load(serialNumber);
    try {
        requirePossible(token, store.loadAttempts(serialNumber));
    } catch (const Failure& failure) {
        if (failure.error != Error::tokenDamaged) {
            throw;
        }
        replaceFile(folder / attemptsFileName, writeAttempts({1, token.officer ? 1 : 0}));
        done.push_back(std::string(failure.what()) + "; they were made anew, with one attempt left for each PIN");
    }
    const std::vector<std::string> faults = faultsOf(store, serialNumber);
    if (!faults.empty()) {
        throw Failure(Error::tokenDamaged, faults.front());
    }
    return done;
}

}  // namespace softtoken
