#include "platform/posix_support.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "platform/errors.h"

namespace softtoken {

namespace fs = std::filesystem;

[[noreturn]] void failStore(const char* what, const fs::path& path) {
    const int number = errno;
    throw Failure(Error::storeFailed,
                  std::string("cannot ") + what + " " + path.string() + ": " + std::strerror(number));
}

[[noreturn]] void refuseLink(const fs::path& path) {
    throw Failure(Error::tokenDamaged, path.string() + " is a link, which isn't followed");
}

int openRetrying(const fs::path& path, int flags, mode_t mode) {
    int number = -1;
    do {
        number = open(path.c_str(), flags | O_CLOEXEC, mode);
    } while (number < 0 && errno == EINTR);
    return number;
}

fs::path folderAbove(const fs::path& path) {
    return path.has_parent_path() ? path.parent_path() : fs::path(".");
}

void giveToOwner(const Descriptor& made, const fs::path& model) {
    if (geteuid() != 0) {
        return;
    }
    struct stat status {};
    if (stat(model.c_str(), &status) != 0) {
        failStore("look at", model);
    }
    if (fchown(made.get(), status.st_uid, status.st_gid) != 0) {
        failStore("give something to the owner of", model);
    }
}

void syncFolder(const fs::path& folder) {
    const Descriptor descriptor(openRetrying(folder, O_RDONLY | O_DIRECTORY));
    if (descriptor.get() < 0 || fsync(descriptor.get()) != 0) {
        failStore("flush the folder", folder);
    }
}

void syncAfterRename(const fs::path& folder) {
    try {
        syncFolder(folder);
    } catch (const Failure& failure) {
        throw Failure(failure.error, std::string(failure.what()) +
                                         "; the change is in force, but a power failure may still take it back");
    }
}

}  // namespace softtoken
