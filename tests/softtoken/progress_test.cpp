// The word to the user about long work. Its own intervals are seconds; here they are shorter.

#include "tool/progress.h"

#include <chrono>
#include <gtest/gtest.h>
#include <iostream>
#include <sstream>
#include <thread>
#include <vector>

namespace softtoken::tool {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

/// Notes what is written on the standard error, and when.
class Recorder : public std::streambuf {
public:
    Recorder() : before_(std::cerr.rdbuf(this)) {}
    ~Recorder() override { std::cerr.rdbuf(before_); }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    [[nodiscard]] std::string text() const {
        const std::scoped_lock lock(mutex_);
        return text_;
    }
    [[nodiscard]] std::vector<Clock::time_point> times() const {
        const std::scoped_lock lock(mutex_);
        return times_;
    }
    /// Waits for so many lines.
    [[nodiscard]] bool waitFor(std::size_t lines) const {
        for (int i = 0; i < 10'000 && times().size() < lines; ++i) std::this_thread::sleep_for(milliseconds(1));
        return times().size() >= lines;
    }

private:
    int overflow(int character) override {
        const std::scoped_lock lock(mutex_);
        text_ += static_cast<char>(character);
        if (character == '\n') times_.push_back(Clock::now());
        return character;
    }

    std::streambuf* before_;
    mutable std::mutex mutex_;
    std::string text_;
    std::vector<Clock::time_point> times_;
};

}  // namespace

TEST(ProgressTest, SpeaksAfterTheFirstIntervalAndThenAfterEachOfTheNext) {
    const Recorder recorder;
    const Clock::time_point begin = Clock::now();
    {
        const Progress progress("making the token", 0, {milliseconds(50), milliseconds(200)});
        ASSERT_TRUE(recorder.waitFor(3));
    }
    const std::string line = "zentak-token: making the token ...\n";
    EXPECT_EQ(recorder.text().substr(0, 3 * line.size()), line + line + line);
    const std::vector<Clock::time_point> times = recorder.times();
    EXPECT_GE(times[0] - begin, milliseconds(50));
    EXPECT_GE(times[1] - times[0], milliseconds(190));
    EXPECT_GE(times[2] - begin, milliseconds(450));
    EXPECT_LT(times[2] - begin, seconds(5));
}

TEST(ProgressTest, CountsTheStepsThatAreDone) {
    const Recorder recorder;
    {
        Progress progress("importing", 3, {milliseconds(20), seconds(100)});
        progress.advance();
        progress.advance();
        ASSERT_TRUE(recorder.waitFor(1));
    }
    EXPECT_EQ(recorder.text(), "zentak-token: importing, 2 of 3 ...\n");
}

TEST(ProgressTest, SaysNothingAboutQuickWorkAndEndsAtOnce) {
    const Recorder recorder;
    const Clock::time_point begin = Clock::now();
    { const Progress progress("changing the PIN", 0, {seconds(100), seconds(100)}); }
    EXPECT_EQ(recorder.text(), "");
    EXPECT_LT(Clock::now() - begin, seconds(5));
}

/// What users get.
TEST(ProgressTest, FirstWordComesAfterASecondAndTheNextAfterTen) {
    const Progress::Intervals intervals;
    EXPECT_EQ(intervals.first, seconds(1));
    EXPECT_EQ(intervals.next, seconds(10));
}

}  // namespace softtoken::tool
