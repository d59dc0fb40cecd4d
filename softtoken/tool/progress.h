/// A word to the user about work that takes longer than a second.

#ifndef ZENTAK_SOFTTOKEN_TOOL_PROGRESS_H
#define ZENTAK_SOFTTOKEN_TOOL_PROGRESS_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace softtoken::tool {

/// While it lives, a line on the standard error says what is going on: after the first second, then every ten.
class Progress {
public:
    /// How long the user is left without a word.
    struct Intervals {
        std::chrono::milliseconds first{1000};
        std::chrono::milliseconds next{10000};
    };

    /// `total` is the number of steps, 0 when they aren't counted.
    explicit Progress(std::string what, std::size_t total = 0);
    Progress(std::string what, std::size_t total, Intervals intervals);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    /// One step is done.
    void advance() { ++done_; }

private:
    void report();

    const std::string what_;
    const std::size_t total_;
    const Intervals intervals_;
    std::atomic<std::size_t> done_{0};
    std::mutex mutex_;
    std::condition_variable finishing_;
    bool finished_ = false;
    std::thread thread_;
};

}  // namespace softtoken::tool

#endif
