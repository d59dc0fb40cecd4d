// Slots, sessions and logins.

#include "operations.h"

namespace bench {

namespace {

/// An operation that needs nothing prepared: one or two calls. The other result that is as good counts, too.
Operation calls(const char* name, Kind kind, CK_RV (*function)(const Subjects& subjects), CK_RV asGood = CKR_OK) {
    return {name, kind, [=](const Subjects& subjects) -> Work {
                return [=, &subjects] {
                    const CK_RV result = function(subjects);
                    if (result != asGood) require(result, name);
                };
            }};
}

/// An operation with the PIN.
Operation callsWithPin(const char* name, Kind kind,
                       CK_RV (*function)(const Subjects& subjects, CK_BYTE_PTR pin, CK_ULONG length)) {
    return {name, kind, [=](const Subjects& subjects) -> Work {
                return [=, &subjects, pin = std::string(userPin)]() mutable {
                    auto* const text = reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data());
                    require(function(subjects, text, static_cast<CK_ULONG>(pin.size())), name);
                };
            }};
}

CK_RV openAndCloseSession(const Subjects& subjects) {
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    require(p11().C_OpenSession(subjects.slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session), "C_OpenSession");
    return p11().C_CloseSession(session);
}

CK_RV slotList(const Subjects& /*subjects*/) {
    CK_SLOT_ID slots[16];
    CK_ULONG count = 16;
    return p11().C_GetSlotList(CK_TRUE, slots, &count);
}

CK_RV mechanismList(const Subjects& subjects) {
    CK_MECHANISM_TYPE mechanisms[256];
    CK_ULONG count = 256;
    return p11().C_GetMechanismList(subjects.slot, mechanisms, &count);
}

template <auto function, auto subject, typename Information>
CK_RV information(const Subjects& subjects) {
    Information answer;
    return (p11().*function)(subjects.*subject, &answer);
}

CK_RV libraryInformation(const Subjects& /*subjects*/) {
    CK_INFO information;
    return p11().C_GetInfo(&information);
}

CK_RV functionList(const Subjects& /*subjects*/) {
    CK_FUNCTION_LIST* list = nullptr;
    return p11().C_GetFunctionList(&list);
}

CK_RV mechanismInformation(const Subjects& subjects) {
    CK_MECHANISM_INFO information;
    return p11().C_GetMechanismInfo(subjects.slot, CKM_ECDSA, &information);
}

/// Only the first question finds that something has happened: the token was there.
CK_RV slotEvent(const Subjects& /*subjects*/) {
    CK_SLOT_ID changed = 0;
    return p11().C_WaitForSlotEvent(CKF_DONT_BLOCK, &changed, nullptr);
}

/// Any of those that the module has for completeness only.
CK_RV seedRandom(const Subjects& subjects) {
    return p11().C_SeedRandom(subjects.session, nullptr, 0);
}

CK_RV logoutAndLogin(const Subjects& subjects, CK_BYTE_PTR pin, CK_ULONG length) {
    require(p11().C_Logout(subjects.session), "C_Logout");
    return p11().C_Login(subjects.session, CKU_USER, pin, length);
}

/// The PIN stays the same, which is a change all the same: the next login costs what an ordinary token's does.
CK_RV changePin(const Subjects& subjects, CK_BYTE_PTR pin, CK_ULONG length) {
    return p11().C_SetPIN(subjects.session, pin, length, pin, length);
}

}  // namespace

std::vector<Operation> sessionOperations() {
    return {
        calls("C_OpenSession, C_CloseSession", Kind::other, openAndCloseSession),
        calls("C_GetSlotList", Kind::stored, slotList),
        calls("C_GetTokenInfo", Kind::stored,
              information<&CK_FUNCTION_LIST::C_GetTokenInfo, &Subjects::slot, CK_TOKEN_INFO>),
        calls("C_GetMechanismList", Kind::stored, mechanismList),
        calls("C_GetSessionInfo", Kind::stored,
              information<&CK_FUNCTION_LIST::C_GetSessionInfo, &Subjects::session, CK_SESSION_INFO>),
        calls("C_GetInfo", Kind::stored, libraryInformation),
        calls("C_GetFunctionList", Kind::uncompared, functionList),
        calls("C_GetSlotInfo", Kind::uncompared,
              information<&CK_FUNCTION_LIST::C_GetSlotInfo, &Subjects::slot, CK_SLOT_INFO>),
        calls("C_GetMechanismInfo", Kind::uncompared, mechanismInformation),
        calls("C_WaitForSlotEvent, no event", Kind::uncompared, slotEvent, CKR_NO_EVENT),
        callsWithPin("C_Logout, C_Login", Kind::waiting, logoutAndLogin),
        callsWithPin("C_SetPIN", Kind::filling, changePin),
        calls("C_SeedRandom, not supported", Kind::uncompared, seedRandom, CKR_FUNCTION_NOT_SUPPORTED),
    };
}

}  // namespace bench
