#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/posix_support.h"

namespace softtoken {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void failTooLarge(const fs::path& path, std::size_t largest) {
    throw Failure(Error::storeFailed, path.string() + " is larger than " + std::to_string(largest) + " bytes");
}

/// Less than 0 when there is no such file.
int openForReading(const fs::path& file, Links links) {
    // Nobody waits for the other end of a pipe in the place of a token's file.
    const int number = openRetrying(file, O_RDONLY | (links == Links::refuse ? O_NOFOLLOW | O_NONBLOCK : 0));
    if (number < 0 && errno == ELOOP && links == Links::refuse) {
        refuseLink(file);
    }
    if (number < 0 && errno != ENOENT && errno != ENOTDIR) {
        failStore("open", file);
    }
    return number;
}

/// Less than 0 when it can't be opened or made.
int openLockFile(const fs::path& file) {
    for (;;) {
        const int present = openRetrying(file, O_RDWR | O_NOFOLLOW | O_NONBLOCK);
        if (present >= 0 || errno != ENOENT) {
            return present;
        }
        Descriptor made(openRetrying(file, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
        if (made.get() >= 0) {
            giveToOwner(made, folderAbove(file));
        }
        if (made.get() >= 0 || errno != EEXIST) {
            return made.release();
        }
    }
}

void writeAll(const Descriptor& descriptor, std::string_view content, const fs::path& file) {
    while (!content.empty()) {
        const ssize_t count = write(descriptor.get(), content.data(), content.size());
        if (count >= 0) {
            content.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            failStore("write", file);
        }
    }
}

}  // namespace

bool isFolder(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool isLink(const fs::path& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

void createPrivateFolders(const fs::path& folder) {
    if (fs::is_directory(folder)) {
        return;
    }
    if (folder.has_parent_path() && folder.parent_path() != folder) {
        createPrivateFolders(folder.parent_path());
    }
    if (mkdir(folder.c_str(), 0700) == 0) {
        const Descriptor made(openRetrying(folder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
        if (made.get() < 0) {
            failStore("open the folder", folder);
        }
        giveToOwner(made, folderAbove(folder));
        syncFolder(folderAbove(folder));
    } else if (errno != EEXIST) {
        failStore("make the folder", folder);
    }
}

void requirePrivateFolder(const fs::path& folder, Links links) {
    struct stat status {};
    if ((links == Links::refuse ? lstat(folder.c_str(), &status) : stat(folder.c_str(), &status)) != 0) {
        return;
    }
    if (S_ISLNK(status.st_mode)) {
        refuseLink(folder);
    }
    if (S_ISDIR(status.st_mode) && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw Failure(Error::storeFailed,
                      "others may write to the folder " + folder.string() + ": chmod go-w '" + folder.string() + "'");
    }
}

FileLock::FileLock(const fs::path& file) : handle_(openLockFile(file)) {
    if (handle_ < 0 && errno == ELOOP) {
        refuseLink(file);
    }
    if (handle_ < 0) {
        failStore("open the lock file", file);
    }
    int result = 0;
    do {
        result = flock(static_cast<int>(handle_), LOCK_EX);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        close(static_cast<int>(handle_));
        failStore("lock", file);
    }
}

FileLock::~FileLock() {
    close(static_cast<int>(handle_));
}

std::optional<FileStamp> fileStamp(const fs::path& file) {
    struct stat status {};
    if (lstat(file.c_str(), &status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) {
            return std::nullopt;
        }
        failStore("look at", file);
    }
    if (S_ISLNK(status.st_mode)) {
        refuseLink(file);
    }
    if (!S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    return FileStamp{static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec,
                     static_cast<std::uint64_t>(status.st_size), static_cast<std::uint64_t>(status.st_ino)};
}

std::int64_t fileClockNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

std::optional<std::string> readFile(const fs::path& file, std::size_t largest, Links links) {
    const Descriptor descriptor(openForReading(file, links));
    if (descriptor.get() < 0) {
        return std::nullopt;
    }
    struct stat status {};
    if (fstat(descriptor.get(), &status) != 0) {
        failStore("look at", file);
    }
    // One byte more than there is, so that the end shows without another growth. Devices and pipes say 0.
    std::string content(std::min(static_cast<std::size_t>(status.st_size), largest) + 1, '\0');
    std::size_t length = 0;
    for (;;) {
        const ssize_t count = read(descriptor.get(), content.data() + length, content.size() - length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            failStore("read", file);
        }
        length += static_cast<std::size_t>(count);
        if (count == 0) {
            break;
        }
        if (length > largest) {
            failTooLarge(file, largest);
        }
        if (length == content.size()) {
            content.resize(std::min(2 * length, largest) + 1);
        }
    }
    content.resize(length);
    return content;
}

std::optional<std::string> readFileEnd(const fs::path& file, std::size_t length) {
    const Descriptor descriptor(openForReading(file, Links::refuse));
    if (descriptor.get() < 0) {
        return std::nullopt;
    }
    struct stat status {};
    if (fstat(descriptor.get(), &status) != 0) {
        failStore("look at", file);
    }
    const off_t start = status.st_size - static_cast<off_t>(length);
    std::string content(length, '\0');
    if (start < 0) {
        return std::nullopt;
    }
    ssize_t count = -1;
    do {
        count = pread(descriptor.get(), content.data(), length, start);
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        failStore("read", file);
    }
    if (static_cast<std::size_t>(count) != length) {
        return std::nullopt;
    }
    return content;
}

void replaceFile(const fs::path& file, std::string_view content) {
    fs::path fresh = file;
    fresh += ".new";
    // What is there is never written through: it may be a left-over, or a link or a pipe that somebody prepared.
    unlink(fresh.c_str());
    try {
        Descriptor descriptor(openRetrying(fresh, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
        if (descriptor.get() < 0) {
            failStore("make", fresh);
        }
        struct stat status {};
        const bool replaces = lstat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode);
        giveToOwner(descriptor, replaces ? file : folderAbove(file));
        writeAll(descriptor, content, fresh);
        if (fsync(descriptor.get()) != 0 || !descriptor.closeNow()) {
            failStore("flush", fresh);
        }
        if (rename(fresh.c_str(), file.c_str()) != 0) {
            failStore("replace", file);
        }
    } catch (...) {
        // On a full disk it would keep the space that the next attempt needs.
        unlink(fresh.c_str());
        throw;
    }
    syncAfterRename(folderAbove(file));
}

void overwriteFile(const fs::path& file, std::string_view content, Lasting lasting) {
    Descriptor descriptor(openRetrying(file, O_WRONLY | O_NOFOLLOW | O_NONBLOCK));
    if (descriptor.get() < 0 && errno == ELOOP) {
        refuseLink(file);
    }
    const bool denied = descriptor.get() < 0 && errno == EACCES;
    if (descriptor.get() < 0 && !denied) {
        failStore("open", file);
    }
    struct stat status {};
    if (denied || fstat(descriptor.get(), &status) != 0 || status.st_nlink > 1) {
        replaceFile(file, content);
        return;
    }
    writeAll(descriptor, content, file);
    if (lasting == Lasting::atOnce && fdatasync(descriptor.get()) != 0) {
        failStore("flush", file);
    }
    if (!descriptor.closeNow()) {
        failStore("write", file);
    }
}

void moveFolder(const fs::path& from, const fs::path& to) {
    if (rename(from.c_str(), to.c_str()) != 0) {
        failStore("move", from);
    }
    syncAfterRename(folderAbove(to));
    syncAfterRename(folderAbove(from));
}

}  // namespace softtoken
