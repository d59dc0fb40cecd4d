/// C_Login, C_Logout and C_SetPIN.

#include <string>

#include "module/entry_frame.h"

using namespace zentak;

namespace {

constexpr CK_ULONG minimumPinLength = 4;
constexpr CK_ULONG maximumPinLength = 63;

bool isPinLength(CK_ULONG length) {
    return length >= minimumPinLength && length <= maximumPinLength;
}

/// A PIN in the caller's memory isn't terminated. The device library sees it up to a zero byte, the cache keeps all.
std::string pinText(CK_UTF8CHAR_PTR pin, CK_ULONG length) {
    return {reinterpret_cast<const char*>(pin), length};
}

/// Asks the token whether a PIN is right.
CK_RV validatePin(const device::Token& token, CK_USER_TYPE userType, const std::string& pin) {
    const auto [result, attemptsLeft] =
        token.validatePin(userType == CKU_USER ? device::PinOwner::user : device::PinOwner::securityOfficer, pin);
    if (result) {
        return CKR_OK;
    }
    logError("Token password validation failed : ", result.number());
    if (result.isDeviceSilent()) {
        return CKR_FUNCTION_FAILED;
    }
    return refuse(attemptsLeft == 0 ? CKR_PIN_LOCKED : CKR_PIN_INCORRECT,
                  "Token password validation failed, retry count : ", attemptsLeft);
}

/// Moves one session of the token on a user's login. CKR_OK, or why its state stays.
CK_RV loginUser(SessionRecord& session) {
    switch (session.state) {
        case CKS_RO_PUBLIC_SESSION:
            session.state = CKS_RO_USER_FUNCTIONS;
            return CKR_OK;
        case CKS_RW_PUBLIC_SESSION:
            session.state = CKS_RW_USER_FUNCTIONS;
            return CKR_OK;
        case CKS_RW_SO_FUNCTIONS:
            return refuse(CKR_USER_ANOTHER_ALREADY_LOGGED_IN, "C_Login: SO already logged in on another session");
        default:
            return CKR_OK;
    }
}

/// The same on the security officer's login.
CK_RV loginSecurityOfficer(SessionRecord& session) {
    switch (session.state) {
        case CKS_RO_PUBLIC_SESSION:
        case CKS_RO_USER_FUNCTIONS:
            return refuse(CKR_SESSION_READ_ONLY_EXISTS, "C_Login: read-only session exists, cannot log in as SO");
        case CKS_RW_SO_FUNCTIONS:
            return CKR_USER_ALREADY_LOGGED_IN;
        default:
            session.state = CKS_RW_SO_FUNCTIONS;
            return CKR_OK;
    }
}

CK_STATE publicState(CK_STATE sessionState) {
    return sessionState < CKS_RW_PUBLIC_SESSION ? CKS_RO_PUBLIC_SESSION : CKS_RW_PUBLIC_SESSION;
}

/// Calls `visit` with each session of the same token, the given one included, in ascending handle order.
template <typename Visit>
void forEachSessionOfToken(ModuleState& state, const SessionRecord& session, const Visit& visit) {
    for (auto& [handle, other] : state.sessionTable) {
        if (other.tokenInfo.serialNumber == session.tokenInfo.serialNumber) {
            visit(other);
        }
    }
}

}  // namespace

CK_RV C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen) {
    return sessionEntryPoint("C_Login", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (userType == CKU_USER && session.isUserSession()) {
            // Applications ask again as a matter of course, so this is no error line.
            logDebug("C_Login: User already logged in");
            return CKR_USER_ALREADY_LOGGED_IN;
        }
        if (userType != CKU_USER && userType != CKU_SO) {
            return refuse(CKR_USER_TYPE_INVALID, "C_Login: unsupported userType=", userType);
        }
        if (pPin == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_Login: pPin is NULL");
        }
        if (!isPinLength(ulPinLen)) {
            return refuse(CKR_PIN_LEN_RANGE, "C_Login: pin length out of range, ulPinLen=", ulPinLen);
        }

        std::string pin = pinText(pPin, ulPinLen);
        const WipedAtEnd wipePin(pin);
        const bool knownPin = userType == CKU_USER && pin == state.cachedUserPassword;
        if (!knownPin) {
            const CK_RV verdict = validatePin(tokenOf(state, session), userType, pin);
            if (verdict != CKR_OK) {
                return verdict;
            }
        }
        if (userType == CKU_USER) {
            rememberPassword(state, pin);
        }
        logDebug("Login state : ", session.state);

        // A session that can't follow decides the result, but the others are moved all the same.
        CK_RV result = CKR_OK;
        forEachSessionOfToken(state, session, [&](SessionRecord& visited) {
            const CK_RV verdict = userType == CKU_USER ? loginUser(visited) : loginSecurityOfficer(visited);
            if (verdict != CKR_OK) {
                result = verdict;
            }
        });
        logDebug("Login end result : ", result);
        return result;
    });
}

CK_RV C_Logout(CK_SESSION_HANDLE hSession) {
    return sessionEntryPoint("C_Logout", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (session.state == CKS_RO_PUBLIC_SESSION || session.state == CKS_RW_PUBLIC_SESSION) {
            return refuse(CKR_USER_NOT_LOGGED_IN, "C_Logout: user not logged in, session state=", session.state);
        }
        forEachSessionOfToken(state, session,
                              [](SessionRecord& visited) { visited.state = publicState(visited.state); });
        forgetPassword(state);
        logDebug("C_Logout end");
        return CKR_OK;
    });
}

CK_RV C_SetPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen, CK_UTF8CHAR_PTR pNewPin,
               CK_ULONG ulNewLen) {
    return sessionEntryPoint("C_SetPIN", hSession, [&](ModuleState& state, const SessionRecord& session) -> CK_RV {
        if (session.state < CKS_RW_PUBLIC_SESSION) {
            return refuse(CKR_SESSION_READ_ONLY, "C_SetPIN: session is read-only, state=", session.state);
        }
        if (pOldPin == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_SetPIN: pOldPin is NULL");
        }
        if (!isPinLength(ulOldLen)) {
            return refuse(CKR_PIN_LEN_RANGE, "C_SetPIN: old pin length out of range, ulOldLen=", ulOldLen);
        }
        if (pNewPin == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_SetPIN: pNewPin is NULL");
        }
        if (!isPinLength(ulNewLen)) {
            return refuse(CKR_PIN_LEN_RANGE, "C_SetPIN: new pin length out of range, ulNewLen=", ulNewLen);
        }

        std::string oldPin = pinText(pOldPin, ulOldLen);
        const WipedAtEnd wipeOldPin(oldPin);
        std::string newPin = pinText(pNewPin, ulNewLen);
        const WipedAtEnd wipeNewPin(newPin);
        const device::Token::PinChange change = tokenOf(state, session).changeUserPin(oldPin, newPin);
        if (!change.succeeded) {
            return refuse(CKR_FUNCTION_FAILED,
                          "C_SetPIN: zentak_changeUserPassword failed, failureCount=", change.failureCount);
        }
        if (!state.cachedUserPassword.empty()) {
            rememberPassword(state, newPin);
        }
        return CKR_OK;
    });
}
