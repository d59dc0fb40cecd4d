#include "tool/progress.h"

#include <iostream>

namespace softtoken::tool {

Progress::Progress(std::string what, std::size_t total) : Progress(std::move(what), total, Intervals{}) {}

Progress::Progress(std::string what, std::size_t total, Intervals intervals)
    : what_(std::move(what)), total_(total), intervals_(intervals), thread_([this] { report(); }) {}

Progress::~Progress() {
    {
        const std::lock_guard lock(mutex_);
        finished_ = true;
    }
    finishing_.notify_one();
    thread_.join();
}

void Progress::report() {
    std::unique_lock lock(mutex_);
    std::chrono::milliseconds wait = intervals_.first;
    while (!finishing_.wait_for(lock, wait, [this] { return finished_; })) {
        std::string line = "zentak-token: " + what_;
        if (total_ != 0) {
            line += ", " + std::to_string(done_) + " of " + std::to_string(total_);
        }
        std::cerr << line + " ...\n" << std::flush;
        wait = intervals_.next;
    }
}

}  // namespace softtoken::tool
