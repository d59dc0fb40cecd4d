// The first derived secrets of a process: prints what reading their handles answers before, the handles that two
// derivations in two sessions get, and what reading answers after.

#include <iostream>

#include "module.h"
#include "records.h"

namespace {

using namespace support;

constexpr CK_OBJECT_HANDLE first = 0x70003000UL;

CK_RV read(const CK_FUNCTION_LIST& functions, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) {
    CK_ATTRIBUTE value = {CKA_VALUE, nullptr, 0};
    return functions.C_GetAttributeValue(session, object, &value, 1);
}

CK_OBJECT_HANDLE derive(const CK_FUNCTION_LIST& functions, CK_SESSION_HANDLE session) {
    CK_BYTE point[] = {4, 1, 2};
    CK_ECDH1_DERIVE_PARAMS parameters = {CKD_NULL, 0, nullptr, sizeof point, point};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
    CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
    functions.C_DeriveKey(session, &mechanism, 0x70000001UL, nullptr, 0, &handle);
    return handle;
}

}  // namespace

int main() {
    scripted::Device& world = scripted::device();
    const TokenInfo token = makeTokenInfo("SN1");
    world.connectedDevices = {token.serialNumber};
    world.tokenInfo[token.serialNumber] = token;
    world.keyPairs[token.serialNumber] = {makeKeyPair(1)};
    world.sharedSecret = {1, 2, 3};

    const CK_FUNCTION_LIST& api = functions();
    CK_SLOT_ID slot = 0;
    CK_ULONG count = 1;
    CK_SESSION_HANDLE sessions[2] = {};
    api.C_Initialize(nullptr);
    api.C_GetSlotList(CK_TRUE, &slot, &count);
    for (CK_SESSION_HANDLE& session : sessions) {
        api.C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session);
    }
    std::cout << std::hex << std::uppercase << read(api, sessions[0], first) << ' ';
    for (const CK_SESSION_HANDLE session : sessions) std::cout << derive(api, session) << ' ';
    std::cout << read(api, sessions[1], first) << ' ' << read(api, sessions[1], first + 1) << ' '
              << read(api, sessions[1], first + 2);
    api.C_Finalize(nullptr);
    return 0;
}
