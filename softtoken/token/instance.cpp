#include "token/instance.h"

#include <algorithm>

#include "platform/errors.h"
#include "token/token_changes.h"

namespace softtoken {

using zentak::MutexLock;

namespace {

/// How many outdated snapshots stay alive for callers that are still copying a list. One with 500 key pairs is 1 MB.
constexpr std::size_t retiredSnapshots = 4;

const KeyPairEntry* entryOf(const TokenData& token, const Reference& keyId) {
    const auto found = std::find_if(token.keyPairs.begin(), token.keyPairs.end(),
                                    [&](const KeyPairEntry& entry) { return entry.keyId == keyId; });
    return found == token.keyPairs.end() ? nullptr : &*found;
}

}  // namespace

Instance::Instance(Store store) : store_(std::move(store)), digestKey_(randomSecret(32)) {}

std::shared_ptr<Snapshot> Instance::snapshot(std::string_view serialNumber) {
    const MutexLock lock(mutex_);
    return present(serialNumber).snapshot;
}

StoredToken Instance::storedToken(std::string_view serialNumber) {
    const MutexLock lock(mutex_);
    const Device& device = present(serialNumber);
    return {device.snapshot->token, device.version};
}

Attempts Instance::attempts(std::string_view serialNumber) const {
    return store_.loadAttempts(serialNumber);
}

Instance::Device& Instance::present(std::string_view serialNumber) {
    auto found = devices_.find(serialNumber);
    if (found == devices_.end()) {
        found = devices_.emplace(serialNumber, Device{.file = store_.pluggedTokenFile(serialNumber)}).first;
    }
    Device& device = found->second;
    try {
        switch (device.version.differenceTo(device.file)) {
            case TokenVersion::Difference::none:
                return device;
            case TokenVersion::Difference::changed:
                read(device, serialNumber);
                return device;
            case TokenVersion::Difference::missing:
                failMissing(device, serialNumber);
        }
    } catch (...) {
        devices_.erase(found);
        throw;
    }
    return device;
}

void Instance::failMissing(const Device& device, std::string_view serialNumber) const {
    if (!store_.isPlugged(serialNumber)) {
        throw Failure(Error::deviceNotPresent, "the token isn't plugged in");
    }
    // Either it has just come back, or its file is missing.
    if (!fileStamp(device.file)) {
        throw Failure(Error::tokenDamaged, "the token's file is missing");
    }
    throw Failure(Error::deviceNotPresent, "the token was just plugged in");
}

void Instance::read(Device& device, std::string_view serialNumber) {
    // Nobody but the user must be able to replace the file.
    static_cast<void>(store_.folderOf(serialNumber));
    auto token = readStoredToken(device.file, serialNumber);
    if (!token) {
        throw Failure(Error::deviceNotPresent, "the token isn't plugged in");
    }
    device.version = std::move(token->version);
    // A caller may still be copying a list of the snapshot, which then needn't become an outdated one.
    if (!device.snapshot || *device.snapshot->token != *token->data) {
        publish(device, std::move(token->data));
    }
}

void Instance::publish(Device& device, std::shared_ptr<const TokenData> token) {
    if (device.snapshot) {
        // A loaded key stays as long as nothing that it was checked against has changed.
        std::erase_if(device.keys, [&](const auto& loaded) {
            const KeyPairEntry* const before = entryOf(*device.snapshot->token, loaded.first);
            const KeyPairEntry* const now = entryOf(*token, loaded.first);
            return before == nullptr || now == nullptr || before->sealedPrivateKey != now->sealedPrivateKey ||
                   now->keyUsage != loaded.second.usage;
        });
        retired_.push_back(device.snapshot);
        if (retired_.size() > retiredSnapshots) {
            retired_.pop_front();
        }
    }
    device.snapshot = snapshotOf(std::move(token));
}

Instance::PinDigest Instance::digestOf(std::string_view pin) const {
    return sha256(digestKey_, viewOf(pin));
}

bool Instance::TriedPin::is(const PinDigest& other, const TokenData& token) const {
    return section == token.user && model == token.model &&
           CRYPTO_memcmp(digest.data(), other.data(), digest.size()) == 0;
}

bool Instance::isVerified(const Device& device, const PinDigest& digest) {
    return device.verified && device.verified->tried.is(digest, *device.snapshot->token);
}

Instance::PinCheck::PinCheck(Instance& instance, std::string_view serialNumber, const PinDigest& digest)
    : instance_(instance), pin_(serialNumber, digest) {
    const MutexLock lock(instance_.mutex_);
    while (!instance_.pinsInCheck_.insert(pin_).second) {
        instance_.pinChecked_.wait(instance_.mutex_);
    }
}

Instance::PinCheck::~PinCheck() {
    {
        const MutexLock lock(instance_.mutex_);
        instance_.pinsInCheck_.erase(pin_);
    }
    instance_.pinChecked_.notify_all();
}

OpenedToken Instance::verifyPin(std::string_view serialNumber, std::string_view pin, const PinDigest& digest) {
    const StoredToken known = storedToken(serialNumber);
    try {
        OpenedToken opened = store_.open(serialNumber, Role::user, pin, &known);
        const MutexLock lock(mutex_);
        Device& device = present(serialNumber);
        device.verified = VerifiedPin{{digest, opened.user, known.data->model}, opened.key};
        device.refused.reset();
        return opened;
    } catch (const PinFailure&) {
        const MutexLock lock(mutex_);
        present(serialNumber).refused = TriedPin{digest, known.data->user, known.data->model};
        throw;
    }
}

void Instance::login(std::string_view serialNumber, Role role, std::string_view pin) {
    requirePinLength(pin);
    static_cast<void>(snapshot(serialNumber));
    if (role == Role::officer) {
        static_cast<void>(store_.checkPin(serialNumber, role, pin));
        return;
    }
    const PinDigest digest = digestOf(pin);
    const PinCheck check(*this, serialNumber, digest);
    bool verified = false;
    int maximum = 0;
    {
        const MutexLock lock(mutex_);
        const Device& device = present(serialNumber);
        verified = isVerified(device, digest);
        maximum = device.snapshot->token->user.maximumAttempts;
    }
    const int left = store_.loadAttempts(serialNumber).user;
    if (!verified || left == 0) {
        static_cast<void>(verifyPin(serialNumber, pin, digest));
    } else if (left != maximum) {
        store_.resetAttempts(serialNumber, role, maximum);
    }
}

void Instance::changeUserPin(std::string_view serialNumber, std::string_view oldPin, std::string_view newPin) {
    requirePinLength(newPin);
    static_cast<void>(snapshot(serialNumber));
    const OpenedToken opened = store_.open(serialNumber, Role::user, oldPin);
    store_.setPin(serialNumber, Role::user, newPin, opened, true);
}

OpenedToken Instance::open(std::string_view serialNumber, std::string_view pin) {
    requirePinLength(pin);
    const PinDigest digest = digestOf(pin);
    const auto remembered = [&]() -> std::optional<OpenedToken> {
        const MutexLock lock(mutex_);
        const Device& device = present(serialNumber);
        const TokenData& token = *device.snapshot->token;
        if (isVerified(device, digest)) {
            return OpenedToken{device.verified->tokenKey, token.user, token.officer};
        }
        if (device.refused && device.refused->is(digest, token)) {
            throw PinFailure(Error::pinIncorrect, store_.loadAttempts(serialNumber).user, "the PIN is wrong");
        }
        return std::nullopt;
    };
    if (auto opened = remembered()) {
        return *std::move(opened);
    }
    const PinCheck check(*this, serialNumber, digest);
    if (auto opened = remembered()) {
        return *std::move(opened);
    }
    return verifyPin(serialNumber, pin, digest);
}

std::shared_ptr<PrivateKey> Instance::privateKey(std::string_view serialNumber, const Reference& keyId,
                                                 std::string_view pin, std::uint32_t usage) {
    requirePinLength(pin);
    const auto requireUsage = [usage](std::uint32_t permitted) {
        if ((permitted & usage) != usage) {
            throw Failure(Error::usageNotPermitted, "the key isn't for this use");
        }
    };
    const PinDigest digest = digestOf(pin);
    {
        const MutexLock lock(mutex_);
        const Device& device = present(serialNumber);
        const auto loaded = device.keys.find(keyId);
        if (loaded != device.keys.end() && isVerified(device, digest)) {
            requireUsage(loaded->second.usage);
            return loaded->second.key;
        }
        requireUsage(findKeyPair(*device.snapshot->token, keyId).keyUsage);
    }
    const SecretBytes unlocked = open(serialNumber, pin).key;
    const MutexLock lock(mutex_);
    Device& device = present(serialNumber);
    const auto loaded = device.keys.find(keyId);
    if (loaded != device.keys.end()) {
        return loaded->second.key;
    }
    const KeyPairEntry& entry = findKeyPair(*device.snapshot->token, keyId);
    requireUsage(entry.keyUsage);
    auto key = std::make_shared<PrivateKey>(openPrivateKey(*device.snapshot->token, entry, unlocked));
    device.keys[keyId] = LoadedKey{key, entry.keyUsage};
    return key;
}

void Instance::change(std::string_view serialNumber, const std::function<void(TokenData&)>& change) {
    const StoredToken before = storedToken(serialNumber);
    StoredToken after = store_.change(serialNumber, change, &before);
    const MutexLock lock(mutex_);
    const auto found = devices_.find(serialNumber);
    if (found == devices_.end()) {
        return;
    }
    // What was written needn't be read.
    Device& device = found->second;
    const bool unchanged = device.snapshot->token == before.data && after.version.hasContentOf(before.version);
    device.version = std::move(after.version);
    if (!unchanged) {
        publish(device, std::move(after.data));
    }
}

}  // namespace softtoken
