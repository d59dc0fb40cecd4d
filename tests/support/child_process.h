/// Runs another program and says how it ended.

#ifndef ZENTAK_TESTS_SUPPORT_CHILD_PROCESS_H
#define ZENTAK_TESTS_SUPPORT_CHILD_PROCESS_H

#include <filesystem>
#include <string>
#include <vector>

namespace support {

struct ChildResult {
    int exitCode = -1;   ///< -1 when a signal ended it
    std::string output;  ///< its standard output, line ends as the program wrote them
};

/// The program inherits this process's environment. Arguments are plain words without quotes.
ChildResult runChild(const std::filesystem::path& program, const std::vector<std::string>& arguments);

}  // namespace support

#endif
