// A host whose threads use the module while other threads of it start and stop the module, tokens come and go and the
// log level changes. Nobody writes such a host on purpose; a browser whose plug-ins each bring their own life cycle is
// one. Meant for ThreadSanitizer above all.

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "restarts_caller.h"
#include "run_folder.h"

namespace {

using namespace support;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

class RestartsTest : public ModuleTest {
protected:
    void plugInTokens() override { plugInTokensForCallers(); }

    /// Starts and stops the module, with pauses of any length up to the given ones in between.
    void cycle(unsigned number, unsigned longestUp, unsigned longestDown, Answers& answers) const {
        std::mt19937 random(number);
        const auto pause = [&](unsigned longest) {
            // Most are short: a start just before or after a stop is the interesting one.
            const unsigned most = random() % 8 == 0 ? longest : longest / 20;
            const auto end = Clock::now() + milliseconds(random() % (most + 1));
            while (!done_ && Clock::now() < end) std::this_thread::sleep_for(milliseconds(1));
        };
        while (!done_) {
            answers.note("C_Initialize", functions().C_Initialize(nullptr));
            pause(longestUp);
            answers.note("C_Finalize", functions().C_Finalize(nullptr));
            pause(longestDown);
        }
    }

    void wait(CK_FLAGS flags, const char* name, Answers& answers) const {
        while (!done_) {
            CK_SLOT_ID slot = 0;
            const CK_RV code = answers.note(name, functions().C_WaitForSlotEvent(flags, &slot, nullptr));
            if (code != CKR_OK) std::this_thread::sleep_for(milliseconds(1));
        }
    }

    /// One more step of what happens around the module.
    static void changeTheWorld(int step) {
        setLogLevel(step % 4);
        const std::vector<std::string> all = {"SN1", "SN2"};
        const std::vector<std::string> connected(all.begin(), all.begin() + std::min(step / 2 % 8, 2));
        device().change([&](scripted::Device& world) {
            world.connectedDevices = connected;
            // Now and then the start succeeds without a device library behind it.
            world.givesInstance = step % 20 != 0;
        });
        device().showToMonitor(connected);
        if (step % 8 != 0) return;
        device().dropFaults();  // those that haven't struck would all strike together
        device().addFault({.operation = step % 16 == 0 ? "poll" : "zentak_signHash", .delay = milliseconds(20)});
    }

    std::atomic<bool> done_ = false;
};

TEST_F(RestartsTest, UnderEightThreadsAndWaiters) {
    device().records = false;
    ASSERT_EQ(functions().C_Finalize(nullptr), CKR_OK);
    const auto before = threadsAndFiles();
    std::vector<Caller> callers;
    for (unsigned i = 0; i < 8; ++i) callers.emplace_back(i);
    std::vector<Answers> others(5);
    std::vector<std::thread> calling;
    std::vector<std::thread> around;
    const auto end = Clock::now() + std::chrono::seconds(underThreadSanitizer ? 10 : 2);
    // Where the machine is slow, until all has happened.
    const auto latest = end + std::chrono::seconds(60);
    for (Caller& caller : callers) {
        calling.emplace_back([&] {
            while (Clock::now() < end || (!caller.hasSeenEverything() && Clock::now() < latest)) caller.useOnce();
        });
    }
    around.emplace_back([&] { cycle(100, 400, 20, others[0]); });
    around.emplace_back([&] { cycle(101, 20, 4000, others[1]); });
    around.emplace_back([&] { wait(0, "C_WaitForSlotEvent", others[2]); });
    around.emplace_back([&] { wait(0, "C_WaitForSlotEvent", others[3]); });
    around.emplace_back([&] { wait(CKF_DONT_BLOCK, "C_WaitForSlotEvent without blocking", others[4]); });
    std::thread surroundings([&] {
        for (int step = 1; !done_; ++step) {
            changeTheWorld(step);
            std::this_thread::sleep_for(milliseconds(15));
        }
    });
    for (std::thread& thread : calling) thread.join();
    done_ = true;
    for (std::thread& thread : around) thread.join();  // each cycle ends with a stop, which frees the waiters
    surroundings.join();

    Answers all;
    for (const Answers& some : others) all.add(some);
    for (const Caller& caller : callers) {
        all.add(caller.answers());
        EXPECT_EQ(caller.complaints(), std::set<std::string>{});
    }
    expectAllowed(all, allowedCodes());
    EXPECT_EQ(device().strangeInstances(), 0);
    EXPECT_FALSE(device().hasInstance());

    // And now it works as ever.
    setLogLevel(debugLevel);
    device().dropFaults();
    device().change([](scripted::Device& world) {
        world.givesInstance = true;
        world.connectedDevices = {"SN1"};
    });
    clear();
    device().records = true;
    ASSERT_EQ(functions().C_Initialize(nullptr), CKR_OK);
    listSlots();
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    EXPECT_EQ(session, firstSession);
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);  // no login is left over
    login(session);
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(functions().C_SignInit(session, &mechanism, privateKeyBase + 1), CKR_OK);
    CK_BYTE data[] = {1};
    Bytes signature(1024);
    auto length = static_cast<CK_ULONG>(signature.size());
    ASSERT_EQ(functions().C_Sign(session, data, sizeof data, signature.data(), &length), CKR_OK);
    signature.resize(length);
    EXPECT_EQ(signature, countingBytes(0x50, 256));
    EXPECT_EQ(functions().C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(functions().C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(threadsAndFiles(), before);
}

}  // namespace
