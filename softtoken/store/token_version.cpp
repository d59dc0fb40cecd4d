#include "store/token_version.h"

#include <algorithm>
#include <cstdlib>

#include "platform/errors.h"
#include "store/document.h"

namespace softtoken {

namespace fs = std::filesystem;

namespace {

/// More than a full token takes.
constexpr std::uint64_t largestTokenFile = 64 << 20;

/// How long after a change another one may still get the same time, in nanoseconds. Some file systems keep whole
/// seconds, or even ones only.
constexpr std::int64_t settlingTime(std::int64_t modified) {
    constexpr std::int64_t second = 1'000'000'000;
    return modified % second == 0 ? 2 * second + second / 10 : second / 10;
}

std::string_view checksumOf(std::string_view document) {
    return document.substr(document.size() - std::min(document.size(), checksumLength));
}

}  // namespace

TokenVersion::TokenVersion(const FileStamp& stamp, std::int64_t lookedAt, std::string_view document)
    : stamp_(stamp), lookedAt_(lookedAt), checksum_(checksumOf(document)) {}

TokenVersion TokenVersion::ofWritten(const fs::path& file, std::string_view document) {
    const FileStamp stamp = fileStamp(file).value_or(FileStamp());
    // Not settled: others may write after this within the same instant.
    return {stamp, stamp.modified, document};
}

TokenVersion::Difference TokenVersion::differenceTo(const fs::path& file) {
    const auto stamp = fileStamp(file);
    if (!stamp) {
        return Difference::missing;
    }
    if (checksum_.empty() || *stamp != stamp_) {
        return Difference::changed;
    }
    if (std::abs(lookedAt_ - stamp_.modified) <= settlingTime(stamp_.modified)) {
        const std::int64_t now = fileClockNow();
        if (readTokenChecksum(file) != checksum_) {
            return Difference::changed;
        }
        lookedAt_ = now;
    }
    return Difference::none;
}

bool TokenVersion::isExactly(const fs::path& file) const {
    return fileStamp(file) == stamp_ && readTokenChecksum(file) == checksum_;
}

bool TokenVersion::hasContent(std::string_view document) const {
    return checksum_ == checksumOf(document);
}

std::optional<StoredToken> readStoredToken(const fs::path& file, std::string_view serialNumber) {
    const std::int64_t now = fileClockNow();
    const auto stamp = fileStamp(file);
    const auto document = stamp ? readTokenFile(file) : std::nullopt;
    if (!document) {
        return std::nullopt;
    }
    return StoredToken{std::make_shared<const TokenData>(readTokenDataOf(serialNumber, *document)),
                       TokenVersion(*stamp, now, *document)};
}

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

TokenData readTokenDataOf(std::string_view serialNumber, std::string_view document) {
    TokenData token = readTokenData(document);
    if (token.serialNumber != serialNumber) {
        throw Failure(Error::tokenDamaged, "the token's file is that of another token");
    }
    return token;
}

}  // namespace softtoken
