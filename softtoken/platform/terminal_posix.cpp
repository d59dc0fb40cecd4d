#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "platform/terminal.h"

namespace softtoken {

namespace {

// OpenSSL's prompts (UI_*) catch every signal for themselves: control-Z and SIGTERM would end the question as if nobody
// had answered, where the program has to stop and to end.

/// The terminal of a question, which signals may interrupt. What it consists of is set before their handlers are.
struct Question {
    int terminal = -1;
    termios before{};
    termios during{};
    std::string_view prompt;
};

Question question;

void say(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(question.terminal, text.data(), text.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

void setTerminal(const termios& settings) {
    while (tcsetattr(question.terminal, TCSAFLUSH, &settings) != 0 && errno == EINTR) {
    }
}

/// A program that is interrupted gives the echo back before it ends. One that is stopped (control-Z) gives it back for
/// that time, and asks again when it goes on.
class SignalGuard {
public:
    SignalGuard() {
        for (std::size_t i = 0; i < signals.size(); ++i) {
            install(signals[i], &handle, &before_[i]);
            // A signal that is ignored stays so.
            if (before_[i].sa_handler == SIG_IGN) {
                sigaction(signals[i], &before_[i], nullptr);
            }
        }
    }
    SignalGuard(const SignalGuard&) = delete;
    SignalGuard& operator=(const SignalGuard&) = delete;
    ~SignalGuard() {
        for (std::size_t i = 0; i < signals.size(); ++i) {
            sigaction(signals[i], &before_[i], nullptr);
        }
    }

private:
    static constexpr std::array<int, 5> signals = {SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGTSTP};

    static void install(int number, void (*handler)(int), struct sigaction* before) {
        struct sigaction action {};
        action.sa_handler = handler;
        action.sa_flags = SA_RESTART;
        sigaction(number, &action, before);
    }

    static void handle(int number) {
        const int error = errno;
        setTerminal(question.before);
        install(number, SIG_DFL, nullptr);
        raise(number);
        // Here the process ends, or is stopped until somebody lets it go on.
        sigset_t own;
        sigemptyset(&own);
        sigaddset(&own, number);
        pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
        pthread_sigmask(SIG_BLOCK, &own, nullptr);
        install(number, &handle, nullptr);
        setTerminal(question.during);
        say(question.prompt);
        errno = error;
    }

    std::array<struct sigaction, signals.size()> before_{};
};

}  // namespace

std::optional<std::string> promptOnTerminal(const std::string& prompt, Echo echo) {
    // In a script nobody is there to answer, though it may have a terminal.
    if (isatty(STDIN_FILENO) == 0) {
        return std::nullopt;
    }
    const int terminal = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal < 0) {
        return std::nullopt;
    }
    question = {terminal, {}, {}, prompt};
    if (tcgetattr(terminal, &question.before) != 0) {
        close(terminal);
        return std::nullopt;
    }
    question.during = question.before;
    if (echo == Echo::off) {
        question.during.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    }
    std::string line;
    {
        const SignalGuard guard;
        // Before the question, so that nothing of a quick answer is shown or lost.
        if (echo == Echo::off) {
            setTerminal(question.during);
        }
        say(prompt);
        for (char character = 0;;) {
            const ssize_t count = read(terminal, &character, 1);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count != 1 || character == '\n') {
                break;
            }
            line += character;
        }
        if (echo == Echo::off) {
            setTerminal(question.before);
            say("\n");
        }
    }
    close(terminal);
    return line;
}

}  // namespace softtoken
