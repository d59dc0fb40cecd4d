// What must never do harm: garbage from the caller, and applications that end without saying so.

#include "child_process.h"
#include "every_function.h"
#include "module_test.h"
#include "run_folder.h"

namespace {

using namespace support;
using behaviour::AnyFunction;
using behaviour::everyFunction;

class RobustnessTest : public ModuleTest {};

// --- Garbage from the caller ----------------------------------------------------------------------------------------

std::vector<CK_ULONG> garbage() {
    return withWide({0, 1, firstSlot, firstSession,
                     // Objects.
                     privateKeyBase, publicKeyBase, 0x70002000, 0x70003000,
                     // The ends of numbers.
                     0x7FFFFFFF, 0x80000000UL, CK_UNAVAILABLE_INFORMATION},
                    {0x160000001, 0x8000000000000000});
}

/// Null for every pointer, made-up numbers for the rest: whatever a function says, it says it.
TEST_F(RobustnessTest, EveryFunctionSurvivesGarbage) {
    device().records = false;
    setLogLevel(0);
    device().keyPairs["SN1"] = {makeKeyPair(0), makeKeyPair(1, p256)};
    device().certificates["SN1"] = {makeCertificate(0, {0x30}), makeCertificate(1, {})};
    for (const CK_ULONG first : garbage()) {
        for (const CK_ULONG number : garbage()) {
            for (const AnyFunction& function : everyFunction()) {
                CK_SESSION_HANDLE session = 0;
                const CK_RV opened = functions().C_OpenSession(firstSlot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr,
                                                               nullptr, &session);
                ASSERT_EQ(opened, CKR_OK) << function.name;
                if (function.name == "C_Finalize") continue;
                // Its null pointer isn't checked, and a key that exists has a size to write.
                if (function.name == "C_GetObjectSize" && (number & 0xFFF) <= 1 && number >= privateKeyBase) continue;
                function.call(first, number);
                ASSERT_EQ(functions().C_CloseAllSessions(firstSlot), CKR_OK) << function.name;
            }
        }
    }
    setLogLevel(debugLevel);
    expectUsable();
}

TEST_F(RobustnessTest, ArgumentsBehindNullPointers) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    CK_ATTRIBUTE empty = {};
    CK_ATTRIBUTE wide = {};
    wide.ulValueLen = CK_UNAVAILABLE_INFORMATION;
    device().keyPairs["SN1"] = {makeKeyPair(1)};
    for (CK_ATTRIBUTE* const attribute : {&empty, &wide}) {
        EXPECT_EQ(functions().C_FindObjectsInit(session, attribute, 1), CKR_ATTRIBUTE_VALUE_INVALID);
        EXPECT_EQ(functions().C_GetAttributeValue(session, privateKeyBase + 1, attribute, 1), CKR_OK);
    }
    CK_MECHANISM mechanism = {};
    mechanism.mechanism = CKM_RSA_PKCS;
    mechanism.ulParameterLen = CK_UNAVAILABLE_INFORMATION;
    EXPECT_EQ(functions().C_SignInit(session, &mechanism, privateKeyBase + 1), CKR_MECHANISM_PARAM_INVALID);
}

// --- Applications that don't behave ---------------------------------------------------------------------------------

class BadHostTest : public RobustnessTest, public ::testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        RobustnessTest::SetUp();
        std::filesystem::create_directories(logFolder("host_probe"));
    }
};

/// See host_probe.cpp.
TEST_P(BadHostTest, EndsNormally) {
    const ChildResult result = runChild(programFile().parent_path() / "host_probe", {GetParam()});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "");
}

INSTANTIATE_TEST_SUITE_P(Ways, BadHostTest,
                         ::testing::Values("return", "exit", "unload", "reload", "waiting-return", "waiting-exit",
                                           "hundred-loads", "two-copies", "odd-path", "other-folder", "no-streams"));

}  // namespace
