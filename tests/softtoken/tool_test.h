/// Runs the tool's program as a user would, on a store in a temporary folder.

#ifndef ZENTAK_TESTS_SOFTTOKEN_TOOL_TEST_H
#define ZENTAK_TESTS_SOFTTOKEN_TOOL_TEST_H

#include <nlohmann/json.hpp>
#include <string>

#include "token_test.h"

namespace softtoken {

class ToolTest : public testing::Test {
protected:
    struct Answer {
        int exitCode = -1;
        std::string output;
        std::string errors;

        bool operator==(const Answer&) const = default;
    };
    friend void PrintTo(const Answer& answer, std::ostream* out) {
        *out << answer.exitCode << "\n" << answer.output << answer.errors;
    }

    ToolTest();
    ~ToolTest() override;

    Answer run(const std::string& arguments);
    /// Succeeds, and answers its output.
    std::string outputOf(const std::string& arguments);
    /// Fails with one clear line.
    void expectError(const std::string& arguments, const std::string& text);
    /// Makes a cheap token and answers its serial number.
    std::string create(const std::string& options = "");
    nlohmann::json jsonOf(const std::string& arguments, int exitCode = 0);
    /// Writes a file and answers its path in quotes.
    std::string file(const std::string& name, const std::string& content);

    TemporaryFolder folder_;
};

}  // namespace softtoken

#endif
