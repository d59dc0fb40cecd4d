// docs/functions.md: each function with its state, its file, and what it hands to the device library.

#include <cstdlib>
#include <set>

#include "document_tables.h"
#include "every_function.h"
#include "object_test.h"
#include "run_folder.h"

using namespace support;

namespace {

using Names = std::set<std::string>;

const std::string page = "docs/functions.md";

std::map<std::string, documents::Row> documentedFunctions() {
    std::map<std::string, documents::Row> functions;
    for (const documents::Row& row : documents::rowsWith("State", page)) {
        EXPECT_TRUE(functions.emplace(row.at("Function"), row).second) << row.at("Function") << " stands twice";
    }
    return functions;
}

TEST(FunctionsDocumentTest, HasEveryFunctionInItsState) {
    std::map<std::string, std::string> states;
    int working = 0;
    for (const behaviour::AnyFunction& function : behaviour::everyFunction()) {
        states[function.name] = function.supported ? "works" : "never";
        working += function.supported ? 1 : 0;
    }
    EXPECT_NE(documents::textOf(page).find(text(working, " of the ", states.size(), " standard functions work.")),
              std::string::npos);
    for (const behaviour::VendorExtension& extension : behaviour::everyVendorExtension()) {
        states[extension.name] = "never";
    }
    std::map<std::string, std::string> documented;
    for (const auto& [name, row] : documentedFunctions()) documented[name] = row.at("State");
    EXPECT_EQ(documented, states);
}

TEST(FunctionsDocumentTest, NamesTheFileAndSaysWhatTheFunctionDoes) {
    for (const auto& [name, row] : documentedFunctions()) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(row.at("What it does").empty());
        if (row.at("State") == "never") {
            EXPECT_EQ(row.at("File"), "");
            EXPECT_EQ(row.at("Device library"), "");
        } else {
            EXPECT_NE(documents::textOf("src/" + row.at("File")).find("CK_RV " + name + "("), std::string::npos);
        }
    }
}

/// Calls every function in a world where it does all that it can do, and notes the operations that this takes.
class DeviceLibraryColumnTest : public ObjectTest {
protected:
    void SetUp() override {
        ObjectTest::SetUp();
        setEnvironment("ZENTAK_HOME", "/opt/zentak");
        world.sharedSecret = countingBytes(1, 32);
        world.ciphertext = countingBytes(1, 256);
        world.plaintext = countingBytes(1, 8);
        // The key pair 5 has no label, and a certificate without label from which both get one.
        setAlias(world.keyPairs["SN1"][0], "");
        setLabel(world.certificates["SN1"][0], "");
        world.certificateDetails[derOf(certificateFive)] = makeDetails("Five", "CN=Root", publicKeyOf(keyFive));
    }
    void TearDown() override {
        setEnvironment("ZENTAK_HOME", std::nullopt);
        ObjectTest::TearDown();
    }

    template <typename Function>
    void calling(const std::string& name, Function function) {
        clear();
        EXPECT_EQ(function(), CKR_OK) << name;
        Names& noted = operations[name];
        for (const std::string& call : calls()) {
            // The prefix says nothing; what follows the name are arguments.
            constexpr std::size_t prefix = std::string_view("zentak_").size();
            noted.insert(call.substr(prefix, call.find('(') - prefix));
        }
    }

    void callGeneral();
    void callSlots();
    void callSessions();
    void callObjects();
    void callDigests();
    void callSignatures();
    void callVerification();
    void callCiphers();
    void callKeys();

    /// A search with one criterion among the certificates.
    void find(CK_SESSION_HANDLE where, CK_ATTRIBUTE_TYPE type) {
        Template wanted;
        wanted.addNumber(CKA_CLASS, CKO_CERTIFICATE).add(type, "Anything");
        calling("C_FindObjectsInit", [&] { return api->C_FindObjectsInit(where, wanted.data(), wanted.count()); });
    }

    std::map<std::string, Names> operations;
    CK_SESSION_HANDLE session = 0;
    CK_MECHANISM hashing = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    CK_MECHANISM digest = {CKM_SHA256, nullptr, 0};
    CK_MECHANISM cipher = {CKM_RSA_PKCS, nullptr, 0};
    Bytes data = countingBytes(1, 8);
    CK_ULONG dataLength = 8;
    Bytes output = Bytes(2048);
    CK_ULONG outputLength = 2048;
};

void DeviceLibraryColumnTest::callGeneral() {
    calling("C_Finalize", [&] { return api->C_Finalize(nullptr); });
    calling("C_Initialize", [&] { return api->C_Initialize(nullptr); });
    CK_INFO info;
    calling("C_GetInfo", [&] { return api->C_GetInfo(&info); });
    CK_FUNCTION_LIST_PTR list = nullptr;
    calling("C_GetFunctionList", [&] { return api->C_GetFunctionList(&list); });
}

void DeviceLibraryColumnTest::callSlots() {
    CK_SLOT_ID slots[8];
    CK_ULONG count = 8;
    calling("C_GetSlotList", [&] { return api->C_GetSlotList(CK_TRUE, slots, &count); });
    CK_SLOT_INFO slot;
    calling("C_GetSlotInfo", [&] { return api->C_GetSlotInfo(firstSlot, &slot); });
    CK_TOKEN_INFO token;
    calling("C_GetTokenInfo", [&] { return api->C_GetTokenInfo(firstSlot, &token); });
    CK_MECHANISM_TYPE types[40];
    count = 40;
    calling("C_GetMechanismList", [&] { return api->C_GetMechanismList(firstSlot, types, &count); });
    CK_MECHANISM_INFO mechanism;
    calling("C_GetMechanismInfo", [&] { return api->C_GetMechanismInfo(firstSlot, CKM_RSA_PKCS, &mechanism); });
    CK_SLOT_ID changed = 0;
    // An event may wait or not: the monitor looks whenever it likes.
    calling("C_WaitForSlotEvent", [&]() -> CK_RV {
        const CK_RV code = api->C_WaitForSlotEvent(CKF_DONT_BLOCK, &changed, nullptr);
        return code == CKR_NO_EVENT ? CKR_OK : code;
    });
}

void DeviceLibraryColumnTest::callSessions() {
    const auto open = [&] {
        return api->C_OpenSession(firstSlot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session);
    };
    calling("C_OpenSession", open);
    calling("C_CloseSession", [&] { return api->C_CloseSession(session); });
    calling("C_OpenSession", open);
    calling("C_CloseAllSessions", [&] { return api->C_CloseAllSessions(firstSlot); });
    calling("C_OpenSession", open);
    CK_SESSION_INFO info;
    calling("C_GetSessionInfo", [&] { return api->C_GetSessionInfo(session, &info); });
    calling("C_Login", [&] { return api->C_Login(session, CKU_USER, pin(userPin), 6); });
    calling("C_Logout", [&] { return api->C_Logout(session); });
    calling("C_Login", [&] { return api->C_Login(session, CKU_USER, pin(userPin), 6); });
    calling("C_SetPIN", [&] { return api->C_SetPIN(session, pin(userPin), 6, pin("135791"), 6); });
}

void DeviceLibraryColumnTest::callObjects() {
    find(session, CKA_LABEL);
    find(session, CKA_SUBJECT);
    find(openSession(0, fipsSlot), CKA_LABEL);  // an empty token
    find(session, CKA_ID);
    CK_OBJECT_HANDLE found = 0;
    CK_ULONG count = 0;
    calling("C_FindObjects", [&] { return api->C_FindObjects(session, &found, 1, &count); });
    calling("C_FindObjectsFinal", [&] { return api->C_FindObjectsFinal(session); });

    CK_ATTRIBUTE label = {CKA_LABEL, nullptr, 0};
    calling("C_GetAttributeValue", [&] { return api->C_GetAttributeValue(session, privateKey(5), &label, 1); });
    CK_ATTRIBUTE names[] = {{CKA_ISSUER, nullptr, 0}, {CKA_SUBJECT, nullptr, 0}, {CKA_SERIAL_NUMBER, nullptr, 0}};
    calling("C_GetAttributeValue", [&] { return api->C_GetAttributeValue(session, certificate(5), names, 3); });
    CK_ULONG size = 0;
    calling("C_GetObjectSize", [&] { return api->C_GetObjectSize(session, privateKey(5), &size); });
    calling("C_GetObjectSize", [&] { return api->C_GetObjectSize(session, certificate(5), &size); });
    Template renamed;
    renamed.add(CKA_LABEL, "New name");
    calling("C_SetAttributeValue",
            [&] { return api->C_SetAttributeValue(session, privateKey(5), renamed.data(), renamed.count()); });

    CK_OBJECT_HANDLE created = 0;
    Template leaf;
    leaf.addNumber(CKA_CLASS, CKO_CERTIFICATE).add(CKA_VALUE, derOf(certificateFive));
    calling("C_CreateObject", [&] { return api->C_CreateObject(session, leaf.data(), leaf.count(), &created); });
    Template key = rsaKeyTemplate();
    calling("C_CreateObject", [&] { return api->C_CreateObject(session, key.data(), key.count(), &created); });
    calling("C_DestroyObject", [&] { return api->C_DestroyObject(session, privateKey(6)); });
}

void DeviceLibraryColumnTest::callDigests() {
    calling("C_DigestInit", [&] { return api->C_DigestInit(session, &digest); });
    calling("C_Digest", [&] { return api->C_Digest(session, data.data(), dataLength, output.data(), &outputLength); });
    calling("C_DigestInit", [&] { return api->C_DigestInit(session, &digest); });
    calling("C_DigestUpdate", [&] { return api->C_DigestUpdate(session, data.data(), dataLength); });
    calling("C_DigestFinal", [&] { return api->C_DigestFinal(session, output.data(), &outputLength); });
    // A finished digest stays behind in its session; see the page on behaviour.
    EXPECT_EQ(api->C_CloseSession(session), CKR_OK);
    session = openSession(CKF_RW_SESSION);
}

void DeviceLibraryColumnTest::callSignatures() {
    calling("C_SignInit", [&] { return api->C_SignInit(session, &hashing, privateKey(5)); });
    calling("C_Sign", [&] { return api->C_Sign(session, data.data(), dataLength, output.data(), &outputLength); });
    calling("C_SignInit", [&] { return api->C_SignInit(session, &hashing, privateKey(5)); });
    calling("C_SignUpdate", [&] { return api->C_SignUpdate(session, data.data(), dataLength); });
    calling("C_SignFinal", [&] { return api->C_SignFinal(session, output.data(), &outputLength); });
}

void DeviceLibraryColumnTest::callVerification() {
    calling("C_VerifyInit", [&] { return api->C_VerifyInit(session, &hashing, publicKey(5)); });
    calling("C_Verify", [&] { return api->C_Verify(session, data.data(), dataLength, output.data(), 256); });
    calling("C_VerifyInit", [&] { return api->C_VerifyInit(session, &hashing, publicKey(5)); });
    calling("C_VerifyUpdate", [&] { return api->C_VerifyUpdate(session, data.data(), dataLength); });
    calling("C_VerifyFinal", [&] { return api->C_VerifyFinal(session, output.data(), 256); });
}

void DeviceLibraryColumnTest::callCiphers() {
    calling("C_EncryptInit", [&] { return api->C_EncryptInit(session, &cipher, publicKey(5)); });
    calling("C_Encrypt",
            [&] { return api->C_Encrypt(session, data.data(), dataLength, output.data(), &outputLength); });
    calling("C_DecryptInit", [&] { return api->C_DecryptInit(session, &cipher, privateKey(5)); });
    calling("C_Decrypt",
            [&] { return api->C_Decrypt(session, data.data(), dataLength, output.data(), &outputLength); });
}

void DeviceLibraryColumnTest::callKeys() {
    Template anything;
    anything.add(CKA_TOKEN, true);
    CK_OBJECT_HANDLE made[2] = {};
    CK_MECHANISM generation = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    calling("C_GenerateKeyPair", [&] {
        return api->C_GenerateKeyPair(session, &generation, anything.data(), anything.count(), anything.data(),
                                      anything.count(), &made[0], &made[1]);
    });
    constexpr CK_ULONG sha256Kdf = 6;
    CK_ECDH1_DERIVE_PARAMS parameters = {sha256Kdf, 0, nullptr, dataLength, data.data()};
    CK_MECHANISM derivation = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
    calling("C_DeriveKey", [&] { return api->C_DeriveKey(session, &derivation, privateKey(5), nullptr, 0, &made[0]); });
    calling("C_GenerateRandom", [&] { return api->C_GenerateRandom(session, data.data(), dataLength); });
}

TEST_F(DeviceLibraryColumnTest, NamesWhatTheFunctionAsksFor) {
    callGeneral();
    callSlots();
    callSessions();
    callObjects();
    callDigests();
    callSignatures();
    callVerification();
    callCiphers();
    callKeys();
    std::map<std::string, Names> documented;
    for (const auto& [name, row] : documentedFunctions()) {
        if (row.at("State") != "works") continue;
        const std::vector<std::string> items = documents::itemsOf(row.at("Device library"));
        documented[name] = Names(items.begin(), items.end());
    }
    // Function by function, so that a difference is short to read.
    for (const auto& [name, names] : documented) EXPECT_EQ(names, operations[name]) << name;
    EXPECT_EQ(documented.size(), operations.size());
}

}  // namespace
