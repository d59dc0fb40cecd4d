/// The process and its environment: variables, the folder of the user's tokens, the encoding of paths, memory that
/// others can't look into.

#ifndef ZENTAK_SOFTTOKEN_PLATFORM_ENVIRONMENT_H
#define ZENTAK_SOFTTOKEN_PLATFORM_ENVIRONMENT_H

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace softtoken {

/// An environment variable that is set and not empty, in UTF-8 on Windows and as it is elsewhere.
std::optional<std::string> environmentText(const char* name);

/// The folder of the user's tokens: ZENTAK_TOKENS, else a folder within the user's local application data. Throws
/// Error::storeFailed when the environment names neither.
std::filesystem::path defaultStoreFolder();

/// A path from text in the form of environmentText and of the tool's command line.
std::filesystem::path pathFromUtf8(std::string_view text);
/// The reverse of pathFromUtf8.
std::string utf8FromPath(const std::filesystem::path& path);
/// A path from the 8-bit text of a caller at the boundary: on Windows in the ANSI code page.
std::filesystem::path pathFromNarrow(std::string_view text);
/// The reverse of pathFromNarrow; characters that have no 8-bit form are lost.
std::string narrowFromPath(const std::filesystem::path& path);

/// From here on the process leaves no core dump or crash report behind, and on Linux other programs of the user can't
/// look into its memory. For programs of our own: a library has no say in that.
void keepMemoryPrivate();

/// Takes a variable out of the process, memory included.
void forgetEnvironment(const char* name);

}  // namespace softtoken

#endif
