// What reaches the disk before what: a change may not be told as done while a power failure could still take it back,
// and never may a file get its name before its content is there. A program of its own, in which flush_recorder.cpp
// stands for the operating system.

#include <algorithm>
#include <functional>

#include "flush_recorder.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "token/token_changes.h"
#include "token_test.h"

namespace softtoken {

namespace {

namespace fs = std::filesystem;

using Lines = std::vector<std::string>;

constexpr const char* scratch = ".zentak-scratch";

Lines joined(const std::vector<Lines>& parts) {
    Lines all;
    for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

#ifdef _WIN32
// Windows flushes a renaming by itself when it is asked to, and folders not at all.
Lines flushed(const std::string& /*folder*/) {
    return {};
}
Lines renamed(const std::string& from, const std::string& to) {
    return {"rename " + from + " " + to + " through"};
}
#else
Lines flushed(const std::string& folder) {
    return {"flush " + folder};
}
Lines renamed(const std::string& from, const std::string& to) {
    return {"rename " + from + " " + to};
}
#endif

/// A new file beside the old one, flushed, takes its name, which is flushed too.
Lines replaced(const std::string& folder, const std::string& name) {
    const std::string file = folder + "/" + name;
    return joined(
        {{"write " + file + ".new", "flush " + file + ".new"}, renamed(file + ".new", file), flushed(folder)});
}

Lines moved(const std::string& from, const std::string& to, const std::string& serialNumber) {
    return joined({renamed(from + "/" + serialNumber, to + "/" + serialNumber), flushed(to), flushed(from)});
}

class FlushTest : public TokenTest {
protected:
    FlushTest() { recordStepsBelow(folder_.path()); }

    [[nodiscard]] std::string plugged() const { return "plugged/" + serialNumber_; }
};

TEST_F(FlushTest, TokenIsMade) {
    // Besides the folders for what is made and for the token in it, all are there.
    const std::string other = createToken(store_, cheapToken());
    const std::string made = std::string(scratch) + "/" + other;
    EXPECT_EQ(takeSteps(), joined({flushed(scratch), replaced(made, "attempts"), replaced(made, "token"),
                                   moved(scratch, "plugged", other)}));
}

TEST_F(FlushTest, StoreIsMade) {
    const TemporaryFolder folder;
    recordStepsBelow(folder.path());
    Store store(folder.path() / "above" / "store");
    createToken(store, cheapToken());
    Lines steps = takeSteps();
    const auto first = std::find_if(steps.begin(), steps.end(), [](const auto& step) { return step[0] == 'w'; });
    steps.erase(first, steps.end());
    const std::string root = "above/store";
    EXPECT_EQ(steps, joined({flushed("."), flushed("above"), flushed(root), flushed(root), flushed(root),
                             flushed(root + "/" + scratch)}));
}

TEST_F(FlushTest, TokenIsChanged) {
    store_.change(serialNumber_, [](TokenData& token) { token.label = "other"; });
    EXPECT_EQ(takeSteps(), replaced(plugged(), "token"));
}

TEST_F(FlushTest, ChangeOfNothingWritesNothing) {
    store_.change(serialNumber_, [](TokenData& /*token*/) {});
    EXPECT_EQ(takeSteps(), Lines());
}

TEST_F(FlushTest, AttemptIsOnTheDiskBeforeThePinIsLookedAt) {
    const Lines counted = {"write " + plugged() + "/attempts", "flush " + plugged() + "/attempts"};
    EXPECT_THROW(store_.checkPin(serialNumber_, Role::user, "000000"), PinFailure);
    EXPECT_EQ(takeSteps(), counted);
    static_cast<void>(store_.checkPin(serialNumber_, Role::user, userPin));
    // What is given back doesn't wait for the disk.
    EXPECT_EQ(takeSteps(), joined({counted, {"write " + plugged() + "/attempts"}}));
    for (int i = 0; i < 4; ++i) EXPECT_THROW(store_.checkPin(serialNumber_, Role::user, "000000"), PinFailure);
    takeSteps();
    static_cast<void>(store_.checkPin(serialNumber_, Role::user, userPin));
    // Unless there was none left, from which nothing else leads back.
    EXPECT_EQ(takeSteps(), joined({counted, counted}));
}

TEST_F(FlushTest, CountersWithAnotherNameAreReplaced) {
    fs::create_hard_link(folder_.path() / plugged() / "attempts", folder_.path() / "other");
    EXPECT_THROW(store_.checkPin(serialNumber_, Role::user, "000000"), PinFailure);
    EXPECT_EQ(takeSteps(), replaced(plugged(), "attempts"));
}

TEST_F(FlushTest, PinIsSet) {
    const OpenedToken opened = store_.open(serialNumber_, Role::user, userPin);
    takeSteps();
    store_.setPin(serialNumber_, Role::user, "654321", opened, true, KeyDerivation::scrypt(1));
    EXPECT_EQ(takeSteps(), replaced(plugged(), "token"));
}

TEST_F(FlushTest, TokenIsPulledOutAndPutIn) {
    store_.unplug(serialNumber_);
    EXPECT_EQ(takeSteps(), moved("plugged", "unplugged", serialNumber_));
    store_.plug(serialNumber_);
    EXPECT_EQ(takeSteps(), moved("unplugged", "plugged", serialNumber_));
}

TEST_F(FlushTest, TokenIsRemoved) {
    store_.remove(serialNumber_);
    EXPECT_EQ(takeSteps(), moved("plugged", scratch, serialNumber_));
}

#ifndef _WIN32

/// The disk fails at the very last step: what was written is there, and the error says so.
TEST_F(FlushTest, FolderThatCannotBeFlushed) {
    const std::string inForce = "; the change is in force, but a power failure may still take it back";
    const auto expectFailureAt = [&](const fs::path& folder, const std::function<void()>& change) {
        failFlushOf(fs::canonical(folder).string());
        expectFailure(Error::storeFailed,
                      "cannot flush the folder " + folder.string() + ": Input/output error" + inForce, change);
        failFlushOf("");
    };
    expectFailureAt(folder_.path() / plugged(),
                    [&] { store_.change(serialNumber_, [](TokenData& token) { token.label = "other"; }); });
    EXPECT_EQ(store_.load(serialNumber_).label, "other");
    expectFailureAt(folder_.path() / "unplugged", [&] { store_.unplug(serialNumber_); });
    EXPECT_EQ(store_.unplugged(), Lines{serialNumber_});
    expectFailureAt(folder_.path() / "unplugged", [&] { store_.plug(serialNumber_); });
    EXPECT_EQ(store_.plugged(), Lines{serialNumber_});
}

/// Where it fails before, nothing has changed.
TEST_F(FlushTest, FileThatCannotBeFlushed) {
    const std::string fresh = fs::canonical(folder_.path() / plugged()).string() + "/token.new";
    failFlushOf(fresh);
    EXPECT_THROW(store_.change(serialNumber_, [](TokenData& token) { token.label = "other"; }), Failure);
    failFlushOf((fs::canonical(folder_.path() / plugged()) / "attempts").string());
    EXPECT_EQ(validate("000000"), number(Error::storeFailed));
    failFlushOf("");
    EXPECT_EQ(store_.load(serialNumber_).label, "Test token");
    EXPECT_FALSE(fs::exists(fresh));
    EXPECT_EQ(attemptsLeft(), 5);
}

#endif

}  // namespace

}  // namespace softtoken
