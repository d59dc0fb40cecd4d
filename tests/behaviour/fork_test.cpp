// A host that forks while it uses the module. Linux alone has such hosts.

#if !defined(_WIN32)

#include <atomic>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "module_test.h"

namespace {

using namespace support;

class Fork : public ModuleTest {
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

TEST_F(Fork, theChildIsUninitialised) {
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

TEST_F(Fork, theChildStartsAModuleOfItsOwn) {
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

#if !defined(ZENTAK_SANITIZED)
/// Whatever the parent's threads are doing at that moment. Not with a sanitizer, whose own allocator a thread may have
/// locked then: in the child it stays locked.
TEST_F(Fork, whileOtherThreadsUseTheModule) {
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
