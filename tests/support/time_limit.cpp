#include "time_limit.h"

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#if defined(_WIN32)
#include <windows.h>
#else
#include <csignal>
#include <filesystem>
#include <fstream>
#include <unistd.h>
#endif

namespace support {
namespace {

using Clock = std::chrono::steady_clock;

#if defined(_WIN32) || defined(ZENTAK_SANITIZED)
constexpr int slowness = 3;
#else
constexpr int slowness = 1;
#endif

constexpr int hangExitCode = 124;

std::optional<std::chrono::seconds> limitOfTheEnvironment() {
    const char* text = std::getenv("ZENTAK_TEST_SECONDS");
    if (text == nullptr || *text == '\0') return std::nullopt;
    return std::chrono::seconds(std::atoi(text));
}

#if !defined(_WIN32)
/// All processes below one.
void findDescendants(const std::string& process, std::vector<pid_t>& found) {
    std::error_code ignored;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/" + process + "/task", ignored)) {
        std::ifstream children(thread.path() / "children");
        for (std::string child; children >> child;) {
            found.push_back(static_cast<pid_t>(std::stol(child)));
            findDescendants(child, found);
        }
    }
}
#endif

[[noreturn]] void endProgram(const std::string& test, std::chrono::seconds limit) {
    // Where the reader of a failed run looks, and not by GoogleTest, whose locks the test may hold.
    std::fprintf(stderr, "\n[  HANGS   ] %s has not ended after %lld s\n", test.c_str(),
                 static_cast<long long>(limit.count()));
    std::fflush(stderr);
#if defined(_WIN32)
    TerminateProcess(GetCurrentProcess(), hangExitCode);
#else
    // They would keep the pipe open that the runner reads to its end.
    std::vector<pid_t> descendants;
    findDescendants(std::to_string(getpid()), descendants);
    for (const pid_t process : descendants) kill(process, SIGKILL);
#endif
    std::_Exit(hangExitCode);
}

/// Its thread waits for the end of the running test, and is left to itself when the program ends.
class Watch {
public:
    Watch() {
        std::thread([this] { watch(); }).detach();
    }

    void begin(const std::string& test) {
        const std::scoped_lock lock(mutex_);
        test_ = test;
        setLimit(usualTimeLimit);
    }
    void allow(std::chrono::seconds time) {
        const std::scoped_lock lock(mutex_);
        setLimit(time);
    }
    void end() {
        const std::scoped_lock lock(mutex_);
        deadline_.reset();
        changed_.notify_one();
    }

private:
    void setLimit(std::chrono::seconds limit) {
        limit_ = limitOfTheEnvironment().value_or(limit * slowness);
        deadline_ = Clock::now() + limit_;
        changed_.notify_one();
    }

    void watch() {
        std::unique_lock lock(mutex_);
        while (true) {
            if (!deadline_) {
                changed_.wait(lock);
            } else if (Clock::now() >= *deadline_) {
                endProgram(test_, limit_);
            } else {
                changed_.wait_until(lock, *deadline_);
            }
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::string test_;
    std::chrono::seconds limit_{0};
    std::optional<Clock::time_point> deadline_;
};

Watch* watch = nullptr;

class Listener : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& test) override {
        watch->begin(std::string(test.test_suite_name()) + "." + test.name());
    }
    void OnTestEnd(const testing::TestInfo& /*test*/) override { watch->end(); }
};

}  // namespace

void allowTime(std::chrono::seconds time) {
    if (watch != nullptr) watch->allow(time);
}

void limitEachTest() {
    if (limitOfTheEnvironment() == std::chrono::seconds(0)) return;
    watch = new Watch;
    testing::UnitTest::GetInstance()->listeners().Append(new Listener);
}

}  // namespace support
