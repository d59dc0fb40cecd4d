#include "progress.h"

#include <chrono>
#include <iostream>

namespace softtoken::tool {

Progress::Progress(std::string what, std::size_t total)
    : what_(std::move(what)), total_(total), thread_([this] { report(); }) {}

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
    std::chrono::seconds wait(1);
    while (!finishing_.wait_for(lock, wait, [this] { return finished_; })) {
        std::string line = "zentak-token: " + what_;
        if (total_ != 0) line += ", " + std::to_string(done_) + " of " + std::to_string(total_);
        std::cerr << line + " ...\n" << std::flush;
        wait = std::chrono::seconds(10);
    }
}

}  // namespace softtoken::tool
