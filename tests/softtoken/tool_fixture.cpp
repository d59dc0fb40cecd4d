#include <algorithm>
#include <cstdlib>

#include "other_process.h"
#include "tool_test.h"

#ifndef _WIN32
#include <sys/wait.h>
#endif

namespace softtoken {

namespace {

namespace fs = std::filesystem;

/// The file's content with plain line ends.
std::string textOf(const fs::path& path) {
    std::string text = fileContent(path);
    std::erase(text, '\r');
    return text;
}

}  // namespace

ToolTest::ToolTest() {
    setEnvironment("ZENTAK_TOKENS", (folder_.path() / "tokens").string());
    setEnvironment("ZENTAK_PIN", "123456");
    setEnvironment("ZENTAK_SO_PIN", "98765432");
    setEnvironment("ZENTAK_NEW_PIN", "");
}

ToolTest::~ToolTest() {
    for (const char* name : {"ZENTAK_PIN", "ZENTAK_SO_PIN", "ZENTAK_NEW_PIN", "ZENTAK_FILE_PASSWORD"}) {
        setEnvironment(name, "");
    }
}

ToolTest::Answer ToolTest::run(const std::string& arguments) {
    const fs::path output = folder_.path() / "output";
    const fs::path errors = folder_.path() / "errors";
#ifdef _WIN32
    const std::string nothing = "NUL";
    const std::string program = (programFolder() / "zentak-token.exe").string();
    // The shell takes the outermost quotes away.
    const std::string line = "\"\"" + program + "\" " + arguments + " <" + nothing + " >\"" + output.string() +
                             "\" 2>\"" + errors.string() + "\"\"";
    // -1: Wine, when it is busy with ending others, refuses to start a program now and then.
    int exitCode = -1;
    for (int left = 5; exitCode == -1 && left > 0; --left) exitCode = std::system(line.c_str());
#else
    const std::string program = (programFolder() / "zentak-token").string();
    const std::string line =
        "'" + program + "' " + arguments + " </dev/null >'" + output.string() + "' 2>'" + errors.string() + "'";
    const int status = std::system(line.c_str());
    const int exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
    return {exitCode, textOf(output), textOf(errors)};
}

std::string ToolTest::outputOf(const std::string& arguments) {
    const Answer answer = run(arguments);
    EXPECT_EQ(answer.exitCode, 0) << arguments << "\n" << answer.errors;
    return answer.output;
}

void ToolTest::expectError(const std::string& arguments, const std::string& text) {
    Answer answer = run(arguments);
    // On a busy machine any work may take so long that it is announced.
    for (std::size_t end = answer.errors.find(" ...\n"); end != std::string::npos; end = answer.errors.find(" ...\n")) {
        const std::size_t before = answer.errors.rfind('\n', end);
        const std::size_t begin = before == std::string::npos ? 0 : before + 1;
        answer.errors.erase(begin, end + 5 - begin);
    }
    EXPECT_NE(answer.exitCode, 0) << arguments;
    EXPECT_NE(answer.errors.find(text), std::string::npos) << answer.errors;
    EXPECT_EQ(answer.errors.find("zentak-token: "), 0U) << answer.errors;
    EXPECT_EQ(std::count(answer.errors.begin(), answer.errors.end(), '\n'), 1) << answer.errors;
    EXPECT_EQ(answer.output, "");
}

std::string ToolTest::create(const std::string& options) {
    const Answer answer = run("create --label Demo --kdf-cost 1 --json " + options);
    EXPECT_EQ(answer.exitCode, 0) << answer.errors;
    const auto json = nlohmann::json::parse(answer.output, nullptr, false);
    EXPECT_TRUE(json.is_object()) << answer.output;
    return json.value("serialNumber", "");
}

nlohmann::json ToolTest::jsonOf(const std::string& arguments, int exitCode) {
    const Answer answer = run(arguments);
    EXPECT_EQ(answer.exitCode, exitCode) << answer.errors;
    return nlohmann::json::parse(answer.output, nullptr, false);
}

std::string ToolTest::file(const std::string& name, const std::string& content) {
    writeFile(folder_.path() / name, content);
    return "\"" + (folder_.path() / name).string() + "\"";
}

}  // namespace softtoken
