// Many host threads at once, with the monitor running beside them. Meant for ThreadSanitizer above all.

#include "threads_test.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <set>
#include <thread>

#include "run_folder.h"

namespace {

using namespace support;
using std::chrono::milliseconds;

class ThreadsTest : public ModuleTest {
protected:
    /// Runs the work in so many threads, which are numbered, to its end, and meanwhile something else.
    static void inThreads(int count, const std::function<void(std::size_t)>& work,
                          const std::function<void()>& meanwhile = {}) {
        std::vector<std::thread> threads;
        for (int i = 0; i < count; ++i) {
            threads.emplace_back([&work, i] { work(static_cast<std::size_t>(i)); });
        }
        if (meanwhile) meanwhile();
        for (std::thread& thread : threads) thread.join();
    }

    void SetUp() override {
        ModuleTest::SetUp();
        device().change([](scripted::Device& world) {
            world.records = false;
            world.keyPairs["SN1"] = {makeKeyPair(1)};
        });
        setLogLevel(errorLevel);
    }

    /// What one host thread does over and over, in sessions of its own. Another thread may log the user in or out, the
    /// token may vanish and the slot with it, at any moment in between.
    static void useOnce(Answers& answers) {
        const CK_FUNCTION_LIST& api = functions();
        CK_SLOT_ID slots[4];
        CK_ULONG count = 4;
        answers.note("C_GetSlotList", api.C_GetSlotList(CK_TRUE, slots, &count));
        CK_SESSION_HANDLE session = 0;
        if (answers.note("C_OpenSession", api.C_OpenSession(firstSlot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr,
                                                            nullptr, &session)) != CKR_OK) {
            return;
        }
        answers.note("C_Login", api.C_Login(session, CKU_USER, pin("1234"), 4));

        CK_OBJECT_HANDLE found[4];
        answers.note("C_FindObjectsInit", api.C_FindObjectsInit(session, nullptr, 0));
        answers.note("C_FindObjects", api.C_FindObjects(session, found, 4, &count));
        answers.note("C_FindObjectsFinal", api.C_FindObjectsFinal(session));

        unsigned char data[] = {1, 2, 3};
        unsigned char output[1024];
        CK_ULONG length = sizeof output;
        CK_MECHANISM sign = {CKM_SHA256_RSA_PKCS, nullptr, 0};
        if (answers.note("C_SignInit", api.C_SignInit(session, &sign, privateKeyBase + 1)) == CKR_OK) {
            answers.note("C_Sign", api.C_Sign(session, data, sizeof data, output, &length));
        }
        CK_MECHANISM digest = {CKM_SHA256, nullptr, 0};
        if (answers.note("C_DigestInit", api.C_DigestInit(session, &digest)) == CKR_OK) {
            answers.note("C_DigestUpdate", api.C_DigestUpdate(session, data, sizeof data));
            length = sizeof output;
            answers.note("C_DigestFinal", api.C_DigestFinal(session, output, &length));
        }
        answers.note("C_Logout", api.C_Logout(session));
        answers.note("C_CloseSession", api.C_CloseSession(session));
    }
};

TEST_F(ThreadsTest, UseTheModuleWhileDevicesComeAndGo) {
    std::atomic<bool> done = false;
    std::vector<Answers> answers(9);
    std::thread waiter([&] {
        CK_SLOT_ID slot = 0;
        while (answers[8].note("C_WaitForSlotEvent", functions().C_WaitForSlotEvent(0, &slot, nullptr)) == CKR_OK) {
        }
    });
    const auto use = [&](std::size_t i) {
        while (!done) useOnce(answers[i]);
    };
    inThreads(8, use, [&] {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(underThreadSanitizer ? 5 : 2);
        for (bool present = false; std::chrono::steady_clock::now() < end; present = !present) {
            const std::vector<std::string> connected =
                present ? std::vector<std::string>{"SN1"} : std::vector<std::string>{};
            device().change([&](scripted::Device& world) { world.connectedDevices = connected; });
            device().showToMonitor(connected);
            std::this_thread::sleep_for(milliseconds(150));
        }
        done = true;
    });
    EXPECT_EQ(functions().C_Finalize(nullptr), CKR_OK);
    waiter.join();

    Answers all;
    for (const Answers& some : answers) all.add(some);
    expectAllowed(all, {
                           {"C_GetSlotList", {CKR_OK}},
                           {"C_OpenSession", {CKR_OK, CKR_SLOT_ID_INVALID}},
                           {"C_Login", {CKR_OK, CKR_USER_ALREADY_LOGGED_IN}},
                           {"C_FindObjectsInit", {CKR_OK}},
                           {"C_FindObjects", {CKR_OK}},
                           {"C_FindObjectsFinal", {CKR_OK}},
                           {"C_SignInit", {CKR_OK}},
                           {"C_Sign", {CKR_OK}},
                           {"C_DigestInit", {CKR_OK}},
                           {"C_DigestUpdate", {CKR_OK}},
                           {"C_DigestFinal", {CKR_OK}},
                           {"C_Logout", {CKR_OK, CKR_USER_NOT_LOGGED_IN}},
                           {"C_CloseSession", {CKR_OK}},
                           {"C_WaitForSlotEvent", {CKR_OK, CKR_CRYPTOKI_NOT_INITIALIZED}},
                       });
    EXPECT_EQ(all.of("C_WaitForSlotEvent").count(CKR_CRYPTOKI_NOT_INITIALIZED), 1U);
}

/// A call that has had to wait for C_Finalize finds the module as that has left it.
TEST_F(ThreadsTest, WaitForTheEndAndFindTheModuleUninitialised) {
    setLogLevel(debugLevel);
    clear();
    CK_INFO info = filledWith<CK_INFO>(0xA5);
    CK_RV code = CKR_OK;
    std::thread late;
    device().addFault({.operation = "zentak_releaseInstance", .action = [&] {
                           late = std::thread([&] { code = functions().C_GetInfo(&info); });
                           // Until it has said that it is there, and a moment for what it looks at next.
                           for (int i = 0; i < 5000; ++i) {
                               const Lines lines = takeLog();
                               if (std::find(lines.begin(), lines.end(), "DEBUG C_GetInfo") != lines.end()) break;
                               std::this_thread::sleep_for(milliseconds(1));
                           }
                           std::this_thread::sleep_for(milliseconds(50));
                       }});
    EXPECT_EQ(functions().C_Finalize(nullptr), CKR_OK);
    late.join();
    EXPECT_EQ(code, CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(bytesOf(info), Bytes(sizeof info, 0xA5));
    EXPECT_EQ(log(), (Lines{"DEBUG C_Finalize completed successfully.", "ERROR C_GetInfo: not initialized"}));
}

/// Handles are handed out once, states and lines stay whole.
TEST_F(ThreadsTest, OpenManySessions) {
    constexpr int threadCount = 8;
    constexpr int rounds = 40;
    setLogLevel(debugLevel);
    std::vector<std::set<CK_SESSION_HANDLE>> handles(threadCount);
    std::atomic<int> refusals = 0;
    inThreads(threadCount, [&](std::size_t i) {
        const auto expectOk = [&](CK_RV code) { refusals += code == CKR_OK ? 0 : 1; };
        for (int round = 0; round < rounds; ++round) {
            CK_SESSION_HANDLE session = 0;
            expectOk(
                functions().C_OpenSession(firstSlot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session));
            handles[i].insert(session);
            CK_SESSION_INFO info;
            expectOk(functions().C_GetSessionInfo(session, &info));
            const CK_RV loggedIn = functions().C_Login(session, CKU_USER, pin("1234"), 4);
            expectOk(loggedIn == CKR_USER_ALREADY_LOGGED_IN ? CKR_OK : loggedIn);
            CK_ULONG count = 4;
            CK_SLOT_ID slots[4];
            expectOk(functions().C_GetSlotList(CK_TRUE, slots, &count));
            CK_TOKEN_INFO tokenInfo;
            expectOk(functions().C_GetTokenInfo(firstSlot, &tokenInfo));
            const CK_RV loggedOut = functions().C_Logout(session);
            expectOk(loggedOut == CKR_USER_NOT_LOGGED_IN ? CKR_OK : loggedOut);
        }
    });
    EXPECT_EQ(refusals, 0);
    std::set<CK_SESSION_HANDLE> all;
    for (const std::set<CK_SESSION_HANDLE>& some : handles) all.insert(some.begin(), some.end());
    EXPECT_EQ(all.size(), static_cast<std::size_t>(threadCount * rounds));
    EXPECT_EQ(*all.begin(), firstSession);
    EXPECT_EQ(*all.rbegin(), firstSession + all.size() - 1);

    std::size_t opened = 0;
    for (const std::string& line : log()) {  // each of the right shape, or the reader complains
        opened += line == "DEBUG C_OpenSession" ? 1 : 0;
    }
    EXPECT_EQ(opened, all.size());
}

TEST_F(ThreadsTest, StartAndStopTheModule) {
    inThreads(4, [](std::size_t) {
        for (int round = 0; round < 50; ++round) {
            functions().C_Initialize(nullptr);
            CK_ULONG count = 4;
            CK_SLOT_ID slots[4];
            functions().C_GetSlotList(CK_TRUE, slots, &count);
            CK_SESSION_HANDLE session = 0;
            functions().C_OpenSession(firstSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session);
            functions().C_Login(session, CKU_USER, pin("1234"), 4);
            functions().C_Finalize(nullptr);
        }
    });
    functions().C_Initialize(nullptr);
    CK_INFO info;
    EXPECT_EQ(functions().C_GetInfo(&info), CKR_OK);
}

TEST_F(ThreadsTest, AThousandStartsLeaveNothingBehind) {
    const auto startAndStop = [] {
        ASSERT_EQ(functions().C_Initialize(nullptr), CKR_OK);
        CK_ULONG count = 0;
        ASSERT_EQ(functions().C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
        ASSERT_EQ(functions().C_Finalize(nullptr), CKR_OK);
    };
    ASSERT_EQ(functions().C_Finalize(nullptr), CKR_OK);
    startAndStop();
    const auto before = threadsAndFiles();
    for (int i = 0; i < 1000; ++i) startAndStop();
    EXPECT_EQ(threadsAndFiles(), before);
    ASSERT_EQ(functions().C_Initialize(nullptr), CKR_OK);
}

}  // namespace
