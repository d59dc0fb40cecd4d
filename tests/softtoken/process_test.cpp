// Several processes at one store: killed in the midst of a change, changing a token together, guessing PINs together.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <thread>

#include "other_process.h"
#include "store_changer.h"
#include "token_test.h"

namespace softtoken {

namespace {

namespace fs = std::filesystem;

class KilledProcessTest : public testing::Test {
protected:
    // Starting a process takes long on Windows and with a sanitizer, so that each one gets time for many changes there.
#if defined(_WIN32) || defined(ZENTAK_SANITIZED)
    static constexpr int kills = 40;
    static constexpr int longestLife = 100'000;
#else
    static constexpr int kills = 500;
    static constexpr int longestLife = 2'000;
#endif

    KilledProcessTest() : store_(folder_.path()) {
        NewToken settings;
        settings.label = "state 0";
        settings.userPin = firstPin;
        settings.derivation = KeyDerivation::scrypt(1);
        serialNumber_ = createToken(store_, settings);
        tokenKey_ = store_.checkPin(serialNumber_, Role::user, firstPin);
        store_.change(serialNumber_, [&](TokenData& token) {
            addKeyPair(token, tokenKey_, testKey(5).get(), {"key", {}, usageSign});
        });
    }

    /// The number of the last change that the process reported as done, or nothing before the first.
    [[nodiscard]] std::optional<std::uint32_t> lastReport() const {
        std::istringstream report(fileContent(reportFile()));
        std::optional<std::uint32_t> last;
        for (std::string line; std::getline(report, line) && !report.eof();) {
            last = static_cast<std::uint32_t>(std::stoul(line));
        }
        return last;
    }
    [[nodiscard]] fs::path reportFile() const {
        return folder_.path() / "report";
    }

    /// Lets the process live for a random while after its first change, then kills it.
    void runAndKill() {
        fs::remove(reportFile());
        OtherProcess process("store_changer",
                             {folder_.path().string(), serialNumber_, "endless", reportFile().string()});
        const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!lastReport()) ASSERT_LT(std::chrono::steady_clock::now(), patience) << "no change was done";
        const int life = std::uniform_int_distribution<int>(0, longestLife)(random_);
        std::this_thread::sleep_for(std::chrono::microseconds(life));
        process.kill();
    }

    /// Answers the number of the state that was found.
    std::uint32_t expectCompleteToken() {
        EXPECT_EQ(store_.plugged().size() + store_.unplugged().size(), 1U);
        const TokenData token = store_.load(serialNumber_);
        const std::uint32_t state = token.lastCertificateNumber;
        TokenData expected = token;
        setState(expected, state);
        EXPECT_EQ(token, expected);
        // What was reported as done stays; the change after it may be done or not.
        const std::uint32_t reported = *lastReport();
        EXPECT_TRUE(state == reported || state == reported % largestObjectNumber + 1) << state << ", " << reported;
        // The PIN is the old or the new one, and opens the same token key.
        const auto withFirst = openPinSection(token, Role::user, derivePinKey(token.user, firstPin));
        const auto withSecond = openPinSection(token, Role::user, derivePinKey(token.user, secondPin));
        EXPECT_NE(withFirst.has_value(), withSecond.has_value());
        EXPECT_EQ(withFirst ? *withFirst : *withSecond, tokenKey_);
        EXPECT_TRUE(openPrivateKey(token, token.keyPairs.at(0), tokenKey_));
        // At most the one attempt is lost that was being made, and the right PIN gives it back.
        EXPECT_GE(store_.loadAttempts(serialNumber_).user, 4);
        const OpenedToken opened = store_.open(serialNumber_, Role::user, withFirst ? firstPin : secondPin);
        EXPECT_EQ(store_.loadAttempts(serialNumber_).user, 5);
        if (!withFirst) store_.setPin(serialNumber_, Role::user, firstPin, opened, true, KeyDerivation::scrypt(1));
        store_.plug(serialNumber_);
        return state;
    }

    TemporaryFolder folder_;
    Store store_;
    std::string serialNumber_;
    SecretBytes tokenKey_;
    std::mt19937 random_{20};
};

TEST_F(KilledProcessTest, LeavesTheOldOrTheNewToken) {
    std::uint32_t before = 0;
    std::uint32_t changes = 0;
    // On a busy machine a process does less before it is killed, and more of them are needed.
    for (int i = 0; (i < kills || changes < 500) && i < 10 * kills && !HasFailure(); ++i) {
        runAndKill();
        ASSERT_FALSE(HasFatalFailure());
        const std::uint32_t state = expectCompleteToken();
        changes += (state + largestObjectNumber - before) % largestObjectNumber;
        before = state;
    }
    EXPECT_GE(changes, 500U);
}

class TogetherTest : public TokenTest {
protected:
    std::unique_ptr<OtherProcess> start(const std::string& task, const std::string& name, int count) {
        const std::vector<std::string> arguments = {folder_.path().string(), serialNumber_, task, name,
                                                    std::to_string(count)};
        return std::make_unique<OtherProcess>("store_changer", arguments);
    }
};

TEST_F(TogetherTest, NoChangeIsLost) {
    const auto first = start("add", "first", 40);
    const auto second = start("add", "second", 40);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(generateP256(), 0);
        EXPECT_LE(zentak_getCertificateList(device(), instance_).size(), 80U);
    }
    EXPECT_EQ(first->wait(), 0);
    EXPECT_EQ(second->wait(), 0);
    const auto& certificates = zentak_getCertificateList(device(), instance_);
    ASSERT_EQ(certificates.size(), 80U);
    const auto labelled = [&](const std::string& label) {
        return std::count_if(certificates.begin(), certificates.end(),
                             [&](const ZentakCertificate& record) { return record.label == label; });
    };
    EXPECT_EQ(labelled("first"), 40);
    EXPECT_EQ(labelled("second"), 40);
    EXPECT_EQ(keyPairs().size(), 10U);
}

/// Processes that bring PINs at once. Starting one takes long on Windows and with a sanitizer.
class LoginsTogetherTest : public TogetherTest {
protected:
#if defined(_WIN32) || defined(ZENTAK_SANITIZED)
    static constexpr int processes = 5;
#else
    static constexpr int processes = 20;
#endif

    void makeToken(int attempts) {
        NewToken settings = cheapToken();
        settings.attempts = attempts;
        serialNumber_ = createToken(store_, settings);
    }
    void startAll(const std::string& task, const std::string& pin, int count) {
        for (int i = 0; i < processes; ++i) started_.push_back(start(task, pin, count));
    }
    /// The exit codes, in ascending order.
    std::vector<int> waitForAll() {
        std::vector<int> codes;
        for (const auto& process : started_) codes.push_back(process->wait());
        started_.clear();
        std::sort(codes.begin(), codes.end());
        return codes;
    }

private:
    std::vector<std::unique_ptr<OtherProcess>> started_;
};

TEST_F(LoginsTogetherTest, EveryGuessIsCounted) {
    makeToken(1000);
    startAll("guess", "wrong", 10);
    EXPECT_EQ(waitForAll(), std::vector<int>(processes, 10));
    EXPECT_EQ(attemptsLeft(), 1000 - 10 * processes);
}

TEST_F(LoginsTogetherTest, NoMoreGuessesAreLookedAtThanAttemptsAreLeft) {
    makeToken(7);
    startAll("guess", "wrong", 4);
    int lookedAt = 0;
    for (const int code : waitForAll()) lookedAt += code;
    EXPECT_EQ(lookedAt, 7);
    EXPECT_EQ(attemptsLeft(), 0);
    EXPECT_EQ(validate(userPin), number(Error::pinLocked));
}

/// Each of them takes the last attempt off for a moment.
TEST_F(LoginsTogetherTest, RightPinsAreNotRefusedAtTheLastAttempt) {
    makeToken(1);
    startAll("login", userPin, 10);
    EXPECT_EQ(waitForAll(), std::vector<int>(processes, 0));
    EXPECT_EQ(attemptsLeft(), 1);
}

TEST_F(LoginsTogetherTest, RightPinsAreNotRefusedAmongWrongOnes) {
    makeToken(1000);
    startAll("guess", "wrong", 5);
    startAll("login", userPin, 5);
    std::vector<int> expected(processes, 0);
    expected.insert(expected.end(), processes, 5);
    EXPECT_EQ(waitForAll(), expected);
    EXPECT_EQ(validate(userPin), 0);
    EXPECT_EQ(attemptsLeft(), 1000);
}

/// Counting excludes whatever else changes the store, and other processes that count.
TEST_F(TogetherTest, PinIsCountedAndLookedAtUnderTheLockOnly) {
    std::optional<FileLock> lock(folder_.path() / "lock");
    std::atomic<bool> over = false;
    std::thread guessing([&] {
        EXPECT_THROW(store_.checkPin(serialNumber_, Role::user, "000000"), PinFailure);
        over = true;
    });
    for (int i = 0; i < 50; ++i) {
        EXPECT_FALSE(over);
        EXPECT_EQ(store_.loadAttempts(serialNumber_).user, 5);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    lock.reset();
    guessing.join();
    EXPECT_EQ(store_.loadAttempts(serialNumber_).user, 4);
}

/// While the key for the old PIN section is derived, the PIN is changed: the new section decides.
TEST_F(TogetherTest, PinChangedDuringItsCheckIsLookedAtAnew) {
    const std::string before = fileContent(tokenFile());
    const OpenedToken opened = store_.open(serialNumber_, Role::user, userPin);
    store_.setPin(serialNumber_, Role::user, "654321", opened, true, KeyDerivation::scrypt(1));
    const std::string after = fileContent(tokenFile());
    for (const bool right : {true, false}) {
        writeFile(tokenFile(), before);
        std::optional<FileLock> lock(folder_.path() / "lock");
        std::thread checking([&] {
            if (right) {
                EXPECT_NO_THROW(EXPECT_EQ(store_.checkPin(serialNumber_, Role::user, "654321"), opened.key));
            } else {
                EXPECT_THROW(store_.checkPin(serialNumber_, Role::user, userPin), PinFailure);
            }
        });
        // It waits for the lock by then.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        writeFile(tokenFile(), after);
        lock.reset();
        checking.join();
        EXPECT_EQ(store_.loadAttempts(serialNumber_).user, right ? 5 : 4);
    }
}

/// A key that is sealed under a token key of before would be lost.
TEST_F(TogetherTest, KeyIsNotAddedUnderAnOutdatedTokenKey) {
    const std::string before = fileContent(tokenFile());
    const OpenedToken opened = store_.open(serialNumber_, Role::user, userPin);
    store_.renewTokenKey(serialNumber_, Role::user, userPin, opened, officerPin, KeyDerivation::scrypt(1));
    const std::string after = fileContent(tokenFile());
    writeFile(tokenFile(), before);
    ASSERT_EQ(validate(userPin), 0);
    std::optional<FileLock> lock(folder_.path() / "lock");
    int result = 0;
    std::thread generating([&] { result = generateP256(); });
    // It has the token key, from memory, and waits for the lock by then.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    writeFile(tokenFile(), after);
    lock.reset();
    generating.join();
    EXPECT_EQ(result, number(Error::storeFailed));
    EXPECT_EQ(fileContent(tokenFile()), after);
}

}  // namespace

}  // namespace softtoken
