// C_SetPIN.

#include "login_test.h"

namespace {

using namespace support;

class SetPinTest : public LoginTest {
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
        EXPECT_EQ(observe([&] { return functions().C_SetPIN(session, oldPin, oldLength, newPin, newLength); }),
                  refused(code, "C_SetPIN: " + message));
    }
};

TEST_F(SetPinTest, RefusesWhatIsNoSessionFirst) {
    openSession();
    for (const CK_SESSION_HANDLE session : noSessions()) {
        expectRefusal(session, nullptr, 0, nullptr, 0, CKR_SESSION_HANDLE_INVALID,
                      "invalid hSession=" + decimal(session));
    }
}

TEST_F(SetPinTest, RefusesAReadOnlySessionBeforeThePins) {
    for (const CK_STATE state : Numbers{CKS_RO_PUBLIC_SESSION, CKS_RO_USER_FUNCTIONS}) {
        const CK_SESSION_HANDLE session = sessionInState(state);
        expectRefusal(session, nullptr, 0, nullptr, 0, CKR_SESSION_READ_ONLY,
                      "session is read-only, state=" + decimal(state));
        expectRefusal(session, pin("1234"), 4, pin("5678"), 4, CKR_SESSION_READ_ONLY,
                      "session is read-only, state=" + decimal(state));
    }
}

TEST_F(SetPinTest, RefusesThePinsInTheirOrder) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    const std::string text(100, 'p');
    CK_UTF8CHAR_PTR const some = pin(text.c_str());
    const std::string oldRange = "old pin length out of range, ulOldLen=";
    const std::string newRange = "new pin length out of range, ulNewLen=";

    expectRefusal(session, nullptr, 3, nullptr, 3, CKR_ARGUMENTS_BAD, "pOldPin is NULL");
    expectRefusal(session, nullptr, 4, some, 4, CKR_ARGUMENTS_BAD, "pOldPin is NULL");
    const Numbers lengths = withWide({0, 3, 64, 0x80000004UL, CK_UNAVAILABLE_INFORMATION}, {0x100000004});
    for (const CK_ULONG length : lengths) {
        expectRefusal(session, some, length, nullptr, 3, CKR_PIN_LEN_RANGE, oldRange + decimal(length));
        expectRefusal(session, some, length, some, 4, CKR_PIN_LEN_RANGE, oldRange + decimal(length));
        expectRefusal(session, some, 4, nullptr, length, CKR_ARGUMENTS_BAD, "pNewPin is NULL");
        expectRefusal(session, some, 63, some, length, CKR_PIN_LEN_RANGE, newRange + decimal(length));
    }
    expectRefusal(session, some, 4, nullptr, 4, CKR_ARGUMENTS_BAD, "pNewPin is NULL");
}

TEST_F(SetPinTest, HandsBothPinsToTheDevice) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION, secondSlot);
    const std::string longest(63, 'p');
    EXPECT_EQ(observe([&] { return setPin(session, "1234", longest); }),
              succeeded("C_SetPIN", {changeCall("SN2", "1234", longest)}));
    EXPECT_EQ(setPin(session, longest, "5678"), CKR_OK);
    EXPECT_EQ(calls(), (Lines{changeCall("SN2", longest, "5678")}));
    EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
}

TEST_F(SetPinTest, NeedsNoLoginAndKeepsNothingThen) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    EXPECT_EQ(setPin(session, "1234", "5678"), CKR_OK);
    EXPECT_EQ(stateOf(openSession()), CKS_RO_PUBLIC_SESSION);
}

TEST_F(SetPinTest, ReplacesAKeptPassword) {
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session);
    EXPECT_EQ(setPin(session, "1234", "56789"), CKR_OK);
    EXPECT_EQ(stateOf(session), CKS_RW_USER_FUNCTIONS);
    EXPECT_FALSE(keeps("1234", other));
    EXPECT_TRUE(keeps("56789", other));
}

TEST_F(SetPinTest, ChangesTheUsersPinFromAnOfficersSession) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session, "officer pin", CKU_SO);
    EXPECT_EQ(setPin(session, "1234", "5678"), CKR_OK);
    EXPECT_EQ(calls(), (Lines{changeCall("SN1", "1234", "5678")}));
    EXPECT_EQ(stateOf(session), CKS_RW_SO_FUNCTIONS);
    EXPECT_EQ(stateOf(openSession()), CKS_RO_PUBLIC_SESSION);
}

TEST_F(SetPinTest, ARefusalOfTheDeviceKeepsThePassword) {
    const CK_SESSION_HANDLE other = openSession(CKF_RW_SESSION, secondSlot);
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session);
    device().results["zentak_changeUserPassword"] = 0;
    for (const int failureCount : {0, 3, -1}) {
        device().failureCount = failureCount;
        EXPECT_EQ(observe([&] { return setPin(session, "1234", "5678"); }),
                  refused(CKR_FUNCTION_FAILED,
                          "C_SetPIN: zentak_changeUserPassword failed, failureCount=" + std::to_string(failureCount),
                          {changeCall("SN1", "1234", "5678")}));
    }
    EXPECT_EQ(stateOf(session), CKS_RW_USER_FUNCTIONS);
    EXPECT_FALSE(keeps("5678", other));
    EXPECT_TRUE(keeps("1234", other));
}

TEST_F(SetPinTest, PinsWithAZeroByteEndThereForTheDevice) {
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
