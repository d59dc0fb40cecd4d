#include "run_folder.h"

#include <cstdlib>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <vector>

#if defined(_WIN32)
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace support {
namespace {

std::filesystem::path& theRunFolder() {
    static std::filesystem::path folder;
    return folder;
}

std::filesystem::path& theTemporaryFolder() {
    static std::filesystem::path folder;
    return folder;
}

std::filesystem::path makeFolderOfOurOwn() {
    const std::filesystem::path base = std::filesystem::temp_directory_path();
#if defined(_WIN32)
    const unsigned long process = GetCurrentProcessId();
#else
    const long process = static_cast<long>(getpid());
#endif
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const std::filesystem::path folder =
            base / ("zentak-test-" + std::to_string(process) + "-" + std::to_string(attempt));
        if (std::filesystem::create_directory(folder)) {
            return folder;
        }
    }
    throw std::runtime_error("no folder of our own in " + base.string());
}

}  // namespace

RunFolder::RunFolder() {
    theRunFolder() = makeFolderOfOurOwn();
    std::filesystem::create_directory(runFolder() / "temporary");
    setTemporaryFolder(runFolder() / "temporary");
#if !defined(_WIN32)
    std::filesystem::create_directory(runFolder() / "config");
    setEnvironment("ZENTAK_CONFIG", (runFolder() / "config").string());
#endif
}

RunFolder::~RunFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(runFolder(), ignored);
}

const std::filesystem::path& runFolder() {
    return theRunFolder();
}

void setTemporaryFolder(const std::filesystem::path& folder) {
    theTemporaryFolder() = folder;
#if defined(_WIN32)
    setEnvironment("TMP", folder.string());
    setEnvironment("TEMP", folder.string());
#else
    setEnvironment("TMPDIR", folder.string());
#endif
}

const std::filesystem::path& temporaryFolder() {
    return theTemporaryFolder();
}

std::filesystem::path programFile() {
#if defined(_WIN32)
    std::vector<wchar_t> name(32768);
    const DWORD length = GetModuleFileNameW(nullptr, name.data(), static_cast<DWORD>(name.size()));
    return std::wstring(name.data(), length);
#else
    return std::filesystem::read_symlink("/proc/self/exe");
#endif
}

void setEnvironment(const std::string& name, const std::optional<std::string>& value) {
#if defined(_WIN32)
    // The C runtime keeps a copy of its own; _putenv_s changes both, and an empty value removes.
    _putenv_s(name.c_str(), value ? value->c_str() : "");
#else
    if (value) {
        setenv(name.c_str(), value->c_str(), 1);
    } else {
        unsetenv(name.c_str());
    }
#endif
}

std::pair<std::size_t, std::size_t> threadsAndFiles() {
#if defined(_WIN32)
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    return {0, handles};
#else
    const auto entries = [](const char* folder) {
        const std::filesystem::directory_iterator all(folder);
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    };
    return {entries("/proc/self/task"), entries("/proc/self/fd")};
#endif
}

}  // namespace support
