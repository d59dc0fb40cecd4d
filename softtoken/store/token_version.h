/// Has a token's file changed? The one place that knows how to tell: everybody else keeps the version that he has read
/// or written, and asks it.

#ifndef ZENTAK_SOFTTOKEN_STORE_TOKEN_VERSION_H
#define ZENTAK_SOFTTOKEN_STORE_TOKEN_VERSION_H

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/files.h"
#include "store/token_data.h"

namespace softtoken {

/// One version of a token's file. Versions differ in the file's stamp (time, size, number), which costs one look at the
/// folder. The stamp may deceive, because two changes within the clock's resolution leave the same time; the checksum
/// at the file's end doesn't, but costs opening the file.
class TokenVersion {
public:
    /// Of no file: every file is another version.
    TokenVersion() = default;
    /// Of a file with this content. `stamp` was taken before the content was read, and `lookedAt` before the stamp, on
    /// the clock of the stamp's time.
    TokenVersion(const FileStamp& stamp, std::int64_t lookedAt, std::string_view document);
    /// Of a file into which this content was just written.
    static TokenVersion ofWritten(const std::filesystem::path& file, std::string_view document);

    enum class Difference { none, changed, missing };

    /// For every operation on a token. Trusts the stamp once so much time has passed between the file's change and the
    /// last look that another change must have given it another time; until then it compares the checksum, too. Throws
    /// what reading the file throws.
    Difference differenceTo(const std::filesystem::path& file);

    /// For what is about to be overwritten: always compares stamp and checksum.
    [[nodiscard]] bool isExactly(const std::filesystem::path& file) const;

    [[nodiscard]] bool hasContent(std::string_view document) const;
    [[nodiscard]] bool hasContentOf(const TokenVersion& other) const { return checksum_ == other.checksum_; }

private:
    FileStamp stamp_;
    std::int64_t lookedAt_ = 0;
    std::string checksum_;  ///< empty for no file
};

/// A token as its file had it, and which version of the file that was. Cheap to copy.
struct StoredToken {
    std::shared_ptr<const TokenData> data;
    TokenVersion version;
};

/// Nothing when there is no such file. Throws as readTokenFile and readTokenDataOf do.
std::optional<StoredToken> readStoredToken(const std::filesystem::path& file, std::string_view serialNumber);

/// The content of a token's file. Nothing when it isn't there or no regular file. Throws Error::tokenDamaged when it is
/// too large to be a token's or a link, and Error::storeFailed when it can't be read.
std::optional<std::string> readTokenFile(const std::filesystem::path& file);

/// The checksum at the end of a token's file; nothing when the file isn't there. Throws Error::storeFailed, and
/// Error::tokenDamaged for a link.
std::optional<std::string> readTokenChecksum(const std::filesystem::path& file);

/// A token from its file's content. Throws Error::tokenDamaged, also when it is another token's, and
/// Error::unknownVersion.
TokenData readTokenDataOf(std::string_view serialNumber, std::string_view document);

}  // namespace softtoken

#endif
