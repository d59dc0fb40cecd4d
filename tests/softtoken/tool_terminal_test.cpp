// The tool at a terminal: questions, PINs without echo, and outputs that fail.

#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "other_process.h"
#include "tool_test.h"

namespace softtoken {

namespace {

class ToolTerminalTest : public ToolTest {
protected:
    ToolTerminalTest() : serialNumber_(create()) {
        setEnvironment("ZENTAK_PIN", "");
        setEnvironment("ZENTAK_SO_PIN", "");
    }

    struct Line {
        std::string question;  ///< how the prompt begins
        std::string answer;
    };

    /// Runs the tool at a terminal of its own and types each answer when its question stands there. Answers the exit
    /// code; all that was to be seen is in screen_.
    int runAtTerminal(std::vector<std::string> arguments, const std::vector<Line>& lines) {
        screen_.clear();
        int terminal = -1;
        const std::string path = (programFolder() / "zentak-token").string();
        arguments.insert(arguments.begin(), path);
        const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
        if (child == 0) {
            std::vector<char*> list;
            for (std::string& argument : arguments) list.push_back(argument.data());
            list.push_back(nullptr);
            execv(path.c_str(), list.data());
            _exit(127);
        }
        std::size_t seen = 0;
        for (const Line& line : lines) {
            while (screen_.find(line.question, seen) == std::string::npos && readMore(terminal)) {
            }
            EXPECT_NE(screen_.find(line.question, seen), std::string::npos) << screen_;
            seen = screen_.size();
            const std::string typed = line.answer + "\n";
            EXPECT_EQ(write(terminal, typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
        }
        while (readMore(terminal)) {
        }
        termios settings{};
        tcgetattr(terminal, &settings);
        echoAtTheEnd_ = (settings.c_lflag & ECHO) != 0;
        close(terminal);
        int status = -1;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    bool readMore(int terminal) {
        pollfd waiting{terminal, POLLIN, 0};
        if (poll(&waiting, 1, 10'000) <= 0) return false;
        char part[1024];
        const ssize_t count = read(terminal, part, sizeof part);
        if (count <= 0) return false;
        screen_.append(part, static_cast<std::size_t>(count));
        return true;
    }

    [[nodiscard]] bool isThere() const { return Store(folder_.path() / "tokens").isPlugged(serialNumber_); }

    std::string serialNumber_;
    std::string screen_;
    bool echoAtTheEnd_ = false;
};

TEST_F(ToolTerminalTest, RemoveAsks) {
    const std::string question = "Destroy " + serialNumber_ + " \"Demo\" with 0 key pairs and 0 certificates for good?";
    for (const char* answer : {"", "n", "y", "YES please"}) {
        EXPECT_EQ(runAtTerminal({"remove"}, {{question, answer}}), 1);
        EXPECT_NE(screen_.find("was not removed"), std::string::npos) << screen_;
        EXPECT_TRUE(isThere());
    }
    EXPECT_EQ(runAtTerminal({"remove"}, {{question, "yes"}}), 0) << screen_;
    EXPECT_FALSE(isThere());
}

TEST_F(ToolTerminalTest, PinsAreTypedUnseen) {
    EXPECT_EQ(
        runAtTerminal({"set-pin"}, {{"user PIN: ", "123456"}, {"new PIN: ", "tr0ub4dor"}, {"again: ", "tr0ub4dor"}}), 0)
        << screen_;
    EXPECT_EQ(screen_.find("123456"), std::string::npos) << screen_;
    EXPECT_EQ(screen_.find("tr0ub4dor"), std::string::npos) << screen_;
    EXPECT_NO_THROW(Store(folder_.path() / "tokens").checkPin(serialNumber_, Role::user, "tr0ub4dor"));
}

TEST_F(ToolTerminalTest, InterruptedQuestionGivesTheEchoBack) {
    echoAtTheEnd_ = false;
    // Control-C, which the terminal turns into a signal.
    EXPECT_EQ(runAtTerminal({"set-pin"}, {{"user PIN: ", "\x03"}}), -1);
    EXPECT_TRUE(echoAtTheEnd_);
}

TEST_F(ToolTerminalTest, NewPinsThatDifferAreRefused) {
    EXPECT_EQ(runAtTerminal({"set-pin"}, {{"user PIN: ", "123456"}, {"new PIN: ", "abcdef"}, {"again: ", "abcdeg"}}),
              1);
    EXPECT_NE(screen_.find("the two don't agree"), std::string::npos) << screen_;
    EXPECT_NO_THROW(Store(folder_.path() / "tokens").checkPin(serialNumber_, Role::user, "123456"));
}

TEST_F(ToolTerminalTest, TokenWithoutOfficerIsMadeByAnEmptyAnswer) {
    EXPECT_EQ(runAtTerminal({"create", "--label", "Typed", "--kdf-iterations", "1"},
                            {{"user PIN: ", "abcdef"}, {"again: ", "abcdef"}, {"(empty for none): ", ""}}),
              0)
        << screen_;
    EXPECT_EQ(jsonOf("list --json").size(), 2U);
}

/// An answer that nobody gets is a failure.
TEST_F(ToolTerminalTest, OutputThatCannotBeWritten) {
    for (const char* command : {"list", "show", "list --json"}) {
        const std::string line = "'" + (programFolder() / "zentak-token").string() + "' " + command +
                                 " >/dev/full 2>'" + (folder_.path() / "errors").string() + "'";
        const int status = std::system(line.c_str());
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << command;
        EXPECT_EQ(fileContent(folder_.path() / "errors"), "zentak-token: cannot write to the standard output\n");
    }
}

}  // namespace

}  // namespace softtoken
