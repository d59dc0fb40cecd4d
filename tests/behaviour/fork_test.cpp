// A host that forks while it uses the module. Linux alone has such hosts.

#if !defined(_WIN32)

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "module_test.h"

namespace {

using namespace support;

class ForkTest : public ModuleTest {
protected:
    /// Runs `child` in a forked process; its answer is the exit code, 255 for a child that didn't come to it.
    template <typename Child>
    static int exitCodeOf(const Child& child) {
        const pid_t process = fork();
        if (process == 0) {
            alarm(20);  // a child that hangs is a failure, too
            _exit(child());
        }
        int status = 0;
        EXPECT_EQ(waitpid(process, &status, 0), process);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
    }
};

TEST_F(ForkTest, TheChildIsUninitialised) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session);
    EXPECT_EQ(exitCodeOf([&] {
                  CK_INFO info;
                  CK_SESSION_INFO sessionInfo;
                  CK_SLOT_ID slot = 0;
                  if (functions().C_GetInfo(&info) != CKR_CRYPTOKI_NOT_INITIALIZED) return 1;
                  if (functions().C_GetSessionInfo(session, &sessionInfo) != CKR_CRYPTOKI_NOT_INITIALIZED) return 2;
                  if (functions().C_WaitForSlotEvent(0, &slot, nullptr) != CKR_CRYPTOKI_NOT_INITIALIZED) return 3;
                  if (functions().C_Finalize(nullptr) != CKR_CRYPTOKI_NOT_INITIALIZED) return 4;
                  return 0;
              }),
              0);
    EXPECT_EQ(stateOf(session), CKS_RW_USER_FUNCTIONS);
}

TEST_F(ForkTest, TheChildStartsAModuleOfItsOwn) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session);
    EXPECT_EQ(exitCodeOf([] {
                  CK_SLOT_ID slot = 0;
                  CK_ULONG count = 1;
                  CK_SESSION_HANDLE own = 0;
                  CK_SESSION_INFO info;
                  if (functions().C_Initialize(nullptr) != CKR_OK) return 1;
                  if (functions().C_GetSlotList(CK_TRUE, &slot, &count) != CKR_OK) return 2;
                  if (functions().C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &own) != CKR_OK) return 3;
                  if (functions().C_GetSessionInfo(own, &info) != CKR_OK) return 4;
                  // Nobody is logged in here.
                  if (own != firstSession || info.state != CKS_RO_PUBLIC_SESSION) return 5;
                  // Its monitor runs: the token that is there is an event.
                  if (functions().C_WaitForSlotEvent(0, &slot, nullptr) != CKR_OK) return 6;
                  if (functions().C_Finalize(nullptr) != CKR_OK) return 7;
                  return 0;
              }),
              0);
    // The parent knows nothing of it.
    EXPECT_EQ(stateOf(session), CKS_RW_USER_FUNCTIONS);
    EXPECT_TRUE(device().hasInstance());
    CK_ULONG count = 0;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    EXPECT_EQ(calls(), (Lines{"zentak_getConnectedDeviceList(false, instance)"}));
}

/// A fork waits for what other threads have under way in the device library: the child doesn't get half of it.
class ForkBesideACallTest : public ForkTest {
protected:
    /// Lets the next call of the operation take half a second; gives back whether one is in the middle of it.
    static const std::atomic<bool>& slowDown(const std::string& operation) {
        static std::atomic<bool> inside;
        inside = false;
        device().addFault({.operation = operation, .action = [] {
                               inside = true;
                               std::this_thread::sleep_for(std::chrono::milliseconds(500));
                               inside = false;
                           }});
        return inside;
    }

    static void waitFor(const std::atomic<bool>& value) {
        for (int i = 0; i < 20000 && !value; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_TRUE(value);
    }
};

TEST_F(ForkBesideACallTest, WaitsForTheMonitor) {
    const std::atomic<bool>& inside = slowDown("poll");
    waitFor(inside);
    EXPECT_EQ(exitCodeOf([&] { return inside ? 1 : 0; }), 0);
}

TEST_F(ForkBesideACallTest, WaitsForAnotherThread) {
    const CK_SESSION_HANDLE session = openSession();
    const std::atomic<bool>& inside = slowDown("zentak_generateRamdomNumber");
    std::thread caller([session] {
        CK_BYTE random[4];
        functions().C_GenerateRandom(session, random, sizeof random);
    });
    waitFor(inside);
    EXPECT_EQ(exitCodeOf([&] { return inside ? 1 : 0; }), 0);
    caller.join();
}

/// A device library that forks while it is called, to start a helper perhaps. Everything happens in a child of the
/// tests, which can be given up when it hangs.
class ForkInsideTest : public ForkTest {
protected:
    /// The process that the library has forked: 0 there, -1 before.
    static pid_t& forked() {
        static pid_t process = -1;
        return process;
    }

    /// The next call of the operation forks; the child leaves at once or returns from the operation like its parent.
    static void forkIn(const std::string& operation, bool childReturns) {
        device().addFault({.operation = operation, .action = [childReturns] {
                               forked() = fork();
                               if (forked() != 0) return;
                               alarm(20);
                               if (!childReturns) _exit(answersAsUninitialised());
                           }});
    }

    static int answersAsUninitialised() {
        CK_INFO info;
        CK_ULONG count = 0;
        if (functions().C_GetInfo(&info) != CKR_CRYPTOKI_NOT_INITIALIZED) return 11;
        return functions().C_GetSlotList(CK_TRUE, nullptr, &count) == CKR_CRYPTOKI_NOT_INITIALIZED ? 0 : 12;
    }

    /// In the child, after it has returned from the call: it has nothing of its parent's, and can start anew.
    static int beginsAnew() {
        CK_SLOT_INFO slot;
        CK_SESSION_INFO session;
        if (const int answer = answersAsUninitialised(); answer != 0) return answer;
        if (functions().C_Initialize(nullptr) != CKR_OK) return 13;
        if (functions().C_GetSlotInfo(firstSlot, &slot) != CKR_SLOT_ID_INVALID) return 14;
        if (functions().C_GetSessionInfo(firstSession, &session) != CKR_SESSION_HANDLE_INVALID) return 15;
        return functions().C_Finalize(nullptr) == CKR_OK ? 0 : 16;
    }

    /// In the parent: how the forked child has ended, 0 when it was content.
    static int endOfForked() {
        int status = -1;
        if (waitpid(forked(), &status, 0) != forked()) return 255;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 254;
    }

    /// A host's life, in which the operation forks. Says what went wrong, 0 when nothing did.
    static int live(const std::string& operation, bool childReturns) {
        const CK_FUNCTION_LIST& api = functions();
        forkIn(operation, childReturns);
        CK_SLOT_ID slot = 0;
        CK_ULONG count = 1;
        CK_SESSION_HANDLE session = 0;
        CK_SESSION_INFO info;
        const std::function<CK_RV()> steps[] = {
            [&] { return api.C_Initialize(nullptr); },
            [&] { return api.C_GetSlotList(CK_TRUE, &slot, &count); },
            [&] { return api.C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session); },
            [&] { return api.C_Login(session, CKU_USER, pin("1234"), 4); },
            [&] { return api.C_GetSessionInfo(session, &info); },
            [&] { return info.state == CKS_RO_USER_FUNCTIONS ? CKR_OK : CKR_USER_NOT_LOGGED_IN; },
            [&] { return api.C_Finalize(nullptr); },
        };
        for (const auto& step : steps) {
            const CK_RV code = step();
            if (forked() == 0) {
                // Only the instance that C_Initialize has just made is the child's own.
                if (operation == "zentak_createInstance" && api.C_Finalize(nullptr) != CKR_OK) _exit(20);
                _exit(code == CKR_OK ? beginsAnew() : 21);
            }
            if (code != CKR_OK) return 1 + static_cast<int>(&step - steps);
        }
        return forked() > 0 ? endOfForked() : 30;
    }
};

TEST_F(ForkInsideTest, ACall) {
    ASSERT_EQ(functions().C_Finalize(nullptr), CKR_OK);
    for (const char* operation : {"zentak_createInstance", "zentak_getConnectedDeviceList", "zentak_getTokenInfo",
                                  "zentak_validatePassword", "zentak_releaseInstance"}) {
        for (const bool childReturns : {false, true}) {
            EXPECT_EQ(exitCodeOf([&] { return live(operation, childReturns); }), 0)
                << operation << (childReturns ? ", and the child returns" : "");
        }
    }
}

/// While the monitor is in the middle of its look, and will want the lock of the call that forks.
TEST_F(ForkInsideTest, ACallBesideTheMonitorsLook) {
    ASSERT_EQ(functions().C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(exitCodeOf([&] {
                  static std::atomic<bool> looking = false;
                  device().addFault({.operation = "poll", .action = [] {
                                         looking = true;
                                         std::this_thread::sleep_for(std::chrono::milliseconds(300));
                                     }});
                  device().addFault({.operation = "zentak_getTokenInfo", .action = [] {
                                         while (!looking) std::this_thread::sleep_for(std::chrono::milliseconds(1));
                                     }});
                  return live("zentak_getTokenInfo", true);
              }),
              0);
}

TEST_F(ForkInsideTest, TheMonitorsLook) {
    ASSERT_EQ(functions().C_Finalize(nullptr), CKR_OK);
    for (const bool childReturns : {false, true}) {
        EXPECT_EQ(exitCodeOf([&] {
                      // A returning child has only the monitor's thread, and ends with it.
                      static int answer = 40;
                      device().addFault({.operation = "poll", .action = [childReturns] {
                                             forked() = fork();
                                             if (forked() != 0) return;
                                             alarm(20);
                                             answer = answersAsUninitialised();
                                             if (!childReturns) _exit(answer);
                                             std::atexit([] { _exit(answer == 0 ? 41 : answer); });
                                         }});
                      if (functions().C_Initialize(nullptr) != CKR_OK) return 1;
                      // The parent's monitor goes on.
                      if (!device().waitForPolls(2)) return 2;
                      CK_INFO info;
                      if (functions().C_GetInfo(&info) != CKR_OK) return 3;
                      if (endOfForked() != (childReturns ? 41 : 0)) return 4;
                      return functions().C_Finalize(nullptr) == CKR_OK ? 0 : 5;
                  }),
                  0)
            << (childReturns ? "the child returns" : "the child leaves");
    }
}

#if !defined(ZENTAK_SANITIZED)
/// Whatever the parent's threads are doing at that moment. Not with a sanitizer, whose own allocator a thread may have
/// locked then: in the child it stays locked.
TEST_F(ForkTest, WhileOtherThreadsUseTheModule) {
    std::atomic<bool> done = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            while (!done) {
                CK_ULONG count = 0;
                functions().C_GetSlotList(CK_TRUE, nullptr, &count);
                functions().C_GetInfo(nullptr);
            }
        });
    }
    int good = 0;
    for (int i = 0; i < 50; ++i) {
        good += exitCodeOf([] {
                    CK_INFO info;
                    if (functions().C_GetInfo(&info) != CKR_CRYPTOKI_NOT_INITIALIZED) return 1;
                    if (functions().C_Initialize(nullptr) != CKR_OK) return 2;
                    if (functions().C_GetInfo(&info) != CKR_OK) return 3;
                    return functions().C_Finalize(nullptr) == CKR_OK ? 0 : 4;
                }) == 0
                    ? 1
                    : 0;
    }
    EXPECT_EQ(good, 50);
    done = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(functions().C_GetInfo(nullptr), CKR_ARGUMENTS_BAD);
}
#endif

}  // namespace

#endif
