/// The world in which login, logout and PIN change are tested, with sessions in every state.

#ifndef ZENTAK_TESTS_BEHAVIOUR_LOGIN_TEST_H
#define ZENTAK_TESTS_BEHAVIOUR_LOGIN_TEST_H

#include <algorithm>
#include <memory>

#include "module_test.h"

namespace support {

constexpr CK_SLOT_ID secondSlot = firstSlot + 1;
constexpr CK_USER_TYPE bothUserTypes[] = {CKU_USER, CKU_SO};

inline std::string validateCall(const std::string& serial, const std::string& password, int kind) {
    return "zentak_validatePassword(\"" + serial + "\", \"" + password + "\", " + std::to_string(kind) +
           ", *0, instance)";
}

/// Handles that are no session while only the first is open.
inline Numbers noSessions() {
    return withWide({0, firstSlot, firstSession - 1, firstSession + 1, CK_UNAVAILABLE_INFORMATION}, {0x160000001});
}

/// Two tokens: sessions of the second are used to look at the kept password, and to change it apart from the states of
/// the first.
class LoginTest : public ModuleTest {
protected:
    void plugInTokens() override {
        plugIn(makeTokenInfo("SN1"));
        plugIn(makeTokenInfo("SN2"));
    }

    static CK_RV tryLogin(CK_SESSION_HANDLE session, CK_USER_TYPE userType, const std::string& password) {
        // A buffer of exactly this size, so that a byte read behind it is noticed.
        const auto buffer = std::make_unique<CK_UTF8CHAR[]>(password.size());
        std::copy(password.begin(), password.end(), buffer.get());
        return functions().C_Login(session, userType, buffer.get(), static_cast<CK_ULONG>(password.size()));
    }

    /// Empties the kept password and leaves the states of the first token's sessions as they are.
    static void forgetPassword() {
        const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
        if (stateOf(other) == CKS_RW_USER_FUNCTIONS) {
            EXPECT_EQ(functions().C_Logout(other), CKR_OK);
        }
        EXPECT_EQ(functions().C_CloseSession(other), CKR_OK);
        clear();
    }

    /// A session of the first token in that state; the others' states may change with it.
    static CK_SESSION_HANDLE sessionInState(CK_STATE state) {
        const bool readWrite = state >= CKS_RW_PUBLIC_SESSION;
        const CK_SESSION_HANDLE session = openSession(readWrite ? CKF_RW_SESSION : 0);
        if (state == CKS_RO_USER_FUNCTIONS || state == CKS_RW_USER_FUNCTIONS) {
            login(session);
            forgetPassword();
        } else if (state == CKS_RW_SO_FUNCTIONS) {
            login(session, "officer pin", CKU_SO);
        }
        EXPECT_EQ(stateOf(session), state);
        return session;
    }

    /// Five sessions of the first token, in the states 4, 1, 3, 0, 2 by ascending handle; no password is kept.
    static std::vector<CK_SESSION_HANDLE> sessionsInEveryState() {
        const CK_SESSION_HANDLE officer = openSession(CKF_RW_SESSION);
        login(officer, "officer pin", CKU_SO);
        const CK_SESSION_HANDLE readOnlyUser = openSession();
        const CK_SESSION_HANDLE readWriteUser = openSession(CKF_RW_SESSION);
        EXPECT_EQ(tryLogin(readWriteUser, CKU_USER, "1234"), CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
        forgetPassword();
        const CK_SESSION_HANDLE readOnly = openSession();
        const CK_SESSION_HANDLE readWrite = openSession(CKF_RW_SESSION);
        const Numbers sessions = {officer, readOnlyUser, readWriteUser, readOnly, readWrite};
        EXPECT_EQ(states(sessions), (Numbers{4, 1, 3, 0, 2}));
        return sessions;
    }

    static std::vector<CK_STATE> states(const std::vector<CK_SESSION_HANDLE>& sessions) {
        std::vector<CK_STATE> result;
        for (const CK_SESSION_HANDLE session : sessions) {
            CK_SESSION_INFO info = {};
            EXPECT_EQ(functions().C_GetSessionInfo(session, &info), CKR_OK);
            result.push_back(info.state);
        }
        clear();
        return result;
    }

    /// Whether exactly this password is kept: a user login of the second token's public session then asks no device.
    /// Changes nothing when `session` is a public one opened beforehand and the answer is no.
    static bool keeps(const std::string& password, CK_SESSION_HANDLE publicSessionOfSecondToken) {
        clear();
        device().change([](scripted::Device& world) { world.results["zentak_validatePassword"] = 7; });
        const CK_RV result = tryLogin(publicSessionOfSecondToken, CKU_USER, password);
        device().change([](scripted::Device& world) { world.results.clear(); });
        const bool asked = !calls().empty();
        EXPECT_EQ(result, asked ? CKR_PIN_INCORRECT : CKR_OK);
        clear();
        return !asked;
    }
};

}  // namespace support

#endif
