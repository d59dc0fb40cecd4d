#include <array>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/operating_system.h"

namespace zentak::platform {

LocalTime localTime() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm local{};
    localtime_r(&now.tv_sec, &local);
    return {local.tm_year + 1900,
            local.tm_mon + 1,
            local.tm_mday,
            local.tm_hour,
            local.tm_min,
            local.tm_sec,
            static_cast<int>(now.tv_nsec / 1'000'000)};
}

std::optional<signed char> readLogLevelByte() {
    const char* folder = std::getenv("ZENTAK_CONFIG");
    std::string configured;
    const char* path = "/etc/Dravenko Sentronics/Zentak/logLevel";
    if (folder != nullptr) {
        configured.append(folder).append("/logLevel");
        path = configured.c_str();
    }
    // Mostly there is none, which a look tells in half the time that an attempt to open takes. Every call of an
    // application comes here several times.
    struct stat status {};
    if (stat(path, &status) != 0) {
        return std::nullopt;
    }
    // Without waiting, should it be a pipe.
    const int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0) {
        return std::nullopt;
    }
    // One byte more than a value may have, so that a longer one is recognised.
    std::array<signed char, 33> value{};
    const ssize_t length = read(file, value.data(), value.size());
    close(file);
    if (length < 0 || length > 32) {
        return std::nullopt;
    }
    return value[0];
}

std::string temporaryFolder(std::size_t limit) {
    const char* configured = std::getenv("TMPDIR");
    std::string folder = configured != nullptr && *configured != '\0' ? configured : "/tmp";
    if (folder.back() != '/') {
        folder += '/';
    }
    return folder.size() < limit ? folder : std::string();
}

bool isDirectory(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

bool createDirectory(const char* path) {
    return mkdir(path, S_IRWXU) == 0;
}

namespace {

/// The link through which the system tells the running file, and leads to it under whatever name.
constexpr const char* runningFile = "/proc/self/exe";

bool isRunningFile(const char* path) {
    struct stat named {};
    struct stat running {};
    return stat(path, &named) == 0 && stat(runningFile, &running) == 0 && named.st_dev == running.st_dev &&
           named.st_ino == running.st_ino;
}

}  // namespace

std::string executablePath() {
    std::array<char, 4096> area{};
    const ssize_t length = readlink(runningFile, area.data(), area.size());
    std::string path(area.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    // What the system adds when the file was deleted or replaced, by an update perhaps. It may also be its name.
    constexpr std::string_view mark = " (deleted)";
    if (path.ends_with(mark) && !isRunningFile(path.c_str())) {
        path.resize(path.size() - mark.size());
    }
    return path;
}

std::string executableName() {
    const std::string path = executablePath();
    return path.substr(path.rfind('/') + 1);
}

std::optional<std::string> environmentVariable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

bool pathExists(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0;
}

// The library is linked to stay (nodelete).
void keepModuleLoaded() {}

void atFork(void (*before)(), void (*inParent)(), void (*inChild)()) {
    pthread_atfork(before, inParent, inChild);
}

std::FILE* openForAppending(const char* path) {
    // A pipe that somebody has put there would keep the application waiting for its reader, and end it when the reader
    // leaves.
    const int file = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, S_IRUSR | S_IWUSR);
    if (file < 0) {
        return nullptr;
    }
    struct stat status {};
    const bool isFile = fstat(file, &status) == 0 && S_ISREG(status.st_mode);
    std::FILE* stream = isFile ? fdopen(file, "ab") : nullptr;
    if (stream == nullptr) {
        close(file);
    }
    return stream;
}

}  // namespace zentak::platform
