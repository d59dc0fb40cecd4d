/// What several files here need of POSIX.

#ifndef ZENTAK_SOFTTOKEN_PLATFORM_POSIX_SUPPORT_H
#define ZENTAK_SOFTTOKEN_PLATFORM_POSIX_SUPPORT_H

#include <filesystem>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace softtoken {

/// Throws Error::storeFailed with the text of errno.
[[noreturn]] void failStore(const char* what, const std::filesystem::path& path);
/// Throws Error::tokenDamaged.
[[noreturn]] void refuseLink(const std::filesystem::path& path);

/// Closes its file; -1 is none.
class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (number_ >= 0) {
            close(number_);
        }
    }
    [[nodiscard]] int get() const { return number_; }
    int release() { return std::exchange(number_, -1); }
    /// Closing may report a write that failed late.
    bool closeNow() { return close(release()) == 0; }

private:
    int number_;
};

/// Opens as open() does, again after an interruption.
int openRetrying(const std::filesystem::path& path, int flags, mode_t mode = 0);

std::filesystem::path folderAbove(const std::filesystem::path& path);

/// What root makes in somebody's store belongs to that user: to the owner of the file that it takes the place of, or
/// else of the folder that it is in. `made` is open and new.
void giveToOwner(const Descriptor& made, const std::filesystem::path& model);

/// Makes the names in a folder last.
void syncFolder(const std::filesystem::path& folder);
/// The same as the last step of a change, when it can't be taken back any more.
void syncAfterRename(const std::filesystem::path& folder);

}  // namespace softtoken

#endif
