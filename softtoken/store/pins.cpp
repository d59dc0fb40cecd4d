// The PINs of the store's tokens: checked, counted and changed.

#include <utility>

#include "platform/errors.h"
#include "store/store.h"

namespace softtoken {

namespace fs = std::filesystem;

namespace {

/// Another process would have to change the PIN during each derivation.
constexpr int mostDerivations = 5;

int& attemptsOf(Attempts& attempts, Role role) {
    return role == Role::user ? attempts.user : attempts.officer;
}

[[noreturn]] void changedMeanwhile() {
    throw Failure(Error::storeFailed, "another process changed the PIN");
}

/// Writes the counters in place. Where that fails, a part may be written, or all without being flushed: those from
/// before are put back as well as it goes, so that a failing disk doesn't use up attempts.
void changeAttempts(const fs::path& folder, const Attempts& before, const Attempts& after, Lasting lasting) {
    try {
        overwriteFile(folder / attemptsFileName, writeAttempts(after), lasting);
    } catch (const Failure&) {
        try {
            overwriteFile(folder / attemptsFileName, writeAttempts(before), Lasting::soon);
        } catch (const Failure&) {
            // What is told is the first failure.
        }
        throw;
    }
}

}  // namespace

void requireKeyOf(const TokenData& token, const OpenedToken& opened) {
    if (token.user != opened.user && (!token.officer || token.officer != opened.officer)) {
        changedMeanwhile();
    }
}

void Store::refuseLockedPin(std::string_view serialNumber, Role role) const {
    Attempts attempts = loadAttempts(serialNumber);
    if (attemptsOf(attempts, role) > 0) {
        return;
    }
    // Without the lock it may be somebody's last attempt, about to be given back.
    const FileLock lock = lockFor(serialNumber);
    attempts = loadAttempts(serialNumber);
    if (attemptsOf(attempts, role) <= 0) {
        throw PinFailure(Error::pinLocked, 0, "the PIN is locked");
    }
}

OpenedToken Store::open(std::string_view serialNumber, Role role, std::string_view pin, const StoredToken* known) {
    requirePinLength(pin);
    for (int left = mostDerivations; left > 0; --left) {
        const StoredToken read = present(serialNumber, known);
        const PinSection& section = pinSectionOf(*read.data, role);
        refuseLockedPin(serialNumber, role);
        const SecretBytes pinKey = derivePinKey(section, pin);
        if (auto opened = openWith(serialNumber, role, pinKey, read)) {
            return *std::move(opened);
        }
    }
    changedMeanwhile();
}

/// Counts and looks. Nothing when the PIN section isn't the one any more that the key was derived for.
std::optional<OpenedToken> Store::openWith(std::string_view serialNumber, Role role, ByteView pinKey,
                                           const StoredToken& read) const {
    const FileLock lock = lockFor(serialNumber);
    const fs::path folder = folderOf(serialNumber);
    const StoredToken now = present(serialNumber, &read);
    const TokenData& token = *now.data;
    const PinSection& section = pinSectionOf(token, role);
    if (section != pinSectionOf(*read.data, role) || token.model != read.data->model) {
        return std::nullopt;
    }
    const Attempts before = loadAttempts(serialNumber);
    Attempts attempts = before;
    if (attemptsOf(attempts, role) <= 0) {
        throw PinFailure(Error::pinLocked, 0, "the PIN is locked");
    }
    const int left = --attemptsOf(attempts, role);
    changeAttempts(folder, before, attempts, Lasting::atOnce);
    auto key = openPinSection(token, role, pinKey);
    if (!key) {
        throw PinFailure(left == 0 ? Error::pinLocked : Error::pinIncorrect, left,
                         "the PIN is wrong, attempts left: " + std::to_string(left));
    }
    // Before anybody else counts, so that those who bring the right PIN at once don't use up each other's attempts.
    // After a crash of the machine there may be fewer, and the next right PIN gives them back. From none nothing would.
    const Attempts taken = attempts;
    attemptsOf(attempts, role) = section.maximumAttempts;
    changeAttempts(folder, taken, attempts, left == 0 ? Lasting::atOnce : Lasting::soon);
    return OpenedToken{*std::move(key), token.user, token.officer};
}

void Store::setPin(std::string_view serialNumber, Role role, std::string_view newPin, const OpenedToken& opened,
                   bool userPinChanged, const KeyDerivation& derivation) {
    requirePinLength(newPin);
    const TokenData before = load(serialNumber);
    const int maximum = pinSectionOf(before, role).maximumAttempts;
    const PinSection section = makePinSection(before, role, newPin, opened.key, derivation, maximum);
    change(serialNumber, [&](TokenData& token) {
        requireKeyOf(token, opened);
        const bool same = role == Role::user ? token.user == opened.user : token.officer == opened.officer;
        if (!same || token.model != before.model) {
            changedMeanwhile();
        }
        if (role == Role::user) {
            token.user = section;
            token.userPinChanged = userPinChanged;
        } else {
            token.officer = section;
        }
    });
    resetAttempts(serialNumber, role, maximum);
}

void Store::renewTokenKey(std::string_view serialNumber, Role role, std::string_view newPin, const OpenedToken& opened,
                          std::string_view otherPin, const KeyDerivation& derivation) {
    requirePinLength(newPin);
    const bool bothPins = opened.officer.has_value();
    if (bothPins) {
        const Role other = role == Role::user ? Role::officer : Role::user;
        if (open(serialNumber, other, otherPin).key != opened.key) {
            throw Failure(Error::tokenDamaged, "the token's two PINs open different keys");
        }
    }
    const TokenData before = load(serialNumber);
    const SecretBytes key = newTokenKey();
    const PinSection user = makePinSection(before, Role::user, role == Role::user ? newPin : otherPin, key, derivation,
                                           opened.user.maximumAttempts);
    std::optional<PinSection> officer;
    if (bothPins) {
        officer = makePinSection(before, Role::officer, role == Role::officer ? newPin : otherPin, key, derivation,
                                 opened.officer->maximumAttempts);
    }
    change(serialNumber, [&](TokenData& token) {
        if (token.user != opened.user || token.officer != opened.officer || token.model != before.model) {
            changedMeanwhile();
        }
        for (KeyPairEntry& entry : token.keyPairs) {
            const Bytes binding = keyPairBinding(serialNumber, entry);
            const auto privateKey = unseal(opened.key, binding, entry.sealedPrivateKey);
            if (!privateKey) {
                throw Failure(Error::tokenDamaged, "a private key of the token was tampered with");
            }
            entry.sealedPrivateKey = seal(key, binding, *privateKey);
        }
        token.user = user;
        token.officer = officer;
        if (role == Role::user) {
            token.userPinChanged = true;
        }
    });
    resetAttempts(serialNumber, role, pinSectionOf(before, role).maximumAttempts);
}

void Store::resetAttempts(std::string_view serialNumber, Role role, int maximum) const {
    const FileLock lock = lockFor(serialNumber);
    const fs::path folder = folderOf(serialNumber);
    const Attempts before = loadAttempts(serialNumber);
    Attempts attempts = before;
    const int left = std::exchange(attemptsOf(attempts, role), maximum);
    if (left == maximum) {
        return;
    }
    // After a crash of the machine there may be fewer, and the next right PIN gives them back. From none nothing would.
    changeAttempts(folder, before, attempts, left == 0 ? Lasting::atOnce : Lasting::soon);
}

}  // namespace softtoken
