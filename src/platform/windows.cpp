#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX  // some standard libraries define it themselves
#define NOMINMAX
#endif
// The order matters: the other two need the types of windows.h.
// clang-format off
#include <windows.h>
#include <psapi.h>
#include <share.h>
// clang-format on

#include <array>
#include <cstdlib>

#include "platform/operating_system.h"

namespace zentak::platform {

LocalTime localTime() {
    SYSTEMTIME now{};
    GetLocalTime(&now);
    return {now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds};
}

std::optional<signed char> readLogLevelByte() {
    std::array<signed char, 32> value{};
    DWORD size = value.size();
    const LSTATUS status = RegGetValueA(HKEY_LOCAL_MACHINE, "Software\\Dravenko Sentronics\\Zentak", "logLevel",
                                        RRF_RT_ANY, nullptr, value.data(), &size);
    if (status != ERROR_SUCCESS) {
        return std::nullopt;
    }
    return value[0];
}

std::string temporaryFolder(std::size_t limit) {
    std::string folder(limit, '\0');
    // Of a longer one it tells the length that it would need.
    const DWORD length = GetTempPathA(static_cast<DWORD>(limit), folder.data());
    folder.resize(length < limit ? length : 0);
    return folder;
}

bool isDirectory(const char* path) {
    const DWORD attributes = GetFileAttributesA(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool createDirectory(const char* path) {
    return CreateDirectoryA(path, nullptr) != FALSE;
}

std::string executableName() {
    std::array<char, 1024> name{};
    const DWORD length = GetModuleBaseNameA(GetCurrentProcess(), nullptr, name.data(), static_cast<DWORD>(name.size()));
    return std::string(name.data(), length);
}

std::optional<std::string> environmentVariable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

bool pathExists(const char* path) {
    return GetFileAttributesA(path) != INVALID_FILE_ATTRIBUTES;
}

std::string executablePath() {
    std::array<char, 32768> path{};
    const DWORD length = GetModuleFileNameA(nullptr, path.data(), static_cast<DWORD>(path.size()));
    return std::string(path.data(), length);
}

void keepModuleLoaded() {
    HMODULE module = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<LPCSTR>(&keepModuleLoaded), &module);
}

void atFork(void (* /*before*/)(), void (* /*inParent*/)(), void (* /*inChild*/)()) {}

std::FILE* openForAppending(const char* path) {
    return _fsopen(path, "ab", _SH_DENYNO);
}

}  // namespace zentak::platform
