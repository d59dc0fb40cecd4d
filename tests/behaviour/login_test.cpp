// Login, logout and PIN change.

#include <memory>

#include "module_test.h"

namespace {

using namespace support;

constexpr CK_SLOT_ID secondSlot = firstSlot + 1;

const char* const stateNames[] = {"RO public", "RO user", "RW public", "RW user", "RW SO"};

std::string validateCall(const std::string& serial, const std::string& password, int kind) {
    return "zentak_validatePassword(\"" + serial + "\", \"" + password + "\", " + std::to_string(kind) +
           ", *0, instance)";
}

/// Two tokens: sessions of the second are used to look at the kept password, and to change it apart from the states of
/// the first.
class Login : public ModuleTest {
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
        const std::vector<CK_SESSION_HANDLE> sessions = {officer, readOnlyUser, readWriteUser, readOnly, readWrite};
        EXPECT_EQ(states(sessions), (std::vector<CK_STATE>{4, 1, 3, 0, 2}));
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

// --- C_Login: refusals in their order -------------------------------------------------------------------------------

std::vector<CK_SESSION_HANDLE> noSessions() {
    std::vector<CK_SESSION_HANDLE> handles = {0, firstSlot, firstSession - 1, firstSession + 1,
                                              CK_UNAVAILABLE_INFORMATION};
    if constexpr (sizeof(CK_SESSION_HANDLE) > 4) {
        handles.push_back(static_cast<CK_SESSION_HANDLE>(0x160000001ULL));
    }
    return handles;
}

TEST_F(Login, refusesWhatIsNoSessionFirst) {
    openSession();
    for (const CK_SESSION_HANDLE session : noSessions()) {
        for (const CK_USER_TYPE userType : {CKU_USER, CKU_SO, CKU_CONTEXT_SPECIFIC}) {
            EXPECT_EQ(functions().C_Login(session, userType, nullptr, 0), CKR_SESSION_HANDLE_INVALID);
            EXPECT_EQ(log(), (Lines{"DEBUG C_Login", "ERROR C_Login: invalid hSession=" + decimal(session)}));
        }
    }
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(Login, refusesASecondUserLoginWithADebugLine) {
    for (const CK_STATE state : {CKS_RO_USER_FUNCTIONS, CKS_RW_USER_FUNCTIONS}) {
        const CK_SESSION_HANDLE session = sessionInState(state);
        const Lines refusal = {"DEBUG C_Login", "DEBUG C_Login: User already logged in"};
        EXPECT_EQ(functions().C_Login(session, CKU_USER, nullptr, 0), CKR_USER_ALREADY_LOGGED_IN);
        EXPECT_EQ(log(), refusal);
        EXPECT_EQ(functions().C_Login(session, CKU_USER, pin("1234"), 4), CKR_USER_ALREADY_LOGGED_IN);
        EXPECT_EQ(log(), refusal);
        EXPECT_EQ(calls(), Lines{});
        EXPECT_EQ(stateOf(session), state);
        ASSERT_EQ(functions().C_CloseAllSessions(firstSlot), CKR_OK);
    }
}

/// The check before it is of the user's login only: another user type gets as far as its own check.
TEST_F(Login, refusesOtherUserTypesBeforeTheNullPointer) {
    std::vector<CK_USER_TYPE> types = {CKU_CONTEXT_SPECIFIC, 3, CK_UNAVAILABLE_INFORMATION};
    if constexpr (sizeof(CK_USER_TYPE) > 4) {
        types.push_back(static_cast<CK_USER_TYPE>(0x100000001ULL));
        types.push_back(static_cast<CK_USER_TYPE>(0x100000000ULL));
    }
    for (const CK_STATE state : {CKS_RO_PUBLIC_SESSION, CKS_RW_USER_FUNCTIONS}) {
        const CK_SESSION_HANDLE session = sessionInState(state);
        for (const CK_USER_TYPE type : types) {
            EXPECT_EQ(functions().C_Login(session, type, nullptr, 0), CKR_USER_TYPE_INVALID);
            EXPECT_EQ(log(), (Lines{"DEBUG C_Login", "ERROR C_Login: unsupported userType=" + decimal(type)}));
        }
        EXPECT_EQ(calls(), Lines{});
        EXPECT_EQ(stateOf(session), state);
    }
}

TEST_F(Login, refusesANullPinBeforeItsLength) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    for (const CK_USER_TYPE userType : {CKU_USER, CKU_SO}) {
        for (const CK_ULONG length : {0, 3, 4, 64}) {
            EXPECT_EQ(functions().C_Login(session, userType, nullptr, length), CKR_ARGUMENTS_BAD);
            EXPECT_EQ(log(), (Lines{"DEBUG C_Login", "ERROR C_Login: pPin is NULL"}));
        }
    }
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
}

TEST_F(Login, refusesPinsOutOfRange) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    const std::string password(100, 'p');
    std::vector<CK_ULONG> lengths = {0, 1, 3, 64, 65, 0x80000004UL, CK_UNAVAILABLE_INFORMATION};
    if constexpr (sizeof(CK_ULONG) > 4) {
        lengths.push_back(static_cast<CK_ULONG>(0x100000004ULL));
    }
    for (const CK_USER_TYPE userType : {CKU_USER, CKU_SO}) {
        for (const CK_ULONG length : lengths) {
            EXPECT_EQ(functions().C_Login(session, userType, pin(password.c_str()), length), CKR_PIN_LEN_RANGE);
            EXPECT_EQ(log(),
                      (Lines{"DEBUG C_Login", "ERROR C_Login: pin length out of range, ulPinLen=" + decimal(length)}));
        }
    }
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
}

TEST_F(Login, asksTheDeviceForPinsWithinRange) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    for (const std::size_t length : {4U, 5U, 62U, 63U}) {
        const std::string password(length, 'p');
        EXPECT_EQ(tryLogin(session, CKU_USER, password), CKR_OK);
        EXPECT_EQ(calls(), (Lines{validateCall("SN1", password, 1)}));
        EXPECT_EQ(log(), (Lines{"DEBUG C_Login", "DEBUG Login state : 2", "DEBUG Login end result : 0"}));
        ASSERT_EQ(functions().C_Logout(session), CKR_OK);
        clear();
    }
    const std::string password(63, 'o');
    EXPECT_EQ(tryLogin(session, CKU_SO, password), CKR_OK);
    EXPECT_EQ(calls(), (Lines{validateCall("SN1", password, 2)}));
}

// --- C_Login: the device's answer -----------------------------------------------------------------------------------

struct DeviceRefusal {
    int result;
    int attemptsLeft;
    CK_RV code;
};

constexpr DeviceRefusal deviceRefusals[] = {
    {7, 2, CKR_PIN_INCORRECT},  {7, 1, CKR_PIN_INCORRECT},  {7, 0, CKR_PIN_LOCKED},   {7, -1, CKR_PIN_INCORRECT},
    {-5, 3, CKR_PIN_INCORRECT}, {40, 2, CKR_PIN_INCORRECT}, {242, 0, CKR_PIN_LOCKED}, {1, 0, CKR_PIN_LOCKED},
    {47, 0, CKR_PIN_LOCKED},    {49, 2, CKR_PIN_INCORRECT}};

TEST_F(Login, refusalsOfTheDevice) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    const CK_SESSION_HANDLE readOnly = openSession();
    for (const CK_USER_TYPE userType : {CKU_USER, CKU_SO}) {
        for (const DeviceRefusal& refusal : deviceRefusals) {
            device().results["zentak_validatePassword"] = refusal.result;
            device().attemptsLeft = refusal.attemptsLeft;
            EXPECT_EQ(tryLogin(session, userType, "1234"), refusal.code);
            EXPECT_EQ(log(), (Lines{"DEBUG C_Login",
                                    "ERROR Token password validation failed : " + std::to_string(refusal.result),
                                    "ERROR Token password validation failed, retry count : " +
                                        std::to_string(refusal.attemptsLeft)}));
            EXPECT_EQ(calls(), (Lines{validateCall("SN1", "1234", userType == CKU_USER ? 1 : 2)}));
            EXPECT_EQ(states({session, readOnly}), (std::vector<CK_STATE>{2, 0}));
        }
    }
    EXPECT_EQ(stateOf(openSession()), CKS_RO_PUBLIC_SESSION);  // no password was kept
}

TEST_F(Login, theDeviceResult48IsAFailureWithOneLine) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    device().results["zentak_validatePassword"] = 48;
    for (const int attemptsLeft : {0, 2}) {
        device().attemptsLeft = attemptsLeft;
        for (const CK_USER_TYPE userType : {CKU_USER, CKU_SO}) {
            EXPECT_EQ(tryLogin(session, userType, "1234"), CKR_FUNCTION_FAILED);
            EXPECT_EQ(log(), (Lines{"DEBUG C_Login", "ERROR Token password validation failed : 48"}));
            EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
        }
    }
}

TEST_F(Login, aFailedLoginLeavesTheKeptPassword) {
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    login(openSession(CKF_RW_SESSION));
    EXPECT_FALSE(keeps("9999", other));
    EXPECT_EQ(stateOf(other), CKS_RW_PUBLIC_SESSION);
    EXPECT_TRUE(keeps("1234", other));
}

// --- C_Login: the kept password -------------------------------------------------------------------------------------

TEST_F(Login, theKeptPasswordSpareTheDeviceAQuestion) {
    const CK_SESSION_HANDLE other = openSession(0, secondSlot);
    login(openSession(CKF_RW_SESSION));
    EXPECT_EQ(tryLogin(other, CKU_USER, "1234"), CKR_OK);
    EXPECT_EQ(log(), (Lines{"DEBUG C_Login", "DEBUG Login state : 0", "DEBUG Login end result : 0"}));
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(stateOf(other), CKS_RO_USER_FUNCTIONS);
}

TEST_F(Login, aPinThatOnlyBeginsLikeTheKeptOneIsAsked) {
    for (const char* const password : {"12345", "1235", "123456789", "0234"}) {
        const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
        login(openSession(CKF_RW_SESSION));
        EXPECT_EQ(tryLogin(other, CKU_USER, password), CKR_OK);
        EXPECT_EQ(calls(), (Lines{validateCall("SN2", password, 1)}));
        ASSERT_EQ(functions().C_Logout(other), CKR_OK);
        ASSERT_EQ(functions().C_CloseAllSessions(firstSlot), CKR_OK);
        clear();
    }
}

TEST_F(Login, aLaterLoginReplacesTheKeptPassword) {
    const CK_SESSION_HANDLE second = openSession(CKF_RW_SESSION, secondSlot);
    login(openSession(CKF_RW_SESSION), "1234");
    login(second, "5678");  // another token, another PIN: there is one kept password for all
    ASSERT_EQ(functions().C_CloseSession(second), CKR_OK);
    const CK_SESSION_HANDLE officer = openSession(CKF_RW_SESSION, secondSlot);
    EXPECT_EQ(stateOf(officer), CKS_RW_USER_FUNCTIONS);
    login(officer, "officer pin", CKU_SO);  // from this state a user may log in again
    EXPECT_EQ(tryLogin(officer, CKU_USER, "5678"), CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(tryLogin(officer, CKU_USER, "1234"), CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
    EXPECT_EQ(calls(), (Lines{validateCall("SN2", "1234", 1)}));
}

TEST_F(Login, theSecurityOfficerIsAlwaysAskedAndNeverKept) {
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session, "1234");
    EXPECT_EQ(tryLogin(session, CKU_SO, "1234"), CKR_OK);
    EXPECT_EQ(log(), (Lines{"DEBUG C_Login", "DEBUG Login state : 3", "DEBUG Login end result : 0"}));
    EXPECT_EQ(calls(), (Lines{validateCall("SN1", "1234", 2)}));
    EXPECT_EQ(tryLogin(session, CKU_SO, "officer pin"), CKR_USER_ALREADY_LOGGED_IN);
    EXPECT_EQ(calls(), (Lines{validateCall("SN1", "officer pin", 2)}));
    EXPECT_TRUE(keeps("1234", other));  // the user's password is still there
}

TEST_F(Login, aFirstOfficersLoginKeepsNothing) {
    login(openSession(CKF_RW_SESSION), "officer pin", CKU_SO);
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    EXPECT_EQ(stateOf(other), CKS_RW_PUBLIC_SESSION);
    EXPECT_FALSE(keeps("officer pin", other));
}

/// The device sees text up to the zero; what is kept are all bytes.
TEST_F(Login, aPinWithAZeroByte) {
    const std::string password("1234\0005678", 9);
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    EXPECT_EQ(tryLogin(openSession(CKF_RW_SESSION), CKU_USER, password), CKR_OK);
    EXPECT_EQ(calls(), (Lines{validateCall("SN1", "1234", 1)}));
    EXPECT_FALSE(keeps("1234", other));
    EXPECT_FALSE(keeps(std::string("1234\0005679", 9), other));
    EXPECT_TRUE(keeps(password, other));
}

TEST_F(Login, aPinOfOtherThanLetters) {
    const std::string password = "\xC3\xA4\xFF\x01 \n";
    EXPECT_EQ(tryLogin(openSession(CKF_RW_SESSION), CKU_USER, password), CKR_OK);
    EXPECT_EQ(calls(), (Lines{validateCall("SN1", password, 1)}));
}

TEST_F(Login, noPinIsEverLogged) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    device().addFault({"zentak_validatePassword", 1, 7});
    tryLogin(session, CKU_USER, "unmistakable");
    tryLogin(session, CKU_USER, "unmistakable");
    functions().C_SetPIN(session, pin("unmistakable"), 12, pin("unmistakable too"), 16);
    for (const std::string& line : log()) {
        EXPECT_EQ(line.find("unmistakable"), std::string::npos) << line;
    }
}

// --- C_Login: the states --------------------------------------------------------------------------------------------

struct Transition {
    CK_STATE before;
    CK_USER_TYPE userType;
    CK_RV code;
    CK_STATE after;
    const char* error;  ///< line of the walk over the sessions
};

constexpr const char* readOnlySessionExists = "ERROR C_Login: read-only session exists, cannot log in as SO";
constexpr const char* officerOnAnotherSession = "ERROR C_Login: SO already logged in on another session";

const Transition transitions[] = {
    {CKS_RO_PUBLIC_SESSION, CKU_USER, CKR_OK, CKS_RO_USER_FUNCTIONS, nullptr},
    {CKS_RW_PUBLIC_SESSION, CKU_USER, CKR_OK, CKS_RW_USER_FUNCTIONS, nullptr},
    {CKS_RW_SO_FUNCTIONS, CKU_USER, CKR_USER_ANOTHER_ALREADY_LOGGED_IN, CKS_RW_SO_FUNCTIONS, officerOnAnotherSession},
    {CKS_RO_PUBLIC_SESSION, CKU_SO, CKR_SESSION_READ_ONLY_EXISTS, CKS_RO_PUBLIC_SESSION, readOnlySessionExists},
    {CKS_RO_USER_FUNCTIONS, CKU_SO, CKR_SESSION_READ_ONLY_EXISTS, CKS_RO_USER_FUNCTIONS, readOnlySessionExists},
    {CKS_RW_PUBLIC_SESSION, CKU_SO, CKR_OK, CKS_RW_SO_FUNCTIONS, nullptr},
    {CKS_RW_USER_FUNCTIONS, CKU_SO, CKR_OK, CKS_RW_SO_FUNCTIONS, nullptr},
    {CKS_RW_SO_FUNCTIONS, CKU_SO, CKR_USER_ALREADY_LOGGED_IN, CKS_RW_SO_FUNCTIONS, nullptr},
};

TEST_F(Login, aSingleSessionInEveryState) {
    for (const Transition& transition : transitions) {
        SCOPED_TRACE(std::string(stateNames[transition.before]) +
                     (transition.userType == CKU_USER ? ", user" : ", security officer"));
        const CK_SESSION_HANDLE session = sessionInState(transition.before);
        EXPECT_EQ(tryLogin(session, transition.userType, "5678"), transition.code);
        Lines lines = {"DEBUG C_Login", "DEBUG Login state : " + decimal(transition.before)};
        if (transition.error != nullptr) {
            lines.emplace_back(transition.error);
        }
        lines.push_back("DEBUG Login end result : " + decimal(transition.code));
        EXPECT_EQ(log(), lines);
        EXPECT_EQ(calls(), (Lines{validateCall("SN1", "5678", transition.userType == CKU_USER ? 1 : 2)}));
        EXPECT_EQ(stateOf(session), transition.after);

        // A refused user login has kept the PIN all the same; a security officer's never is.
        EXPECT_EQ(stateOf(openSession(0, secondSlot)),
                  transition.userType == CKU_USER ? CKS_RO_USER_FUNCTIONS : CKS_RO_PUBLIC_SESSION);
        forgetPassword();
        ASSERT_EQ(functions().C_CloseAllSessions(firstSlot), CKR_OK);
    }
}

TEST_F(Login, aUsersLoginWalksOverSessionsInEveryState) {
    for (const std::size_t caller : {0U, 3U, 4U}) {
        const std::vector<CK_SESSION_HANDLE> sessions = sessionsInEveryState();
        const CK_SESSION_HANDLE otherToken = openSession(CKF_RW_SESSION, secondSlot);
        const CK_STATE before = stateOf(sessions[caller]);
        EXPECT_EQ(tryLogin(sessions[caller], CKU_USER, "5678"), CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
        EXPECT_EQ(log(), (Lines{"DEBUG C_Login", "DEBUG Login state : " + decimal(before), officerOnAnotherSession,
                                "DEBUG Login end result : " + decimal(CKR_USER_ANOTHER_ALREADY_LOGGED_IN)}));
        EXPECT_EQ(calls(), (Lines{validateCall("SN1", "5678", 1)}));
        EXPECT_EQ(states(sessions), (std::vector<CK_STATE>{4, 1, 3, 1, 3}));
        EXPECT_EQ(stateOf(otherToken), CKS_RW_PUBLIC_SESSION);
        EXPECT_TRUE(keeps("5678", otherToken));
        forgetPassword();
        ASSERT_EQ(functions().C_CloseAllSessions(firstSlot), CKR_OK);
    }
}

TEST_F(Login, anOfficersLoginWalksOverSessionsInEveryState) {
    for (const std::size_t caller : {0U, 1U, 2U, 3U, 4U}) {
        const std::vector<CK_SESSION_HANDLE> sessions = sessionsInEveryState();
        const CK_SESSION_HANDLE otherToken = openSession(CKF_RW_SESSION, secondSlot);
        const CK_STATE before = stateOf(sessions[caller]);
        // The last refusal met counts: of the read-only session in state 0, not of the officer's at the beginning.
        EXPECT_EQ(tryLogin(sessions[caller], CKU_SO, "officer pin"), CKR_SESSION_READ_ONLY_EXISTS);
        EXPECT_EQ(log(),
                  (Lines{"DEBUG C_Login", "DEBUG Login state : " + decimal(before), readOnlySessionExists,
                         readOnlySessionExists, "DEBUG Login end result : " + decimal(CKR_SESSION_READ_ONLY_EXISTS)}));
        EXPECT_EQ(calls(), (Lines{validateCall("SN1", "officer pin", 2)}));
        EXPECT_EQ(states(sessions), (std::vector<CK_STATE>{4, 1, 4, 0, 4}));
        EXPECT_EQ(stateOf(otherToken), CKS_RW_PUBLIC_SESSION);
        ASSERT_EQ(functions().C_CloseAllSessions(firstSlot), CKR_OK);
    }
}

TEST_F(Login, theLastRefusalMetIsTheAnswer) {
    openSession();
    const CK_SESSION_HANDLE officer = openSession(CKF_RW_SESSION);
    EXPECT_EQ(tryLogin(officer, CKU_SO, "officer pin"), CKR_SESSION_READ_ONLY_EXISTS);
    EXPECT_EQ(stateOf(officer), CKS_RW_SO_FUNCTIONS);
    EXPECT_EQ(tryLogin(officer, CKU_SO, "officer pin"), CKR_USER_ALREADY_LOGGED_IN);
    EXPECT_EQ(log(), (Lines{"DEBUG C_Login", "DEBUG Login state : 4", readOnlySessionExists,
                            "DEBUG Login end result : " + decimal(CKR_USER_ALREADY_LOGGED_IN)}));
}

TEST_F(Login, aUsersLoginReachesEverySessionOfTheTokenOnly) {
    const std::vector<CK_SESSION_HANDLE> sessions = {
        openSession(), openSession(CKF_RW_SESSION), openSession(0, secondSlot), openSession(CKF_RW_SESSION, secondSlot),
        openSession(), openSession(CKF_RW_SESSION)};
    EXPECT_EQ(tryLogin(sessions[4], CKU_USER, "1234"), CKR_OK);
    EXPECT_EQ(log(), (Lines{"DEBUG C_Login", "DEBUG Login state : 0", "DEBUG Login end result : 0"}));
    EXPECT_EQ(states(sessions), (std::vector<CK_STATE>{1, 3, 0, 2, 1, 3}));
}

/// The token is its serial number, whatever the slot.
TEST_F(Login, sessionsOfOneSerialNumberAreOfOneToken) {
    device().connectedDevices = {"reader A", "reader B", "SN2"};
    device().tokenInfo["reader A"] = makeTokenInfo("SN1");
    device().tokenInfo["reader B"] = makeTokenInfo("SN1");
    listSlots();
    const std::vector<CK_SESSION_HANDLE> sessions = {openSession(0, firstSlot), openSession(0, firstSlot + 1),
                                                     openSession(0, firstSlot + 2)};
    // In the order of names the slots are SN2, reader A, reader B.
    EXPECT_EQ(tryLogin(sessions[1], CKU_USER, "1234"), CKR_OK);
    EXPECT_EQ(calls(), (Lines{validateCall("SN1", "1234", 1)}));
    EXPECT_EQ(states(sessions), (std::vector<CK_STATE>{0, 1, 1}));
    EXPECT_EQ(functions().C_Logout(sessions[2]), CKR_OK);
    EXPECT_EQ(states(sessions), (std::vector<CK_STATE>{0, 0, 0}));
}

// --- C_Logout -------------------------------------------------------------------------------------------------------

TEST_F(Login, logoutRefusesWhatIsNoSession) {
    login(openSession());
    for (const CK_SESSION_HANDLE session : noSessions()) {
        EXPECT_EQ(functions().C_Logout(session), CKR_SESSION_HANDLE_INVALID);
        EXPECT_EQ(log(), (Lines{"DEBUG C_Logout", "ERROR C_Logout: invalid hSession=" + decimal(session)}));
    }
    EXPECT_EQ(stateOf(firstSession), CKS_RO_USER_FUNCTIONS);
}

TEST_F(Login, logoutRefusesAPublicSession) {
    for (const CK_STATE state : {CKS_RO_PUBLIC_SESSION, CKS_RW_PUBLIC_SESSION}) {
        const CK_SESSION_HANDLE session = sessionInState(state);
        EXPECT_EQ(functions().C_Logout(session), CKR_USER_NOT_LOGGED_IN);
        EXPECT_EQ(log(),
                  (Lines{"DEBUG C_Logout", "ERROR C_Logout: user not logged in, session state=" + decimal(state)}));
        EXPECT_EQ(calls(), Lines{});
    }
}

/// A public session of the token can't log out what its other sessions are, nor empty the kept password.
TEST_F(Login, aRefusedLogoutChangesNothing) {
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    login(openSession());
    EXPECT_EQ(functions().C_Logout(other), CKR_USER_NOT_LOGGED_IN);
    EXPECT_TRUE(keeps("1234", other));
}

TEST_F(Login, logoutFromEveryState) {
    const std::pair<std::size_t, const char*> callers[] = {{0, "4"}, {1, "1"}, {2, "3"}};
    for (const auto& [caller, state] : callers) {
        SCOPED_TRACE(state);
        const std::vector<CK_SESSION_HANDLE> sessions = sessionsInEveryState();
        EXPECT_EQ(functions().C_Logout(sessions[caller]), CKR_OK);
        EXPECT_EQ(log(), (Lines{"DEBUG C_Logout", "DEBUG C_Logout end"}));
        EXPECT_EQ(calls(), Lines{});
        EXPECT_EQ(states(sessions), (std::vector<CK_STATE>{2, 0, 2, 0, 2}));
        EXPECT_EQ(functions().C_Logout(sessions[caller]), CKR_USER_NOT_LOGGED_IN);
        ASSERT_EQ(functions().C_CloseAllSessions(firstSlot), CKR_OK);
        clear();
    }
}

TEST_F(Login, logoutEmptiesTheKeptPasswordAndLeavesOtherTokens) {
    const CK_SESSION_HANDLE first = openSession();
    const CK_SESSION_HANDLE second = openSession(CKF_RW_SESSION, secondSlot);
    login(first);
    login(second);
    EXPECT_EQ(functions().C_Logout(first), CKR_OK);
    EXPECT_EQ(states({first, second}), (std::vector<CK_STATE>{0, 3}));
    EXPECT_EQ(stateOf(openSession()), CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(tryLogin(first, CKU_USER, "1234"), CKR_OK);
    EXPECT_EQ(calls(), (Lines{validateCall("SN1", "1234", 1)}));  // asked again
}

TEST_F(Login, anOfficersLogoutEmptiesTheKeptPasswordToo) {
    const CK_SESSION_HANDLE user = openSession();
    const CK_SESSION_HANDLE officer = openSession(CKF_RW_SESSION, secondSlot);
    login(officer, "officer pin", CKU_SO);
    login(user);
    EXPECT_EQ(functions().C_Logout(officer), CKR_OK);
    EXPECT_EQ(states({user, officer}), (std::vector<CK_STATE>{1, 2}));
    EXPECT_EQ(stateOf(openSession(0, secondSlot)), CKS_RO_PUBLIC_SESSION);
}

// --- C_SetPIN -------------------------------------------------------------------------------------------------------

class SetPin : public Login {
protected:
    static CK_RV setPin(CK_SESSION_HANDLE session, const std::string& oldPin, const std::string& newPin) {
        const auto oldBuffer = std::make_unique<CK_UTF8CHAR[]>(oldPin.size());
        const auto newBuffer = std::make_unique<CK_UTF8CHAR[]>(newPin.size());
        std::copy(oldPin.begin(), oldPin.end(), oldBuffer.get());
        std::copy(newPin.begin(), newPin.end(), newBuffer.get());
        return functions().C_SetPIN(session, oldBuffer.get(), static_cast<CK_ULONG>(oldPin.size()), newBuffer.get(),
                                    static_cast<CK_ULONG>(newPin.size()));
    }

    static std::string changeCall(const std::string& serial, const std::string& oldPin, const std::string& newPin) {
        return "zentak_changeUserPassword(\"" + serial + "\", \"" + oldPin + "\", \"" + newPin +
               "\", *0, false, false, instance)";
    }

    static void expectRefusal(CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldLength,
                              CK_UTF8CHAR_PTR newPin, CK_ULONG newLength, CK_RV code, const std::string& message) {
        clear();
        EXPECT_EQ(functions().C_SetPIN(session, oldPin, oldLength, newPin, newLength), code);
        EXPECT_EQ(log(), (Lines{"DEBUG C_SetPIN", "ERROR C_SetPIN: " + message}));
        EXPECT_EQ(calls(), Lines{});
    }
};

TEST_F(SetPin, refusesWhatIsNoSessionFirst) {
    openSession();
    for (const CK_SESSION_HANDLE session : noSessions()) {
        expectRefusal(session, nullptr, 0, nullptr, 0, CKR_SESSION_HANDLE_INVALID,
                      "invalid hSession=" + decimal(session));
    }
}

TEST_F(SetPin, refusesAReadOnlySessionBeforeThePins) {
    for (const CK_STATE state : {CKS_RO_PUBLIC_SESSION, CKS_RO_USER_FUNCTIONS}) {
        const CK_SESSION_HANDLE session = sessionInState(state);
        expectRefusal(session, nullptr, 0, nullptr, 0, CKR_SESSION_READ_ONLY,
                      "session is read-only, state=" + decimal(state));
        expectRefusal(session, pin("1234"), 4, pin("5678"), 4, CKR_SESSION_READ_ONLY,
                      "session is read-only, state=" + decimal(state));
    }
}

TEST_F(SetPin, refusesThePinsInTheirOrder) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    const std::string text(100, 'p');
    CK_UTF8CHAR_PTR const some = pin(text.c_str());
    const std::string oldRange = "old pin length out of range, ulOldLen=";
    const std::string newRange = "new pin length out of range, ulNewLen=";

    expectRefusal(session, nullptr, 3, nullptr, 3, CKR_ARGUMENTS_BAD, "pOldPin is NULL");
    expectRefusal(session, nullptr, 4, some, 4, CKR_ARGUMENTS_BAD, "pOldPin is NULL");
    std::vector<CK_ULONG> lengths = {0, 3, 64, 0x80000004UL, CK_UNAVAILABLE_INFORMATION};
    if constexpr (sizeof(CK_ULONG) > 4) {
        lengths.push_back(static_cast<CK_ULONG>(0x100000004ULL));
    }
    for (const CK_ULONG length : lengths) {
        expectRefusal(session, some, length, nullptr, 3, CKR_PIN_LEN_RANGE, oldRange + decimal(length));
        expectRefusal(session, some, length, some, 4, CKR_PIN_LEN_RANGE, oldRange + decimal(length));
        expectRefusal(session, some, 4, nullptr, length, CKR_ARGUMENTS_BAD, "pNewPin is NULL");
        expectRefusal(session, some, 63, some, length, CKR_PIN_LEN_RANGE, newRange + decimal(length));
    }
    expectRefusal(session, some, 4, nullptr, 4, CKR_ARGUMENTS_BAD, "pNewPin is NULL");
}

TEST_F(SetPin, handsBothPinsToTheDevice) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION, secondSlot);
    const std::string longest(63, 'p');
    EXPECT_EQ(setPin(session, "1234", longest), CKR_OK);
    EXPECT_EQ(log(), (Lines{"DEBUG C_SetPIN"}));
    EXPECT_EQ(calls(), (Lines{changeCall("SN2", "1234", longest)}));
    EXPECT_EQ(setPin(session, longest, "5678"), CKR_OK);
    EXPECT_EQ(calls(), (Lines{changeCall("SN2", longest, "5678")}));
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
}

TEST_F(SetPin, needsNoLoginAndKeepsNothingThen) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    EXPECT_EQ(setPin(session, "1234", "5678"), CKR_OK);
    EXPECT_EQ(stateOf(openSession()), CKS_RO_PUBLIC_SESSION);
}

TEST_F(SetPin, replacesAKeptPassword) {
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session);
    EXPECT_EQ(setPin(session, "1234", "56789"), CKR_OK);
    EXPECT_EQ(stateOf(session), CKS_RW_USER_FUNCTIONS);
    EXPECT_FALSE(keeps("1234", other));
    EXPECT_TRUE(keeps("56789", other));
}

TEST_F(SetPin, changesTheUsersPinFromAnOfficersSession) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session, "officer pin", CKU_SO);
    EXPECT_EQ(setPin(session, "1234", "5678"), CKR_OK);
    EXPECT_EQ(calls(), (Lines{changeCall("SN1", "1234", "5678")}));
    EXPECT_EQ(stateOf(session), CKS_RW_SO_FUNCTIONS);
    EXPECT_EQ(stateOf(openSession()), CKS_RO_PUBLIC_SESSION);
}

TEST_F(SetPin, aRefusalOfTheDeviceKeepsThePassword) {
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session);
    device().results["zentak_changeUserPassword"] = 0;
    for (const int failureCount : {0, 3, -1}) {
        device().failureCount = failureCount;
        EXPECT_EQ(setPin(session, "1234", "5678"), CKR_FUNCTION_FAILED);
        EXPECT_EQ(log(), (Lines{"DEBUG C_SetPIN", "ERROR C_SetPIN: zentak_changeUserPassword failed, failureCount=" +
                                                      std::to_string(failureCount)}));
        EXPECT_EQ(calls(), (Lines{changeCall("SN1", "1234", "5678")}));
    }
    EXPECT_EQ(stateOf(session), CKS_RW_USER_FUNCTIONS);
    EXPECT_FALSE(keeps("5678", other));
    EXPECT_TRUE(keeps("1234", other));
}

TEST_F(SetPin, pinsWithAZeroByteEndThereForTheDevice) {
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session);
    const std::string newPin("5678\0009", 6);
    EXPECT_EQ(setPin(session, std::string("12\00034", 5), newPin), CKR_OK);
    EXPECT_EQ(calls(), (Lines{changeCall("SN1", "12", "5678")}));
    EXPECT_FALSE(keeps("5678", other));
    EXPECT_TRUE(keeps(newPin, other));
}

}  // namespace
