/// Catches what this process, the module included, writes on standard output. (GoogleTest's own catcher keeps its file
/// in the temporary folder, which some tests take away.)

#ifndef ZENTAK_TESTS_SUPPORT_STANDARD_OUTPUT_H
#define ZENTAK_TESTS_SUPPORT_STANDARD_OUTPUT_H

#include <filesystem>
#include <string>

namespace support {

class StandardOutput {
public:
    StandardOutput();
    ~StandardOutput();
    StandardOutput(const StandardOutput&) = delete;
    StandardOutput& operator=(const StandardOutput&) = delete;

    /// What has been written since this object was made.
    std::string text() const;

private:
    std::filesystem::path file_;
    int saved_;
};

}  // namespace support

#endif
