#include "store/store.h"

#include <algorithm>

#include "platform/errors.h"

namespace softtoken {

namespace fs = std::filesystem;

namespace {

constexpr const char* scratchFolderName = ".zentak-scratch";
/// More than a full token takes.
constexpr std::uint64_t largestTokenFile = 64 << 20;

[[noreturn]] void notPresent(std::string_view serialNumber) {
    throw Failure(Error::deviceNotPresent, "there is no token " + std::string(serialNumber));
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
        if (folder && isSerialNumber(utf8FromPath(entry->path().filename()))) {
            removeWhole(entry->path());
        }
    }
    return scratch;
}

}  // namespace

std::optional<std::string> readTokenFile(const fs::path& file) {
    // A pipe in the file's place would keep the reader waiting, and a huge file would take the memory.
    const auto stamp = fileStamp(file);
    if (!stamp) {
        return std::nullopt;
    }
    if (stamp->size > largestTokenFile) {
        throw Failure(Error::tokenDamaged, "the token's file is damaged: its size");
    }
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
    if (fs::status(root_ / folder, error).type() == fs::file_type::not_found) {
        return {};
    }
    for (fs::directory_iterator entry(root_ / folder, error), end; !error && entry != end; entry.increment(error)) {
        std::string name = utf8FromPath(entry->path().filename());
        std::error_code ignored;
        if (isSerialNumber(name) && entry->is_directory(ignored)) {
            serialNumbers.push_back(std::move(name));
        }
    }
    if (error) {
        throw Failure(Error::storeFailed, "cannot list " + utf8FromPath(root_ / folder) + ": " + error.message());
    }
    std::sort(serialNumbers.begin(), serialNumbers.end());
    return serialNumbers;
}

fs::path Store::pluggedTokenFile(std::string_view serialNumber) const {
    if (!isSerialNumber(serialNumber)) {
        notPresent(serialNumber);
    }
    return root_ / "plugged" / serialNumber / tokenFileName;
}

bool Store::isPlugged(std::string_view serialNumber) const {
    if (!isSerialNumber(serialNumber)) {
        return false;
    }
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
            if (!fs::is_directory(path, ignored)) {
                continue;
            }
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
        if (auto document = readTokenFile(folderOf(serialNumber) / name)) {
            return document;
        }
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
    if (!document) {
        throw Failure(Error::tokenDamaged, "the token's file is missing");
    }
    return *std::move(document);
}

TokenData Store::load(std::string_view serialNumber) const {
    return readTokenDataOf(serialNumber, readDocument(serialNumber));
}

Attempts Store::loadAttempts(std::string_view serialNumber) const {
    for (int left = 3;; --left) {
        const auto document = readFileOf(serialNumber, attemptsFileName);
        // Without the file nobody knows how often a PIN was guessed already.
        if (!document) {
            throw Failure(Error::tokenDamaged, "the token's PIN counters are missing");
        }
        try {
            return readAttempts(*document);
        } catch (const Failure&) {
            // Whoever reads without the lock may have met the file while it was being written.
            if (left == 0) {
                throw;
            }
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
    if (known == nullptr) {
        return false;
    }
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
    if (checksumOf(after) != changed.version.checksum) {
        replaceFile(file, after);
    }
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
    if (folderOf(serialNumber) == target) {
        return;
    }
    moveFolder(root_ / from / serialNumber, target);
}

}  // namespace softtoken
