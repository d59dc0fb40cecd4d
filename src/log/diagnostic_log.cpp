#include "log/diagnostic_log.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <exception>

#include "base/mutex.h"
#include "base/no_destructor.h"
#include "platform/operating_system.h"

namespace zentak {

namespace {

/// Serialises the writers of this process, and keeps it from being forked while one of them asks for the time: the
/// system's lock of its time zone would stay locked in the child.
Mutex& logMutex() {
    static NoDestructor<Mutex> mutex;
    return *mutex;
}

std::string_view levelTag(int level) {
    switch (level) {
        case logLevelException:
            return "EXCEP ::=>";
        case logLevelError:
            return "ERROR ::=>";
        case logLevelDebug:
            return "DEBUG ::=>";
        default:
            return "INFO  ::=>";
    }
}

/// Appends to the text in `buffer`, of logPathSize bytes, as much as fits with the terminator.
void appendBounded(char* buffer, std::string_view text) {
    const std::size_t used = std::strlen(buffer);
    const std::size_t count = std::min(text.size(), logPathSize - 1 - used);
    std::memcpy(buffer + used, text.data(), count);
    buffer[used + count] = '\0';
}

void printException(const char* where, const char* what, const char* lineEnd) noexcept {
    std::printf("%s%s%s", where, what, lineEnd);
}

platform::LocalTime timeWhileNobodyForks() {
    const MutexLock lock(logMutex());
    return platform::localTime();
}

void appendLine(const char* path, int level, std::string_view message) {
    const MutexLock lock(logMutex());
    std::FILE* file = platform::openForAppending(path);
    if (file == nullptr) {
        std::printf("\nUnable to write log");
        return;
    }
    const platform::LocalTime now = platform::localTime();
    std::fprintf(file, "%02d/%02d::%02d:%02d:%02d:%03d-> ->", now.day, now.month, now.hour, now.minute, now.second,
                 now.millisecond);
    const std::string_view tag = levelTag(level);
    std::fwrite(tag.data(), 1, tag.size(), file);
    std::fwrite(message.data(), 1, message.size(), file);
    std::fputc('\n', file);
    std::fflush(file);
    std::fclose(file);
}

}  // namespace

int readLogLevel() noexcept {
    constexpr int defaultLevel = logLevelError;
    try {
        const std::optional<signed char> level = platform::readLogLevelByte();
        return level.has_value() && *level <= logLevelDebug ? *level : defaultLevel;
    } catch (...) {
        return defaultLevel;
    }
}

void getProcessName(char* buffer) noexcept {
    buffer[0] = '\0';
    try {
        const std::string name = platform::executableName();
        appendBounded(buffer, std::string_view(name).substr(0, name.find('.')));
    } catch (const std::exception& failure) {
        printException("Exception in getProcessName(): ", failure.what(), "\n");
        appendBounded(buffer, "ZentakKey Interface");
    }
}

int getLogBaseFolderPath(char* buffer) noexcept {
    std::memset(buffer, 0, logPathSize);
    try {
        const std::string folder = platform::temporaryFolder(logPathSize);
        if (platform::isDirectory(folder.c_str())) {
            appendBounded(buffer, folder);
            return 0;
        }
    } catch (const std::exception& failure) {
        printException("Exception in getLogBaseFolderPath(): ", failure.what(), "");
    }
    return -1;
}

int createLogFolder(const char* path) noexcept {
    std::array<char, logPathSize> copy{};
    appendBounded(copy.data(), path);
    if (copy[0] == '\0') {
        return platform::createDirectory(copy.data()) ? 1 : 0;
    }
    for (char* position = copy.data() + 1; *position != '\0'; ++position) {
        if (*position != '/') {
            continue;
        }
        *position = '\0';
        if (platform::createDirectory(copy.data())) {
            return -1;
        }
        *position = '/';
    }
    return platform::createDirectory(copy.data()) ? 1 : 0;
}

void writeLogLine(int level, std::string_view message) noexcept {
    try {
        std::array<char, logPathSize> path{};
        if (getLogBaseFolderPath(path.data()) != 0) {
            std::printf("\nUnable to getLogBaseFolderPath");
        }
        appendBounded(path.data(), "/Dravenko Sentronics/");
        std::array<char, logPathSize> process{};
        getProcessName(process.data());
        appendBounded(path.data(), process.data());
        appendBounded(path.data(), "/");
        createLogFolder(path.data());

        const platform::LocalTime today = timeWhileNobodyForks();
        std::array<char, 32> date{};
        std::snprintf(date.data(), date.size(), "%04d-%02d-%02d", today.year, today.month, today.day);
        appendBounded(path.data(), date.data());
        appendBounded(path.data(), ".LOG");

        appendLine(path.data(), level, message);
    } catch (const std::exception& failure) {
        printException("Exception in write log : ", failure.what(), "\n");
    } catch (...) {
        printException("Exception in write log : ", "unknown", "\n");
    }
}

void holdLogWriters() {
    logMutex().holdForFork();
}

void releaseLogWriters() {
    logMutex().releaseAfterFork();
}

}  // namespace zentak
