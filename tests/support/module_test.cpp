#include "module_test.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace support {

void plugIn(const TokenInfo& info) {
    std::vector<std::string> connected;
    device().change([&](scripted::Device& world) {
        world.connectedDevices.push_back(info.serialNumber);
        world.tokenInfo[info.serialNumber] = info;
        connected = world.connectedDevices;
    });
    device().showToMonitor(connected);
}

CK_UTF8CHAR_PTR pin(const char* text) {
    // Cryptoki's pointers aren't const, though nobody writes here.
    return reinterpret_cast<CK_UTF8CHAR_PTR>(const_cast<char*>(text));
}

std::string decimal(CK_ULONG value) {
    return std::to_string(value);
}

void expectUsable() {
    std::thread([] {
        CK_INFO info;
        EXPECT_EQ(functions().C_GetInfo(&info), CKR_OK);
    }).join();
    takeLog();
}

void expectOneError(const Outcome& outcome, CK_RV code, const std::string& function) {
    const Lines& log = outcome.log;
    const auto errors =
        std::count_if(log.begin(), log.end(), [](const auto& line) { return line.rfind("ERROR ", 0) == 0; });
    const bool own = !log.empty() && log.back().rfind("ERROR " + function + ":", 0) == 0;
    EXPECT_TRUE(outcome.code == code && errors == 1 && own)
        << "not " << code << " with one error of " << function << ": " << testing::PrintToString(outcome);
}

void letThrow(const std::string& operation, scripted::Throw thrown, int nth) {
    device().addFault({.operation = operation, .nth = nth, .thrown = thrown});
}

void ModuleTest::plugInTokens() {
    plugIn(makeTokenInfo("SN1"));
}

void ModuleTest::SetUp() {
    device().reset();
    setLogLevel(debugLevel);
    createLogFolder();
    plugInTokens();
    ASSERT_EQ(functions().C_Initialize(nullptr), CKR_OK);
    // From now on the monitor is quiet for a second.
    ASSERT_TRUE(device().waitForPolls(1));
    listSlots();
    clear();
}

void ModuleTest::TearDown() {
    setLogLevel(debugLevel);
    functions().C_Finalize(nullptr);
    EXPECT_FALSE(device().hasInstance());
    clear();
}

std::vector<CK_SLOT_ID> ModuleTest::listSlots() {
    CK_ULONG count = 0;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    std::vector<CK_SLOT_ID> slots(count + 1);  // one too many, so that the list isn't asked for by a null pointer
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, slots.data(), &count), CKR_OK);
    slots.resize(count);
    clear();
    return slots;
}

CK_SESSION_HANDLE ModuleTest::openSession(CK_FLAGS flags, CK_SLOT_ID slot) {
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    EXPECT_EQ(functions().C_OpenSession(slot, flags | CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
    clear();
    return session;
}

void ModuleTest::login(CK_SESSION_HANDLE session, const char* password, CK_USER_TYPE userType) {
    EXPECT_EQ(functions().C_Login(session, userType, pin(password), static_cast<CK_ULONG>(std::strlen(password))),
              CKR_OK);
    clear();
}

CK_STATE ModuleTest::stateOf(CK_SESSION_HANDLE session) {
    CK_SESSION_INFO info = {};
    EXPECT_EQ(functions().C_GetSessionInfo(session, &info), CKR_OK);
    clear();
    return info.state;
}

void ModuleTest::clear() {
    takeLog();
    takeMonitorLog();
    device().takeCalls();
    device().takePolls();
}

}  // namespace support
