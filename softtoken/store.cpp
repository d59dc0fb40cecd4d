#include "store.h"

#include <algorithm>
#include <utility>

#include "errors.h"

namespace softtoken {

namespace fs = std::filesystem;

namespace {

constexpr const char* scratchFolderName = ".zentak-scratch";
/// More than a full token takes.
constexpr std::uint64_t largestTokenFile = 64 << 20;

[[noreturn]] void notPresent(std::string_view serialNumber) {
    throw Failure(Error::deviceNotPresent, "there is no token " + std::string(serialNumber));
}

int& attemptsOf(Attempts& attempts, Role role) {
    return role == Role::user ? attempts.user : attempts.officer;
}

const PinSection& sectionOf(const TokenData& token, Role role) {
    if (role == Role::user) return token.user;
    if (!token.officer) throw PinFailure(Error::pinLocked, 0, "the token has no security officer's PIN");
    return *token.officer;
}

/// Removes what lies under the name. Of a link the link alone: what it leads to isn't ours.
void removeWhole(const fs::path& path) {
    std::error_code ignored;
    if (!isLink(path) && fs::is_directory(path, ignored)) {
        for (fs::directory_iterator entry(path, ignored), end; !ignored && entry != end; entry.increment(ignored)) {
            removeWhole(entry->path());
        }
    }
    std::error_code staying;
    fs::remove(path, staying);
}

/// The folder for what is being made or removed, rid of what killed processes left there: the folders of tokens, and
/// nothing else. The caller holds the lock. Throws Error::storeFailed for a link, which leads to somebody else's.
fs::path clearedScratch(const fs::path& root) {
    fs::path scratch = root / scratchFolderName;
    if (isLink(scratch)) {
        throw Failure(Error::storeFailed, utf8FromPath(scratch) + " is a link, and not used: remove it");
    }
    createPrivateFolders(scratch);
    std::error_code ignored;
    for (fs::directory_iterator entry(scratch, ignored), end; !ignored && entry != end; entry.increment(ignored)) {
        std::error_code unknown;
        const bool folder = isLink(entry->path()) || fs::is_directory(entry->path(), unknown);
        if (folder && isSerialNumber(utf8FromPath(entry->path().filename()))) removeWhole(entry->path());
    }
    return scratch;
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

std::optional<std::string> readTokenFile(const fs::path& file) {
    // A pipe in the file's place would keep the reader waiting, and a huge file would take the memory.
    const auto stamp = fileStamp(file);
    if (!stamp) return std::nullopt;
    if (stamp->size > largestTokenFile) throw Failure(Error::tokenDamaged, "the token's file is damaged: its size");
    return readFile(file, largestTokenFile, Links::refuse);
}

std::optional<std::string> readTokenChecksum(const fs::path& file) {
    return readFileEnd(file, checksumLength);
}

std::string checksumOf(std::string_view document) {
    return std::string(document.substr(document.size() - std::min(document.size(), checksumLength)));
}

std::vector<std::string> Store::list(const char* folder) const {
    std::vector<std::string> serialNumbers;
    std::error_code error;
    requirePrivateFolder(root_, Links::follow);
    requirePrivateFolder(root_ / folder, Links::refuse);
    if (fs::status(root_ / folder, error).type() == fs::file_type::not_found) return {};
    for (fs::directory_iterator entry(root_ / folder, error), end; !error && entry != end; entry.increment(error)) {
        std::string name = utf8FromPath(entry->path().filename());
        std::error_code ignored;
        if (isSerialNumber(name) && entry->is_directory(ignored)) serialNumbers.push_back(std::move(name));
    }
    if (error) {
        throw Failure(Error::storeFailed, "cannot list " + utf8FromPath(root_ / folder) + ": " + error.message());
    }
    std::sort(serialNumbers.begin(), serialNumbers.end());
    return serialNumbers;
}

fs::path Store::pluggedTokenFile(std::string_view serialNumber) const {
    if (!isSerialNumber(serialNumber)) notPresent(serialNumber);
    return root_ / "plugged" / serialNumber / tokenFileName;
}

bool Store::isPlugged(std::string_view serialNumber) const {
    if (!isSerialNumber(serialNumber)) return false;
    fs::path::string_type folder = root_.native();
    for (const std::string_view part : {std::string_view("/plugged/"), serialNumber}) {
        folder.append(part.begin(), part.end());
    }
    return isFolder(folder);
}

fs::path Store::folderOf(std::string_view serialNumber) const {
    if (isSerialNumber(serialNumber)) {
        // The third look is for a token that went back while the second folder was looked into.
        for (const char* folder : {"plugged", "unplugged", "plugged"}) {
            std::error_code ignored;
            fs::path path = root_ / folder / serialNumber;
            if (!fs::is_directory(path, ignored)) continue;
            requirePrivateFolder(root_, Links::follow);
            requirePrivateFolder(root_ / folder, Links::refuse);
            requirePrivateFolder(path, Links::refuse);
            return path;
        }
    }
    notPresent(serialNumber);
}

std::optional<std::string> Store::readFileOf(std::string_view serialNumber, const char* name) const {
    // A token that is being plugged in or out may leave the folder between the two steps.
    for (int round = 0; round < 3; ++round) {
        if (auto document = readTokenFile(folderOf(serialNumber) / name)) return document;
    }
    return std::nullopt;
}

TokenData readTokenDataOf(std::string_view serialNumber, std::string_view document) {
    TokenData token = readTokenData(document);
    if (token.serialNumber != serialNumber) {
        throw Failure(Error::tokenDamaged, "the token's file is that of another token");
    }
    return token;
}

std::string Store::readDocument(std::string_view serialNumber) const {
    auto document = readFileOf(serialNumber, tokenFileName);
    if (!document) throw Failure(Error::tokenDamaged, "the token's file is missing");
    return *std::move(document);
}

TokenData Store::load(std::string_view serialNumber) const {
    return readTokenDataOf(serialNumber, readDocument(serialNumber));
}

Attempts Store::loadAttempts(std::string_view serialNumber) const {
    for (int left = 3;; --left) {
        const auto document = readFileOf(serialNumber, attemptsFileName);
        // Without the file nobody knows how often a PIN was guessed already.
        if (!document) throw Failure(Error::tokenDamaged, "the token's PIN counters are missing");
        try {
            return readAttempts(*document);
        } catch (const Failure&) {
            // Whoever reads without the lock may have met the file while it was being written.
            if (left == 0) throw;
        }
    }
}

FileLock Store::lockFor(std::string_view serialNumber) const {
    static_cast<void>(folderOf(serialNumber));
    return FileLock(root_ / "lock");
}

void Store::add(const TokenData& token, const Attempts& attempts) {
    for (const char* folder : {"plugged", "unplugged"}) {
        createPrivateFolders(root_ / folder);
        requirePrivateFolder(root_, Links::follow);
        requirePrivateFolder(root_ / folder, Links::refuse);
    }
    // A first login works on a full disk too.
    static_cast<void>(FileLock(root_ / "pin-lock"));
    const FileLock lock(root_ / "lock");
    const fs::path scratch = clearedScratch(root_);
    for (const char* folder : {"plugged", "unplugged"}) {
        if (fs::exists(root_ / folder / token.serialNumber)) {
            throw Failure(Error::storeFailed, "there is a token " + token.serialNumber + " already");
        }
    }
    const fs::path made = scratch / token.serialNumber;
    createPrivateFolders(made);
    replaceFile(made / attemptsFileName, writeAttempts(attempts));
    replaceFile(made / tokenFileName, writeTokenData(token));
    moveFolder(made, root_ / "plugged" / token.serialNumber);
}

bool Store::isPresent(const KnownToken* known, std::string_view serialNumber) const {
    if (known == nullptr) return false;
    const fs::path file = folderOf(serialNumber) / tokenFileName;
    return fileStamp(file) == known->version.stamp && readTokenChecksum(file) == known->version.checksum;
}

ChangedToken Store::change(std::string_view serialNumber, const std::function<void(TokenData&)>& change,
                           const KnownToken* known) {
    const FileLock lock = lockFor(serialNumber);
    ChangedToken changed;
    if (isPresent(known, serialNumber)) {
        changed = {known->token, known->version};
    } else {
        const std::string before = readDocument(serialNumber);
        changed.token = readTokenDataOf(serialNumber, before);
        changed.version.checksum = checksumOf(before);
    }
    change(changed.token);
    const std::string after = writeTokenData(changed.token);
    const fs::path file = folderOf(serialNumber) / tokenFileName;
    if (checksumOf(after) != changed.version.checksum) replaceFile(file, after);
    changed.version = {fileStamp(file).value_or(FileStamp()), checksumOf(after)};
    return changed;
}

void Store::remove(std::string_view serialNumber) {
    const FileLock lock = lockFor(serialNumber);
    const fs::path removed = clearedScratch(root_) / serialNumber;
    moveFolder(folderOf(serialNumber), removed);
    removeWhole(removed);
    std::error_code unknown;
    if (isLink(removed) || fs::exists(removed, unknown)) {
        throw Failure(Error::storeFailed, "the token is removed, but some of it is left in " + utf8FromPath(removed));
    }
}

void Store::move(std::string_view serialNumber, const char* from, const char* to) {
    const FileLock lock = lockFor(serialNumber);
    createPrivateFolders(root_ / to);
    const fs::path target = root_ / to / serialNumber;
    if (folderOf(serialNumber) == target) return;
    moveFolder(root_ / from / serialNumber, target);
}

SecretBytes Store::checkPin(std::string_view serialNumber, Role role, std::string_view pin, const KnownToken* known) {
    requirePinLength(pin);
    static_cast<void>(folderOf(serialNumber));
    // One at a time: several processes that log in at once with the right PIN would use up each other's attempts.
    const FileLock turn(root_ / "pin-lock");
    PinSection section;
    int left = 0;
    {
        const FileLock lock = lockFor(serialNumber);
        if (isPresent(known, serialNumber)) {
            section = sectionOf(known->token, role);
        } else {
            const TokenData token = load(serialNumber);
            section = sectionOf(token, role);
        }
        const fs::path folder = folderOf(serialNumber);
        const Attempts before = loadAttempts(serialNumber);
        Attempts attempts = before;
        left = attemptsOf(attempts, role);
        if (left <= 0) throw PinFailure(Error::pinLocked, 0, "the PIN is locked");
        left = --attemptsOf(attempts, role);
        changeAttempts(folder, before, attempts, Lasting::atOnce);
    }
    // The slow part doesn't keep others from changing tokens.
    auto tokenKey = openPinSection(section, serialNumber, role, pin);
    if (!tokenKey) {
        throw PinFailure(left == 0 ? Error::pinLocked : Error::pinIncorrect, left,
                         "the PIN is wrong, attempts left: " + std::to_string(left));
    }
    resetAttempts(serialNumber, role, section.maximumAttempts);
    return *std::move(tokenKey);
}

void Store::setPin(std::string_view serialNumber, Role role, std::string_view newPin, ByteView tokenKey,
                   bool userPinChanged) {
    requirePinLength(newPin);
    const TokenData before = load(serialNumber);
    const PinSection& old = sectionOf(before, role);
    const PinSection section =
        makePinSection(serialNumber, role, newPin, tokenKey, old.iterations, old.maximumAttempts);
    change(serialNumber, [&](TokenData& token) {
        if (sectionOf(token, role) != old) throw Failure(Error::storeFailed, "another process changed the PIN");
        if (role == Role::user) {
            token.user = section;
            token.userPinChanged = userPinChanged;
        } else {
            token.officer = section;
        }
    });
    resetAttempts(serialNumber, role, section.maximumAttempts);
}

void Store::resetAttempts(std::string_view serialNumber, Role role, int maximum) {
    const FileLock lock = lockFor(serialNumber);
    const fs::path folder = folderOf(serialNumber);
    const Attempts before = loadAttempts(serialNumber);
    Attempts attempts = before;
    const int left = std::exchange(attemptsOf(attempts, role), maximum);
    if (left == maximum) return;
    // After a crash of the machine there may be fewer, and the next right PIN gives them back. From none nothing would.
    changeAttempts(folder, before, attempts, left == 0 ? Lasting::atOnce : Lasting::soon);
}

}  // namespace softtoken
