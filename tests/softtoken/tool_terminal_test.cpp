// The tool at a terminal: questions, PINs without echo, and outputs that fail.

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <pty.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "other_process.h"
#include "test_certificates.h"
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
            // A runner in the background may have it that they are ignored, which children inherit.
            for (const int number : {SIGQUIT, SIGTERM, SIGHUP, SIGPIPE}) std::signal(number, SIG_DFL);
            std::signal(SIGINT, interruptIsIgnored_ ? SIG_IGN : SIG_DFL);
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
        if (poll(&waiting, 1, 30'000) <= 0) return false;
        char part[1024];
        const ssize_t count = read(terminal, part, sizeof part);
        if (count <= 0) return false;
        screen_.append(part, static_cast<std::size_t>(count));
        return true;
    }

    [[nodiscard]] bool isThere() const { return Store(folder_.path() / "tokens").isPlugged(serialNumber_); }

    std::string serialNumber_;
    std::string screen_;
    std::string seen_;
    bool interruptIsIgnored_ = false;
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

/// As in a script that runs in the background: the question goes on.
TEST_F(ToolTerminalTest, IgnoredInterruptStaysIgnored) {
    interruptIsIgnored_ = true;
    EXPECT_EQ(runAtTerminal({"set-pin"}, {{"user PIN: ",
                                           "\x03"
                                           "123456"},
                                          {"new PIN: ", "tr0ub4dor"},
                                          {"again: ", "tr0ub4dor"}}),
              0)
        << screen_;
    EXPECT_EQ(screen_.find("tr0ub4dor"), std::string::npos) << screen_;
    EXPECT_TRUE(echoAtTheEnd_);
    EXPECT_NO_THROW(Store(folder_.path() / "tokens").checkPin(serialNumber_, Role::user, "tr0ub4dor"));
}

TEST_F(ToolTerminalTest, NewPinsThatDifferAreRefused) {
    EXPECT_EQ(runAtTerminal({"set-pin"}, {{"user PIN: ", "123456"}, {"new PIN: ", "abcdef"}, {"again: ", "abcdeg"}}),
              1);
    EXPECT_NE(screen_.find("the two don't agree"), std::string::npos) << screen_;
    EXPECT_NO_THROW(Store(folder_.path() / "tokens").checkPin(serialNumber_, Role::user, "123456"));
}

TEST_F(ToolTerminalTest, TokenWithoutOfficerIsMadeByAnEmptyAnswer) {
    EXPECT_EQ(runAtTerminal({"create", "--label", "Typed", "--kdf-cost", "1"},
                            {{"user PIN: ", "abcdef"}, {"again: ", "abcdef"}, {"(empty for none): ", ""}}),
              0)
        << screen_;
    EXPECT_EQ(jsonOf("list --json").size(), 2U);
}

/// A shell that lets the tool stand and go on. Answers its exit code.
int runJob(std::vector<std::string> arguments) {
    std::signal(SIGTTOU, SIG_IGN);
    const pid_t tool = fork();
    if (tool == 0) {
        setpgid(0, 0);
        tcsetpgrp(STDIN_FILENO, getpid());
        std::signal(SIGTTOU, SIG_DFL);
        std::signal(SIGTSTP, SIG_DFL);
        std::vector<char*> list;
        for (std::string& argument : arguments) list.push_back(argument.data());
        list.push_back(nullptr);
        execv(list[0], list.data());
        _exit(127);
    }
    int status = -1;
    waitpid(tool, &status, WUNTRACED);
    tcsetpgrp(STDIN_FILENO, getpgrp());
    const std::string_view stopped = "[stopped]";
    char typed = 0;
    if (!WIFSTOPPED(status) || write(STDOUT_FILENO, stopped.data(), stopped.size()) < 0) return 126;
    while (read(STDIN_FILENO, &typed, 1) == 1 && typed != '\n') {
    }
    tcsetpgrp(STDIN_FILENO, tool);
    kill(tool, SIGCONT);
    waitpid(tool, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 125;
}

/// Control-Z and "fg": while the tool stands, the shell's user sees what is typed, and no PIN is seen afterwards.
TEST_F(ToolTerminalTest, StoppedQuestionGivesTheEchoBackAndAsksAgain) {
    int terminal = -1;
    const std::string path = (programFolder() / "zentak-token").string();
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) _exit(runJob({path, "set-pin"}));
    screen_.clear();
    const auto await = [&](const std::string& text) {
        std::size_t found = std::string::npos;
        while ((found = screen_.find(text)) == std::string::npos && readMore(terminal)) {
        }
        EXPECT_NE(found, std::string::npos) << text << " in " << screen_;
        seen_ += screen_;
        screen_.clear();
        termios settings{};
        tcgetattr(terminal, &settings);
        return (settings.c_lflag & ECHO) != 0;
    };
    const auto type = [&](const std::string& text) {
        EXPECT_EQ(write(terminal, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    };
    EXPECT_FALSE(await("user PIN: "));
    type("\x1A");
    EXPECT_TRUE(await("[stopped]"));
    type("fg\n");
    EXPECT_FALSE(await("user PIN: "));
    type("123456\n");
    EXPECT_FALSE(await("new PIN: "));
    type("tr0ub4dor\n");
    EXPECT_FALSE(await("again: "));
    type("tr0ub4dor\n");
    await("PIN changed");
    while (readMore(terminal)) {
    }
    close(terminal);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    seen_ += screen_;
    EXPECT_EQ(seen_.find("123456"), std::string::npos) << seen_;
    EXPECT_EQ(seen_.find("tr0ub4dor"), std::string::npos) << seen_;
}

/// Devices and pipes that never end.
TEST_F(ToolTerminalTest, EndlessFilesAreNotReadToTheEnd) {
    const std::string pipe = (folder_.path() / "pipe").string();
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::string key = file("key.pem", pemPrivateKey(testKey(5)));
    const auto expectTooLarge = [&](const std::string& arguments, const std::string& text) {
        // That it takes a while may be told before.
        const Answer answer = run(arguments);
        EXPECT_EQ(answer.exitCode, 1);
        EXPECT_TRUE(answer.errors.ends_with("zentak-token: " + text + "\n")) << answer.errors;
    };
    for (const std::string option : {"--key", "--certificate", "--pkcs12"}) {
        expectTooLarge("import " + option + " /dev/zero", "/dev/zero is larger than 67108864 bytes");
        ASSERT_EQ(std::system(("yes >'" + pipe + "' 2>/dev/null &").c_str()), 0);
        expectTooLarge("import " + option + " '" + pipe + "'", pipe + " is larger than 67108864 bytes");
    }
    expectTooLarge("import --key " + key + " --pin-file /dev/zero", "/dev/zero is larger than 65536 bytes");
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
