// The frame: starting and stopping, the module's identity, the function list, and what all functions have in common.

#include <cstdint>
#include <set>

#include "every_function.h"
#include "module_test.h"

namespace {

using namespace support;
using behaviour::AnyFunction;
using behaviour::everyFunction;
using behaviour::everyVendorExtension;
using behaviour::VendorExtension;

/// The module before C_Initialize.
class UninitialisedTest : public ModuleTest {
protected:
    void SetUp() override {
        device().reset();
        setLogLevel(debugLevel);
        createLogFolder();
        plugIn(makeTokenInfo("SN1"));
        clear();
    }
};

class FrameTest : public ModuleTest {};

const Outcome initialized = succeeded("C_Initialize", {"zentak_createInstance(out)"});
const Outcome finalized = {CKR_OK,
                           {"DEBUG C_Finalize", "DEBUG Monitor thread joined (stopDeviceMonitor).",
                            "DEBUG C_Finalize completed successfully."},
                           {"zentak_releaseInstance(instance)"}};

// --- Starting -------------------------------------------------------------------------------------------------------

TEST_F(UninitialisedTest, InitializeCreatesAnInstance) {
    EXPECT_EQ(observe([&] { return functions().C_Initialize(nullptr); }), initialized);
}

TEST_F(UninitialisedTest, InitializeIgnoresApplicationLockingAndReservedFields) {
    CK_C_INITIALIZE_ARGS arguments = {};
    arguments.flags = CKF_LIBRARY_CANT_CREATE_OS_THREADS;
    arguments.pReserved = &arguments;
    EXPECT_EQ(observe([&] { return functions().C_Initialize(&arguments); }), initialized);
}

TEST_F(UninitialisedTest, InitializeNeverReadsItsArgument) {
    EXPECT_EQ(observe([&] { return functions().C_Initialize(reinterpret_cast<CK_VOID_PTR>(std::uintptr_t{1})); }),
              initialized);
}

TEST_F(FrameTest, InitializeTwiceIsRefusedAndKeepsTheFirstInstance) {
    const CK_SESSION_HANDLE session = openSession();
    EXPECT_EQ(observe([&] { return functions().C_Initialize(nullptr); }),
              refused(CKR_CRYPTOKI_ALREADY_INITIALIZED, "C_Initialize: already initialized"));
    EXPECT_EQ(stateOf(session), CKS_RO_PUBLIC_SESSION);

    CK_ULONG count = 0;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    EXPECT_EQ(calls(), (Lines{"zentak_getConnectedDeviceList(false, instance)"}));
}

TEST_F(UninitialisedTest, InitializeWithoutAnInstanceSaysOkAndStaysUninitialised) {
    device().givesInstance = false;
    EXPECT_EQ(observe([&] { return functions().C_Initialize(nullptr); }),
              failed(CKR_OK, "C_Initialize", "Init pkcs11 library failed failed", {"zentak_createInstance(out)"}));

    CK_INFO info;
    EXPECT_EQ(functions().C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(functions().C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    clear();

    // The next one tries again.
    device().givesInstance = true;
    EXPECT_EQ(functions().C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(calls(), (Lines{"zentak_createInstance(out)"}));
    EXPECT_EQ(log(), (Lines{"DEBUG C_Initialize", "DEBUG Monitor already running. Stopping old thread.",
                            "DEBUG Monitor thread joined (stopDeviceMonitor)."}));
    EXPECT_EQ(functions().C_GetInfo(&info), CKR_OK);
}

// --- Stopping -------------------------------------------------------------------------------------------------------

TEST_F(UninitialisedTest, FinalizeIsRefused) {
    EXPECT_EQ(observe([&] { return functions().C_Finalize(nullptr); }),
              refused(CKR_CRYPTOKI_NOT_INITIALIZED, "C_Finalize: not initialized"));
}

TEST_F(FrameTest, FinalizeReleasesTheInstance) {
    EXPECT_EQ(observe([&] { return functions().C_Finalize(nullptr); }), finalized);
    EXPECT_FALSE(device().hasInstance());
    EXPECT_EQ(functions().C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST_F(FrameTest, FinalizeIgnoresItsArgument) {
    EXPECT_EQ(observe([&] { return functions().C_Finalize(reinterpret_cast<CK_VOID_PTR>(std::uintptr_t{1})); }),
              finalized);
}

TEST_F(FrameTest, FinalizeForgetsSlotsSessionsAndThePassword) {
    const CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    openSession();
    login(session);
    ASSERT_EQ(functions().C_Finalize(nullptr), CKR_OK);
    ASSERT_EQ(functions().C_Initialize(nullptr), CKR_OK);
    clear();

    CK_SLOT_INFO slotInfo;
    EXPECT_EQ(functions().C_GetSlotInfo(firstSlot, &slotInfo), CKR_SLOT_ID_INVALID);
    listSlots();
    CK_SESSION_INFO sessionInfo;
    EXPECT_EQ(functions().C_GetSessionInfo(session, &sessionInfo), CKR_SESSION_HANDLE_INVALID);
    const CK_SESSION_HANDLE reopened = openSession(CKF_RW_SESSION);
    EXPECT_EQ(reopened, firstSession);
    EXPECT_EQ(stateOf(reopened), CKS_RW_PUBLIC_SESSION);  // nobody is logged in

    clear();
    EXPECT_EQ(functions().C_Login(reopened, CKU_USER, pin("1234"), 4), CKR_OK);
    EXPECT_EQ(calls(), (Lines{"zentak_validatePassword(\"SN1\", \"1234\", 1, *0, instance)"}));
}

TEST_F(FrameTest, ANewInstanceIsUsedAfterARestart) {
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(functions().C_Finalize(nullptr), CKR_OK);
        ASSERT_EQ(functions().C_Initialize(nullptr), CKR_OK);
        clear();
        CK_ULONG count = 0;
        EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
        EXPECT_EQ(calls(), (Lines{"zentak_getConnectedDeviceList(false, instance)"}));
    }
}

// --- Identity -------------------------------------------------------------------------------------------------------

TEST_F(FrameTest, GetInfoWritesItsFieldsAndNothingElse) {
    CK_INFO info = filledWith<CK_INFO>(0xFF);
    CK_INFO expected = filledWith<CK_INFO>(0xFF);
    expected.cryptokiVersion = {2, 20};
    std::memcpy(expected.manufacturerID, "Dravenko Sentronics", 20);
    expected.flags = 0;
    std::memcpy(expected.libraryDescription, "Zentak PKCS11 Library", 22);
    expected.libraryVersion = {3, 6};

    EXPECT_EQ(functions().C_GetInfo(&info), CKR_OK);
    EXPECT_EQ(bytesOf(info), bytesOf(expected));
    EXPECT_EQ(log(), (Lines{"DEBUG C_GetInfo"}));
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(FrameTest, GetInfoRefusesANullPointer) {
    EXPECT_EQ(observe([&] { return functions().C_GetInfo(nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_GetInfo: pInfo is NULL"));
}

TEST_F(FrameTest, ErrorLevelLeavesTheRefusalsAlone) {
    setLogLevel(errorLevel);
    EXPECT_EQ(observe([&] { return functions().C_GetInfo(nullptr); }),
              (Outcome{CKR_ARGUMENTS_BAD, {"ERROR C_GetInfo: pInfo is NULL"}}));
    CK_INFO info;
    EXPECT_EQ(observe([&] { return functions().C_GetInfo(&info); }), (Outcome{CKR_OK, {}}));
}

TEST_F(UninitialisedTest, GetInfoLeavesTheCallersBufferAlone) {
    CK_INFO info = filledWith<CK_INFO>(0xFF);
    EXPECT_EQ(functions().C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(bytesOf(info), Bytes(sizeof info, 0xFF));
    EXPECT_EQ(log(), (Lines{"DEBUG C_GetInfo", "ERROR C_GetInfo: not initialized"}));
}

// --- The function list ----------------------------------------------------------------------------------------------

TEST_F(UninitialisedTest, GetFunctionListNeedsNoInitialisation) {
    CK_FUNCTION_LIST_PTR list = nullptr;
    const CK_C_GetFunctionList getFunctionList = functions().C_GetFunctionList;
    clear();
    EXPECT_EQ(observe([&] { return getFunctionList(&list); }), succeeded("C_GetFunctionList"));
    EXPECT_EQ(list, &functions());  // one static list
    EXPECT_EQ(+list->version.major, 2);
    EXPECT_EQ(+list->version.minor, 20);
}

TEST_F(UninitialisedTest, GetFunctionListRefusesANullPointer) {
    EXPECT_EQ(observe([&] { return functions().C_GetFunctionList(nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_GetFunctionList: ppFunctionList is NULL"));
}

TEST_F(FrameTest, GetFunctionListAnswersTheSameWhenInitialised) {
    CK_FUNCTION_LIST_PTR list = nullptr;
    EXPECT_EQ(observe([&] { return functions().C_GetFunctionList(&list); }), succeeded("C_GetFunctionList"));
    EXPECT_EQ(list, &functions());
    EXPECT_EQ(observe([&] { return functions().C_GetFunctionList(nullptr); }),
              refused(CKR_ARGUMENTS_BAD, "C_GetFunctionList: ppFunctionList is NULL"));
}

// --- What all have in common ----------------------------------------------------------------------------------------

TEST_F(UninitialisedTest, EverySupportedFunctionSaysSoBeforeAnythingElse) {
    for (const AnyFunction& function : everyFunction()) {
        if (!function.supported || function.name == "C_Initialize" || function.name == "C_GetFunctionList") continue;
        for (const CK_ULONG number : {CK_ULONG{0}, static_cast<CK_ULONG>(firstSession)}) {
            clear();
            EXPECT_EQ(function.call(number, number), CKR_CRYPTOKI_NOT_INITIALIZED) << function.name;
            Lines expected = {"DEBUG " + function.name};
            // C_DeriveKey keeps its early refusals to itself.
            if (function.name != "C_DeriveKey") expected.push_back("ERROR " + function.name + ": not initialized");
            EXPECT_EQ(log(), expected);
            EXPECT_EQ(calls(), Lines{}) << function.name;
        }
    }
}

void expectUnsupported() {
    std::set<std::string> unsupported = {
        "C_InitToken",     "C_InitPIN",       "C_GetOperationState",   "C_SetOperationState", "C_CopyObject",
        "C_EncryptUpdate", "C_EncryptFinal",  "C_DecryptUpdate",       "C_DecryptFinal",      "C_DigestKey",
        "C_SignRecover",   "C_VerifyRecover", "C_SignRecoverInit",     "C_VerifyRecoverInit", "C_DigestEncryptUpdate",
        "C_GenerateKey",   "C_WrapKey",       "C_DecryptDigestUpdate", "C_SignEncryptUpdate", "C_DecryptVerifyUpdate",
        "C_UnwrapKey",     "C_SeedRandom",    "C_GetFunctionStatus",   "C_CancelFunction"};
    for (const AnyFunction& function : everyFunction()) {
        EXPECT_NE(function.supported, unsupported.erase(function.name) == 1) << function.name;
        if (function.supported) continue;
        for (const CK_ULONG number : {CK_ULONG{0}, CK_ULONG{1}, CK_UNAVAILABLE_INFORMATION}) {
            takeLog();
            EXPECT_EQ(function.call(number, number), CKR_FUNCTION_NOT_SUPPORTED) << function.name;
            EXPECT_EQ(takeLog(), (Lines{"DEBUG " + function.name}));
            EXPECT_EQ(device().takeCalls(), Lines{}) << function.name;
        }
    }
    EXPECT_EQ(unsupported, std::set<std::string>{});
}

TEST_F(UninitialisedTest, UnsupportedFunctionsOnlyLogTheirName) {
    expectUnsupported();
}

TEST_F(FrameTest, UnsupportedFunctionsOnlyLogTheirName) {
    expectUnsupported();
}

/// Calls every vendor extension with these arguments, of which most take one.
void expectExtensionsUnsupported(CK_ULONG* first, CK_ULONG* second, CK_ULONG slot) {
    for (const VendorExtension& extension : everyVendorExtension()) {
        void* const symbol = moduleSymbol(extension.symbol);
        ASSERT_NE(symbol, nullptr) << extension.symbol;
        takeLog();
        device().takeCalls();
        const CK_RV result = extension.name == "C_GetUnmanagedStructSizeList"
                                 ? reinterpret_cast<CK_RV (*)(CK_ULONG*, CK_ULONG*)>(symbol)(first, second)
                                 : reinterpret_cast<CK_RV (*)(CK_ULONG)>(symbol)(slot);
        EXPECT_EQ(result, CKR_FUNCTION_NOT_SUPPORTED) << extension.name;
        EXPECT_EQ(takeLog(), (Lines{"DEBUG " + extension.name}));
        EXPECT_EQ(device().takeCalls(), Lines{});
    }
    EXPECT_EQ(everyVendorExtension().size(), 3U);
}

TEST_F(FrameTest, VendorExtensionsAreUnsupported) {
    CK_ULONG first = 0x11;
    CK_ULONG second = 0x22;
    expectExtensionsUnsupported(&first, &second, firstSlot);
    expectExtensionsUnsupported(nullptr, nullptr, 0);
    EXPECT_EQ(first, 0x11U);
    EXPECT_EQ(second, 0x22U);
}

TEST_F(UninitialisedTest, VendorExtensionsNeedNoInitialisation) {
    expectExtensionsUnsupported(nullptr, nullptr, 0);
}

/// A refused call leaves what the caller handed in as it was.
TEST_F(UninitialisedTest, OutParametersAreUntouched) {
    CK_ULONG count = 0x77;
    CK_SLOT_ID slot = 0x77;
    EXPECT_EQ(functions().C_GetSlotList(CK_TRUE, &slot, &count), CKR_CRYPTOKI_NOT_INITIALIZED);
    CK_SLOT_INFO slotInfo = filledWith<CK_SLOT_INFO>(0xA5);
    EXPECT_EQ(functions().C_GetSlotInfo(firstSlot, &slotInfo), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(bytesOf(slotInfo), Bytes(sizeof slotInfo, 0xA5));
    CK_TOKEN_INFO tokenInfo = filledWith<CK_TOKEN_INFO>(0xA5);
    EXPECT_EQ(functions().C_GetTokenInfo(firstSlot, &tokenInfo), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(bytesOf(tokenInfo), Bytes(sizeof tokenInfo, 0xA5));
    CK_SESSION_HANDLE session = 0x77;
    EXPECT_EQ(functions().C_OpenSession(firstSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session),
              CKR_CRYPTOKI_NOT_INITIALIZED);
    CK_SESSION_INFO sessionInfo = filledWith<CK_SESSION_INFO>(0xA5);
    EXPECT_EQ(functions().C_GetSessionInfo(firstSession, &sessionInfo), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(bytesOf(sessionInfo), Bytes(sizeof sessionInfo, 0xA5));
    EXPECT_EQ(count, 0x77U);
    EXPECT_EQ(slot, 0x77U);
    EXPECT_EQ(session, 0x77U);
    EXPECT_EQ(calls(), Lines{});
}

}  // namespace
