// Slots, sessions and logins.

#include "operation_support.h"

namespace bench {

namespace {

Work sessionInformation(const Subjects& subjects) {
    return [&subjects] {
        CK_SESSION_INFO information;
        require(p11().C_GetSessionInfo(subjects.session, &information), "C_GetSessionInfo");
    };
}

Work libraryInformation(const Subjects& /*subjects*/) {
    return [] {
        CK_INFO information;
        require(p11().C_GetInfo(&information), "C_GetInfo");
    };
}

Work slotList(const Subjects& /*subjects*/) {
    return [] {
        CK_SLOT_ID slots[16];
        CK_ULONG count = 16;
        require(p11().C_GetSlotList(CK_TRUE, slots, &count), "C_GetSlotList");
    };
}

Work tokenInformation(const Subjects& subjects) {
    return [slot = slotOf(subjects)] {
        CK_TOKEN_INFO information;
        require(p11().C_GetTokenInfo(slot, &information), "C_GetTokenInfo");
    };
}

Work mechanismList(const Subjects& subjects) {
    return [slot = slotOf(subjects)] {
        CK_MECHANISM_TYPE mechanisms[256];
        CK_ULONG count = 256;
        require(p11().C_GetMechanismList(slot, mechanisms, &count), "C_GetMechanismList");
    };
}

Work slotInformation(const Subjects& subjects) {
    return [slot = slotOf(subjects)] {
        CK_SLOT_INFO information;
        require(p11().C_GetSlotInfo(slot, &information), "C_GetSlotInfo");
    };
}

Work mechanismInformation(const Subjects& subjects) {
    return [slot = slotOf(subjects)] {
        CK_MECHANISM_INFO information;
        require(p11().C_GetMechanismInfo(slot, CKM_ECDSA, &information), "C_GetMechanismInfo");
    };
}

Work functionList(const Subjects& /*subjects*/) {
    return [] {
        CK_FUNCTION_LIST* list = nullptr;
        require(p11().C_GetFunctionList(&list), "C_GetFunctionList");
    };
}

/// Nothing has happened since the first question.
Work slotEvent(const Subjects& /*subjects*/) {
    CK_SLOT_ID slot = 0;
    p11().C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
    return [] {
        CK_SLOT_ID changed = 0;
        const CK_RV result = p11().C_WaitForSlotEvent(CKF_DONT_BLOCK, &changed, nullptr);
        if (result != CKR_NO_EVENT) require(result, "C_WaitForSlotEvent");
    };
}

Work logoutAndLogin(const Subjects& subjects) {
    return [&subjects, pin = std::string(userPin)]() mutable {
        require(p11().C_Logout(subjects.session), "C_Logout");
        require(p11().C_Login(subjects.session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
                              static_cast<CK_ULONG>(pin.size())),
                "C_Login");
    };
}

/// The PIN stays the same, which is a change all the same.
Work changePin(const Subjects& subjects) {
    return [&subjects, pin = std::string(userPin)]() mutable {
        auto* const text = reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data());
        const auto length = static_cast<CK_ULONG>(pin.size());
        require(p11().C_SetPIN(subjects.session, text, length, text, length), "C_SetPIN");
    };
}

/// Any of those that the module has for completeness only.
Work unsupportedFunction(const Subjects& subjects) {
    return [&subjects] {
        const CK_RV result = p11().C_SeedRandom(subjects.session, nullptr, 0);
        if (result != CKR_FUNCTION_NOT_SUPPORTED) require(result, "C_SeedRandom");
    };
}

Work openAndCloseSession(const Subjects& subjects) {
    return [slot = slotOf(subjects)] {
        CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
        require(p11().C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session), "C_OpenSession");
        require(p11().C_CloseSession(session), "C_CloseSession");
    };
}

}  // namespace

std::vector<Operation> sessionOperations() {
    using Kind = Operation::Kind;
    return {
        {"C_OpenSession, C_CloseSession", Kind::other, openAndCloseSession},
        {"C_GetSlotList", Kind::stored, slotList},
        {"C_GetTokenInfo", Kind::stored, tokenInformation},
        {"C_GetMechanismList", Kind::stored, mechanismList},
        {"C_GetSessionInfo", Kind::stored, sessionInformation},
        {"C_GetInfo", Kind::stored, libraryInformation},
        {"C_GetFunctionList", Kind::uncompared, functionList},
        {"C_GetSlotInfo", Kind::uncompared, slotInformation},
        {"C_GetMechanismInfo", Kind::uncompared, mechanismInformation},
        {"C_WaitForSlotEvent, no event", Kind::uncompared, slotEvent},
        {"C_Logout, C_Login", Kind::uncompared, logoutAndLogin},
        {"C_SetPIN", Kind::uncompared, changePin},
        {"C_SeedRandom, not supported", Kind::uncompared, unsupportedFunction},
    };
}

}  // namespace bench
