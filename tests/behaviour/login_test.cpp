// C_Login: its refusals, the device's answers and the kept password.

#include "login_test.h"

namespace {

using namespace support;

// --- C_Login: refusals in their order -------------------------------------------------------------------------------

TEST_F(LoginTest, RefusesWhatIsNoSessionFirst) {
    openSession();
    for (const CK_SESSION_HANDLE session : noSessions()) {
        for (const CK_USER_TYPE userType : Numbers{CKU_USER, CKU_SO, CKU_CONTEXT_SPECIFIC}) {
            EXPECT_EQ(observe([&] { return functions().C_Login(session, userType, nullptr, 0); }),
                      refused(CKR_SESSION_HANDLE_INVALID, "C_Login: invalid hSession=" + decimal(session)));
        }
    }
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(LoginTest, RefusesASecondUserLoginWithADebugLine) {
    for (const CK_STATE state : Numbers{CKS_RO_USER_FUNCTIONS, CKS_RW_USER_FUNCTIONS}) {
        const CK_SESSION_HANDLE session = sessionInState(state);
        const Lines refusal = {"DEBUG C_Login", "DEBUG C_Login: User already logged in"};
        EXPECT_EQ(observe([&] { return functions().C_Login(session, CKU_USER, nullptr, 0); }),
                  (Outcome{CKR_USER_ALREADY_LOGGED_IN, refusal}));
        EXPECT_EQ(observe([&] { return functions().C_Login(session, CKU_USER, pin("1234"), 4); }),
                  (Outcome{CKR_USER_ALREADY_LOGGED_IN, refusal}));
        EXPECT_EQ(stateOf(session), state);
        ASSERT_EQ(functions().C_CloseAllSessions(firstSlot), CKR_OK);
    }
}

/// The check before it is of the user's login only: another user type gets as far as its own check.
TEST_F(LoginTest, RefusesOtherUserTypesBeforeTheNullPointer) {
    const Numbers types = withWide({CKU_CONTEXT_SPECIFIC, 3, CK_UNAVAILABLE_INFORMATION}, {0x100000001, 0x100000000});
    for (const CK_STATE state : Numbers{CKS_RO_PUBLIC_SESSION, CKS_RW_USER_FUNCTIONS}) {
        const CK_SESSION_HANDLE session = sessionInState(state);
        for (const CK_USER_TYPE type : types) {
            EXPECT_EQ(observe([&] { return functions().C_Login(session, type, nullptr, 0); }),
                      refused(CKR_USER_TYPE_INVALID, "C_Login: unsupported userType=" + decimal(type)));
        }
        EXPECT_EQ(calls(), Lines{});
        EXPECT_EQ(stateOf(session), state);
    }
}

TEST_F(LoginTest, RefusesANullPinBeforeItsLength) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    for (const CK_USER_TYPE userType : bothUserTypes) {
        for (const CK_ULONG length : Numbers{0, 3, 4, 64}) {
            EXPECT_EQ(observe([&] { return functions().C_Login(session, userType, nullptr, length); }),
                      refused(CKR_ARGUMENTS_BAD, "C_Login: pPin is NULL"));
        }
    }
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
}

TEST_F(LoginTest, RefusesPinsOutOfRange) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    const std::string password(100, 'p');
    const Numbers lengths = withWide({0, 1, 3, 64, 65, 0x80000004UL, CK_UNAVAILABLE_INFORMATION}, {0x100000004});
    for (const CK_USER_TYPE userType : bothUserTypes) {
        for (const CK_ULONG length : lengths) {
            EXPECT_EQ(functions().C_Login(session, userType, pin(password.c_str()), length), CKR_PIN_LEN_RANGE);
            EXPECT_EQ(log(),
                      (Lines{"DEBUG C_Login", "ERROR C_Login: pin length out of range, ulPinLen=" + decimal(length)}));
        }
    }
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
}

TEST_F(LoginTest, AsksTheDeviceForPinsWithinRange) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    for (const std::size_t length : {4U, 5U, 62U, 63U}) {
        const std::string password(length, 'p');
        EXPECT_EQ(observe([&] { return tryLogin(session, CKU_USER, password); }),
                  (Outcome{CKR_OK,
                           {"DEBUG C_Login", "DEBUG Login state : 2", "DEBUG Login end result : 0"},
                           {validateCall("SN1", password, 1)}}));
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

TEST_F(LoginTest, RefusalsOfTheDevice) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    const CK_SESSION_HANDLE readOnly = openSession();
    for (const CK_USER_TYPE userType : bothUserTypes) {
        for (const DeviceRefusal& refusal : deviceRefusals) {
            device().results["zentak_validatePassword"] = refusal.result;
            device().attemptsLeft = refusal.attemptsLeft;
            EXPECT_EQ(
                observe([&] { return tryLogin(session, userType, "1234"); }),
                (Outcome{
                    refusal.code,
                    {"DEBUG C_Login", "ERROR Token password validation failed : " + std::to_string(refusal.result),
                     "ERROR Token password validation failed, retry count : " + std::to_string(refusal.attemptsLeft)},
                    {validateCall("SN1", "1234", userType == CKU_USER ? 1 : 2)}}));
            EXPECT_EQ(states({session, readOnly}), (Numbers{2, 0}));
        }
    }
    EXPECT_EQ(stateOf(openSession()), CKS_RO_PUBLIC_SESSION);  // no password was kept
}

TEST_F(LoginTest, TheDeviceResult48IsAFailureWithOneLine) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    device().results["zentak_validatePassword"] = 48;
    for (const int attemptsLeft : {0, 2}) {
        device().attemptsLeft = attemptsLeft;
        for (const CK_USER_TYPE userType : bothUserTypes) {
            EXPECT_EQ(observe([&] { return tryLogin(session, userType, "1234"); }),
                      failed(CKR_FUNCTION_FAILED, "C_Login", "Token password validation failed : 48",
                             {validateCall("SN1", "1234", userType == CKU_USER ? 1 : 2)}));
            EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
        }
    }
}

TEST_F(LoginTest, AFailedLoginLeavesTheKeptPassword) {
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    login(openSession(CKF_RW_SESSION));
    EXPECT_FALSE(keeps("9999", other));
    EXPECT_EQ(stateOf(other), CKS_RW_PUBLIC_SESSION);
    EXPECT_TRUE(keeps("1234", other));
}

// --- C_Login: the kept password -------------------------------------------------------------------------------------

TEST_F(LoginTest, TheKeptPasswordSpareTheDeviceAQuestion) {
    const CK_SESSION_HANDLE other = openSession(0, secondSlot);
    login(openSession(CKF_RW_SESSION));
    EXPECT_EQ(observe([&] { return tryLogin(other, CKU_USER, "1234"); }),
              (Outcome{CKR_OK, {"DEBUG C_Login", "DEBUG Login state : 0", "DEBUG Login end result : 0"}}));
    EXPECT_EQ(stateOf(other), CKS_RO_USER_FUNCTIONS);
}

TEST_F(LoginTest, APinThatOnlyBeginsLikeTheKeptOneIsAsked) {
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

TEST_F(LoginTest, ALaterLoginReplacesTheKeptPassword) {
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

TEST_F(LoginTest, TheSecurityOfficerIsAlwaysAskedAndNeverKept) {
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session, "1234");
    EXPECT_EQ(observe([&] { return tryLogin(session, CKU_SO, "1234"); }),
              (Outcome{CKR_OK,
                       {"DEBUG C_Login", "DEBUG Login state : 3", "DEBUG Login end result : 0"},
                       {validateCall("SN1", "1234", 2)}}));
    EXPECT_EQ(tryLogin(session, CKU_SO, "officer pin"), CKR_USER_ALREADY_LOGGED_IN);
    EXPECT_EQ(calls(), (Lines{validateCall("SN1", "officer pin", 2)}));
    EXPECT_TRUE(keeps("1234", other));  // the user's password is still there
}

TEST_F(LoginTest, AFirstOfficersLoginKeepsNothing) {
    login(openSession(CKF_RW_SESSION), "officer pin", CKU_SO);
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    EXPECT_EQ(stateOf(other), CKS_RW_PUBLIC_SESSION);
    EXPECT_FALSE(keeps("officer pin", other));
}

/// The device sees text up to the zero; what is kept are all bytes.
TEST_F(LoginTest, APinWithAZeroByte) {
    const std::string password("1234\0005678", 9);
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    EXPECT_EQ(tryLogin(openSession(CKF_RW_SESSION), CKU_USER, password), CKR_OK);
    EXPECT_EQ(calls(), (Lines{validateCall("SN1", "1234", 1)}));
    EXPECT_FALSE(keeps("1234", other));
    EXPECT_FALSE(keeps(std::string("1234\0005679", 9), other));
    EXPECT_TRUE(keeps(password, other));
}

TEST_F(LoginTest, APinOfOtherThanLetters) {
    const std::string password = "\xC3\xA4\xFF\x01 \n";
    EXPECT_EQ(tryLogin(openSession(CKF_RW_SESSION), CKU_USER, password), CKR_OK);
    EXPECT_EQ(calls(), (Lines{validateCall("SN1", password, 1)}));
}

TEST_F(LoginTest, NoPinIsEverLogged) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    device().addFault({"zentak_validatePassword", 1, 7});
    tryLogin(session, CKU_USER, "unmistakable");
    tryLogin(session, CKU_USER, "unmistakable");
    functions().C_SetPIN(session, pin("unmistakable"), 12, pin("unmistakable too"), 16);
    for (const std::string& line : log()) EXPECT_EQ(line.find("unmistakable"), std::string::npos) << line;
}

}  // namespace
