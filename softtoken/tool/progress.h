/// A word to the user about work that takes longer than a second.

#ifndef ZENTAK_SOFTTOKEN_TOOL_PROGRESS_H
#define ZENTAK_SOFTTOKEN_TOOL_PROGRESS_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace softtoken::tool {

/// While it lives, a line on the standard error says what is going on: after the first second, then every ten.
class Progress {
public:
    /// `total` is the number of steps, 0 when they aren't counted.
    explicit Progress(std::string what, std::size_t total = 0);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    /// One step is done.
    void advance() { ++done_; }

private:
    void report();

    const std::string what_;
    const std::size_t total_;
    std::atomic<std::size_t> done_{0};
    std::mutex mutex_;
    std::condition_variable finishing_;
    bool finished_ = false;
    std::thread thread_;
};

}  // namespace softtoken::tool

#endif
