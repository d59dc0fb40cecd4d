#include "platform/terminal.h"
#include "platform/windows_support.h"

namespace softtoken {

// OpenSSL's prompts (UI_*) read in the console's code page, which can't hold every PIN.
std::optional<std::string> promptOnTerminal(const std::string& prompt, Echo echo) {
    const Handle input(
        CreateFileW(L"CONIN$", GENERIC_READ | GENERIC_WRITE, shareAll, nullptr, OPEN_EXISTING, 0, nullptr));
    const Handle output(CreateFileW(L"CONOUT$", GENERIC_WRITE, shareAll, nullptr, OPEN_EXISTING, 0, nullptr));
    DWORD before = 0;
    // A console window may exist while the program's input comes from a file or a pipe; then nobody is there to answer.
    DWORD standard = 0;
    if (!GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &standard)) {
        return std::nullopt;
    }
    if (!input.valid() || !output.valid() || !GetConsoleMode(input.get(), &before)) {
        return std::nullopt;
    }
    const auto say = [&](std::string_view text) {
        const std::wstring line = wide(text, CP_UTF8);
        WriteConsoleW(output.get(), line.data(), static_cast<DWORD>(line.size()), nullptr, nullptr);
    };
    say(prompt);
    if (echo == Echo::off) {
        SetConsoleMode(input.get(), before & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
    }
    wchar_t line[256];
    DWORD count = 0;
    const BOOL read = ReadConsoleW(input.get(), line, 256, &count, nullptr);
    if (echo == Echo::off) {
        SetConsoleMode(input.get(), before);
        say("\r\n");
    }
    if (!read) {
        return std::nullopt;
    }
    std::wstring_view text(line, count);
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r')) {
        text.remove_suffix(1);
    }
    return narrow(text, CP_UTF8);
}

}  // namespace softtoken
