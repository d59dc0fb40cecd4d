/// C_OpenSession, C_CloseSession, C_CloseAllSessions and C_GetSessionInfo.

#include "module/entry_frame.h"
#include "module/slot_table.h"

using namespace zentak;

namespace {

constexpr CK_SESSION_HANDLE firstSessionHandle = 0x60000001;

/// One more than the largest open handle: the table's last key is the only counter.
CK_SESSION_HANDLE nextSessionHandle(const ModuleState& state) {
    return state.sessionTable.empty() ? firstSessionHandle : state.sessionTable.rbegin()->first + 1;
}

/// A user counts as logged in while their PIN is cached. The security officer's login leaves none, so no session opens
/// in the security officer's state.
CK_STATE initialState(const ModuleState& state, CK_FLAGS flags) {
    const bool userLoggedIn = !state.cachedUserPassword.empty();
    if ((flags & CKF_RW_SESSION) != 0) {
        return userLoggedIn ? CKS_RW_USER_FUNCTIONS : CKS_RW_PUBLIC_SESSION;
    }
    return userLoggedIn ? CKS_RO_USER_FUNCTIONS : CKS_RO_PUBLIC_SESSION;
}

}  // namespace

CK_RV C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR /*pApplication*/, CK_NOTIFY /*Notify*/,
                    CK_SESSION_HANDLE_PTR phSession) {
    return entryPoint("C_OpenSession", [&](ModuleState& state) -> CK_RV {
        const TokenInfo* token = findSlot(state.slotTable, slotID);
        if (token == nullptr) {
            return refuse(CKR_SLOT_ID_INVALID, "C_OpenSession: invalid slotID=", slotID);
        }
        if ((flags & CKF_SERIAL_SESSION) == 0) {
            return refuse(CKR_SESSION_PARALLEL_NOT_SUPPORTED,
                          "C_OpenSession: CKF_SERIAL_SESSION not set, flags=", flags);
        }
        if (phSession == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_OpenSession: phSession is NULL");
        }
        SessionRecord session;
        session.state = initialState(state, flags);
        session.slotID = slotID;
        session.tokenInfo = *token;
        const CK_SESSION_HANDLE handle = nextSessionHandle(state);
        state.sessionTable.emplace(handle, std::move(session));
        *phSession = handle;
        logDebug("Opensession  : ", handle);
        return CKR_OK;
    });
}

CK_RV C_CloseSession(CK_SESSION_HANDLE hSession) {
    return sessionEntryPoint("C_CloseSession", hSession, [&](ModuleState& state, SessionRecord&) -> CK_RV {
        state.sessionTable.erase(hSession);
        return CKR_OK;
    });
}

CK_RV C_CloseAllSessions(CK_SLOT_ID slotID) {
    return entryPoint("C_CloseAllSessions", [&](ModuleState& state) -> CK_RV {
        if (findSlot(state.slotTable, slotID) == nullptr) {
            return refuse(CKR_SLOT_ID_INVALID, "C_CloseAllSessions: invalid slotID=", slotID);
        }
        // Those of every slot: the slot ID only has to be valid.
        state.sessionTable.clear();
        logDebug("Close all session");
        return CKR_OK;
    });
}

CK_RV C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo) {
    return sessionEntryPoint("C_GetSessionInfo", hSession, [&](ModuleState&, const SessionRecord& session) -> CK_RV {
        if (pInfo == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GetSessionInfo: pInfo is NULL");
        }
        pInfo->slotID = session.slotID;
        pInfo->state = session.state;
        pInfo->flags = session.state < CKS_RW_PUBLIC_SESSION ? CKF_SERIAL_SESSION : CKF_SERIAL_SESSION | CKF_RW_SESSION;
        pInfo->ulDeviceError = 0;
        return CKR_OK;
    });
}
