/// The folder of tokens: which are there, plugged in or not, reading one, changing one so that a killed process leaves
/// the old or the new state, and the counting of PIN attempts.
///
/// `plugged/SERIAL` and `unplugged/SERIAL` are the tokens; `.zentak-scratch` holds what is being made or removed;
/// `lock` is locked for each change, that of PIN attempts included. A token's folder holds the files `token` and
/// `attempts`. docs/software-token.md describes them.

#ifndef ZENTAK_SOFTTOKEN_STORE_STORE_H
#define ZENTAK_SOFTTOKEN_STORE_STORE_H

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files.h"
#include "store/token_data.h"
#include "store/token_version.h"
#include "store/vault.h"

namespace softtoken {

/// What a right PIN opened: the token key, and the PIN sections that it was wrapped in then.
struct OpenedToken {
    SecretBytes key;
    PinSection user;
    std::optional<PinSection> officer;
};

/// Throws Error::storeFailed when the token has another key meanwhile, which takes a change of both PIN sections.
/// Called within a change that seals something under the key.
void requireKeyOf(const TokenData& token, const OpenedToken& opened);

/// The files in a token's folder.
inline constexpr const char* tokenFileName = "token";
inline constexpr const char* attemptsFileName = "attempts";

class Store {
public:
    explicit Store(std::filesystem::path root) : root_(std::move(root)) {}

    [[nodiscard]] const std::filesystem::path& root() const { return root_; }

    /// Serial numbers in ascending order. One listing of a folder, no file is opened. A store that isn't there holds
    /// nothing; throws Error::storeFailed for one that can't be read.
    [[nodiscard]] std::vector<std::string> plugged() const { return list("plugged"); }
    [[nodiscard]] std::vector<std::string> unplugged() const { return list("unplugged"); }

    /// The path of a plugged-in token's file, whether there is one or not. Throws Error::deviceNotPresent for a name
    /// that no token can have.
    [[nodiscard]] std::filesystem::path pluggedTokenFile(std::string_view serialNumber) const;
    [[nodiscard]] bool isPlugged(std::string_view serialNumber) const;

    /// The folder of a token, plugged in or not. Throws Error::deviceNotPresent, and Error::storeFailed or
    /// Error::tokenDamaged when that folder or one above it within the store isn't safe from others or is a link.
    [[nodiscard]] std::filesystem::path folderOf(std::string_view serialNumber) const;

    /// Plugged in or not. Throws Error::deviceNotPresent, Error::tokenDamaged, Error::unknownVersion.
    [[nodiscard]] TokenData load(std::string_view serialNumber) const;
    [[nodiscard]] Attempts loadAttempts(std::string_view serialNumber) const;

    /// Keeps others from changing anything. Asks for the token first, so that a question about an unknown one leaves no
    /// lock file behind.
    [[nodiscard]] FileLock lockFor(std::string_view serialNumber) const;

    /// Adds a token, plugged in.
    void add(const TokenData& token, const Attempts& attempts);

    /// Changes a token under the store's lock: `change` gets the present state, and what it leaves is written unless it
    /// throws. Answers what was left. What is `known` isn't read again when the file is still that version.
    StoredToken change(std::string_view serialNumber, const std::function<void(TokenData&)>& change,
                       const StoredToken* known = nullptr);

    void plug(std::string_view serialNumber) { move(serialNumber, "unplugged", "plugged"); }
    void unplug(std::string_view serialNumber) { move(serialNumber, "plugged", "unplugged"); }
    void remove(std::string_view serialNumber);

    /// The token key, when the PIN is right. An attempt is taken off, on disk, before the PIN is looked at, and all are
    /// given back when it is right. Throws PinFailure otherwise. The key derivation, which takes long, keeps nobody
    /// else waiting.
    OpenedToken open(std::string_view serialNumber, Role role, std::string_view pin,
                     const StoredToken* known = nullptr);
    /// The same, for whoever wants only the key.
    SecretBytes checkPin(std::string_view serialNumber, Role role, std::string_view pin) {
        return open(serialNumber, role, pin).key;
    }

    /// Gives the role a new PIN and all its attempts. Throws Error::storeFailed when its PIN isn't the one any more
    /// that the token was opened with.
    void setPin(std::string_view serialNumber, Role role, std::string_view newPin, const OpenedToken& opened,
                bool userPinChanged, const KeyDerivation& derivation = {});

    /// Gives the role a new PIN, and the token a new key under which every private key is sealed anew. For that the
    /// other role's PIN is needed, which stays the same; it is ignored where the token has one PIN only. Throws
    /// PinFailure when it is wrong.
    void renewTokenKey(std::string_view serialNumber, Role role, std::string_view newPin, const OpenedToken& opened,
                       std::string_view otherPin, const KeyDerivation& derivation = {});

    void resetAttempts(std::string_view serialNumber, Role role, int maximum) const;

private:
    [[nodiscard]] std::vector<std::string> list(const char* folder) const;
    template <typename Read>
    auto readInFolderOf(std::string_view serialNumber, Read&& read) const -> decltype(read(std::filesystem::path()));
    /// The token as its file has it now. Throws as load() does.
    [[nodiscard]] StoredToken present(std::string_view serialNumber, const StoredToken* known = nullptr) const;
    void move(std::string_view serialNumber, const char* from, const char* to);
    void refuseLockedPin(std::string_view serialNumber, Role role) const;
    std::optional<OpenedToken> openWith(std::string_view serialNumber, Role role, ByteView pinKey,
                                        const StoredToken& read) const;

    std::filesystem::path root_;
};

}  // namespace softtoken

#endif
