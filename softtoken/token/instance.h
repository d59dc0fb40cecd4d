/// Instances of the library: the view of the plugged-in tokens that a caller works with, and what is remembered of them
/// between two calls (the parsed file, the records made from it, the verified PIN, loaded keys).

#ifndef ZENTAK_SOFTTOKEN_TOKEN_INSTANCE_H
#define ZENTAK_SOFTTOKEN_TOKEN_INSTANCE_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "base/mutex.h"
#include "keys/hash_context.h"
#include "keys/key_operations.h"
#include "keys/public_key_cache.h"
#include "store/store.h"
#include "token/snapshot.h"

namespace softtoken {

/// Thread-safe. All routines with a serial number throw Error::deviceNotPresent when no such token is plugged in, and
/// Error::tokenDamaged or Error::unknownVersion when its file is unusable.
class Instance {
public:
    explicit Instance(Store store);

    HashTable hashes;
    PublicKeyCache publicKeys;

    [[nodiscard]] const Store& store() const { return store_; }

    /// The token's present state. It isn't changed any more, and stays alive for some further changes even when the
    /// caller keeps no more than a reference to one of its lists.
    std::shared_ptr<Snapshot> snapshot(std::string_view serialNumber);

    [[nodiscard]] Attempts attempts(std::string_view serialNumber) const;

    /// Checks a PIN as a login does. Throws PinFailure.
    void login(std::string_view serialNumber, Role role, std::string_view pin);

    void changeUserPin(std::string_view serialNumber, std::string_view oldPin, std::string_view newPin);

    /// Throws for a wrong PIN. The same wrong PIN is counted once only, however often it comes back in operations: an
    /// application that keeps a PIN doesn't notice when another one changes it, and would lock the token.
    OpenedToken open(std::string_view serialNumber, std::string_view pin);

    /// The loaded private key. `usage` is the bit that the operation needs, or 0. Throws for a wrong PIN.
    std::shared_ptr<PrivateKey> privateKey(std::string_view serialNumber, const Reference& keyId, std::string_view pin,
                                           std::uint32_t usage);

    /// Changes the token. Without the token key it's what needs no PIN.
    void change(std::string_view serialNumber, const std::function<void(TokenData&)>& change);

private:
    using PinDigest = std::array<unsigned char, 32>;

    /// A PIN, and what it was tried on: once that has changed, the PIN is unknown again.
    struct TriedPin {
        PinDigest digest;
        PinSection section;
        std::string model;

        [[nodiscard]] bool is(const PinDigest& other, const TokenData& token) const;
    };
    struct VerifiedPin {
        TriedPin tried;
        SecretBytes tokenKey;
    };
    struct LoadedKey {
        std::shared_ptr<PrivateKey> key;
        std::uint32_t usage;
    };
    /// A token that somebody works with. Never without a snapshot while nobody holds the mutex.
    struct Device {
        std::filesystem::path file{};
        TokenVersion version{};
        std::shared_ptr<Snapshot> snapshot{};
        std::optional<VerifiedPin> verified{};
        std::optional<TriedPin> refused{};
        std::map<Reference, LoadedKey> keys{};
    };
    /// A check of a PIN. Whoever brings the same PIN to the same token meanwhile waits for its end, and finds what
    /// came of it; others don't.
    class PinCheck {
    public:
        PinCheck(Instance& instance, std::string_view serialNumber, const PinDigest& digest);
        PinCheck(const PinCheck&) = delete;
        PinCheck& operator=(const PinCheck&) = delete;
        ~PinCheck();

    private:
        Instance& instance_;
        const std::pair<std::string, PinDigest> pin_;
    };

    /// What is known of the token, to save reading it again.
    StoredToken storedToken(std::string_view serialNumber);

    /// The token as its file has it now. The file is read only when it has changed.
    Device& present(std::string_view serialNumber) ZENTAK_THREAD_SAFETY(requires_capability(mutex_));
    [[noreturn]] void failMissing(const Device& device, std::string_view serialNumber) const;
    void read(Device& device, std::string_view serialNumber) ZENTAK_THREAD_SAFETY(requires_capability(mutex_));
    void publish(Device& device, std::shared_ptr<const TokenData> token)
        ZENTAK_THREAD_SAFETY(requires_capability(mutex_));
    static bool isVerified(const Device& device, const PinDigest& digest);

    [[nodiscard]] PinDigest digestOf(std::string_view pin) const;
    OpenedToken verifyPin(std::string_view serialNumber, std::string_view pin, const PinDigest& digest);

    Store store_;
    const SecretBytes digestKey_;
    zentak::Mutex mutex_;
    std::set<std::pair<std::string, PinDigest>> pinsInCheck_ ZENTAK_THREAD_SAFETY(guarded_by(mutex_));
    std::condition_variable_any pinChecked_;
    std::map<std::string, Device, std::less<>> devices_ ZENTAK_THREAD_SAFETY(guarded_by(mutex_));
    std::deque<std::shared_ptr<Snapshot>> retired_ ZENTAK_THREAD_SAFETY(guarded_by(mutex_));
};

}  // namespace softtoken

#endif
