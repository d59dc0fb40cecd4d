#include "child_process.h"

#include <array>
#include <cstdio>
#include <stdexcept>

#if !defined(_WIN32)
#include <sys/wait.h>
#endif

namespace support {

ChildResult runChild(const std::filesystem::path& program, const std::vector<std::string>& arguments) {
    std::string command = "\"" + program.string() + "\"";
    for (const std::string& argument : arguments) command += " " + argument;
#if defined(_WIN32)
    command = "\"" + command + "\"";  // cmd.exe takes the outer pair away
    std::FILE* const pipe = _popen(command.c_str(), "rb");
#else
    std::FILE* const pipe = popen(command.c_str(), "r");
#endif
    if (pipe == nullptr) throw std::runtime_error("can't run " + command);
    ChildResult result;
    std::array<char, 4096> part;
    while (const std::size_t count = std::fread(part.data(), 1, part.size(), pipe)) {
        result.output.append(part.data(), count);
    }
#if defined(_WIN32)
    result.exitCode = _pclose(pipe);
#else
    const int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
    return result;
}

}  // namespace support
