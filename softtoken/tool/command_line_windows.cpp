// shellapi.h needs windows.h before it.
// clang-format off
#include <windows.h>
#include <shellapi.h>
// clang-format on

#include "platform/environment.h"
#include "tool/command_line.h"

namespace softtoken::tool {

std::vector<std::string> commandLineUtf8(int /*count*/, char** /*arguments*/) {
    SetConsoleOutputCP(CP_UTF8);
    int count = 0;
    wchar_t** arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::string> result;
    for (int i = 0; i < count; ++i) {
        result.push_back(utf8FromPath(arguments[i]));
    }
    LocalFree(arguments);
    return result;
}

}  // namespace softtoken::tool
