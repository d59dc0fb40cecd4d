// What the module leaves in memory of a PIN, a plaintext and an agreed secret when it is done with them: nothing. The
// memory is looked at where it lies, and, where libraries share their memory with the host, when it is given back.

#include <algorithm>
#include <array>
#include <fstream>

#include "allocation_failure.h"
#include "module_test.h"
#include "scripted_call.h"

namespace {

using namespace support;

/// Short ones lie inside the module's state, long ones in memory of their own.
const std::string pins[] = {"1357", "135792468", "a PIN of sixteen", std::string(40, 'p') + " the longest PIN is 63."};

class SecretsTest : public ModuleTest {
protected:
    void plugInTokens() override {
        plugIn(makeTokenInfo("SN1"));
        device().keyPairs["SN1"] = {makeKeyPair(1), makeKeyPair(2, p256)};
        device().certificates["SN1"] = {makeCertificate(3, Bytes{0x30, 1, 2})};
    }
    void SetUp() override {
        ModuleTest::SetUp();
        device().records = false;  // the record would hold the secrets itself
        session = openSession(CKF_RW_SESSION);
    }

    void loginWith(const std::string& password) const {
        ASSERT_EQ(api.C_Login(session, CKU_USER, pin(password.c_str()), static_cast<CK_ULONG>(password.size())),
                  CKR_OK);
    }
    /// Where the module has its PIN: at the address that the device library gets.
    const char* rememberedPin() const {
        EXPECT_EQ(api.C_DestroyObject(session, privateKeyBase + 1), CKR_OK);
        return device().hidden().passwordGiven;
    }
    static bool isZero(const void* memory, std::size_t length) {
        const auto* const first = static_cast<const unsigned char*>(memory);
        return std::all_of(first, first + length, [](unsigned char byte) { return byte == 0; });
    }

    const CK_FUNCTION_LIST& api = functions();
    CK_SESSION_HANDLE session = 0;
};

TEST_F(SecretsTest, AForgottenPinIsOverwritten) {
    struct Ending {
        const char* name;
        std::function<void()> end;
        std::vector<std::string> passwords;
    };
    const std::vector<std::string> all(std::begin(pins), std::end(pins));
    const Ending endings[] = {
        {"C_Logout", [&] { ASSERT_EQ(api.C_Logout(session), CKR_OK); }, all},
        {"C_Finalize",
         [&] {
             ASSERT_EQ(api.C_Finalize(nullptr), CKR_OK);
             ASSERT_EQ(api.C_Initialize(nullptr), CKR_OK);
             listSlots();
             session = openSession(CKF_RW_SESSION);
         },
         all},
        {"the token is pulled out",
         [&] {
             device().records = true;  // polls are counted by their record
             device().showToMonitor({});
             device().takePolls();
             ASSERT_TRUE(device().waitForPolls(2));
             device().records = false;
             device().showToMonitor({"SN1"});
         },
         {pins[0], pins[3]}},
    };
    for (const Ending& ending : endings) {
        for (const std::string& password : ending.passwords) {
            SCOPED_TRACE(ending.name + (" " + password));
            loginWith(password);
            const char* const place = rememberedPin();
            ASSERT_EQ(std::string(place), password);
            behaviour::watchFreedMemory(password);
            ending.end();
            EXPECT_EQ(behaviour::patternsFreed(), 0);
            EXPECT_TRUE(isZero(place, password.size()));
        }
    }
}

TEST_F(SecretsTest, AReplacedPinIsOverwritten) {
    const std::string next = "2468";
    for (const std::string& password : pins) {
        SCOPED_TRACE(password);
        loginWith(password);
        const char* const before = rememberedPin();
        behaviour::watchFreedMemory(password);
        ASSERT_EQ(api.C_SetPIN(session, pin(password.c_str()), static_cast<CK_ULONG>(password.size()),
                               pin(next.c_str()), static_cast<CK_ULONG>(next.size())),
                  CKR_OK);
        EXPECT_EQ(behaviour::patternsFreed(), 0);
        const char* const after = rememberedPin();
        EXPECT_EQ(std::string(after), next);
        if (before == after && password.size() > next.size()) {
            EXPECT_TRUE(isZero(after + next.size(), password.size() - next.size()));
        }
        ASSERT_EQ(api.C_Logout(session), CKR_OK);
    }
}

#if !defined(_WIN32)
// Where the libraries share their memory with the host; a Windows build has its own inside.

/// What lies at an address, also where it was freed: read past the sanitizer.
Bytes memoryAt(const unsigned char* address, std::size_t length) {
    std::ifstream memory;
    memory.rdbuf()->pubsetbuf(nullptr, 0);  // it would hold what lies beside, and be given back with it
    memory.open("/proc/self/mem", std::ios::binary);
    memory.seekg(static_cast<std::streamoff>(reinterpret_cast<std::uintptr_t>(address)));
    Bytes bytes(length);
    memory.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(length));
    EXPECT_TRUE(memory.good());
    return bytes;
}

TEST_F(SecretsTest, CopiesOfAPinAreOverwritten) {
    const std::string& password = pins[3];
    const auto length = static_cast<CK_ULONG>(password.size());
    behaviour::watchFreedMemory(password);
    device().results["zentak_validatePassword"] = 1;
    EXPECT_EQ(api.C_Login(session, CKU_USER, pin(password.c_str()), length), CKR_PIN_INCORRECT);
    device().results["zentak_validatePassword"] = 0;
    EXPECT_EQ(api.C_Login(session, CKU_USER, pin(password.c_str()), length), CKR_OK);
    EXPECT_EQ(api.C_SetPIN(session, pin("1234"), 4, pin(password.c_str()), length), CKR_OK);
    device().results["zentak_changeUserPassword"] = 0;
    EXPECT_EQ(api.C_SetPIN(session, pin(password.c_str()), length, pin("1234"), 4), CKR_FUNCTION_FAILED);
    EXPECT_EQ(api.C_SetPIN(session, pin("1234"), 4, pin(password.c_str()), length), CKR_FUNCTION_FAILED);
    device().addFault({.operation = "zentak_changeUserPassword", .thrown = scripted::Throw::exception});
    EXPECT_EQ(api.C_SetPIN(session, pin(password.c_str()), length, pin(password.c_str()), length), CKR_FUNCTION_FAILED);
    EXPECT_EQ(api.C_Logout(session), CKR_OK);
    EXPECT_EQ(behaviour::patternsFreed(), 0);
}

constexpr std::size_t secretLength = 1000;  // of no other memory that a call takes

/// A part of the secret that no allocator writes over.
Bytes middleOf(const Bytes& secret) {
    return Bytes(secret.begin() + 100, secret.begin() + 140);
}
bool holds(const Bytes& memory, const Bytes& part) {
    return std::search(memory.begin(), memory.end(), part.begin(), part.end()) != memory.end();
}
std::string_view textOf(const Bytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

class SecretResultsTest : public SecretsTest {
protected:
    void SetUp() override {
        SecretsTest::SetUp();
        loginWith("1234");
        device().plaintext = secret;
        device().sharedSecret = secret;
        behaviour::followAllocations(secretLength);
        behaviour::watchFreedMemory(textOf(part));
    }
    void TearDown() override {
        behaviour::followAllocations(0);
        EXPECT_EQ(behaviour::patternsFreed(), 0);
        SecretsTest::TearDown();
    }

    void decryptInit() {
        CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
        ASSERT_EQ(api.C_DecryptInit(session, &mechanism, privateKeyBase + 1), CKR_OK);
    }
    CK_RV decrypt(CK_BYTE_PTR target) {
        CK_BYTE data[] = {1, 2, 3};
        CK_ULONG length = sizeof output;
        return api.C_Decrypt(session, data, sizeof data, target, &length);
    }
    CK_RV derive(CK_ULONG kdf, CK_ULONG wantedLength) {
        CK_BYTE point[] = {4, 1, 2};
        CK_ECDH1_DERIVE_PARAMS parameters = {kdf, 0, nullptr, sizeof point, point};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
        CK_ATTRIBUTE entry = {CKA_VALUE_LEN, &wantedLength, sizeof wantedLength};
        CK_OBJECT_HANDLE handle = 0;
        return api.C_DeriveKey(session, &mechanism, privateKeyBase + 2, &entry, 1, &handle);
    }
    /// Of what the device library has handed out and the module has freed.
    void expectLibraryBufferWiped() const {
        EXPECT_FALSE(holds(memoryAt(device().hidden().lastHandedOut, secretLength), part));
    }

    const Bytes secret = countingBytes(1, secretLength);
    const Bytes part = middleOf(secret);
    CK_BYTE output[secretLength] = {};
};

TEST_F(SecretResultsTest, ADeliveredPlaintextIsOverwritten) {
    decryptInit();
    ASSERT_EQ(decrypt(nullptr), CKR_OK);
    const unsigned char* const kept = behaviour::lastAllocation();
    ASSERT_NE(kept, nullptr);
    expectLibraryBufferWiped();
    EXPECT_TRUE(std::equal(secret.begin(), secret.end(), kept));  // until it is fetched
    ASSERT_EQ(decrypt(output), CKR_OK);
    EXPECT_TRUE(std::equal(secret.begin(), secret.end(), output));
    EXPECT_TRUE(isZero(kept, secretLength));
    ASSERT_EQ(api.C_CloseSession(session), CKR_OK);
}

TEST_F(SecretResultsTest, APlaintextThatNobodyFetchesIsOverwritten) {
    decryptInit();
    ASSERT_EQ(decrypt(nullptr), CKR_OK);
    // Abandoned, and replaced by the next one.
    ASSERT_EQ(api.C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    ASSERT_EQ(api.C_FindObjectsFinal(session), CKR_OK);
    const unsigned char* const abandoned = behaviour::lastAllocation();
    decryptInit();
    EXPECT_TRUE(isZero(abandoned, secretLength));
    ASSERT_EQ(decrypt(nullptr), CKR_OK);
    ASSERT_EQ(api.C_CloseSession(session), CKR_OK);
    session = openSession(CKF_RW_SESSION);
    decryptInit();
    ASSERT_EQ(decrypt(nullptr), CKR_OK);
    ASSERT_EQ(api.C_CloseAllSessions(firstSlot), CKR_OK);
    session = openSession(CKF_RW_SESSION);
    decryptInit();
    ASSERT_EQ(decrypt(nullptr), CKR_OK);
    ASSERT_EQ(api.C_Finalize(nullptr), CKR_OK);
    ASSERT_EQ(api.C_Initialize(nullptr), CKR_OK);
}

TEST_F(SecretResultsTest, AnAgreedSecretIsOverwrittenButForWhatBecomesTheKey) {
    ASSERT_EQ(derive(CKD_NULL, 40), CKR_OK);
    const unsigned char* const kept = behaviour::lastAllocation();
    ASSERT_NE(kept, nullptr);
    expectLibraryBufferWiped();
    EXPECT_TRUE(std::equal(kept, kept + 40, secret.begin()));
    EXPECT_TRUE(isZero(kept + 40, secretLength - 40));

    ASSERT_EQ(derive(CKD_SHA1_KDF, 0), CKR_OK);
    expectLibraryBufferWiped();
    // A digest whose length can't be ends the call, and the secret all the same.
    device().reportedLength = 21;
    ASSERT_EQ(derive(CKD_SHA1_KDF, 0), CKR_FUNCTION_FAILED);
    expectLibraryBufferWiped();
}

TEST_F(SecretResultsTest, AnImportedKeysPartsAreOverwritten) {
    Template wanted = rsaKeyTemplate(Bytes(256, 0xC1), secret, secret);
    CK_OBJECT_HANDLE handle = 0;
    for (const int result : {0, 1}) {
        device().results["zentak_importPfx"] = result;
        EXPECT_EQ(api.C_CreateObject(session, wanted.data(), wanted.count(), &handle),
                  result == 0 ? CKR_OK : CKR_FUNCTION_FAILED);
    }
    EXPECT_EQ(behaviour::patternsFreed(), 0);  // the template's own go behind that
}

// The library may give up its list whenever it is called, and the monitor calls it from its own thread, perhaps while
// the search writes a line to the log. That of a long identifier is known by the memory that it takes.
TEST_F(SecretsTest, ALogLineDoesNotDisturbASearchsKeyPairs) {
    constexpr std::size_t length = 50'000;
    bool struck = false;
    const std::function<void()> overwrite = [&] {
        struck = true;
        for (ZentakKeyPair& keyPair : device().hidden().keyPairList) keyPair.id += 100;
    };
    Template wanted;
    wanted.add(CKA_ID, Bytes(length, 0xAA));
    behaviour::duringAllocation(2 * length, &overwrite);
    ASSERT_EQ(api.C_FindObjectsInit(session, wanted.data(), wanted.count()), CKR_OK);
    behaviour::duringAllocation(0, nullptr);
    ASSERT_TRUE(struck);
    CK_OBJECT_HANDLE found[8] = {};
    CK_ULONG count = 0;
    ASSERT_EQ(api.C_FindObjects(session, found, 8, &count), CKR_OK);
    EXPECT_EQ(std::vector<CK_OBJECT_HANDLE>(found, found + count),
              (Numbers{publicKeyBase + 1, publicKeyBase + 2, certificateBase + 3}));
}
#endif

}  // namespace
