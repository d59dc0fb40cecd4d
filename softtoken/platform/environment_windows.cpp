#include "platform/environment.h"
#include "platform/errors.h"
#include "platform/windows_support.h"

namespace softtoken {

namespace fs = std::filesystem;

std::wstring wide(std::string_view text, UINT codePage) {
    const int size = static_cast<int>(text.size());
    std::wstring result(static_cast<std::size_t>(MultiByteToWideChar(codePage, 0, text.data(), size, nullptr, 0)), 0);
    MultiByteToWideChar(codePage, 0, text.data(), size, result.data(), static_cast<int>(result.size()));
    return result;
}

std::string narrow(std::wstring_view text, UINT codePage) {
    const int size = static_cast<int>(text.size());
    std::string result(
        static_cast<std::size_t>(WideCharToMultiByte(codePage, 0, text.data(), size, nullptr, 0, nullptr, nullptr)), 0);
    WideCharToMultiByte(codePage, 0, text.data(), size, result.data(), static_cast<int>(result.size()), nullptr,
                        nullptr);
    return result;
}

namespace {

std::optional<std::wstring> environmentWide(const wchar_t* name) {
    std::wstring value(256, 0);
    for (;;) {
        const DWORD length = GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size()));
        if (length == 0) {
            return std::nullopt;
        }
        const bool complete = length < value.size();
        value.resize(length);
        if (complete) {
            return value;
        }
    }
}

}  // namespace

void keepMemoryPrivate() {
    // Without the box there is no report either, which would take the memory along.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
}

std::optional<std::string> environmentText(const char* name) {
    const auto value = environmentWide(wide(name, CP_UTF8).c_str());
    if (!value) {
        return std::nullopt;
    }
    return narrow(*value, CP_UTF8);
}

void forgetEnvironment(const char* name) {
    const std::wstring variable = wide(name, CP_UTF8);
    const auto value = environmentWide(variable.c_str());
    if (!value) {
        return;
    }
    // The block keeps a value of the same length in place.
    SetEnvironmentVariableW(variable.c_str(), std::wstring(value->size(), L'x').c_str());
    SetEnvironmentVariableW(variable.c_str(), nullptr);
}

fs::path defaultStoreFolder() {
    if (const auto named = environmentWide(L"ZENTAK_TOKENS")) {
        return fs::absolute(*named);
    }
    if (const auto data = environmentWide(L"LOCALAPPDATA")) {
        return fs::path(*data) / L"Zentak" / L"Tokens";
    }
    throw Failure(Error::storeFailed, "no folder for tokens: set ZENTAK_TOKENS or LOCALAPPDATA");
}

fs::path pathFromUtf8(std::string_view text) {
    return wide(text, CP_UTF8);
}

std::string utf8FromPath(const fs::path& path) {
    return narrow(path.native(), CP_UTF8);
}

fs::path pathFromNarrow(std::string_view text) {
    return wide(text, CP_ACP);
}

std::string narrowFromPath(const fs::path& path) {
    return narrow(path.native(), CP_ACP);
}

}  // namespace softtoken
