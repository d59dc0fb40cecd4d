#include "restarts_caller.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace support {

namespace {

constexpr CK_OBJECT_HANDLE privateKey = privateKeyBase + 1;
constexpr CK_OBJECT_HANDLE publicKey = publicKeyBase + 1;
constexpr CK_OBJECT_HANDLE certificate = certificateBase + 2;
const Bytes der = {0x30, 3, 2, 1, 0};

AllowedCodes listAllowedCodes() {
    AllowedCodes codes = {{"C_Initialize", {CKR_OK, CKR_CRYPTOKI_ALREADY_INITIALIZED}},
                          {"C_Finalize", {CKR_OK, CKR_CRYPTOKI_NOT_INITIALIZED}},
                          {"C_GetFunctionList", {CKR_OK}},
                          {"C_SeedRandom", {CKR_FUNCTION_NOT_SUPPORTED}},
                          {"C_WaitForSlotEvent", {CKR_OK, CKR_CRYPTOKI_NOT_INITIALIZED}},
                          {"C_WaitForSlotEvent without blocking", {CKR_OK, CKR_NO_EVENT, CKR_CRYPTOKI_NOT_INITIALIZED}},
                          {"C_GetInfo", {CKR_OK, CKR_CRYPTOKI_NOT_INITIALIZED}},
                          {"C_GetSlotList", {CKR_OK, CKR_CRYPTOKI_NOT_INITIALIZED}}};
    // The list of slots is empty after a start and while no token is there.
    for (const char* name : {"C_GetSlotInfo", "C_GetTokenInfo", "C_GetMechanismList", "C_GetMechanismInfo",
                             "C_OpenSession", "C_CloseAllSessions"}) {
        codes[name] = {CKR_OK, CKR_CRYPTOKI_NOT_INITIALIZED, CKR_SLOT_ID_INVALID};
    }
    // The session is gone, or another thread's, in any state and with any operation.
    const std::pair<std::set<CK_RV>, std::vector<std::string>> sessionFunctions[] = {
        {{},
         {"C_CloseSession", "C_GetSessionInfo", "C_FindObjectsInit", "C_GetAttributeValue", "C_SetAttributeValue",
          "C_GetObjectSize", "C_CreateObject", "C_GenerateKeyPair", "C_DeriveKey", "C_GenerateRandom"}},
        {{CKR_OPERATION_ACTIVE}, {"C_DigestInit", "C_SignInit", "C_VerifyInit", "C_EncryptInit", "C_DecryptInit"}},
        {{CKR_OPERATION_NOT_INITIALIZED},
         {"C_FindObjects", "C_FindObjectsFinal", "C_Digest", "C_DigestUpdate", "C_DigestFinal", "C_Sign",
          "C_SignUpdate", "C_SignFinal", "C_Verify", "C_VerifyUpdate", "C_VerifyFinal", "C_Encrypt", "C_Decrypt"}},
        {{CKR_SESSION_READ_ONLY}, {"C_SetPIN", "C_DestroyObject"}},
        {{CKR_USER_ALREADY_LOGGED_IN, CKR_USER_ANOTHER_ALREADY_LOGGED_IN}, {"C_Login"}},
        {{CKR_USER_ALREADY_LOGGED_IN, CKR_SESSION_READ_ONLY_EXISTS}, {"C_Login of the security officer"}},
        {{CKR_USER_NOT_LOGGED_IN}, {"C_Logout"}},
    };
    for (const auto& [more, names] : sessionFunctions) {
        for (const std::string& name : names) {
            codes[name] = {CKR_OK, CKR_CRYPTOKI_NOT_INITIALIZED, CKR_SESSION_HANDLE_INVALID};
            codes[name].insert(more.begin(), more.end());
        }
    }
    return codes;
}

}  // namespace

const AllowedCodes& allowedCodes() {
    static const AllowedCodes codes = listAllowedCodes();
    return codes;
}

void plugInTokensForCallers() {
    plugIn(makeTokenInfo("SN1"));
    plugIn(makeTokenInfo("SN2"));
    scripted::Device& world = device();
    world.keyPairs["SN1"] = {makeKeyPair(1)};
    world.certificates["SN1"] = {makeCertificate(2, der)};
    world.certificateDetails[der] = makeDetails("Alice", "CN=Root", publicKeyOf(makeKeyPair(1)));
    world.ciphertext = countingBytes(1, 256);
    world.plaintext = countingBytes(7, 20);
    world.sharedSecret = countingBytes(1, 32);
    world.generated = makeKeyPair(4);
}

void Caller::useOnce() {
    listSlots();
    const CK_FLAGS flags = CKF_SERIAL_SESSION | (chance(4) ? 0 : CKF_RW_SESSION);
    if (note("C_OpenSession", api.C_OpenSession(firstSlot, flags, nullptr, nullptr, &session_)) != CKR_OK) return;
    if (chance(16)) {
        note("C_Login of the security officer", api.C_Login(session_, CKU_SO, pin("12345678"), 8));
    } else {
        note("C_Login", api.C_Login(session_, CKU_USER, pin("1234"), 4));
    }
    constexpr std::array activities = {
        &Caller::askSession, &Caller::askSlot, &Caller::search,  &Caller::readAttributes, &Caller::change,
        &Caller::create,     &Caller::digest,  &Caller::sign,    &Caller::signParts,      &Caller::verify,
        &Caller::encrypt,    &Caller::decrypt, &Caller::without,
    };
    for (int i = 0; i < 4; ++i) (this->*activities[random_() % activities.size()])();
    if (chance(2)) note("C_Logout", api.C_Logout(session_));
    if (chance(16)) note("C_CloseAllSessions", api.C_CloseAllSessions(firstSlot));
    note("C_CloseSession", api.C_CloseSession(session_));
}

bool Caller::hasSeenEverything() const {
    return std::all_of(allowedCodes().begin(), allowedCodes().end(), [this](const auto& entry) {
        return answers_.of(entry.first).count(*entry.second.begin()) == 1 || entry.first == "C_Initialize" ||
               entry.first == "C_Finalize" || entry.first.rfind("C_WaitForSlotEvent", 0) == 0;
    });
}

void Caller::require(bool good, const char* complaint) {
    if (!good) complaints_.insert(complaint);
}

void Caller::noteOutput(const char* function, CK_RV code, const Bytes& expected) {
    if (note(function, code) != CKR_OK) return;
    require(length_ == expected.size() && std::equal(expected.begin(), expected.end(), output_), function);
}

CK_ULONG* Caller::room() {
    length_ = sizeof output_;
    std::fill(output_, output_ + sizeof output_, CK_BYTE{0xEE});
    return &length_;
}

void Caller::listSlots() {
    CK_SLOT_ID slots[4] = {};
    CK_ULONG count = 4;
    if (note("C_GetSlotList", api.C_GetSlotList(CK_TRUE, slots, &count)) != CKR_OK) return;
    require(count <= 2 && (count < 1 || slots[0] == firstSlot) && (count < 2 || slots[1] == firstSlot + 1),
            "C_GetSlotList");
}

void Caller::askSession() {
    CK_SESSION_INFO info = {};
    if (note("C_GetSessionInfo", api.C_GetSessionInfo(session_, &info)) != CKR_OK) return;
    const CK_FLAGS more = info.state >= CKS_RW_PUBLIC_SESSION ? CKF_RW_SESSION : 0;
    require(info.slotID == firstSlot && info.state <= CKS_RW_SO_FUNCTIONS && info.flags == (CKF_SERIAL_SESSION | more),
            "C_GetSessionInfo");
    note("C_SetPIN", api.C_SetPIN(session_, pin("1234"), 4, pin("1234"), 4));
}

void Caller::askSlot() {
    CK_SLOT_INFO slot = {};
    note("C_GetSlotInfo", api.C_GetSlotInfo(firstSlot, &slot));
    CK_TOKEN_INFO token = {};
    if (note("C_GetTokenInfo", api.C_GetTokenInfo(firstSlot, &token)) == CKR_OK) {
        require(std::memcmp(token.serialNumber, "SN1", 4) == 0, "C_GetTokenInfo");
    }
    CK_MECHANISM_TYPE types[64];
    CK_ULONG count = 64;
    note("C_GetMechanismList", api.C_GetMechanismList(firstSlot, types, &count));
    CK_MECHANISM_INFO mechanism;
    note("C_GetMechanismInfo", api.C_GetMechanismInfo(firstSlot, CKM_RSA_PKCS, &mechanism));
}

void Caller::search() {
    Template wanted;
    wanted.add(CKA_LABEL, "Alice_CN=Root").addNumber(CKA_CLASS, CKO_CERTIFICATE);
    const bool everything = chance(2);
    if (note("C_FindObjectsInit", api.C_FindObjectsInit(session_, everything ? nullptr : wanted.data(),
                                                        everything ? 0 : wanted.count())) != CKR_OK) {
        return;
    }
    CK_OBJECT_HANDLE found[8] = {};
    CK_ULONG count = 0;
    if (note("C_FindObjects", api.C_FindObjects(session_, found, 8, &count)) == CKR_OK) {
        require(count <= 3 && std::all_of(found, found + count,
                                          [](CK_OBJECT_HANDLE handle) {
                                              return handle == privateKey || handle == publicKey ||
                                                     handle == certificate;
                                          }),
                "C_FindObjects");
    }
    note("C_FindObjectsFinal", api.C_FindObjectsFinal(session_));
}

void Caller::readAttributes() {
    Template wanted;
    wanted.add(CKA_MODULUS, Bytes(256)).add(CKA_LABEL, Bytes(64));
    if (note("C_GetAttributeValue", api.C_GetAttributeValue(session_, privateKey, wanted.data(), wanted.count())) ==
        CKR_OK) {
        const auto* modulus = static_cast<const CK_BYTE*>(wanted[0].pValue);
        require(wanted[0].ulValueLen == 256 && modulus[0] == 0x80 && modulus[127] == 0xFF, "CKA_MODULUS");
    }
    Template value;
    value.add(CKA_VALUE, Bytes(64));
    if (note("C_GetAttributeValue", api.C_GetAttributeValue(session_, certificate, value.data(), value.count())) ==
        CKR_OK) {
        const auto* first = static_cast<const CK_BYTE*>(value[0].pValue);
        require(Bytes(first, first + value[0].ulValueLen) == der, "CKA_VALUE");
    }
    CK_ULONG size = 0;
    if (note("C_GetObjectSize", api.C_GetObjectSize(session_, publicKey, &size)) == CKR_OK) {
        require(size == 256, "C_GetObjectSize");
    }
}

void Caller::change() {
    Template name;
    name.add(CKA_LABEL, "name");
    note("C_SetAttributeValue", api.C_SetAttributeValue(session_, privateKey, name.data(), name.count()));
    note("C_DestroyObject", api.C_DestroyObject(session_, privateKey));
}

void Caller::create() {
    Template wanted;
    wanted.add(CKA_VALUE, der);
    CK_OBJECT_HANDLE handle = 0;
    note("C_CreateObject", api.C_CreateObject(session_, wanted.data(), wanted.count(), &handle));
    Template any;
    any.addNumber(CKA_KEY_TYPE, CKK_RSA);
    CK_MECHANISM generate = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    CK_OBJECT_HANDLE other = 0;
    if (note("C_GenerateKeyPair", api.C_GenerateKeyPair(session_, &generate, any.data(), any.count(), any.data(),
                                                        any.count(), &handle, &other)) == CKR_OK) {
        require(handle == publicKeyBase + 4 && other == privateKeyBase + 4, "C_GenerateKeyPair");
    }
    CK_ECDH1_DERIVE_PARAMS parameters = {CKD_SHA1_KDF, 0, nullptr, 3, data_};
    CK_MECHANISM derive = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
    note("C_DeriveKey", api.C_DeriveKey(session_, &derive, privateKey, nullptr, 0, &handle));
}

void Caller::digest() {
    CK_MECHANISM sha256 = {CKM_SHA256, nullptr, 0};
    if (note("C_DigestInit", api.C_DigestInit(session_, &sha256)) != CKR_OK) return;
    if (chance(2)) {
        noteOutput("C_Digest", api.C_Digest(session_, data_, sizeof data_, output_, room()), countingBytes(0xD0, 32));
        return;
    }
    note("C_DigestUpdate", api.C_DigestUpdate(session_, data_, sizeof data_));
    noteOutput("C_DigestFinal", api.C_DigestFinal(session_, output_, room()), countingBytes(0xD0, 32));
}

CK_RV Caller::beginSigning() {
    CK_MECHANISM mechanism = {chance(2) ? CKM_SHA256_RSA_PKCS : CKM_RSA_PKCS, nullptr, 0};
    return note("C_SignInit", api.C_SignInit(session_, &mechanism, privateKey));
}

void Caller::sign() {
    if (beginSigning() != CKR_OK) return;
    noteOutput("C_Sign", api.C_Sign(session_, data_, sizeof data_, output_, room()), countingBytes(0x50, 256));
}

void Caller::signParts() {
    if (beginSigning() != CKR_OK) return;
    note("C_SignUpdate", api.C_SignUpdate(session_, data_, sizeof data_));
    noteOutput("C_SignFinal", api.C_SignFinal(session_, output_, room()), countingBytes(0x50, 256));
}

void Caller::verify() {
    CK_MECHANISM mechanism = {chance(2) ? CKM_SHA256_RSA_PKCS : CKM_RSA_PKCS, nullptr, 0};
    if (note("C_VerifyInit", api.C_VerifyInit(session_, &mechanism, publicKey)) != CKR_OK) return;
    if (chance(2)) {
        note("C_Verify", api.C_Verify(session_, data_, sizeof data_, output_, 256));
        return;
    }
    note("C_VerifyUpdate", api.C_VerifyUpdate(session_, data_, sizeof data_));
    note("C_VerifyFinal", api.C_VerifyFinal(session_, output_, 256));
}

void Caller::encrypt() {
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    if (note("C_EncryptInit", api.C_EncryptInit(session_, &mechanism, publicKey)) != CKR_OK) return;
    noteOutput("C_Encrypt", api.C_Encrypt(session_, data_, sizeof data_, output_, room()), countingBytes(1, 256));
}

void Caller::decrypt() {
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    if (note("C_DecryptInit", api.C_DecryptInit(session_, &mechanism, privateKey)) != CKR_OK) return;
    noteOutput("C_Decrypt", api.C_Decrypt(session_, data_, sizeof data_, output_, room()), countingBytes(7, 20));
}

void Caller::without() {
    CK_INFO info = {};
    if (note("C_GetInfo", api.C_GetInfo(&info)) == CKR_OK) require(info.cryptokiVersion.minor == 20, "C_GetInfo");
    CK_FUNCTION_LIST_PTR listed = nullptr;
    note("C_GetFunctionList", api.C_GetFunctionList(&listed));
    require(listed == &api, "C_GetFunctionList");
    note("C_SeedRandom", api.C_SeedRandom(session_, data_, sizeof data_));
    note("C_GenerateRandom", api.C_GenerateRandom(session_, output_, 16));
}

}  // namespace support
