/// The diagnostic log: one text file per process name and day in the user's temporary folder. Logging never fails its
/// caller: nothing here throws, and what can't be written is dropped with a word on standard output.
///
/// The level is read afresh for every line, so that support can switch a running application to DEBUG and back.

#ifndef ZENTAK_LOG_DIAGNOSTIC_LOG_H
#define ZENTAK_LOG_DIAGNOSTIC_LOG_H

#include <string>
#include <string_view>

#include "log/log_text.h"

namespace zentak {

/// Levels of a line, and what a configured level lets pass: a line is written when the configured level is at least its
/// own. Every other number is written with the tag INFO.
inline constexpr int logLevelException = 1;
inline constexpr int logLevelError = 2;
inline constexpr int logLevelDebug = 3;

/// Size of the buffers that paths are built in, terminator included; longer paths are cut.
inline constexpr std::size_t logPathSize = 1024;

/// The configured level, -128 to 3: the first byte of the configured value if that is at most 3, otherwise, and
/// without a value, 2.
int readLogLevel() noexcept;

/// Appends one line to the log file, whatever the configured level.
void writeLogLine(int level, std::string_view message) noexcept;

/// Writes the base name of the process's executable up to its first full stop into `buffer` (of logPathSize bytes);
/// an empty text when it can't be told, and a fixed one, with a word on standard output, when memory is short.
void getProcessName(char* buffer) noexcept;

/// Fills `buffer` (of logPathSize bytes, zeroed first) with the temporary folder and its final separator. 0, or -1 with
/// an all-zero buffer when there is no such folder.
int getLogBaseFolderPath(char* buffer) noexcept;

/// Makes the missing directories of `path`, whose separator is "/", but stops with -1 as soon as it has made one that
/// isn't the last: a missing tree comes into being one level per call. Otherwise 1 when the last directory was made and
/// 0 when not.
int createLogFolder(const char* path) noexcept;

/// Around a fork, in the parent: no other thread is writing a line meanwhile.
void holdLogWriters();
void releaseLogWriters();

/// Builds a text from `parts` and writes it at `level`, unless the configured level leaves such lines out.
template <typename... Parts>
void logAtLevel(int level, Parts... parts) noexcept {
    if (readLogLevel() < level) {
        return;
    }
    try {
        writeLogLine(level, concatenate(parts...));
    } catch (...) {
        // No memory for the text: the line is lost, the caller goes on.
    }
}

template <typename... Parts>
void logDebug(Parts... parts) noexcept {
    logAtLevel(logLevelDebug, parts...);
}

template <typename... Parts>
void logError(Parts... parts) noexcept {
    logAtLevel(logLevelError, parts...);
}

}  // namespace zentak

#endif
