/// The software token's files: a lock between processes, files that are replaced whole, moving folders.

#ifndef ZENTAK_SOFTTOKEN_PLATFORM_FILES_H
#define ZENTAK_SOFTTOKEN_PLATFORM_FILES_H

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace softtoken {

/// Whether there is such a folder. Takes a path's text: to make a path of it takes longer than the look.
bool isFolder(const std::filesystem::path::string_type& path);

/// Whether the name is that of a link (on Windows also of a junction), wherever it leads.
bool isLink(const std::filesystem::path& path);

/// Whether a symbolic link in a file's place leads to another file, or is an error.
enum class Links { follow, refuse };

/// Makes the folder and those above it, readable only for the user. On Linux what root makes here and in the routines
/// below belongs to the owner of what it takes the place of, or else of the folder that it is in.
void createPrivateFolders(const std::filesystem::path& folder);

/// Throws Error::storeFailed for a folder in which others may replace files, which Windows isn't asked about, and
/// Error::tokenDamaged for a link where links are refused. A folder that isn't there is fine.
void requirePrivateFolder(const std::filesystem::path& folder, Links links);

/// Holds an exclusive lock on a file, made when missing, against other processes and other threads. Waits for it.
/// Throws Error::tokenDamaged for a link.
class FileLock {
public:
    explicit FileLock(const std::filesystem::path& file);
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    ~FileLock();

private:
    std::intptr_t handle_;
};

/// Tells two versions of a file apart without reading them. Times are in nanoseconds.
struct FileStamp {
    std::int64_t modified = 0;
    std::uint64_t size = 0;
    std::uint64_t identity = 0;

    bool operator==(const FileStamp&) const = default;
};

/// Nothing when there is no such file, or something else under its name. Throws Error::tokenDamaged for a link, and
/// Error::storeFailed when it can't be found out.
std::optional<FileStamp> fileStamp(const std::filesystem::path& file);

/// The present time on the clock of FileStamp::modified.
std::int64_t fileClockNow();

/// The whole file; nothing when it isn't there. Throws Error::storeFailed when it can't be read or goes on beyond
/// `largest` bytes, and Error::tokenDamaged for a link where links are refused.
std::optional<std::string> readFile(const std::filesystem::path& file, std::size_t largest, Links links);

/// The last bytes of a file, as many as asked for; nothing when it isn't there or shorter. Throws Error::storeFailed
/// when it can't be read, and Error::tokenDamaged for a link.
std::optional<std::string> readFileEnd(const std::filesystem::path& file, std::size_t length);

/// Replaces the file by one with this content, or makes it. Whenever the process or the machine stops, the old or the
/// new content is there. Throws Error::storeFailed; where only the last flush failed, the text says that the new
/// content is in force. Two callers at the same file exclude each other by a FileLock.
void replaceFile(const std::filesystem::path& file, std::string_view content);

/// Writes over the beginning of a file that is there. Much cheaper than to replace it, and the same holds for what fits
/// into a sector of a disk, 512 bytes; but somebody who reads meanwhile may get some of both, and after a failure
/// either may be there. A file with several names (links) is replaced all the same, and on Linux one that can't be
/// opened for writing. With `Lasting::soon` a crash of the machine may bring the old content back for a while. Throws
/// Error::storeFailed, and Error::tokenDamaged for a link.
enum class Lasting { atOnce, soon };
void overwriteFile(const std::filesystem::path& file, std::string_view content, Lasting lasting);

/// Renames a folder or a file and makes that last. Throws Error::storeFailed, as replaceFile does.
void moveFolder(const std::filesystem::path& from, const std::filesystem::path& to);

}  // namespace softtoken

#endif
