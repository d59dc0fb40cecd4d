// C_DeriveKey, and the derived secrets as C_GetAttributeValue shows them.

#include "child_process.h"
#include "ignored_failure.h"
#include "run_folder.h"
#include "signing_test.h"

using namespace support;

namespace {

constexpr CK_ULONG sha256Kdf = 6;  ///< newer than the published constants
constexpr CK_OBJECT_HANDLE derivedBase = 0x70003000UL;

const Lines silent = {"DEBUG C_DeriveKey"};

class DeriveTest : public SigningTest {
protected:
    static constexpr CK_OBJECT_HANDLE untouched = 0xEEEEEEEE;

    void SetUp() override {
        SigningTest::SetUp();
        world.sharedSecret = countingBytes(0x90, 32);
        world.keyPairs["SN1"][0] = makeKeyPair(5, p256);
        parameters = {CKD_NULL, 0, nullptr, static_cast<CK_ULONG>(peer.size()), peer.data()};
    }

    Outcome derive(CK_OBJECT_HANDLE base = privateKey(5)) {
        handle = untouched;
        return observe([&] {
            return api->C_DeriveKey(session, &mechanism, base, wanted.count() == 0 ? nullptr : wanted.data(),
                                    wanted.count(), &handle);
        });
    }
    std::string deriveCall(const std::string& token = "SN1", const std::string& password = "246810") const {
        return text("zentak_ecdhDerive(\"", token, "\", ", shownKeyReference(5), ", \"", password, "\", ", shown(peer),
                    ", out, *0, instance)");
    }
    /// The lines before the device library is asked to derive.
    Lines start() const {
        return {"DEBUG C_DeriveKey", "DEBUG key id :: 5", "DEBUG base key id :: " + hexadecimal(countingBytes(5, 16)),
                "DEBUG public key :: " + hexadecimal(peer)};
    }
    /// A success that gave `handle`.
    Outcome derived(std::size_t secretLength, const Lines& hashing = {}) const {
        return {CKR_OK, start() + Lines{text("DEBUG C_DeriveKey: done, handle=", handle, " len=", secretLength)},
                Lines{listKeyPairs, deriveCall()} + hashing};
    }
    void expectDerived(std::size_t secretLength, const Lines& hashing = {}) {
        const Outcome outcome = derive();  // which sets the handle that is expected
        EXPECT_EQ(outcome, derived(secretLength, hashing));
    }
    static Lines hashing(int context, int hashCode, int capacity, const Bytes& secret) {
        return {initHash(hashCode), updateHash(context, secret),
                text("zentak_finalHash(", contextName(context), ", out, *", capacity, ", instance)")};
    }
    /// The bytes behind a handle, read in two calls.
    Bytes secretOf(CK_OBJECT_HANDLE object) {
        CK_ATTRIBUTE entry = {CKA_VALUE, nullptr, 0};
        EXPECT_EQ(api->C_GetAttributeValue(session, object, &entry, 1), CKR_OK);
        Bytes value(entry.ulValueLen + 1, 0xEE);
        entry.pValue = value.data();
        EXPECT_EQ(api->C_GetAttributeValue(session, object, &entry, 1), CKR_OK);
        EXPECT_EQ(value.back(), 0xEE);
        value.pop_back();
        EXPECT_EQ(+entry.ulValueLen, value.size());
        return value;
    }
    /// The next handle, by deriving one.
    CK_OBJECT_HANDLE handleBefore() {
        EXPECT_EQ(derive().code, CKR_OK);
        return handle;
    }

    Bytes peer = Bytes{0x04} + countingBytes(0x20, 64);
    CK_ECDH1_DERIVE_PARAMS parameters = {};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameters, sizeof(CK_ECDH1_DERIVE_PARAMS)};
    Template wanted;
    CK_OBJECT_HANDLE handle = untouched;  ///< written by the last call
};

TEST_F(DeriveTest, TheRawSecretIsKeptAndReadBack) {
    expectDerived(32);
    EXPECT_GE(handle, derivedBase);
    EXPECT_EQ(secretOf(handle), world.sharedSecret);
    EXPECT_EQ(world.buffersHandedOut(), 1);
}

TEST_F(DeriveTest, TheFirstHandleOfAProcess) {
    std::filesystem::create_directories(logFolder("derive_probe"));  // or the module complains on the output
    const ChildResult result = runChild(programFile().parent_path() / "derive_probe", {});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "82 70003000 70003001 0 0 82");
}

TEST_F(DeriveTest, HandlesCountOnWhateverTheSession) {
    const CK_OBJECT_HANDLE first = handleBefore();
    expectDerived(32);
    EXPECT_EQ(handle, first + 1);
    session = openSession(CKF_RW_SESSION, fipsSlot);
    world.keyPairs["SN2"] = world.keyPairs["SN1"];
    EXPECT_EQ(derive().code, CKR_OK);
    EXPECT_EQ(handle, first + 2);
}

TEST_F(DeriveTest, SecretsAndTheCountOutliveTheModulesStop) {
    const CK_OBJECT_HANDLE first = handleBefore();
    api->C_Finalize(nullptr);
    ASSERT_EQ(api->C_Initialize(nullptr), CKR_OK);
    listSlots();
    session = openSessionIn(CKS_RO_PUBLIC_SESSION);
    EXPECT_EQ(secretOf(first), countingBytes(0x90, 32));
    world.sharedSecret = {1, 2, 3};
    EXPECT_EQ(derive().code, CKR_OK);
    EXPECT_EQ(handle, first + 1);
    EXPECT_EQ(secretOf(handle), (Bytes{1, 2, 3}));
    EXPECT_EQ(secretOf(first), countingBytes(0x90, 32));
}

TEST_F(DeriveTest, NobodyHasToBeLoggedIn) {
    ASSERT_EQ(api->C_Logout(session), CKR_OK);
    const Outcome outcome = derive();
    EXPECT_EQ(outcome.code, CKR_OK);
    EXPECT_EQ(outcome.device, (Lines{listKeyPairs, deriveCall("SN1", "")}));
}

TEST_F(DeriveTest, TheTokenOfTheSessionIsAsked) {
    ASSERT_EQ(api->C_Logout(session), CKR_OK);
    session = openSession(0, fipsSlot);
    EXPECT_EQ(derive().device, (Lines{"zentak_getKeyPairList(\"SN2\", instance)", deriveCall("SN2", "")}));
}

TEST_F(DeriveTest, EarlyRefusalsAreSilentAndInTheirOrder) {
    const CK_OBJECT_HANDLE before = handleBefore();
    const CK_SESSION_HANDLE good = session;
    CK_MECHANISM wrong = {CKM_RSA_PKCS, nullptr, 0};
    CK_MECHANISM withoutParameter = {CKM_ECDH1_DERIVE, nullptr, sizeof(CK_ECDH1_DERIVE_PARAMS)};
    const auto refusal = [&](CK_MECHANISM* method, CK_OBJECT_HANDLE base, CK_OBJECT_HANDLE* target) {
        return observe([&] { return api->C_DeriveKey(session, method, base, nullptr, 0, target); });
    };
    handle = untouched;
    session = 7;
    EXPECT_EQ(refusal(nullptr, 0, nullptr), (Outcome{CKR_SESSION_HANDLE_INVALID, silent}));
    session = good;
    EXPECT_EQ(refusal(nullptr, 0, nullptr), (Outcome{CKR_ARGUMENTS_BAD, silent}));
    EXPECT_EQ(refusal(nullptr, 0, &handle), (Outcome{CKR_ARGUMENTS_BAD, silent}));
    EXPECT_EQ(refusal(&wrong, 0, nullptr), (Outcome{CKR_ARGUMENTS_BAD, silent}));
    EXPECT_EQ(refusal(&wrong, 0, &handle), (Outcome{CKR_MECHANISM_INVALID, silent}));
    EXPECT_EQ(refusal(&withoutParameter, 0, &handle), (Outcome{CKR_MECHANISM_PARAM_INVALID, silent}));
    EXPECT_EQ(refusal(&mechanism, 0, &handle), (Outcome{CKR_KEY_HANDLE_INVALID, silent}));
    EXPECT_EQ(handle, untouched);
    EXPECT_EQ(derive().code, CKR_OK);
    EXPECT_EQ(handle, before + 1);

    api->C_Finalize(nullptr);
    session = 7;
    EXPECT_EQ(refusal(nullptr, 0, nullptr), (Outcome{CKR_CRYPTOKI_NOT_INITIALIZED, silent}));
}

TEST_F(DeriveTest, OnlyOneMechanismDerives) {
    for (const CK_MECHANISM_TYPE type : Numbers{0, 0x104F, 0x1051, CKM_EC_KEY_PAIR_GEN, CKM_ECDSA, 0xFFFFFFFF}) {
        mechanism.mechanism = type;
        EXPECT_EQ(derive(), (Outcome{CKR_MECHANISM_INVALID, silent}));
    }
}

TEST_F(DeriveTest, EachParameterIsNeeded) {
    const Outcome refused = {CKR_MECHANISM_PARAM_INVALID, silent};
    for (const CK_ULONG parameterLength :
         Numbers{0, sizeof(CK_ECDH1_DERIVE_PARAMS) - 4, sizeof(CK_ECDH1_DERIVE_PARAMS) - 1}) {
        mechanism.ulParameterLen = parameterLength;
        EXPECT_EQ(derive(), refused);
        EXPECT_EQ(derive(0), refused);
    }
    mechanism.ulParameterLen = sizeof(CK_ECDH1_DERIVE_PARAMS) + 1;
    EXPECT_EQ(derive().code, CKR_OK);

    parameters.ulPublicDataLen = 0;
    EXPECT_EQ(derive(0), refused);
    parameters.ulPublicDataLen = 65;
    parameters.pPublicData = nullptr;
    EXPECT_EQ(derive(0), refused);
    EXPECT_EQ(handle, untouched);
}

TEST_F(DeriveTest, TheBaseKeyIsAPrivateKeyHandle) {
    for (const CK_OBJECT_HANDLE base :
         Handles{0, 5, 0x6FFFFFFF, 0x70001000, publicKey(5), certificate(5), 0x70003000, 0xF0000005, 0xFFFFFFFF}) {
        EXPECT_EQ(derive(base), (Outcome{CKR_KEY_HANDLE_INVALID, silent}));
    }
}

TEST_F(DeriveTest, ABaseKeyThatIsntThereIsRefusedWithoutAnError) {
    for (const std::uint32_t id : {0U, 7U, 4095U}) {
        EXPECT_EQ(
            derive(privateKey(id)),
            (Outcome{CKR_KEY_HANDLE_INVALID, {"DEBUG C_DeriveKey", text("DEBUG key id :: ", id)}, {listKeyPairs}}));
        EXPECT_EQ(handle, untouched);
    }
}

TEST_F(DeriveTest, AnyPublicDataAreHandedOn) {
    for (const Bytes& data : {Bytes{0}, Bytes{4, 1}, Bytes{0x30, 0xFF, 0x00}, countingBytes(0, 133)}) {
        peer = data;
        parameters.pPublicData = peer.data();
        parameters.ulPublicDataLen = static_cast<CK_ULONG>(peer.size());
        expectDerived(32);
    }
}

TEST_F(DeriveTest, SharedDataAreNeverRead) {
    parameters.ulSharedDataLen = 1000;
    parameters.pSharedData = reinterpret_cast<CK_BYTE_PTR>(1);
    for (const CK_ULONG kdf : Numbers{CKD_NULL, CKD_SHA1_KDF, sha256Kdf}) {
        parameters.kdf = kdf;
        EXPECT_EQ(derive().code, CKR_OK);
    }
}

TEST_F(DeriveTest, ABaseKeyOfAnyTypeIsTried) {
    world.keyPairs["SN1"][0] = keyFive;
    expectDerived(32);
}

TEST_F(DeriveTest, TwoDerivationFunctionsHashTheSecretAlone) {
    parameters.kdf = CKD_SHA1_KDF;
    expectDerived(20, hashing(1, 1, 20, world.sharedSecret));
    EXPECT_EQ(secretOf(handle), countingBytes(0xD0, 20));
    parameters.kdf = sha256Kdf;
    expectDerived(32, hashing(2, 4, 32, world.sharedSecret));
    EXPECT_EQ(secretOf(handle), digest);
    EXPECT_EQ(world.buffersHandedOut(), 2);
}

TEST_F(DeriveTest, EveryOtherDerivationFunctionKeepsTheRawSecret) {
    for (const CK_ULONG kdf : Numbers{0, CKD_NULL, 3, 4, 5, 7, 8, 0xFFFFFFFF}) {
        parameters.kdf = kdf;
        SCOPED_TRACE(kdf);
        expectDerived(32);
        EXPECT_EQ(secretOf(handle), world.sharedSecret);
    }
}

TEST_F(DeriveTest, TheDigestIsAsLongAsReported) {
    parameters.kdf = sha256Kdf;
    world.digest = {1, 2, 3, 4, 5};
    expectDerived(5, hashing(1, 4, 32, world.sharedSecret));
    EXPECT_EQ(secretOf(handle), world.digest);
}

TEST_F(DeriveTest, HashResultsArentLookedAt) {
    parameters.kdf = CKD_SHA1_KDF;
    setResult("zentak_updateHash", 9);
    expectDerived(20, hashing(1, 1, 20, world.sharedSecret));
    EXPECT_EQ(secretOf(handle), countingBytes(0xD0, 20));
    setResult("zentak_finalHash", 9);
    expectDerived(20, hashing(2, 1, 20, world.sharedSecret));
    EXPECT_EQ(secretOf(handle), Bytes(20, 0));
    // Without a context the other two are called with none.
    setResult("zentak_initHash", 9);
    parameters.kdf = sha256Kdf;
    expectDerived(32, hashing(0, 4, 32, world.sharedSecret));
    EXPECT_EQ(secretOf(handle), Bytes(32, 0));
}

TEST_F(DeriveTest, ADigestLengthBeyondTheAreaIsNeverFollowed) {
    parameters.kdf = sha256Kdf;
    const CK_OBJECT_HANDLE before = handleBefore();
    for (const int reported : {33, 100000, -1}) {
        world.reportedLength = reported;
        expectOneError(derive(), CKR_FUNCTION_FAILED, "C_DeriveKey");
        EXPECT_EQ(handle, untouched);
    }
    world.reportedLength.reset();
    EXPECT_EQ(derive().code, CKR_OK);
    EXPECT_EQ(handle, before + 1);
}

TEST_F(DeriveTest, AWantedLengthCutsButNeverLengthens) {
    parameters.kdf = sha256Kdf;
    const std::pair<CK_ULONG, std::size_t> rows[] = {{1, 1},   {16, 16}, {31, 31}, {32, 32},
                                                     {33, 32}, {64, 32}, {0, 32},  {0xFFFFFFFF, 32}};
    int context = 0;
    for (const auto& [asked, kept] : rows) {
        wanted = {};
        wanted.addNumber(CKA_CLASS, CKO_SECRET_KEY).addNumber(CKA_VALUE_LEN, asked).add(CKA_TOKEN, true);
        SCOPED_TRACE(asked);
        expectDerived(kept, hashing(++context, 4, 32, world.sharedSecret));
        EXPECT_EQ(secretOf(handle), countingBytes(0xD0, kept));
    }
}

TEST_F(DeriveTest, TheFirstWantedLengthWithAValueCounts) {
    wanted.addRaw(CKA_VALUE_LEN, nullptr, sizeof(CK_ULONG)).addNumber(CKA_VALUE_LEN, 16).addNumber(CKA_VALUE_LEN, 8);
    expectDerived(16);
    EXPECT_EQ(secretOf(handle), countingBytes(0x90, 16));
    wanted = {};
    wanted.addNumber(CKA_VALUE_LEN, 0).addNumber(CKA_VALUE_LEN, 8);
    expectDerived(32);
}

TEST_F(DeriveTest, AWantedLengthOfAnotherLengthIsFilledWithZeros) {
    for (const Bytes& value : {Bytes{16}, Bytes{16, 0}, Bytes{16, 0, 0}, bytesOf<CK_ULONG>(16) + Bytes{1, 1}}) {
        wanted = {};
        wanted.add(CKA_VALUE_LEN, value);
        expectDerived(16);
    }
}

TEST_F(DeriveTest, TheRestOfTheTemplateIsIgnored) {
    wanted.addNumber(CKA_CLASS, CKO_DATA).addNumber(CKA_KEY_TYPE, CKK_RSA).add(CKA_LABEL, "x").add(CKA_TOKEN, false);
    wanted.addRaw(CKA_VALUE, nullptr, 100).addRaw(CKA_ID, reinterpret_cast<void*>(1), 100);
    expectDerived(32);
}

TEST_F(DeriveTest, AFailureNamesTheResultAndStoresNothing) {
    const CK_OBJECT_HANDLE before = handleBefore();
    const auto failed = [&](int result) {
        return Outcome{CKR_FUNCTION_FAILED,
                       start() + Lines{text("ERROR C_DeriveKey: zentak_ecdhDerive failed: ", result)},
                       {listKeyPairs, deriveCall()}};
    };
    for (const int result : {1, 40, 242, -5}) {
        setResult("zentak_ecdhDerive", result);
        EXPECT_EQ(derive(), failed(result));
        EXPECT_EQ(handle, untouched);
    }
    EXPECT_EQ(world.buffersHandedOut(), 1);
    // A buffer in spite of the failure is released; a leak checker sees it.
    world.handsOutOnFailure = true;
    EXPECT_EQ(derive(), failed(-5));
    EXPECT_EQ(world.buffersHandedOut(), 2);
    // So is one of no bytes.
    setResult("zentak_ecdhDerive", 0);
    world.sharedSecret = {};
    EXPECT_EQ(derive(), failed(0));
    EXPECT_EQ(handle, untouched);
    EXPECT_EQ(world.buffersHandedOut(), 3);
    // A length without a buffer is a failure too.
    world.lengthOfNothing = 32;
    EXPECT_EQ(derive(), failed(0));
    EXPECT_EQ(handle, untouched);
    world.lengthOfNothing.reset();

    world.sharedSecret = {0x42};
    expectDerived(1);
    EXPECT_EQ(handle, before + 1);
}

TEST_F(DeriveTest, ExceptionsBecomeCodesAndStoreNothing) {
    parameters.kdf = sha256Kdf;
    const CK_OBJECT_HANDLE before = handleBefore();
    for (const ThrownCode& row : thrownCodes) {
        for (const char* operation : {"zentak_getKeyPairList", "zentak_ecdhDerive"}) {
            letThrow(operation, row.thrown);
            expectOneError(derive(), row.code, "C_DeriveKey");
            EXPECT_EQ(handle, untouched);
        }
    }
    EXPECT_EQ(derive().code, CKR_OK);
    EXPECT_EQ(handle, before + 1);
}

TEST_F(DeriveTest, AThrowingHashIsOnlyLogged) {
    parameters.kdf = sha256Kdf;
    struct Row {
        const char* operation;
        bool hasContext;
        Bytes secret;
    };
    const Row rows[] = {{"zentak_initHash", false, digest},
                        {"zentak_updateHash", true, digest},
                        {"zentak_finalHash", true, Bytes(32, 0)}};
    int contexts = 0;
    for (const ThrownCode& thrown : thrownCodes) {
        for (const Row& row : rows) {
            letThrow(row.operation, thrown.thrown);
            const Outcome outcome = derive();
            contexts += row.hasContext ? 1 : 0;
            Outcome expected = derived(32, hashing(row.hasContext ? contexts : 0, 4, 32, world.sharedSecret));
            expected.log.insert(expected.log.end() - 1, ignoredLine("C_DeriveKey", row.operation, thrown.thrown));
            EXPECT_EQ(outcome, expected);
            EXPECT_EQ(secretOf(handle), row.secret) << row.operation;
        }
    }
}

// A length that comes with a failure means nothing: the whole area is the secret.
TEST_F(DeriveTest, AFailedLastStepLeavesTheAreaItsLength) {
    parameters.kdf = CKD_SHA1_KDF;
    setResult("zentak_finalHash", 9);
    int contexts = 0;
    for (const int reported : {0, 5, 21, 100000, -1}) {
        world.reportedLength = reported;
        SCOPED_TRACE(reported);
        expectDerived(20, hashing(++contexts, 1, 20, world.sharedSecret));
        EXPECT_EQ(secretOf(handle), Bytes(20, 0));
    }
}

TEST_F(DeriveTest, ARunningOperationIsLeftAlone) {
    begin(CKM_RSA_PKCS);
    EXPECT_EQ(derive().code, CKR_OK);
    EXPECT_EQ(sign({1}).code, CKR_OK);
}

class DerivedSecretTest : public DeriveTest {
protected:
    void SetUp() override {
        DeriveTest::SetUp();
        world.sharedSecret = countingBytes(0x90, 4);
        ASSERT_EQ(derive().code, CKR_OK);
    }
    Outcome read(CK_OBJECT_HANDLE object) {
        return observe([&] { return api->C_GetAttributeValue(session, object, entries.data(), entries.count()); });
    }
    Outcome readTo(CK_RV code) const {
        return {code, {"DEBUG C_GetAttributeValue", text("DEBUG C_GetAttributeValue count : ", entries.count())}};
    }

    Template entries;
};

TEST_F(DerivedSecretTest, ItsValueIsReadableAndNothingElse) {
    Room target(10);
    CK_ULONG number = 0x5A5A5A5A;
    entries.addRaw(CKA_CLASS, &number, sizeof number).addRaw(CKA_VALUE, target.address(), 10);
    entries.addRaw(CKA_KEY_TYPE, &number, sizeof number).addRaw(CKA_VALUE, nullptr, 99);
    entries.addRaw(CKA_VALUE_LEN, nullptr, 0);
    EXPECT_EQ(read(handle), readTo(CKR_OK));
    for (const std::size_t other : {0U, 2U, 4U}) {
        EXPECT_EQ(+entries[other].ulValueLen, static_cast<CK_ULONG>(CK_UNAVAILABLE_INFORMATION));
    }
    EXPECT_EQ(number, 0x5A5A5A5AU);
    EXPECT_EQ(+entries[1].ulValueLen, 4U);
    EXPECT_EQ(+entries[3].ulValueLen, 4U);
    EXPECT_EQ(target.first(4), countingBytes(0x90, 4));
    EXPECT_TRUE(target.untouchedFrom(4));
}

TEST_F(DerivedSecretTest, ATooSmallBufferEndsTheWalkSilently) {
    Room exact(4);
    Room small(3);
    entries.addRaw(CKA_VALUE, exact.address(), 4).addRaw(CKA_VALUE, small.address(), 3);
    entries.addRaw(CKA_CLASS, nullptr, 77);
    EXPECT_EQ(read(handle), readTo(CKR_BUFFER_TOO_SMALL));
    EXPECT_EQ(exact.first(4), countingBytes(0x90, 4));
    EXPECT_TRUE(small.untouchedFrom(0));
    EXPECT_EQ(+entries[1].ulValueLen, 3U);
    EXPECT_EQ(+entries[2].ulValueLen, 77U);
}

TEST_F(DerivedSecretTest, AnySessionReadsIt) {
    const CK_OBJECT_HANDLE made = handle;
    ASSERT_EQ(api->C_Logout(session), CKR_OK);
    const CK_SESSION_HANDLE other = openSession(0, fipsSlot);
    ASSERT_EQ(api->C_CloseSession(session), CKR_OK);
    session = other;
    EXPECT_EQ(secretOf(made), countingBytes(0x90, 4));
}

TEST_F(DerivedSecretTest, TheNextHandleIsNotThereYet) {
    entries.addRaw(CKA_VALUE, nullptr, 0);
    Outcome expected = readTo(CKR_OBJECT_HANDLE_INVALID);
    expected.log.push_back(text("ERROR C_GetAttributeValue: derived key handle not found=", handle + 1));
    EXPECT_EQ(read(handle + 1), expected);
}

TEST_F(DerivedSecretTest, ItHasNoSizeAndIsNeverFound) {
    CK_ULONG size = 0x5A5A5A5A;
    EXPECT_EQ(observe([&] { return api->C_GetObjectSize(session, handle, &size); }),
              failed(CKR_OBJECT_HANDLE_INVALID, "C_GetObjectSize",
                     text("Certificate not found in get object size : ", handle), {listCertificates}));
    EXPECT_EQ(size, 0x5A5A5A5AU);
    Template everything;
    const Handles found = search(session, everything);
    EXPECT_EQ(std::count(found.begin(), found.end(), handle), 0);
}

}  // namespace
