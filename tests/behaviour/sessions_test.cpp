// Sessions: opening, closing and asking about them.

#include "module_test.h"

namespace {

using namespace support;

constexpr CK_SESSION_HANDLE untouched = 0x7B;

/// Two tokens, the second at `firstSlot + 1`.
class SessionsTest : public ModuleTest {
protected:
    void plugInTokens() override {
        plugIn(makeTokenInfo("SN1"));
        plugIn(makeTokenInfo("SN2"));
    }

    static Outcome open(CK_SLOT_ID slot, CK_FLAGS flags, CK_SESSION_HANDLE* session) {
        return observe([&] { return functions().C_OpenSession(slot, flags, nullptr, nullptr, session); });
    }
    static CK_RV close(CK_SESSION_HANDLE session) { return functions().C_CloseSession(session); }

    static CK_RV resultFor(CK_SESSION_HANDLE session) {
        CK_SESSION_INFO info = {};
        const CK_RV result = functions().C_GetSessionInfo(session, &info);
        clear();
        return result;
    }

    static void expectInfo(CK_SESSION_HANDLE session, CK_SLOT_ID slot, CK_STATE state, CK_FLAGS flags) {
        clear();
        CK_SESSION_INFO info = filledWith<CK_SESSION_INFO>(0xFF);
        CK_SESSION_INFO expected = {};
        expected.slotID = slot;
        expected.state = state;
        expected.flags = flags;
        EXPECT_EQ(functions().C_GetSessionInfo(session, &info), CKR_OK);
        EXPECT_EQ(bytesOf(info), bytesOf(expected));
        EXPECT_EQ(log(), (Lines{"DEBUG C_GetSessionInfo"}));
        EXPECT_EQ(calls(), Lines{});
    }
};

Numbers noSessions() {
    // Of the first wide one the low 32 bits would be the first session.
    return withWide({0, 1, firstSlot, firstSession - 1, firstSession + 1, privateKeyBase, CK_UNAVAILABLE_INFORMATION},
                    {0x160000001, 0xFFFFFFFF60000001});
}

// --- C_OpenSession --------------------------------------------------------------------------------------------------

TEST_F(SessionsTest, OpenReadOnly) {
    CK_SESSION_HANDLE session = 0;
    EXPECT_EQ(open(firstSlot, CKF_SERIAL_SESSION, &session),
              (Outcome{CKR_OK, {"DEBUG C_OpenSession", "DEBUG Opensession  : 1610612737"}}));
    EXPECT_EQ(session, firstSession);
    expectInfo(session, firstSlot, CKS_RO_PUBLIC_SESSION, CKF_SERIAL_SESSION);
}

TEST_F(SessionsTest, OpenReadWrite) {
    CK_SESSION_HANDLE session = 0;
    EXPECT_EQ(open(firstSlot + 1, CKF_SERIAL_SESSION | CKF_RW_SESSION, &session).code, CKR_OK);
    EXPECT_EQ(session, firstSession);
    expectInfo(session, firstSlot + 1, CKS_RW_PUBLIC_SESSION, CKF_SERIAL_SESSION | CKF_RW_SESSION);
}

TEST_F(SessionsTest, OpenRefusesAnUnknownSlotFirst) {
    const Numbers ids =
        withWide({0, firstSlot - 1, firstSlot + 2, firstSession, CK_UNAVAILABLE_INFORMATION}, {0x150000001});
    for (const CK_SLOT_ID slot : ids) {
        CK_SESSION_HANDLE session = untouched;
        const Lines refusal = {"DEBUG C_OpenSession", "ERROR C_OpenSession: invalid slotID=" + decimal(slot)};
        EXPECT_EQ(open(slot, CKF_SERIAL_SESSION, &session), (Outcome{CKR_SLOT_ID_INVALID, refusal}));
        EXPECT_EQ(open(slot, 0, &session), (Outcome{CKR_SLOT_ID_INVALID, refusal}));  // before the flags
        EXPECT_EQ(open(slot, CKF_SERIAL_SESSION, nullptr),
                  (Outcome{CKR_SLOT_ID_INVALID, refusal}));  // and before the pointer
        EXPECT_EQ(session, untouched);
    }
    EXPECT_EQ(openSession(), firstSession);  // nothing was opened
}

TEST_F(SessionsTest, OpenRefusesAParallelSessionBeforeTheNullPointer) {
    for (const CK_FLAGS flags : {CK_FLAGS{0}, static_cast<CK_FLAGS>(CKF_RW_SESSION), static_cast<CK_FLAGS>(~4UL)}) {
        CK_SESSION_HANDLE session = untouched;
        for (CK_SESSION_HANDLE* const pointer : {&session, static_cast<CK_SESSION_HANDLE*>(nullptr)}) {
            EXPECT_EQ(open(firstSlot, flags, pointer),
                      refused(CKR_SESSION_PARALLEL_NOT_SUPPORTED,
                              "C_OpenSession: CKF_SERIAL_SESSION not set, flags=" + decimal(flags)));
        }
        EXPECT_EQ(session, untouched);
    }
    EXPECT_EQ(openSession(), firstSession);
}

TEST_F(SessionsTest, OpenRefusesANullPointer) {
    EXPECT_EQ(open(firstSlot, CKF_SERIAL_SESSION, nullptr),
              refused(CKR_ARGUMENTS_BAD, "C_OpenSession: phSession is NULL"));
    EXPECT_EQ(openSession(), firstSession);
}

CK_RV refusingNotify(CK_SESSION_HANDLE, CK_NOTIFICATION, CK_VOID_PTR) {
    return CKR_CANCEL;
}

TEST_F(SessionsTest, OpenIgnoresTheNotificationAndOtherFlags) {
    CK_SESSION_HANDLE session = 0;
    int application = 0;
    EXPECT_EQ(functions().C_OpenSession(firstSlot, CK_UNAVAILABLE_INFORMATION, &application, refusingNotify, &session),
              CKR_OK);
    expectInfo(session, firstSlot, CKS_RW_PUBLIC_SESSION, CKF_SERIAL_SESSION | CKF_RW_SESSION);
}

TEST_F(SessionsTest, HandlesFollowTheLargestOpenOne) {
    for (const CK_SESSION_HANDLE next : Numbers{0, 1, 2}) EXPECT_EQ(openSession(), firstSession + next);
    EXPECT_EQ(close(firstSession + 1), CKR_OK);
    EXPECT_EQ(openSession(), firstSession + 3);  // gaps stay
    EXPECT_EQ(close(firstSession + 3), CKR_OK);
    EXPECT_EQ(close(firstSession + 2), CKR_OK);
    EXPECT_EQ(openSession(), firstSession + 1);
    EXPECT_EQ(close(firstSession), CKR_OK);
    EXPECT_EQ(openSession(), firstSession + 2);
    EXPECT_EQ(close(firstSession + 2), CKR_OK);
    EXPECT_EQ(close(firstSession + 1), CKR_OK);
    EXPECT_EQ(openSession(), firstSession);  // the table was empty
}

TEST_F(SessionsTest, HandlesAreSharedByTheSlots) {
    EXPECT_EQ(openSession(0, firstSlot), firstSession);
    EXPECT_EQ(openSession(0, firstSlot + 1), firstSession + 1);
    EXPECT_EQ(openSession(0, firstSlot), firstSession + 2);
}

TEST_F(SessionsTest, ThereIsNoLimit) {
    for (CK_SESSION_HANDLE i = 0; i < 300; ++i) {
        CK_SESSION_HANDLE session = 0;
        ASSERT_EQ(open(firstSlot, CKF_SERIAL_SESSION, &session).code, CKR_OK);
        ASSERT_EQ(session, firstSession + i);
    }
}

TEST_F(SessionsTest, ANewSessionIsAUsersWhileAPasswordIsKept) {
    login(openSession(CKF_RW_SESSION));
    EXPECT_EQ(stateOf(openSession()), CKS_RO_USER_FUNCTIONS);
    EXPECT_EQ(stateOf(openSession(CKF_RW_SESSION)), CKS_RW_USER_FUNCTIONS);
    // The password is the module's, whatever the token.
    EXPECT_EQ(stateOf(openSession(0, firstSlot + 1)), CKS_RO_USER_FUNCTIONS);
    EXPECT_EQ(stateOf(openSession(CKF_RW_SESSION, firstSlot + 1)), CKS_RW_USER_FUNCTIONS);
}

TEST_F(SessionsTest, TheUserOutlivesTheLastSession) {
    const CK_SESSION_HANDLE session = openSession();
    login(session);
    ASSERT_EQ(functions().C_CloseSession(session), CKR_OK);
    EXPECT_EQ(stateOf(openSession()), CKS_RO_USER_FUNCTIONS);
    ASSERT_EQ(functions().C_CloseAllSessions(firstSlot), CKR_OK);
    EXPECT_EQ(stateOf(openSession()), CKS_RO_USER_FUNCTIONS);
    EXPECT_EQ(stateOf(openSession(CKF_RW_SESSION)), CKS_RW_USER_FUNCTIONS);
}

TEST_F(SessionsTest, ANewSessionIsNeverTheSecurityOfficers) {
    login(openSession(CKF_RW_SESSION), "officer pin", CKU_SO);
    EXPECT_EQ(stateOf(openSession(CKF_RW_SESSION)), CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(stateOf(openSession()), CKS_RO_PUBLIC_SESSION);
}

TEST_F(SessionsTest, ASessionOutlivesItsSlot) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION, firstSlot + 1);
    device().connectedDevices = {"SN1"};
    listSlots();
    expectInfo(session, firstSlot + 1, CKS_RW_PUBLIC_SESSION, CKF_SERIAL_SESSION | CKF_RW_SESSION);
    EXPECT_EQ(functions().C_Login(session, CKU_USER, pin("1234"), 4), CKR_OK);
    EXPECT_EQ(calls(), (Lines{"zentak_validatePassword(\"SN2\", \"1234\", 1, *0, instance)"}));
}

// --- C_CloseSession -------------------------------------------------------------------------------------------------

TEST_F(SessionsTest, Close) {
    const CK_SESSION_HANDLE session = openSession();
    const CK_SESSION_HANDLE other = openSession();
    EXPECT_EQ(observe([&] { return functions().C_CloseSession(session); }), succeeded("C_CloseSession"));
    EXPECT_EQ(resultFor(session), CKR_SESSION_HANDLE_INVALID);
    EXPECT_EQ(resultFor(other), CKR_OK);

    EXPECT_EQ(observe([&] { return functions().C_CloseSession(session); }),
              refused(CKR_SESSION_HANDLE_INVALID, "C_CloseSession: invalid hSession=1610612737"));
}

TEST_F(SessionsTest, CloseRefusesWhatIsNoSession) {
    openSession();
    for (const CK_SESSION_HANDLE session : noSessions()) {
        EXPECT_EQ(observe([&] { return functions().C_CloseSession(session); }),
                  refused(CKR_SESSION_HANDLE_INVALID, "C_CloseSession: invalid hSession=" + decimal(session)));
    }
    EXPECT_EQ(resultFor(firstSession), CKR_OK);
}

TEST_F(SessionsTest, ClosingLogsNobodyOut) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    const CK_SESSION_HANDLE other = openSession();
    login(session);
    ASSERT_EQ(functions().C_CloseSession(session), CKR_OK);
    EXPECT_EQ(stateOf(other), CKS_RO_USER_FUNCTIONS);
}

// --- C_CloseAllSessions ---------------------------------------------------------------------------------------------

TEST_F(SessionsTest, CloseAllClosesThoseOfEverySlot) {
    for (const CK_SLOT_ID slot : {firstSlot, firstSlot + 1}) {
        const CK_SESSION_HANDLE first = openSession(0, firstSlot);
        const CK_SESSION_HANDLE second = openSession(CKF_RW_SESSION, firstSlot + 1);
        EXPECT_EQ(observe([&] { return functions().C_CloseAllSessions(slot); }),
                  (Outcome{CKR_OK, {"DEBUG C_CloseAllSessions", "DEBUG Close all session"}}));
        EXPECT_EQ(resultFor(first), CKR_SESSION_HANDLE_INVALID);
        EXPECT_EQ(resultFor(second), CKR_SESSION_HANDLE_INVALID);
        EXPECT_EQ(functions().C_CloseAllSessions(slot), CKR_OK);  // none is fine too
        clear();
    }
}

TEST_F(SessionsTest, CloseAllRefusesAnUnknownSlot) {
    const CK_SESSION_HANDLE session = openSession();
    const Numbers ids =
        withWide({0, firstSlot - 1, firstSlot + 2, firstSession, CK_UNAVAILABLE_INFORMATION}, {0x150000001});
    for (const CK_SLOT_ID slot : ids) {
        EXPECT_EQ(functions().C_CloseAllSessions(slot), CKR_SLOT_ID_INVALID);
        EXPECT_EQ(log(),
                  (Lines{"DEBUG C_CloseAllSessions", "ERROR C_CloseAllSessions: invalid slotID=" + decimal(slot)}));
    }
    EXPECT_EQ(resultFor(session), CKR_OK);
}

// --- C_GetSessionInfo -----------------------------------------------------------------------------------------------

TEST_F(SessionsTest, InfoRefusesWhatIsNoSessionFirst) {
    openSession();
    for (const CK_SESSION_HANDLE session : noSessions()) {
        CK_SESSION_INFO info = filledWith<CK_SESSION_INFO>(0xFF);
        for (CK_SESSION_INFO* const pointer : {&info, static_cast<CK_SESSION_INFO*>(nullptr)}) {
            EXPECT_EQ(observe([&] { return functions().C_GetSessionInfo(session, pointer); }),
                      refused(CKR_SESSION_HANDLE_INVALID, "C_GetSessionInfo: invalid hSession=" + decimal(session)));
        }
        EXPECT_EQ(bytesOf(info), Bytes(sizeof info, 0xFF));
    }
}

TEST_F(SessionsTest, InfoRefusesANullPointer) {
    EXPECT_EQ(observe([&] { return functions().C_GetSessionInfo(openSession(), nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_GetSessionInfo: pInfo is NULL"));
}

TEST_F(SessionsTest, InfoInEveryState) {
    const CK_SESSION_HANDLE readOnly = openSession(0, firstSlot);
    const CK_SESSION_HANDLE readWrite = openSession(CKF_RW_SESSION, firstSlot);
    const CK_SESSION_HANDLE officer = openSession(CKF_RW_SESSION, firstSlot + 1);
    expectInfo(readOnly, firstSlot, CKS_RO_PUBLIC_SESSION, 4);
    expectInfo(readWrite, firstSlot, CKS_RW_PUBLIC_SESSION, 6);
    login(readOnly);
    expectInfo(readOnly, firstSlot, CKS_RO_USER_FUNCTIONS, 4);
    expectInfo(readWrite, firstSlot, CKS_RW_USER_FUNCTIONS, 6);
    login(officer, "officer pin", CKU_SO);
    expectInfo(officer, firstSlot + 1, CKS_RW_SO_FUNCTIONS, 6);
}

}  // namespace
