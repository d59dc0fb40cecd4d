// Many threads, several instances, and another process's changes at the same time.

#include <atomic>
#include <thread>

#include "test_certificates.h"
#include "token_test.h"

namespace softtoken {

namespace {

using SharingTest = TokenTest;

TEST_F(SharingTest, ThreadsSignWhileTheTokenChanges) {
    const KeyPairEntry key = addKey(5);
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            while (!stop) {
                unsigned char hash[32] = {};
                unsigned char signature[64];
                int length = sizeof signature;
                if (zentak_signHash(device(), key.keyId.data(), userPin, hash, 32, signature, &length, false, instance_,
                                    false) != 0 ||
                    zentak_verifySignatureHash(5, device(), hash, 32, key.publicKey.data(), 65, signature, length,
                                               instance_, false) != 0) {
                    ++wrong;
                }
            }
        });
    }
    threads.emplace_back([&] {
        while (!stop) {
            for (const ZentakKeyPair& record : zentak_getKeyPairList(device(), instance_)) {
                if (record.keyType != 5) ++wrong;
            }
            if (zentak_getConnectedDeviceList(false, instance_).size() != 1) ++wrong;
        }
    });
    for (int i = 0; i < 30; ++i) {
        const std::string label = "label " + std::to_string(i);
        EXPECT_EQ(
            zentak_updateKeyPairDetails(device(), key.keyId.data(), userPin, label.c_str(), nullptr, 0, instance_), 0);
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_STREQ(zentak_getKeyPairList(device(), instance_)[0].alias, "label 29");
}

TEST_F(SharingTest, ManyThreadsMayBringTheRightPinAtOnce) {
    std::atomic<int> accepted{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 12; ++i) {
        threads.emplace_back([&, i] {
            void* own = instance_;
            if (i % 2 == 1) zentak_createInstance(&own);
            if (zentak_validatePassword(device(), userPin, 1, nullptr, own) == 0) ++accepted;
            if (i % 2 == 1) zentak_releaseInstance(own);
        });
    }
    for (std::thread& thread : threads) thread.join();
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
    std::vector<std::thread> threads;
    std::atomic<int> refused{0};
    for (int i = 0; i < 10; ++i) {
        threads.emplace_back([&, i] {
            const std::string guess = "00000" + std::to_string(i);
            if (zentak_validatePassword(device(), guess.c_str(), 1, nullptr, instance_) != 0) ++refused;
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(refused, 10);
    EXPECT_EQ(attemptsLeft(), 0);
}

TEST_F(SharingTest, ChangesFromSeveralInstancesAreAllKept) {
    std::vector<std::thread> threads;
    std::atomic<int> failed{0};
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            void* own = nullptr;
            zentak_createInstance(&own);
            for (int j = 0; j < 5; ++j) {
                ZentakKeyPair record{};
                record.keyType = 5;
                if (zentak_generateKeyPair(device(), userPin, &record, own) != 0) ++failed;
            }
            zentak_releaseInstance(own);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failed, 0);
    const auto& list = zentak_getKeyPairList(device(), instance_);
    ASSERT_EQ(list.size(), 20U);
    for (std::size_t i = 0; i < list.size(); ++i) EXPECT_EQ(list[i].id, i + 1);
}

TEST_F(SharingTest, TokensComeAndGoWhileThreadsUseThem) {
    const KeyPairEntry key = addKey(5);
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (!stop) {
                const int result = signWith(key.keyId);
                if (result != 0 && result != 48) ++wrong;
                const TokenInfo info = zentak_getTokenInfo(device(), instance_);
                if (!info.serialNumber.empty() && info.label != "Test token") ++wrong;
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        store_.unplug(serialNumber_);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        store_.plug(serialNumber_);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(attemptsLeft(), 5);
}

}  // namespace

}  // namespace softtoken
