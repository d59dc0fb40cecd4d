/// A test program's own folder in the build tree, which it gives to the module as the temporary folder, and the few
/// things of a process that differ between the two hosts.

#ifndef ZENTAK_TESTS_SUPPORT_RUN_FOLDER_H
#define ZENTAK_TESTS_SUPPORT_RUN_FOLDER_H

#include <filesystem>
#include <optional>
#include <string>
#include <utility>

namespace support {

/// Makes the folder `run/<program>-<process>` beside the program and points the system's temporary folder and the
/// module's log level there, for as long as it lives. `runTests` has one, made before the module is loaded; its end
/// removes the folder with all that is in it. Folders of earlier runs that were killed are removed at the start.
class RunFolder {
public:
    RunFolder();
    ~RunFolder();
    RunFolder(const RunFolder&) = delete;
    RunFolder& operator=(const RunFolder&) = delete;
};

/// Removes a file, or a folder with all that is in it, whatever their permissions. What can't be removed stays.
void removeWhole(const std::filesystem::path& path);

/// The folder of the one `RunFolder`.
const std::filesystem::path& runFolder();

/// Where the module finds the temporary folder: TMPDIR, on Windows TMP. `runFolder()/temporary` at the start.
void setTemporaryFolder(const std::filesystem::path& folder);
const std::filesystem::path& temporaryFolder();

/// The running program's file.
std::filesystem::path programFile();

/// Sets or (nullopt) removes a variable in the environment of this process and of its later children.
void setEnvironment(const std::string& name, const std::optional<std::string>& value);

/// Number of threads, without those that are ending, and of open files of this process. A thread counts as handles on
/// Windows.
std::pair<std::size_t, std::size_t> threadsAndFiles();

}  // namespace support

#endif
