// Many threads, several instances, and another process's changes at the same time.

#include <atomic>
#include <functional>
#include <thread>

#include "test_certificates.h"
#include "token_test.h"

namespace softtoken {

namespace {

class SharingTest : public TokenTest {
protected:
    /// Runs the work in so many threads, which are numbered, beside what the test itself does meanwhile.
    static void inThreads(int count, const std::function<void(int)>& work,
                          const std::function<void()>& meanwhile = {}) {
        std::vector<std::jthread> threads;
        for (int i = 0; i < count; ++i) threads.emplace_back([&work, i] { work(i); });
        if (meanwhile) meanwhile();
    }
};

TEST_F(SharingTest, ThreadsSignWhileTheTokenChanges) {
    const KeyPairEntry key = addKey(5);
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    const auto use = [&](int i) {
        while (!stop) {
            unsigned char hash[32] = {};
            unsigned char signature[64];
            int length = sizeof signature;
            if (i > 0) {
                if (zentak_signHash(device(), key.keyId.data(), userPin, hash, 32, signature, &length, false, instance_,
                                    false) != 0 ||
                    zentak_verifySignatureHash(5, device(), hash, 32, key.publicKey.data(), 65, signature, length,
                                               instance_, false) != 0) {
                    ++wrong;
                }
                continue;
            }
            for (const ZentakKeyPair& record : keyPairs()) {
                if (record.keyType != 5) ++wrong;
            }
            if (zentak_getConnectedDeviceList(false, instance_).size() != 1) ++wrong;
        }
    };
    inThreads(5, use, [&] {
        for (int i = 0; i < 30; ++i) {
            const std::string label = "label " + std::to_string(i);
            EXPECT_EQ(
                zentak_updateKeyPairDetails(device(), key.keyId.data(), userPin, label.c_str(), nullptr, 0, instance_),
                0);
        }
        stop = true;
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_STREQ(zentak_getKeyPairList(device(), instance_)[0].alias, "label 29");
}

TEST_F(SharingTest, ManyThreadsMayBringTheRightPinAtOnce) {
    std::atomic<int> accepted{0};
    inThreads(12, [&](int i) {
        void* own = instance_;
        if (i % 2 == 1) zentak_createInstance(&own);
        if (zentak_validatePassword(device(), userPin, 1, nullptr, own) == 0) ++accepted;
        if (i % 2 == 1) zentak_releaseInstance(own);
    });
    EXPECT_EQ(accepted, 12);
    EXPECT_EQ(attemptsLeft(), 5);
}

/// The counters are written in place, and told without waiting for those who write.
TEST_F(SharingTest, CountersAreWholeWhileOthersLogIn) {
    std::atomic<bool> done{false};
    const std::jthread other([&] {
        for (int i = 0; i < 2000; ++i) store_.resetAttempts(serialNumber_, Role::user, 1 + i % 500);
        done = true;
    });
    while (!done) {
        const Attempts attempts = store_.loadAttempts(serialNumber_);
        ASSERT_TRUE(attempts.user >= 1 && attempts.user <= 500 && attempts.officer == 5) << attempts.user;
    }
}

TEST_F(SharingTest, ParallelGuessesAreAllCounted) {
    std::atomic<int> refused{0};
    inThreads(10, [&](int i) {
        if (validate(("00000" + std::to_string(i)).c_str()) != 0) ++refused;
    });
    EXPECT_EQ(refused, 10);
    EXPECT_EQ(attemptsLeft(), 0);
}

TEST_F(SharingTest, ChangesFromSeveralInstancesAreAllKept) {
    std::atomic<int> failed{0};
    inThreads(4, [&](int) {
        void* own = nullptr;
        zentak_createInstance(&own);
        for (int j = 0; j < 5; ++j) {
            ZentakKeyPair record{};
            record.keyType = 5;
            if (zentak_generateKeyPair(device(), userPin, &record, own) != 0) ++failed;
        }
        zentak_releaseInstance(own);
    });
    EXPECT_EQ(failed, 0);
    const auto& list = keyPairs();
    ASSERT_EQ(list.size(), 20U);
    for (std::size_t i = 0; i < list.size(); ++i) EXPECT_EQ(list[i].id, i + 1);
}

TEST_F(SharingTest, TokensComeAndGoWhileThreadsUseThem) {
    const KeyPairEntry key = addKey(5);
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    const auto use = [&](int) {
        while (!stop) {
            const int result = signWith(key.keyId);
            if (result != 0 && result != 48) ++wrong;
            const TokenInfo info = zentak_getTokenInfo(device(), instance_);
            if (!info.serialNumber.empty() && info.label != "Test token") ++wrong;
        }
    };
    inThreads(3, use, [&] {
        for (int i = 0; i < 20; ++i) {
            store_.unplug(serialNumber_);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            store_.plug(serialNumber_);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        stop = true;
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(attemptsLeft(), 5);
}

}  // namespace

}  // namespace softtoken
