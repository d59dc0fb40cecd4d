#include "token/instance.h"

#include <algorithm>
#include <cstring>

#include "platform/errors.h"
#include "token/token_changes.h"

namespace softtoken {

namespace {

/// How many outdated snapshots stay alive for callers that are still copying a list. One with 500 key pairs is 1 MB.
constexpr std::size_t retiredSnapshots = 4;
constexpr std::size_t rememberedPublicKeys = 32;
/// Two changes within the clock's resolution can't be told apart by their times, so a file that was read so soon after
/// its change is looked into again. Some file systems keep whole seconds, or even ones.
constexpr std::int64_t settlingTime(std::int64_t modified) {
    constexpr std::int64_t second = 1'000'000'000;
    return modified % second == 0 ? 2 * second + second / 10 : second / 10;
}

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

Instance::Instance(Store store) : store_(std::move(store)), digestKey_(randomSecret(32)) {}

std::shared_ptr<Snapshot> Instance::snapshot(std::string_view serialNumber) {
    const std::lock_guard lock(mutex_);
    return refreshed(serialNumber).snapshot;
}

Instance::Reading Instance::readingOf(std::string_view serialNumber) {
    const std::lock_guard lock(mutex_);
    const Device& device = refreshed(serialNumber);
    return {device.snapshot, device.version};
}

Attempts Instance::attempts(std::string_view serialNumber) {
    return store_.loadAttempts(serialNumber);
}

Instance::Device& Instance::refreshed(std::string_view serialNumber) {
    auto found = devices_.find(serialNumber);
    const bool known = found != devices_.end();
    const std::filesystem::path file = known ? std::filesystem::path() : store_.pluggedTokenFile(serialNumber);
    const auto stamp = fileStamp(known ? found->second.file : file);
    if (!stamp) {
        if (known) {
            devices_.erase(found);
        }
        if (!store_.isPlugged(serialNumber)) {
            throw Failure(Error::deviceNotPresent, "the token isn't plugged in");
        }
        // Either it has just come back, or its file is missing.
        if (!fileStamp(store_.pluggedTokenFile(serialNumber))) {
            throw Failure(Error::tokenDamaged, "the token's file is missing");
        }
        throw Failure(Error::deviceNotPresent, "the token was just plugged in");
    }
    if (!known) {
        found = devices_.emplace(serialNumber, Device{}).first;
        found->second.file = file;
    }
    Device& device = found->second;
    const bool sameStamp = device.snapshot && device.version.stamp == *stamp;
    const bool settled = std::abs(device.checkedAt - stamp->modified) > settlingTime(stamp->modified);
    if (sameStamp && settled) {
        return device;
    }
    device.checkedAt = fileClockNow();
    try {
        if (!sameStamp || readTokenChecksum(device.file) != device.version.checksum) {
            read(device, serialNumber);
        }
    } catch (...) {
        devices_.erase(found);
        throw;
    }
    device.version.stamp = *stamp;
    return device;
}

void Instance::read(Device& device, std::string_view serialNumber) {
    // Who could replace the file must be the user alone.
    static_cast<void>(store_.folderOf(serialNumber));
    const auto document = readTokenFile(device.file);
    if (!document) {
        throw Failure(Error::deviceNotPresent, "the token isn't plugged in");
    }
    TokenData token = readTokenDataOf(serialNumber, *document);
    device.version.checksum = checksumOf(*document);
    if (!device.snapshot || device.snapshot->token != token) {
        publish(device, std::move(token));
    }
}

void Instance::publish(Device& device, TokenData token) {
    const auto fresh = std::make_shared<Snapshot>();
    fresh->keyPairs.reserve(token.keyPairs.size());
    fresh->certificates.reserve(token.certificates.size());
    for (const KeyPairEntry& entry : token.keyPairs) {
        fresh->keyPairs.push_back(recordOf(entry));
    }
    for (const CertificateEntry& entry : token.certificates) {
        fresh->certificates.push_back(recordOf(entry));
    }
    fresh->token = std::move(token);
    if (device.snapshot) {
        // A loaded key stays as long as nothing that it was checked against has changed.
        std::erase_if(device.keys, [&](const auto& loaded) {
            const auto same = [&](const Snapshot& snapshot) {
                const auto& entries = snapshot.token.keyPairs;
                const auto entry = std::find_if(entries.begin(), entries.end(),
                                                [&](const KeyPairEntry& pair) { return pair.keyId == loaded.first; });
                return entry == entries.end() ? Bytes() : entry->sealedPrivateKey;
            };
            const Bytes now = same(*fresh);
            return now.empty() || now != same(*device.snapshot) ||
                   findKeyPair(fresh->token, loaded.first).keyUsage != loaded.second.usage;
        });
        retired_.push_back(device.snapshot);
        if (retired_.size() > retiredSnapshots) {
            retired_.pop_front();
        }
    }
    device.snapshot = fresh;
}

Instance::PinDigest Instance::digestOf(std::string_view pin) const {
    return sha256(digestKey_, viewOf(pin));
}

bool Instance::TriedPin::is(const PinDigest& other, const TokenData& token) const {
    return section == token.user && model == token.model &&
           CRYPTO_memcmp(digest.data(), other.data(), digest.size()) == 0;
}

bool Instance::isVerified(const Device& device, const PinDigest& digest) {
    return device.verified && device.verified->tried.is(digest, device.snapshot->token);
}

Instance::PinCheck::PinCheck(Instance& instance, std::string_view serialNumber, const PinDigest& digest)
    : instance_(instance), pin_(serialNumber, digest) {
    std::unique_lock lock(instance_.mutex_);
    instance_.pinChecked_.wait(lock, [this] { return instance_.pinsInCheck_.insert(pin_).second; });
}

Instance::PinCheck::~PinCheck() {
    {
        const std::lock_guard lock(instance_.mutex_);
        instance_.pinsInCheck_.erase(pin_);
    }
    instance_.pinChecked_.notify_all();
}

OpenedToken Instance::verifyPin(std::string_view serialNumber, std::string_view pin, const PinDigest& digest) {
    const Reading reading = readingOf(serialNumber);
    const std::string& model = reading.snapshot->token.model;
    try {
        const KnownToken known = reading.known();
        OpenedToken opened = store_.open(serialNumber, Role::user, pin, &known);
        const std::lock_guard lock(mutex_);
        Device& device = refreshed(serialNumber);
        device.verified = VerifiedPin{{digest, opened.user, model}, opened.key};
        device.refused.reset();
        return opened;
    } catch (const PinFailure&) {
        const std::lock_guard lock(mutex_);
        refreshed(serialNumber).refused = TriedPin{digest, reading.snapshot->token.user, model};
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
        const std::lock_guard lock(mutex_);
        const Device& present = refreshed(serialNumber);
        verified = isVerified(present, digest);
        maximum = present.snapshot->token.user.maximumAttempts;
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
        const std::lock_guard lock(mutex_);
        const Device& device = refreshed(serialNumber);
        const TokenData& token = device.snapshot->token;
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
        const std::lock_guard lock(mutex_);
        const Device& device = refreshed(serialNumber);
        const auto loaded = device.keys.find(keyId);
        if (loaded != device.keys.end() && isVerified(device, digest)) {
            requireUsage(loaded->second.usage);
            return loaded->second.key;
        }
        requireUsage(findKeyPair(device.snapshot->token, keyId).keyUsage);
    }
    const SecretBytes unlocked = open(serialNumber, pin).key;
    const std::lock_guard lock(mutex_);
    Device& device = refreshed(serialNumber);
    const auto loaded = device.keys.find(keyId);
    if (loaded != device.keys.end()) {
        return loaded->second.key;
    }
    const KeyPairEntry& entry = findKeyPair(device.snapshot->token, keyId);
    requireUsage(entry.keyUsage);
    auto key = std::make_shared<PrivateKey>(openPrivateKey(device.snapshot->token, entry, unlocked));
    device.keys[keyId] = LoadedKey{key, entry.keyUsage};
    return key;
}

void Instance::change(std::string_view serialNumber, const std::function<void(TokenData&)>& change) {
    const Reading reading = readingOf(serialNumber);
    const KnownToken known = reading.known();
    ChangedToken changed = store_.change(serialNumber, change, &known);
    const std::lock_guard lock(mutex_);
    const auto found = devices_.find(serialNumber);
    if (found == devices_.end()) {
        return;
    }
    // What was written needn't be read. The next look compares checksums, in case that others have changed it since.
    Device& device = found->second;
    device.checkedAt = changed.version.stamp.modified;
    device.version = std::move(changed.version);
    const bool unchanged = device.snapshot == reading.snapshot && device.version.checksum == reading.version.checksum;
    if (!unchanged) {
        publish(device, std::move(changed.token));
    }
}

Key Instance::publicKey(int keyType, ByteView bytes) {
    {
        const std::lock_guard lock(mutex_);
        for (const PublicKeyEntry& entry : publicKeys_) {
            if (entry.keyType == keyType &&
                std::equal(bytes.begin(), bytes.end(), entry.bytes.begin(), entry.bytes.end())) {
                return entry.key;
            }
        }
    }
    Key key = decodePublicKey(keyTypeOfCode(keyType), bytes);
    if (key) {
        const std::lock_guard lock(mutex_);
        publicKeys_.push_front(PublicKeyEntry{keyType, Bytes(bytes.begin(), bytes.end()), key});
        if (publicKeys_.size() > rememberedPublicKeys) {
            publicKeys_.pop_back();
        }
    }
    return key;
}

namespace {

struct Registry {
    std::mutex mutex;
    std::uintptr_t lastHandle = 0x1000;
    std::map<std::uintptr_t, std::shared_ptr<Instance>> instances;
};

/// Never destroyed: a host may end without releasing its instances while threads still use them. Handles are numbers
/// that are given once, so a released one never comes to stand for another instance.
Registry& registry() {
    static Registry& only = *new Registry;
    return only;
}

}  // namespace

void* openInstance() {
    auto instance = std::make_shared<Instance>(Store(defaultStoreFolder()));
    Registry& all = registry();
    const std::lock_guard lock(all.mutex);
    all.lastHandle += 16;
    all.instances.emplace(all.lastHandle, std::move(instance));
    return reinterpret_cast<void*>(all.lastHandle);
}

std::shared_ptr<Instance> findInstance(void* handle) {
    Registry& all = registry();
    const std::lock_guard lock(all.mutex);
    const auto found = all.instances.find(reinterpret_cast<std::uintptr_t>(handle));
    if (found == all.instances.end()) {
        throw Failure(Error::unknownInstance, "there is no such instance");
    }
    return found->second;
}

void closeInstance(void* handle) {
    std::shared_ptr<Instance> last;
    Registry& all = registry();
    const std::lock_guard lock(all.mutex);
    const auto found = all.instances.find(reinterpret_cast<std::uintptr_t>(handle));
    if (found == all.instances.end()) {
        return;
    }
    // Released after the lock is.
    // cppcheck-suppress unreadVariable
    last = std::move(found->second);
    all.instances.erase(found);
}

}  // namespace softtoken
