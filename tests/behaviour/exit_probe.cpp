// A host that ends, or unloads the module, without C_Finalize, while a session is open and a user logged in. The way
// is the argument; the exit code is 0 when all went well.

#include <cstdlib>
#include <iostream>
#include <string>

#include "module.h"
#include "records.h"

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

}  // namespace

int main(int argc, char** argv) {
    const std::string way = argc > 1 ? argv[1] : "";
    const TokenInfo token = support::makeTokenInfo("SN1");
    scripted::device().connectedDevices = {token.serialNumber};
    scripted::device().tokenInfo[token.serialNumber] = token;

    void* const module = support::loadModule();
    if (!startUsing(module)) {
        std::cout << "the module can't be used\n";
        return 1;
    }
    if (way == "return") {
        return 0;
    }
    if (way == "exit") {
        std::exit(0);
    }
    support::unloadModule(module);
    if (way == "unload") {
        return 0;
    }
    if (way == "reload") {
        void* const again = support::loadModule();
        if (!startUsing(again)) {
            std::cout << "the module can't be used a second time\n";
            return 1;
        }
        support::unloadModule(again);
        return 0;
    }
    std::cout << "unknown way: " << way << '\n';
    return 2;
}
