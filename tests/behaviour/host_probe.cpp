// Hosts that don't behave: they end or unload the module without C_Finalize while a session is open and a user logged
// in, load it again and again, twice at once or from odd places. The way is the argument; the exit code is 0 when all
// went well.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>

#include "module.h"
#include "records.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace {

/// A second start finds the user logged in still, when the unloading left the module where it was.
bool logIn(const CK_FUNCTION_LIST& functions, CK_SESSION_HANDLE session) {
    unsigned char pin[] = {'1', '2', '3', '4'};
    const CK_RV result = functions.C_Login(session, CKU_USER, pin, sizeof pin);
    return result == CKR_OK || result == CKR_USER_ALREADY_LOGGED_IN;
}

bool startUsing(void* module) {
    const CK_FUNCTION_LIST& functions = support::functionsOf(module);
    CK_SLOT_ID slot = 0;
    CK_ULONG count = 1;
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    const CK_RV initialized = functions.C_Initialize(nullptr);
    return (initialized == CKR_OK || initialized == CKR_CRYPTOKI_ALREADY_INITIALIZED) &&
           functions.C_GetSlotList(CK_TRUE, &slot, &count) == CKR_OK && count == 1 &&
           functions.C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session) == CKR_OK &&
           logIn(functions, session);
}

int outcome(bool good, const char* complaint) {
    if (!good) std::cout << complaint << '\n';
    return good ? 0 : 1;
}

/// Leaves a thread behind that waits for a slot event which never comes.
void leaveWaiter(const CK_FUNCTION_LIST& functions) {
    std::thread([&functions] {
        CK_SLOT_ID slot = 0;
        while (functions.C_WaitForSlotEvent(0, &slot, nullptr) == CKR_OK) {
        }
    }).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

int loadAHundredTimes(void* module) {
    for (int i = 0; i < 100; ++i) {
        support::unloadModule(module);
        module = support::loadModule();
        if (!startUsing(module)) return outcome(false, "the module can't be used again");
    }
    return 0;
}

/// A copy of the module in a folder of that name, loaded.
void* loadCopy(const std::filesystem::path& folderName) {
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / folderName;
    std::filesystem::create_directories(folder);
    const std::filesystem::path copy = folder / support::moduleFile().filename();
    std::filesystem::copy_file(support::moduleFile(), copy, std::filesystem::copy_options::overwrite_existing);
    return support::loadModule(copy);
}

/// Two copies of the module know nothing of each other.
int useTwoCopies(void* module) {
    void* const other = loadCopy("copy");
    const CK_FUNCTION_LIST& functions = support::functionsOf(module);
    CK_INFO info;
    if (other == module) return outcome(false, "the copy is the same");
    if (support::functionsOf(other).C_GetInfo(&info) != CKR_CRYPTOKI_NOT_INITIALIZED) {
        return outcome(false, "the copy is initialised");
    }
    if (!startUsing(other)) return outcome(false, "the copy can't be used");
    if (functions.C_Finalize(nullptr) != CKR_OK) return outcome(false, "the first can't be stopped");
    return outcome(support::functionsOf(other).C_GetInfo(&info) == CKR_OK, "the first has stopped the copy");
}

/// A host without a console has no standard streams.
void closeStreams() {
#if defined(_WIN32)
    FreeConsole();
    for (const DWORD stream : {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE}) {
        CloseHandle(GetStdHandle(stream));
        SetStdHandle(stream, nullptr);
    }
#else
    for (int stream = 0; stream < 3; ++stream) close(stream);
#endif
}

int run(const std::string& way) {
    if (way == "no-streams") closeStreams();
    if (way == "other-folder") std::filesystem::current_path(std::filesystem::temp_directory_path());
    if (way == "odd-path") {
        return outcome(startUsing(loadCopy(std::filesystem::path(u8"Schl\u00fcssel und \u9375"))),
                       "can't be used there");
    }
    void* const module = support::loadModule();
    if (!startUsing(module)) return outcome(false, "the module can't be used");
    if (way == "exit") std::exit(0);
    if (way == "waiting-return" || way == "waiting-exit") leaveWaiter(support::functionsOf(module));
    if (way == "waiting-exit") std::exit(0);
    if (way == "hundred-loads") return loadAHundredTimes(module);
    if (way == "two-copies") return useTwoCopies(module);
    if (way == "unload" || way == "reload") support::unloadModule(module);
    if (way == "reload") {
        void* const again = support::loadModule();
        if (!startUsing(again)) return outcome(false, "the module can't be used a second time");
        support::unloadModule(again);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const TokenInfo token = support::makeTokenInfo("SN1");
    scripted::device().connectedDevices = {token.serialNumber};
    scripted::device().tokenInfo[token.serialNumber] = token;
    return run(argc > 1 ? argv[1] : "");
}
