#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "errors.h"
#include "platform.h"

namespace softtoken {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void failStore(const char* what, const fs::path& path) {
    const int number = errno;
    throw Failure(Error::storeFailed,
                  std::string("cannot ") + what + " " + path.string() + ": " + std::strerror(number));
}

class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (number_ >= 0) close(number_);
    }
    [[nodiscard]] int get() const { return number_; }
    /// Closing may report a write that failed late.
    bool closeNow() {
        const int number = number_;
        number_ = -1;
        return close(number) == 0;
    }

private:
    int number_;
};

int openRetrying(const fs::path& path, int flags, mode_t mode = 0) {
    int number = -1;
    do {
        number = open(path.c_str(), flags | O_CLOEXEC, mode);
    } while (number < 0 && errno == EINTR);
    return number;
}

/// Less than 0 when there is no such file.
int openForReading(const fs::path& file) {
    const int number = openRetrying(file, O_RDONLY);
    if (number < 0 && errno != ENOENT && errno != ENOTDIR) failStore("open", file);
    return number;
}

/// While a terminal is silent: a program that is interrupted gives the echo back before it ends.
class EchoGuard {
public:
    EchoGuard(int terminal, const termios& settings) {
        terminal_ = terminal;
        settings_ = settings;
        for (std::size_t i = 0; i < signals.size(); ++i) {
            struct sigaction restoring {};
            restoring.sa_handler = &restore;
            sigaction(signals[i], &restoring, &before_[i]);
            // A signal that is ignored stays so.
            if (before_[i].sa_handler == SIG_IGN) sigaction(signals[i], &before_[i], nullptr);
        }
    }
    EchoGuard(const EchoGuard&) = delete;
    EchoGuard& operator=(const EchoGuard&) = delete;
    ~EchoGuard() {
        for (std::size_t i = 0; i < signals.size(); ++i) sigaction(signals[i], &before_[i], nullptr);
    }

private:
    static constexpr std::array<int, 4> signals = {SIGINT, SIGTERM, SIGQUIT, SIGHUP};

    static void restore(int number) {
        // The constructor has set the terminal before it sets the handler.
        // cppcheck-suppress invalidFunctionArg
        tcsetattr(terminal_, TCSAFLUSH, &settings_);
        struct sigaction ending {};
        ending.sa_handler = SIG_DFL;
        sigaction(number, &ending, nullptr);
        raise(number);
    }

    static inline int terminal_ = -1;
    static inline termios settings_{};
    std::array<struct sigaction, signals.size()> before_{};
};

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

void syncFolder(const fs::path& folder) {
    const Descriptor descriptor(openRetrying(folder, O_RDONLY | O_DIRECTORY));
    if (descriptor.get() < 0 || fsync(descriptor.get()) != 0) failStore("flush the folder", folder);
}

}  // namespace

std::optional<std::string> environmentText(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') return std::nullopt;
    return value;
}

void forgetEnvironment(const char* name) {
    char* const value = std::getenv(name);
    if (value == nullptr) return;
    // The variable's own memory: the process was started with it.
    OPENSSL_cleanse(value, std::strlen(value));
    unsetenv(name);
}

fs::path defaultStoreFolder() {
    if (const auto named = environmentText("ZENTAK_TOKENS")) return fs::absolute(*named);
    if (const auto data = environmentText("XDG_DATA_HOME")) return fs::path(*data) / "zentak" / "tokens";
    if (const auto home = environmentText("HOME")) return fs::path(*home) / ".local" / "share" / "zentak" / "tokens";
    throw Failure(Error::storeFailed, "no folder for tokens: set ZENTAK_TOKENS or HOME");
}

fs::path pathFromUtf8(std::string_view text) {
    return text;
}

std::string utf8FromPath(const fs::path& path) {
    return path.string();
}

fs::path pathFromNarrow(std::string_view text) {
    return text;
}

std::string narrowFromPath(const fs::path& path) {
    return path.string();
}

bool isFolder(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool isLink(const fs::path& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

void createPrivateFolders(const fs::path& folder) {
    if (fs::is_directory(folder)) return;
    if (folder.has_parent_path() && folder.parent_path() != folder) createPrivateFolders(folder.parent_path());
    if (mkdir(folder.c_str(), 0700) == 0) {
        syncFolder(folder.has_parent_path() ? folder.parent_path() : ".");
    } else if (errno != EEXIST) {
        failStore("make the folder", folder);
    }
}

FileLock::FileLock(const fs::path& file) : handle_(openRetrying(file, O_RDWR | O_CREAT, 0600)) {
    if (handle_ < 0) failStore("open the lock file", file);
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
    if (stat(file.c_str(), &status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
        failStore("look at", file);
    }
    if (!S_ISREG(status.st_mode)) return std::nullopt;
    return FileStamp{static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec,
                     static_cast<std::uint64_t>(status.st_size), static_cast<std::uint64_t>(status.st_ino)};
}

std::int64_t fileClockNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

std::optional<std::string> readFile(const fs::path& file) {
    const Descriptor descriptor(openForReading(file));
    if (descriptor.get() < 0) return std::nullopt;
    struct stat status {};
    if (fstat(descriptor.get(), &status) != 0) failStore("look at", file);
    // One byte more than there is, so that the end shows without another growth.
    std::string content(static_cast<std::size_t>(status.st_size) + 1, '\0');
    std::size_t length = 0;
    for (;;) {
        const ssize_t count = read(descriptor.get(), content.data() + length, content.size() - length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) failStore("read", file);
        length += static_cast<std::size_t>(count);
        if (count == 0) break;
        if (length == content.size()) content.resize(2 * length);
    }
    content.resize(length);
    return content;
}

std::optional<std::string> readFileEnd(const fs::path& file, std::size_t length) {
    const Descriptor descriptor(openForReading(file));
    if (descriptor.get() < 0) return std::nullopt;
    struct stat status {};
    if (fstat(descriptor.get(), &status) != 0) failStore("look at", file);
    const off_t start = status.st_size - static_cast<off_t>(length);
    std::string content(length, '\0');
    if (start < 0) return std::nullopt;
    ssize_t count = -1;
    do {
        count = pread(descriptor.get(), content.data(), length, start);
    } while (count < 0 && errno == EINTR);
    if (count < 0) failStore("read", file);
    if (static_cast<std::size_t>(count) != length) return std::nullopt;
    return content;
}

void replaceFile(const fs::path& file, std::string_view content) {
    fs::path fresh = file;
    fresh += ".new";
    try {
        Descriptor descriptor(openRetrying(fresh, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600));
        if (descriptor.get() < 0) failStore("make", fresh);
        writeAll(descriptor, content, fresh);
        if (fsync(descriptor.get()) != 0 || !descriptor.closeNow()) failStore("flush", fresh);
        if (rename(fresh.c_str(), file.c_str()) != 0) failStore("replace", file);
    } catch (...) {
        // On a full disk it would keep the space that the next attempt needs.
        unlink(fresh.c_str());
        throw;
    }
    syncFolder(file.parent_path());
}

void overwriteFile(const fs::path& file, std::string_view content, Lasting lasting) {
    Descriptor descriptor(openRetrying(file, O_WRONLY | O_NOFOLLOW));
    const bool denied = descriptor.get() < 0 && (errno == EACCES || errno == ELOOP);
    if (descriptor.get() < 0 && !denied) failStore("open", file);
    struct stat status {};
    if (denied || fstat(descriptor.get(), &status) != 0 || status.st_nlink > 1) {
        replaceFile(file, content);
        return;
    }
    writeAll(descriptor, content, file);
    if (lasting == Lasting::atOnce && fdatasync(descriptor.get()) != 0) failStore("flush", file);
    if (!descriptor.closeNow()) failStore("write", file);
}

void moveFolder(const fs::path& from, const fs::path& to) {
    if (rename(from.c_str(), to.c_str()) != 0) failStore("move", from);
    syncFolder(to.parent_path());
    syncFolder(from.parent_path());
}

std::optional<std::string> promptOnTerminal(const std::string& prompt, Echo echo) {
    // In a script nobody is there to answer, though it may have a terminal.
    if (isatty(STDIN_FILENO) == 0) return std::nullopt;
    const Descriptor terminal(openRetrying("/dev/tty", O_RDWR | O_NOCTTY));
    termios before{};
    if (terminal.get() < 0 || tcgetattr(terminal.get(), &before) != 0) return std::nullopt;
    const auto say = [&](std::string_view text) {
        while (!text.empty()) {
            const ssize_t count = write(terminal.get(), text.data(), text.size());
            if (count <= 0) return;
            text.remove_prefix(static_cast<std::size_t>(count));
        }
    };
    const EchoGuard guard(terminal.get(), before);
    termios silent = before;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    // Before the question, so that nothing of a quick answer is shown or lost.
    if (echo == Echo::off) tcsetattr(terminal.get(), TCSAFLUSH, &silent);
    say(prompt);
    std::string line;
    char character = 0;
    while (read(terminal.get(), &character, 1) == 1 && character != '\n') line += character;
    if (echo == Echo::off) {
        tcsetattr(terminal.get(), TCSAFLUSH, &before);
        say("\n");
    }
    return line;
}

}  // namespace softtoken
