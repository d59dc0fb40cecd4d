// What must never do harm: exceptions from the device library, garbage from the caller, many threads, hosts that end
// without saying so.

#include <thread>

#include "child_process.h"
#include "every_function.h"
#include "module_test.h"
#include "run_folder.h"

namespace {

using namespace support;
using behaviour::AnyFunction;
using behaviour::everyFunction;
using scripted::Throw;

class RobustnessTest : public ModuleTest {};

// --- Exceptions from the device library -----------------------------------------------------------------------------

struct Thrown {
    Throw thrown;
    CK_RV code;
};

constexpr Thrown thrownCodes[] = {{Throw::badAlloc, CKR_HOST_MEMORY},
                                  {Throw::exception, CKR_FUNCTION_FAILED},
                                  {Throw::somethingElse, CKR_FUNCTION_FAILED}};

void letThrow(const char* operation, Throw thrown, int nth = 1) {
    scripted::Fault fault{operation, nth};
    fault.thrown = thrown;
    device().addFault(fault);
}

/// The last line is an ERROR of the function's own, and no other line is an ERROR.
void expectOneError(const Lines& lines, const std::string& function) {
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "DEBUG " + function);
    EXPECT_EQ(lines.back().rfind("ERROR " + function, 0), 0U) << lines.back();
    for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
        EXPECT_NE(lines[i].rfind("ERROR", 0), 0U) << lines[i];
    }
}

/// A call from another thread gets through: no lock was left behind.
void expectUsable() {
    std::thread([] {
        CK_INFO info;
        EXPECT_EQ(functions().C_GetInfo(&info), CKR_OK);
    }).join();
    takeLog();
}

TEST_F(RobustnessTest, CreateInstanceThrows) {
    ASSERT_EQ(functions().C_Finalize(nullptr), CKR_OK);
    for (const Thrown& thrown : thrownCodes) {
        clear();
        letThrow("zentak_createInstance", thrown.thrown);
        EXPECT_EQ(functions().C_Initialize(nullptr), thrown.code);
        expectOneError(log(), "C_Initialize");
        EXPECT_EQ(functions().C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    }
    EXPECT_EQ(functions().C_Initialize(nullptr), CKR_OK);
    expectUsable();
}

/// The instance goes only once it is released.
TEST_F(RobustnessTest, ReleaseInstanceThrows) {
    for (const Thrown& thrown : thrownCodes) {
        letThrow("zentak_releaseInstance", thrown.thrown);
        EXPECT_EQ(functions().C_Finalize(nullptr), thrown.code);
        expectOneError(log(), "C_Finalize");
    }
    EXPECT_EQ(functions().C_Finalize(nullptr), CKR_OK);
    EXPECT_EQ(functions().C_Initialize(nullptr), CKR_OK);
    expectUsable();
}

TEST_F(RobustnessTest, TheDeviceListThrows) {
    for (const Thrown& thrown : thrownCodes) {
        for (const bool fill : {false, true}) {
            CK_ULONG count = 1;
            CK_SLOT_ID slot = 0x77;
            letThrow("zentak_getConnectedDeviceList", thrown.thrown);
            EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, fill ? &slot : nullptr, &count), thrown.code);
            expectOneError(log(), "C_GetSlotList");
            EXPECT_EQ(count, 1U);
            EXPECT_EQ(slot, 0x77U);
        }
    }
    expectUsable();
    EXPECT_NE(openSession(), CK_INVALID_HANDLE);  // the table is as it was
}

TEST_F(RobustnessTest, TheTokenInformationThrows) {
    plugIn(makeTokenInfo("SN2"));
    for (const Thrown& thrown : thrownCodes) {
        CK_SLOT_ID slots[2] = {};
        CK_ULONG count = 2;
        letThrow("zentak_getTokenInfo", thrown.thrown, 2);
        EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, slots, &count), thrown.code);
        expectOneError(log(), "C_GetSlotList");
        EXPECT_EQ(count, 2U);
        CK_SLOT_INFO info;
        EXPECT_EQ(functions().C_GetSlotInfo(firstSlot, &info), CKR_OK);  // found before
        EXPECT_EQ(functions().C_GetSlotInfo(firstSlot + 1, &info), CKR_SLOT_ID_INVALID);
        clear();
    }
    EXPECT_EQ(listSlots().size(), 2U);
    expectUsable();
}

TEST_F(RobustnessTest, ThePasswordCheckThrows) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    for (const Thrown& thrown : thrownCodes) {
        for (const CK_USER_TYPE userType : std::vector<CK_USER_TYPE>{CKU_USER, CKU_SO}) {
            letThrow("zentak_validatePassword", thrown.thrown);
            EXPECT_EQ(functions().C_Login(session, userType, pin("1234"), 4), thrown.code);
            expectOneError(log(), "C_Login");
            EXPECT_EQ(stateOf(session), CKS_RW_PUBLIC_SESSION);
        }
    }
    EXPECT_EQ(stateOf(openSession()), CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(functions().C_Login(session, CKU_USER, pin("1234"), 4), CKR_OK);
    EXPECT_EQ(stateOf(session), CKS_RW_USER_FUNCTIONS);
    expectUsable();
}

TEST_F(RobustnessTest, ThePinChangeThrows) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    login(session);
    for (const Thrown& thrown : thrownCodes) {
        letThrow("zentak_changeUserPassword", thrown.thrown);
        EXPECT_EQ(functions().C_SetPIN(session, pin("1234"), 4, pin("5678"), 4), thrown.code);
        expectOneError(log(), "C_SetPIN");
        EXPECT_EQ(stateOf(session), CKS_RW_USER_FUNCTIONS);
    }
    EXPECT_EQ(functions().C_SetPIN(session, pin("1234"), 4, pin("5678"), 4), CKR_OK);
    expectUsable();
}

/// Searching, reading and signing: each operation of the library throws in turn under a whole journey, and the journey
/// that follows succeeds. (Which call sees it, and what is left of that operation, is tested with those functions.)
class JourneyTest : public RobustnessTest {
protected:
    void plugInTokens() override {
        const Bytes der = {0x30, 1, 2};
        device().certificates["SN1"] = {makeCertificate(1, der)};
        device().keyPairs["SN1"] = {makeKeyPair(1)};
        device().certificateDetails[der] = makeDetails("Subject", "Issuer", publicKeyOf(makeKeyPair(1)));
        plugIn(makeTokenInfo("SN1"));
    }

    /// The first code other than CKR_OK.
    static CK_RV travel() {
        CK_RV result = CKR_OK;
        const auto note = [&result](CK_RV code) { result = result == CKR_OK ? code : result; };
        CK_SESSION_HANDLE session = 0;
        note(functions().C_OpenSession(firstSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session));
        const CK_RV loggedIn = functions().C_Login(session, CKU_USER, pin("1234"), 4);
        note(loggedIn == CKR_USER_ALREADY_LOGGED_IN ? CKR_OK : loggedIn);

        Template wanted;
        wanted.addNumber(CKA_CLASS, CKO_CERTIFICATE).add(CKA_SUBJECT, Bytes{1});
        note(functions().C_FindObjectsInit(session, wanted.data(), wanted.count()));
        functions().C_FindObjectsFinal(session);
        Template labelled;
        labelled.addNumber(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_LABEL, "Subject_Issuer");
        note(functions().C_FindObjectsInit(session, labelled.data(), labelled.count()));
        functions().C_FindObjectsFinal(session);

        Template sizes;
        sizes.addRaw(CKA_LABEL, nullptr, 0)
            .addRaw(CKA_SUBJECT, nullptr, 0)
            .addRaw(CKA_ISSUER, nullptr, 0)
            .addRaw(CKA_SERIAL_NUMBER, nullptr, 0);
        note(functions().C_GetAttributeValue(session, privateKeyBase + 1, sizes.data(), sizes.count()));
        note(functions().C_GetAttributeValue(session, certificateBase + 1, sizes.data(), sizes.count()));

        CK_MECHANISM mechanism = {};
        mechanism.mechanism = CKM_SHA256_RSA_PKCS;
        note(functions().C_SignInit(session, &mechanism, privateKeyBase + 1));
        CK_BYTE data[] = {1, 2, 3};
        CK_BYTE signature[1024];
        CK_ULONG length = sizeof signature;
        note(functions().C_Sign(session, data, sizeof data, signature, &length));
        note(functions().C_CloseSession(session));
        return result;
    }
};

TEST_F(JourneyTest, EveryOperationThrowsInTurn) {
    ASSERT_EQ(travel(), CKR_OK);
    const char* const operations[] = {"zentak_validatePassword",
                                      "zentak_getKeyPairList",
                                      "zentak_getCertificateList",
                                      "zentak_getCertificateSubject",
                                      "zentak_getCertificateIssuer",
                                      "zentak_getCertificateSerialDER",
                                      "zentak_initHash",
                                      "zentak_updateHash",
                                      "zentak_finalHash",
                                      "zentak_signHash",
                                      "zentak_getCertificateDetails",
                                      "zentak_updateKeyPairDetails"};
    for (const char* const operation : operations) {
        for (const Thrown& thrown : thrownCodes) {
            SCOPED_TRACE(operation);
            ASSERT_EQ(functions().C_Finalize(nullptr), CKR_OK);
            ASSERT_EQ(functions().C_Initialize(nullptr), CKR_OK);
            listSlots();
            const int before = device().countOf(operation);
            letThrow(operation, thrown.thrown);
            // Whether the token takes a label is of no importance.
            const bool ignored = std::string_view(operation) == "zentak_updateKeyPairDetails";
            EXPECT_EQ(travel(), ignored ? CKR_OK : thrown.code);
            EXPECT_GT(device().countOf(operation), before);
            EXPECT_EQ(travel(), CKR_OK);
            expectUsable();
        }
    }
}

// --- Garbage from the caller ----------------------------------------------------------------------------------------

std::vector<CK_ULONG> garbage() {
    std::vector<CK_ULONG> numbers = {0,
                                     1,
                                     firstSlot,
                                     firstSession,
                                     privateKeyBase,
                                     publicKeyBase,
                                     0x70002000,
                                     0x70003000,
                                     0x7FFFFFFF,
                                     0x80000000UL,
                                     CK_UNAVAILABLE_INFORMATION};
    if constexpr (sizeof(CK_ULONG) > 4) {
        numbers.push_back(static_cast<CK_ULONG>(0x160000001ULL));
        numbers.push_back(static_cast<CK_ULONG>(0x8000000000000000ULL));
    }
    return numbers;
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
                if (function.name == "C_Finalize") {
                    continue;
                }
                // Its null pointer isn't checked, and a key that exists has a size to write.
                if (function.name == "C_GetObjectSize" && (number & 0xFFF) <= 1 && number >= privateKeyBase) {
                    continue;
                }
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

// --- Hosts that don't behave
// ------------------------------------------------------------------------------------------

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
