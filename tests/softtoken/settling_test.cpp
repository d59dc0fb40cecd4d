// A token that is changed twice so quickly that its file's time doesn't tell.

#include <chrono>
#include <functional>

#include "platform/files.h"
#include "token_test.h"

namespace softtoken {

namespace {

namespace fs = std::filesystem;

using Time = fs::file_time_type;
using std::chrono::milliseconds;

class SettlingTest : public TokenTest {
protected:
    [[nodiscard]] std::string label() { return zentak_getTokenInfo(device(), instance_).label; }

    /// Changes the token's file within itself, and gives it this time.
    void writeLabel(const std::string& text, Time time) {
        TokenData token = store_.load(serialNumber_);
        token.label = text;
        writeFile(tokenFile(), writeTokenData(token));
        fs::last_write_time(tokenFile(), time);
    }

    /// Reads the file's state `first` not later than `limit` after the time it has, and answers what is read when it
    /// changes without another time.
    std::string readAgainAfter(milliseconds limit, const std::function<Time()>& now) {
        for (int left = 100;; --left) {
            const Time time = now();
            writeLabel("first", time);
            EXPECT_EQ(label(), "first");
            // On a busy machine the look may have come too late.
            if (Time::clock::now() - time < limit) {
                writeLabel("other", time);
                return label();
            }
            if (left == 0) {
                ADD_FAILURE() << "the machine is too busy";
                return "";
            }
        }
    }
};

TEST_F(SettlingTest, ChangeWithinTheResolutionOfTheClockIsSeen) {
    EXPECT_EQ(readAgainAfter(milliseconds(90), [] { return Time::clock::now(); }), "other");
}

/// As file systems have it whose times are whole seconds, and FAT, where they are even ones.
TEST_F(SettlingTest, ChangeWithinWholeSecondsIsSeen) {
    EXPECT_EQ(readAgainAfter(milliseconds(2050),
                             [] { return std::chrono::time_point_cast<std::chrono::seconds>(Time::clock::now()); }),
              "other");
    EXPECT_EQ(readAgainAfter(milliseconds(2050),
                             [] {
                                 const auto now = std::chrono::floor<std::chrono::seconds>(Time::clock::now());
                                 return Time(now - std::chrono::seconds(1));
                             }),
              "other");
}

/// What hasn't changed for a while isn't opened for every signature.
TEST_F(SettlingTest, SettledFileIsKnownByItsTime) {
    const Time time = Time::clock::now() - std::chrono::seconds(10);
    writeLabel("first", time);
    EXPECT_EQ(label(), "first");
    writeLabel("other", time);
    EXPECT_EQ(label(), "first");
    writeLabel("other", time + std::chrono::seconds(1));
    EXPECT_EQ(label(), "other");
}

}  // namespace

}  // namespace softtoken
