#include "log_level.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "run_folder.h"

#if defined(_WIN32)
#include <windows.h>
#endif

namespace support {

#if defined(_WIN32)
namespace {

constexpr const char* registryKey = "Software\\Dravenko Sentronics\\Zentak";

}  // namespace

void setLogLevelValue(unsigned long type, std::string_view bytes) {
    HKEY key = nullptr;
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, registryKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key, nullptr) !=
        ERROR_SUCCESS) {
        throw std::runtime_error("the registry key can't be made");
    }
    const LSTATUS result = RegSetValueExA(key, "logLevel", 0, type, reinterpret_cast<const BYTE*>(bytes.data()),
                                          static_cast<DWORD>(bytes.size()));
    RegCloseKey(key);
    if (result != ERROR_SUCCESS) throw std::runtime_error("the registry value can't be set");
}

void setLogLevel(int level) {
    const DWORD value = static_cast<DWORD>(level);
    setLogLevelValue(REG_DWORD, std::string_view(reinterpret_cast<const char*>(&value), sizeof value));
}

void setLogLevelBytes(std::string_view bytes) {
    setLogLevelValue(REG_BINARY, bytes);
}

void removeLogLevel() {
    RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, registryKey, "logLevel");
}

void removeLogLevelKey() {
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, registryKey);
}
#else
namespace {

std::filesystem::path levelFile() {
    return runFolder() / "config" / "logLevel";
}

}  // namespace

void setLogLevelBytes(std::string_view bytes) {
    std::ofstream file(levelFile(), std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) throw std::runtime_error("the log level file can't be written");
}

void setLogLevel(int level) {
    setLogLevelBytes(std::string(1, static_cast<char>(level)));
}

void removeLogLevel() {
    std::filesystem::remove(levelFile());
}
#endif

}  // namespace support
