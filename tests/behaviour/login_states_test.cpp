// How login and logout move the states of a token's sessions.

#include "login_test.h"

namespace {

using namespace support;

class LoginStatesTest : public LoginTest {};

const char* const stateNames[] = {"RO public", "RO user", "RW public", "RW user", "RW SO"};

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

TEST_F(LoginStatesTest, ASingleSessionInEveryState) {
    for (const Transition& transition : transitions) {
        SCOPED_TRACE(std::string(stateNames[transition.before]) +
                     (transition.userType == CKU_USER ? ", user" : ", security officer"));
        const CK_SESSION_HANDLE session = sessionInState(transition.before);
        EXPECT_EQ(tryLogin(session, transition.userType, "5678"), transition.code);
        Lines lines = {"DEBUG C_Login", "DEBUG Login state : " + decimal(transition.before)};
        if (transition.error != nullptr) lines.emplace_back(transition.error);
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

TEST_F(LoginStatesTest, AUsersLoginWalksOverSessionsInEveryState) {
    for (const std::size_t caller : {0U, 3U, 4U}) {
        const Numbers sessions = sessionsInEveryState();
        const CK_SESSION_HANDLE otherToken = openSession(CKF_RW_SESSION, secondSlot);
        const CK_STATE before = stateOf(sessions[caller]);
        EXPECT_EQ(observe([&] { return tryLogin(sessions[caller], CKU_USER, "5678"); }),
                  (Outcome{CKR_USER_ANOTHER_ALREADY_LOGGED_IN,
                           {"DEBUG C_Login", "DEBUG Login state : " + decimal(before), officerOnAnotherSession,
                            "DEBUG Login end result : " + decimal(CKR_USER_ANOTHER_ALREADY_LOGGED_IN)},
                           {validateCall("SN1", "5678", 1)}}));
        EXPECT_EQ(states(sessions), (Numbers{4, 1, 3, 1, 3}));
        EXPECT_EQ(stateOf(otherToken), CKS_RW_PUBLIC_SESSION);
        EXPECT_TRUE(keeps("5678", otherToken));
        forgetPassword();
        ASSERT_EQ(functions().C_CloseAllSessions(firstSlot), CKR_OK);
    }
}

TEST_F(LoginStatesTest, AnOfficersLoginWalksOverSessionsInEveryState) {
    for (const std::size_t caller : {0U, 1U, 2U, 3U, 4U}) {
        const Numbers sessions = sessionsInEveryState();
        const CK_SESSION_HANDLE otherToken = openSession(CKF_RW_SESSION, secondSlot);
        const CK_STATE before = stateOf(sessions[caller]);
        // The last refusal met counts: of the read-only session in state 0, not of the officer's at the beginning.
        EXPECT_EQ(tryLogin(sessions[caller], CKU_SO, "officer pin"), CKR_SESSION_READ_ONLY_EXISTS);
        EXPECT_EQ(log(),
                  (Lines{"DEBUG C_Login", "DEBUG Login state : " + decimal(before), readOnlySessionExists,
                         readOnlySessionExists, "DEBUG Login end result : " + decimal(CKR_SESSION_READ_ONLY_EXISTS)}));
        EXPECT_EQ(calls(), (Lines{validateCall("SN1", "officer pin", 2)}));
        EXPECT_EQ(states(sessions), (Numbers{4, 1, 4, 0, 4}));
        EXPECT_EQ(stateOf(otherToken), CKS_RW_PUBLIC_SESSION);
        ASSERT_EQ(functions().C_CloseAllSessions(firstSlot), CKR_OK);
    }
}

TEST_F(LoginStatesTest, TheLastRefusalMetIsTheAnswer) {
    openSession();
    const CK_SESSION_HANDLE officer = openSession(CKF_RW_SESSION);
    EXPECT_EQ(tryLogin(officer, CKU_SO, "officer pin"), CKR_SESSION_READ_ONLY_EXISTS);
    EXPECT_EQ(stateOf(officer), CKS_RW_SO_FUNCTIONS);
    EXPECT_EQ(observe([&] { return tryLogin(officer, CKU_SO, "officer pin"); }),
              (Outcome{CKR_USER_ALREADY_LOGGED_IN,
                       {"DEBUG C_Login", "DEBUG Login state : 4", readOnlySessionExists,
                        "DEBUG Login end result : " + decimal(CKR_USER_ALREADY_LOGGED_IN)},
                       {validateCall("SN1", "officer pin", 2)}}));
}

TEST_F(LoginStatesTest, AUsersLoginReachesEverySessionOfTheTokenOnly) {
    const Numbers sessions = {
        openSession(), openSession(CKF_RW_SESSION), openSession(0, secondSlot), openSession(CKF_RW_SESSION, secondSlot),
        openSession(), openSession(CKF_RW_SESSION)};
    EXPECT_EQ(observe([&] { return tryLogin(sessions[4], CKU_USER, "1234"); }),
              (Outcome{CKR_OK,
                       {"DEBUG C_Login", "DEBUG Login state : 0", "DEBUG Login end result : 0"},
                       {validateCall("SN1", "1234", 1)}}));
    EXPECT_EQ(states(sessions), (Numbers{1, 3, 0, 2, 1, 3}));
}

/// The token is its serial number, whatever the slot.
TEST_F(LoginStatesTest, SessionsOfOneSerialNumberAreOfOneToken) {
    device().connectedDevices = {"reader A", "reader B", "SN2"};
    device().tokenInfo["reader A"] = makeTokenInfo("SN1");
    device().tokenInfo["reader B"] = makeTokenInfo("SN1");
    listSlots();
    const Numbers sessions = {openSession(0, firstSlot), openSession(0, firstSlot + 1), openSession(0, firstSlot + 2)};
    // In the order of names the slots are SN2, reader A, reader B.
    EXPECT_EQ(tryLogin(sessions[1], CKU_USER, "1234"), CKR_OK);
    EXPECT_EQ(calls(), (Lines{validateCall("SN1", "1234", 1)}));
    EXPECT_EQ(states(sessions), (Numbers{0, 1, 1}));
    EXPECT_EQ(functions().C_Logout(sessions[2]), CKR_OK);
    EXPECT_EQ(states(sessions), (Numbers{0, 0, 0}));
}

// --- C_Logout -------------------------------------------------------------------------------------------------------

TEST_F(LoginStatesTest, LogoutRefusesWhatIsNoSession) {
    login(openSession());
    for (const CK_SESSION_HANDLE session : noSessions()) {
        EXPECT_EQ(observe([&] { return functions().C_Logout(session); }),
                  refused(CKR_SESSION_HANDLE_INVALID, "C_Logout: invalid hSession=" + decimal(session)));
    }
    EXPECT_EQ(stateOf(firstSession), CKS_RO_USER_FUNCTIONS);
}

TEST_F(LoginStatesTest, LogoutRefusesAPublicSession) {
    for (const CK_STATE state : Numbers{CKS_RO_PUBLIC_SESSION, CKS_RW_PUBLIC_SESSION}) {
        const CK_SESSION_HANDLE session = sessionInState(state);
        EXPECT_EQ(functions().C_Logout(session), CKR_USER_NOT_LOGGED_IN);
        EXPECT_EQ(log(),
                  (Lines{"DEBUG C_Logout", "ERROR C_Logout: user not logged in, session state=" + decimal(state)}));
        EXPECT_EQ(calls(), Lines{});
    }
}

/// A public session of the token can't log out what its other sessions are, nor empty the kept password.
TEST_F(LoginStatesTest, ARefusedLogoutChangesNothing) {
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    login(openSession());
    EXPECT_EQ(functions().C_Logout(other), CKR_USER_NOT_LOGGED_IN);
    EXPECT_TRUE(keeps("1234", other));
}

TEST_F(LoginStatesTest, LogoutFromEveryState) {
    const std::pair<std::size_t, const char*> callers[] = {{0, "4"}, {1, "1"}, {2, "3"}};
    for (const auto& [caller, state] : callers) {
        SCOPED_TRACE(state);
        const Numbers sessions = sessionsInEveryState();
        const CK_SESSION_HANDLE session = sessions[caller];
        EXPECT_EQ(observe([&] { return functions().C_Logout(session); }),
                  (Outcome{CKR_OK, {"DEBUG C_Logout", "DEBUG C_Logout end"}}));
        EXPECT_EQ(states(sessions), (Numbers{2, 0, 2, 0, 2}));
        EXPECT_EQ(functions().C_Logout(session), CKR_USER_NOT_LOGGED_IN);
        ASSERT_EQ(functions().C_CloseAllSessions(firstSlot), CKR_OK);
        clear();
    }
}

TEST_F(LoginStatesTest, LogoutEmptiesTheKeptPasswordAndLeavesOtherTokens) {
    const CK_SESSION_HANDLE first = openSession();
    const CK_SESSION_HANDLE second = openSession(CKF_RW_SESSION, secondSlot);
    login(first);
    login(second);
    EXPECT_EQ(functions().C_Logout(first), CKR_OK);
    EXPECT_EQ(states({first, second}), (Numbers{0, 3}));
    EXPECT_EQ(stateOf(openSession()), CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(tryLogin(first, CKU_USER, "1234"), CKR_OK);
    EXPECT_EQ(calls(), (Lines{validateCall("SN1", "1234", 1)}));  // asked again
}

TEST_F(LoginStatesTest, AnOfficersLogoutEmptiesTheKeptPasswordToo) {
    const CK_SESSION_HANDLE user = openSession();
    const CK_SESSION_HANDLE officer = openSession(CKF_RW_SESSION, secondSlot);
    login(officer, "officer pin", CKU_SO);
    login(user);
    EXPECT_EQ(functions().C_Logout(officer), CKR_OK);
    EXPECT_EQ(states({user, officer}), (Numbers{1, 2}));
    EXPECT_EQ(stateOf(openSession(0, secondSlot)), CKS_RO_PUBLIC_SESSION);
}

}  // namespace
