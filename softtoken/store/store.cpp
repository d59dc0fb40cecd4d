#include "store/store.h"

#include <algorithm>

#include "platform/environment.h"
#include "platform/errors.h"

namespace softtoken {

namespace fs = std::filesystem;

namespace {

constexpr const char* scratchFolderName = ".zentak-scratch";
[[noreturn]] void notPresent(std::string_view serialNumber) {
    throw Failure(Error::deviceNotPresent, "there is no token " + std::string(serialNumber));
}

/// Removes what has the name. Of a link only the link: what it leads to isn't ours.
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

/// What `read` finds in the token's folder. Nothing when it finds nothing.
template <typename Read>
auto Store::readInFolderOf(std::string_view serialNumber, Read&& read) const -> decltype(read(fs::path())) {
    // A token that is being plugged in or out may leave the folder between the two steps.
    for (int round = 0; round < 3; ++round) {
        if (auto found = read(folderOf(serialNumber))) {
            return found;
        }
    }
    return std::nullopt;
}

StoredToken Store::present(std::string_view serialNumber, const StoredToken* known) const {
    auto token = readInFolderOf(serialNumber, [&](const fs::path& folder) -> std::optional<StoredToken> {
        const fs::path file = folder / tokenFileName;
        if (known != nullptr && known->version.isExactly(file)) {
            return *known;
        }
        return readStoredToken(file, serialNumber);
    });
    if (!token) {
        throw Failure(Error::tokenDamaged, "the token's file is missing");
    }
    return *std::move(token);
}

TokenData Store::load(std::string_view serialNumber) const {
    return *present(serialNumber).data;
}

Attempts Store::loadAttempts(std::string_view serialNumber) const {
    for (int left = 3;; --left) {
        const auto document = readInFolderOf(
            serialNumber, [](const fs::path& folder) { return readTokenFile(folder / attemptsFileName); });
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

StoredToken Store::change(std::string_view serialNumber, const std::function<void(TokenData&)>& change,
                          const StoredToken* known) {
    const FileLock lock = lockFor(serialNumber);
    const StoredToken before = present(serialNumber, known);
    TokenData token = *before.data;
    change(token);
    const std::string document = writeTokenData(token);
    const fs::path file = folderOf(serialNumber) / tokenFileName;
    if (!before.version.hasContent(document)) {
        replaceFile(file, document);
    }
    return {std::make_shared<const TokenData>(std::move(token)), TokenVersion::ofWritten(file, document)};
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
