// A world in which anything fails: each call of the device library and each allocation in turn, in every function.
// What counts is that the application gets an answer, nothing is lost, and the next call works.

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <tuple>

#include "allocation_failure.h"
#include "module_test.h"
#include "run_folder.h"
#include "standard_output.h"

#if !defined(_WIN32)
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

using namespace support;

/// One call of one function in the state in which it does its whole work.
struct Scenario {
    std::string name;               ///< the function's, and behind a comma what is special
    std::function<void()> prepare;  ///< leads a new session of a logged-in user there
    std::function<CK_RV()> act;

    [[nodiscard]] std::string function() const { return name.substr(0, name.find_first_of(", ")); }
};

/// The call that shows what an exception has left of a function's work, and its answer.
struct Aftermath {
    std::function<CK_RV()> call;
    CK_RV code;
};

class FailingWorldTest : public ModuleTest {
protected:
    void plugInTokens() override {
        plugIn(makeTokenInfo("SN1"));
        scripted::Device& world = device();
        const Bytes der = {0x30, 1, 2, 3};
        ZentakKeyPair ec = makeKeyPair(2, p256);
        // Without labels, so that the default labels are computed.
        world.keyPairs["SN1"] = {makeKeyPair(1), ec};
        world.certificates["SN1"] = {makeCertificate(3, der)};
        world.certificateDetails[der] = makeDetails("Alice", "CN=Root", publicKeyOf(ec));
        const Bytes leaf = {0x30, 4, 4};
        const Bytes root = {0x30, 5, 5};
        world.certificateDetails[leaf] = makeDetails("Bob", "CN=Root", publicKeyOf(makeKeyPair(1)));
        CertificateDetails rootDetails = makeDetails("Root", "CN=Root");
        rootDetails.subject = "CN=Root";
        world.certificateDetails[root] = rootDetails;
        world.files = {{"root.der", root}};
        world.subjects[der] = world.issuers[der] = world.serials[der] = {0x30, 0};
        world.ciphertext = countingBytes(1, 256);
        world.plaintext = countingBytes(1, 20);
        world.sharedSecret = countingBytes(1, 32);
        world.generated = makeKeyPair(4);
    }

    /// A new session of a logged-in user, and no fault left over.
    void beginAgain() {
        device().dropFaults();
        const CK_RV initialized = api.C_Initialize(nullptr);
        ASSERT_TRUE(initialized == CKR_OK || initialized == CKR_CRYPTOKI_ALREADY_INITIALIZED);
        listSlots();
        ASSERT_EQ(api.C_CloseAllSessions(firstSlot), CKR_OK);
        length = sizeof output;
        handle = secondHandle = 0xEEEEEEEE;
        count = 4;
        std::fill(std::begin(output), std::end(output), static_cast<CK_BYTE>(0xEE));
        session = openSession(CKF_RW_SESSION);
        if (stateOf(session) != CKS_RW_USER_FUNCTIONS) login(session);
    }

    /// As many bytes as any answer here has.
    CK_BYTE output[2048] = {};
    CK_ULONG length = sizeof output;
    CK_BYTE input[32] = {1, 2, 3};
    CK_SESSION_HANDLE session = 0;
    CK_OBJECT_HANDLE handle = 0;
    CK_OBJECT_HANDLE secondHandle = 0;
    CK_ULONG count = 0;
    /// What the functions write to.
    [[nodiscard]] auto outputs() const { return std::tuple(bytesOf(output), length, handle, secondHandle, count); }
    Template wanted;
    const CK_FUNCTION_LIST& api = functions();

    CK_MECHANISM* mechanism(CK_MECHANISM_TYPE type) {
        mechanism_ = {type, nullptr, 0};
        return &mechanism_;
    }

    std::vector<Scenario> scenarios();
    std::vector<Scenario> cryptographicScenarios();
    Aftermath aftermathOf(const Scenario& scenario, const std::string& operation);
    void expectThrownCode(const Scenario& scenario, const std::string& operation, const ThrownCode& row);

    static void expectOk(CK_RV code) { ASSERT_EQ(code, CKR_OK); }

private:
    /// What is told of something, and not looked at.
    struct {
        CK_INFO module;
        CK_SLOT_INFO slot;
        CK_TOKEN_INFO token;
        CK_MECHANISM_INFO mechanism;
        CK_SESSION_INFO session;
        CK_SLOT_ID slots[4];
        CK_MECHANISM_TYPE mechanisms[32];
    } info_ = {};
    CK_MECHANISM mechanism_ = {};
    CK_BYTE point_[3] = {4, 1, 2};
    CK_ECDH1_DERIVE_PARAMS parameters_ = {CKD_SHA1_KDF, 0, nullptr, sizeof point_, point_};
};

std::vector<Scenario> FailingWorldTest::scenarios() {
    const auto nothing = [] {};
    std::vector<Scenario> all = {
        {"C_Initialize", [&] { expectOk(api.C_Finalize(nullptr)); },
         [&] {
             try {
                 return api.C_Initialize(nullptr);
             } catch (const std::bad_alloc&) {
                 return CKR_HOST_MEMORY;  // no memory for the monitor's thread: the one exception that comes through
             }
         }},
        {"C_Finalize", nothing, [&] { return api.C_Finalize(nullptr); }},
        {"C_GetInfo", nothing, [&] { return api.C_GetInfo(&info_.module); }},
        {"C_GetSlotList", nothing, [&] { return api.C_GetSlotList(CK_TRUE, info_.slots, &count); }},
        {"C_GetSlotList, the number", nothing, [&] { return api.C_GetSlotList(CK_TRUE, nullptr, &count); }},
        {"C_GetSlotInfo", nothing, [&] { return api.C_GetSlotInfo(firstSlot, &info_.slot); }},
        {"C_GetTokenInfo", nothing, [&] { return api.C_GetTokenInfo(firstSlot, &info_.token); }},
        {"C_GetMechanismList", nothing,
         [&] {
             count = 32;
             return api.C_GetMechanismList(firstSlot, info_.mechanisms, &count);
         }},
        {"C_GetMechanismInfo", nothing,
         [&] { return api.C_GetMechanismInfo(firstSlot, CKM_RSA_PKCS, &info_.mechanism); }},
        {"C_WaitForSlotEvent", nothing,
         [&] {
             CK_SLOT_ID slot = 0;
             const CK_RV code = api.C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
             return code == CKR_NO_EVENT ? CKR_OK : code;
         }},
        {"C_OpenSession", nothing,
         [&] { return api.C_OpenSession(firstSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &handle); }},
        {"C_CloseSession", nothing, [&] { return api.C_CloseSession(session); }},
        {"C_CloseAllSessions", nothing, [&] { return api.C_CloseAllSessions(firstSlot); }},
        {"C_GetSessionInfo", nothing, [&] { return api.C_GetSessionInfo(session, &info_.session); }},
        {"C_Login", [&] { expectOk(api.C_Logout(session)); },
         [&] { return api.C_Login(session, CKU_USER, pin("1234"), 4); }},
        {"C_Login, the security officer", [&] { expectOk(api.C_Logout(session)); },
         [&] { return api.C_Login(session, CKU_SO, pin("1234"), 4); }},
        {"C_Logout", nothing, [&] { return api.C_Logout(session); }},
        {"C_SetPIN", nothing, [&] { return api.C_SetPIN(session, pin("1234"), 4, pin("1234"), 4); }},
        {"C_FindObjectsInit, a computed label",
         [&] { wanted = std::move(Template().addNumber(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_LABEL, "Alice_CN=Root")); },
         [&] { return api.C_FindObjectsInit(session, wanted.data(), wanted.count()); }},
        {"C_FindObjectsInit, a subject",
         [&] { wanted = std::move(Template().addNumber(CKA_CLASS, CKO_CERTIFICATE).add(CKA_SUBJECT, Bytes{1})); },
         [&] { return api.C_FindObjectsInit(session, wanted.data(), wanted.count()); }},
        {"C_FindObjectsInit, everything", nothing, [&] { return api.C_FindObjectsInit(session, nullptr, 0); }},
        {"C_FindObjects", [&] { expectOk(api.C_FindObjectsInit(session, nullptr, 0)); },
         [&] { return api.C_FindObjects(session, &handle, 1, &count); }},
        {"C_FindObjectsFinal", [&] { expectOk(api.C_FindObjectsInit(session, nullptr, 0)); },
         [&] { return api.C_FindObjectsFinal(session); }},
        {"C_GetObjectSize", nothing, [&] { return api.C_GetObjectSize(session, privateKeyBase + 1, &count); }},
        {"C_GetObjectSize, a certificate", nothing,
         [&] { return api.C_GetObjectSize(session, certificateBase + 3, &count); }},
        {"C_SetAttributeValue", [&] { wanted = std::move(Template().add(CKA_LABEL, "name").add(CKA_ID, Bytes{1})); },
         [&] { return api.C_SetAttributeValue(session, privateKeyBase + 1, wanted.data(), wanted.count()); }},
        {"C_CreateObject, a certificate with its issuer",
         [&] {
             wanted = std::move(Template().add(CKA_VALUE, Bytes{0x30, 4, 4}).add(CKA_ID, Bytes{1}));
         },
         [&] { return api.C_CreateObject(session, wanted.data(), wanted.count(), &handle); }},
        {"C_CreateObject, a private key", [&] { wanted = std::move(rsaKeyTemplate().add(CKA_LABEL, "imported")); },
         [&] { return api.C_CreateObject(session, wanted.data(), wanted.count(), &handle); }},
        {"C_DestroyObject", nothing, [&] { return api.C_DestroyObject(session, privateKeyBase + 1); }},
        {"C_GenerateKeyPair", [&] { wanted = std::move(Template().addNumber(CKA_KEY_TYPE, CKK_EC)); },
         [&] {
             return api.C_GenerateKeyPair(session, mechanism(CKM_EC_KEY_PAIR_GEN), wanted.data(), wanted.count(),
                                          wanted.data(), wanted.count(), &handle, &secondHandle);
         }},
        {"C_GenerateRandom", nothing, [&] { return api.C_GenerateRandom(session, output, 32); }},
    };
    for (const CK_OBJECT_HANDLE object : {privateKeyBase + 2, publicKeyBase + 2, certificateBase + 3}) {
        all.push_back(
            {"C_GetAttributeValue of " + decimal(object),
             [&] {
                 wanted = Template();
                 for (const CK_ATTRIBUTE_TYPE type : {CKA_LABEL, CKA_ID, CKA_VALUE, CKA_SUBJECT, CKA_ISSUER,
                                                      CKA_SERIAL_NUMBER, CKA_EC_POINT, CKA_MODULUS}) {
                     wanted.add(type, Bytes(500));
                 }
             },
             [&, object] { return api.C_GetAttributeValue(session, object, wanted.data(), wanted.count()); }});
    }
    const std::vector<Scenario> more = cryptographicScenarios();
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

std::vector<Scenario> FailingWorldTest::cryptographicScenarios() {
    const auto nothing = [] {};
    constexpr CK_OBJECT_HANDLE key = privateKeyBase + 1;
    const auto signInit = [&] { expectOk(api.C_SignInit(session, mechanism(CKM_SHA256_RSA_PKCS), key)); };
    const auto verifyInit = [&] { expectOk(api.C_VerifyInit(session, mechanism(CKM_SHA256_RSA_PKCS), key)); };
    const auto digestInit = [&] { expectOk(api.C_DigestInit(session, mechanism(CKM_SHA256))); };
    return {
        {"C_DigestInit", nothing, [&] { return api.C_DigestInit(session, mechanism(CKM_SHA256)); }},
        {"C_Digest", digestInit, [&] { return api.C_Digest(session, input, sizeof input, output, &length); }},
        {"C_DigestUpdate", digestInit, [&] { return api.C_DigestUpdate(session, input, sizeof input); }},
        {"C_DigestFinal", digestInit, [&] { return api.C_DigestFinal(session, output, &length); }},
        {"C_SignInit", nothing, [&] { return api.C_SignInit(session, mechanism(CKM_SHA256_RSA_PKCS), key); }},
        {"C_Sign", signInit, [&] { return api.C_Sign(session, input, sizeof input, output, &length); }},
        {"C_Sign, raw", [&] { expectOk(api.C_SignInit(session, mechanism(CKM_ECDSA), key)); },
         [&] { return api.C_Sign(session, input, sizeof input, output, &length); }},
        {"C_SignUpdate", signInit, [&] { return api.C_SignUpdate(session, input, sizeof input); }},
        {"C_SignUpdate, collecting", [&] { expectOk(api.C_SignInit(session, mechanism(CKM_RSA_PKCS), key)); },
         [&] { return api.C_SignUpdate(session, input, sizeof input); }},
        {"C_SignFinal",
         [&, signInit] {
             signInit();
             expectOk(api.C_SignUpdate(session, input, sizeof input));
         },
         [&] { return api.C_SignFinal(session, output, &length); }},
        {"C_SignFinal, raw",
         [&] {
             expectOk(api.C_SignInit(session, mechanism(CKM_RSA_PKCS_PSS), key));
             expectOk(api.C_SignUpdate(session, input, sizeof input));
         },
         [&] { return api.C_SignFinal(session, output, &length); }},
        {"C_VerifyInit", nothing, [&] { return api.C_VerifyInit(session, mechanism(CKM_SHA256_RSA_PKCS), key); }},
        {"C_Verify", verifyInit, [&] { return api.C_Verify(session, input, sizeof input, output, 256); }},
        {"C_VerifyUpdate", verifyInit, [&] { return api.C_VerifyUpdate(session, input, sizeof input); }},
        {"C_VerifyFinal",
         [&, verifyInit] {
             verifyInit();
             expectOk(api.C_VerifyUpdate(session, input, sizeof input));
         },
         [&] { return api.C_VerifyFinal(session, output, 256); }},
        {"C_EncryptInit", nothing, [&] { return api.C_EncryptInit(session, mechanism(CKM_RSA_PKCS), key); }},
        {"C_Encrypt", [&] { expectOk(api.C_EncryptInit(session, mechanism(CKM_RSA_PKCS), key)); },
         [&] { return api.C_Encrypt(session, input, sizeof input, output, &length); }},
        {"C_DecryptInit", nothing, [&] { return api.C_DecryptInit(session, mechanism(CKM_RSA_PKCS), key); }},
        {"C_Decrypt", [&] { expectOk(api.C_DecryptInit(session, mechanism(CKM_RSA_PKCS), key)); },
         [&] { return api.C_Decrypt(session, input, sizeof input, output, &length); }},
        {"C_DeriveKey", nothing,
         [&] {
             CK_MECHANISM derive = {CKM_ECDH1_DERIVE, &parameters_, sizeof parameters_};
             return api.C_DeriveKey(session, &derive, privateKeyBase + 2, nullptr, 0, &handle);
         }},
    };
}

/// The names of the operations in the order of the calls.
Lines operationsOf(const Lines& calls) {
    Lines names;
    for (const std::string& call : calls) names.push_back(call.substr(0, call.find('(')));
    return names;
}

/// Whether the function goes on when this operation throws.
bool isIgnored(const std::string& scenario, const std::string& operation) {
    if (operation == "zentak_updateKeyPairDetails") return scenario.find("C_SetAttributeValue") != 0;
    return scenario == "C_DeriveKey" && operation.find("Hash") != std::string::npos;
}

Aftermath FailingWorldTest::aftermathOf(const Scenario& scenario, const std::string& operation) {
    const std::string function = scenario.function();
    const auto finalize = [&] { return api.C_Finalize(nullptr); };
    if (function == "C_Initialize") return {finalize, CKR_CRYPTOKI_NOT_INITIALIZED};
    if (function == "C_Finalize") return {finalize, CKR_OK};  // the instance goes only once it is released
    const std::map<std::string, std::function<CK_RV()>> begun = {
        {"C_FindObjectsInit", [&] { return api.C_FindObjectsFinal(session); }},
        {"C_DigestInit", [&] { return api.C_Digest(session, input, sizeof input, output, &length); }},
        {"C_SignInit", [&] { return api.C_Sign(session, input, sizeof input, output, &length); }},
        {"C_VerifyInit", [&] { return api.C_Verify(session, input, sizeof input, output, 256); }},
        {"C_EncryptInit", [&] { return api.C_Encrypt(session, input, sizeof input, output, &length); }},
        {"C_DecryptInit", [&] { return api.C_Decrypt(session, input, sizeof input, output, &length); }},
    };
    const auto found = begun.find(function);
    if (found != begun.end()) return {found->second, CKR_OPERATION_NOT_INITIALIZED};
    const bool ends = begun.count(function.substr(0, function.find_first_of("UF", 3)) + "Init") == 1;
    if (ends) return {scenario.act, CKR_OPERATION_NOT_INITIALIZED};
    // The table of slots is as it was, unless its making was under way.
    return {[&] { return api.C_GetSlotInfo(firstSlot, &info_.slot); },
            function == "C_GetSlotList" && operation == "zentak_getTokenInfo" ? CKR_SLOT_ID_INVALID : CKR_OK};
}

/// The call that throws is the last one, and its exception comes to the code, one line, and nothing else.
void FailingWorldTest::expectThrownCode(const Scenario& scenario, const std::string& operation, const ThrownCode& row) {
    const std::string function = scenario.function();
    const bool inSession = function != "C_Initialize" && function != "C_Finalize";
    const CK_STATE state = inSession ? stateOf(session) : 0;
    const auto before = outputs();
    const Outcome outcome = observe(scenario.act);
    if (isIgnored(scenario.name, operation)) {
        EXPECT_EQ(outcome.code, CKR_OK);
        return;
    }
    expectOneError(outcome, row.code, function);
    EXPECT_EQ(operationsOf(outcome.device).back(), operation);
    EXPECT_EQ(outputs(), before);
    if (inSession) {
        EXPECT_EQ(stateOf(session), state);
    }
    const Aftermath aftermath = aftermathOf(scenario, operation);
    EXPECT_EQ(aftermath.call(), aftermath.code);
}

TEST_F(FailingWorldTest, EveryDeviceCall) {
    int struck = 0;
    for (const Scenario& scenario : scenarios()) {
        SCOPED_TRACE(scenario.name);
        beginAgain();
        scenario.prepare();
        calls();
        ASSERT_EQ(scenario.act(), CKR_OK);
        const Lines operations = operationsOf(calls());
        for (std::size_t index = 0; index < operations.size(); ++index) {
            const std::string& operation = operations[index];
            const auto place = operations.begin() + static_cast<std::ptrdiff_t>(index) + 1;
            const auto nth = static_cast<int>(std::count(operations.begin(), place, operation));
            SCOPED_TRACE(operation + " " + std::to_string(nth));
            const auto strike = [&](const std::function<void()>& fail) {
                beginAgain();
                scenario.prepare();
                fail();
                ++struck;
                beginAgain();
                expectUsable();
                scenario.prepare();
                EXPECT_EQ(scenario.act(), CKR_OK);
            };
            for (const ThrownCode& row : thrownCodes) {
                strike([&] {
                    letThrow(operation, row.thrown, nth);
                    expectThrownCode(scenario, operation, row);
                });
            }
            // What comes of a result is told with the functions.
            strike([&] {
                device().addFault({operation, nth, 77});
                scenario.act();
            });
        }
    }
    EXPECT_GT(struck, 250);
}

#if !defined(_WIN32)
/// A temporary folder of a name so short that the module copies it without an allocation: where it can't find the
/// folder it logs below the root. Only a relative one is that short everywhere.
class ShortTemporaryFolder {
public:
    ShortTemporaryFolder() : folder_(std::filesystem::current_path()), temporaryFolder_(temporaryFolder()) {
        std::filesystem::current_path(runFolder());
        setTemporaryFolder("short");
        createLogFolder();
    }
    ~ShortTemporaryFolder() {
        setTemporaryFolder(temporaryFolder_);
        std::filesystem::current_path(folder_);
    }
    ShortTemporaryFolder(const ShortTemporaryFolder&) = delete;
    ShortTemporaryFolder& operator=(const ShortTemporaryFolder&) = delete;

private:
    std::filesystem::path folder_;
    std::filesystem::path temporaryFolder_;
};

/// No memory for the name of the program, which is too long for a text without an allocation: the line is written under
/// the fixed name, and the host goes on.
TEST_F(FailingWorldTest, NoMemoryForTheProcessName) {
    ASSERT_GT(processName().size(), std::string().capacity());
    const ShortTemporaryFolder folder;
    std::filesystem::create_directory(logFolder("ZentakKey Interface"));
    setLogLevel(errorLevel);
    int named = 0;
    bool failed = true;
    for (int nth = 1; failed; ++nth) {
        ASSERT_LT(nth, 100);
        std::string complaints;
        {
            const StandardOutput standardOutput;
            behaviour::failAllocationsFrom(nth);
            const CK_RV code = api.C_GetInfo(nullptr);
            failed = behaviour::allocationFailed();
            EXPECT_EQ(code, CKR_ARGUMENTS_BAD);
            complaints = standardOutput.text();
        }
        if (complaints == "Exception in getProcessName(): std::bad_alloc\n") {
            ++named;
        } else {
            EXPECT_EQ(complaints, "") << nth;
        }
    }
    EXPECT_GT(named, 0);
    EXPECT_EQ(parseLog(readLogFiles(logFolder("ZentakKey Interface"))),
              Lines(static_cast<std::size_t>(named), "ERROR C_GetInfo: pInfo is NULL"));
}

/// Neither the parent nor the child nor the child's child has any: the module begins anew all the same.
TEST_F(FailingWorldTest, AForkWithoutMemory) {
    const ShortTemporaryFolder folder;
    beginAgain();
    CK_INFO info;
    const StandardOutput standardOutput;
    behaviour::failAllocationsFrom(1);
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        const CK_RV first = api.C_GetInfo(&info);
        const pid_t grandchild = fork();
        const CK_RV second = api.C_GetInfo(&info);
        behaviour::allocationFailed();
        int status = 0;
        if (first != CKR_CRYPTOKI_NOT_INITIALIZED) _exit(1);
        if (second != CKR_CRYPTOKI_NOT_INITIALIZED) _exit(2);
        if (api.C_Initialize(nullptr) != CKR_OK) _exit(3);
        if (api.C_GetInfo(&info) != CKR_OK) _exit(4);
        if (api.C_Finalize(nullptr) != CKR_OK) _exit(5);
        if (grandchild == 0) _exit(0);
        _exit(waitpid(grandchild, &status, 0) == grandchild && status == 0 ? 0 : 6);
    }
    behaviour::allocationFailed();
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(api.C_GetInfo(&info), CKR_OK);
    EXPECT_EQ(stateOf(session), CKS_RW_USER_FUNCTIONS);
}

/// Where the libraries share their memory with the host; a Windows build has its own inside.
TEST_F(FailingWorldTest, EveryAllocation) {
    const ShortTemporaryFolder folder;
    constexpr int mostAllocations = 2000;
    int failures = 0;
    for (const Scenario& scenario : scenarios()) {
        SCOPED_TRACE(scenario.name);
        for (const auto& fail : {behaviour::failAllocation, behaviour::failAllocationsFrom}) {
            bool failed = true;
            for (int nth = 1; failed; ++nth) {
                ASSERT_LT(nth, mostAllocations);
                beginAgain();
                scenario.prepare();
                fail(nth);
                const CK_RV code = scenario.act();
                failed = behaviour::allocationFailed();
                failures += failed ? 1 : 0;
                // A log line may be lost for want of memory, and the call goes on.
                EXPECT_TRUE(code == CKR_OK || (failed && code == CKR_HOST_MEMORY)) << code << " at " << nth;
            }
        }
    }
    EXPECT_GT(failures, 600);
}
#endif

}  // namespace
