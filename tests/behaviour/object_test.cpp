#include "object_test.h"

namespace support {

std::string hexadecimal(const Bytes& bytes) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string result;
    for (const unsigned char byte : bytes) {
        result += digits[byte >> 4U];
        result += digits[byte & 15U];
    }
    return result;
}

std::string shown(const Bytes& bytes) {
    return text("<", hexadecimal(bytes), ">, ", bytes.size());
}

ZentakKeyPair labelledKeyPair(std::uint32_t id, std::string_view label) {
    ZentakKeyPair keyPair = makeKeyPair(id, rsa2048);
    setPublicKey(keyPair, countingBytes(static_cast<int>(id), 256));
    setObjectId(keyPair, {0xA0, static_cast<unsigned char>(id)});
    setAlias(keyPair, label);
    return keyPair;
}

ZentakCertificate labelledCertificate(std::uint32_t id, std::string_view label) {
    ZentakCertificate record = makeCertificate(id, {0x30, 0x03, 0xCE, static_cast<unsigned char>(id), 0x01});
    setObjectId(record, {0xC0, static_cast<unsigned char>(id)});
    setLabel(record, label);
    return record;
}

void ObjectTest::plugInTokens() {
    api = &functions();  // not earlier: loading the module may log
    plugIn(makeTokenInfo("SN1", ordinaryModel));
    plugIn(makeTokenInfo("SN2", fipsModel));
    world.keyPairs["SN1"] = {keyFive, keySix};
    world.certificates["SN1"] = {certificateFive, certificateSeven};
}

CK_SESSION_HANDLE ObjectTest::openSessionIn(CK_STATE state, CK_SLOT_ID slot) {
    const bool readOnly = state == CKS_RO_PUBLIC_SESSION || state == CKS_RO_USER_FUNCTIONS;
    const CK_SESSION_HANDLE session = openSession(readOnly ? 0 : CKF_RW_SESSION, slot);
    if (state == CKS_RW_SO_FUNCTIONS) {
        login(session, "0987654321", CKU_SO);
    } else if (state == CKS_RO_USER_FUNCTIONS || state == CKS_RW_USER_FUNCTIONS) {
        login(session, userPin);
    }
    EXPECT_EQ(stateOf(session), state);
    return session;
}

void ObjectTest::closeEverything(CK_SESSION_HANDLE session) {
    api->C_Logout(session);
    EXPECT_EQ(api->C_CloseAllSessions(firstSlot), CKR_OK);
    clear();
}

CK_SESSION_HANDLE ObjectTest::reopen(CK_SESSION_HANDLE session, CK_STATE state, CK_SLOT_ID slot) {
    closeEverything(session);
    return openSessionIn(state, slot);
}

Outcome ObjectTest::findInit(CK_SESSION_HANDLE session, Template& wanted) {
    return observe([&] { return api->C_FindObjectsInit(session, wanted.data(), wanted.count()); });
}

Handles ObjectTest::next(CK_SESSION_HANDLE session, CK_ULONG count) {
    Handles handles(count, 0xEEEEEEEE);
    CK_ULONG found = 0xEEEEEEEE;
    EXPECT_EQ(api->C_FindObjects(session, handles.data(), count, &found), CKR_OK);
    EXPECT_LE(found, count);
    handles.resize(std::min(found, count));
    return handles;
}

Handles ObjectTest::search(CK_SESSION_HANDLE session, Template& wanted) {
    EXPECT_EQ(api->C_FindObjectsInit(session, wanted.data(), wanted.count()), CKR_OK);
    const Handles found = next(session, 100);
    EXPECT_EQ(api->C_FindObjectsFinal(session), CKR_OK);
    return found;
}

void ObjectTest::signInit(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, std::uint32_t keyPairId) {
    CK_MECHANISM mechanism = {type, nullptr, 0};
    ASSERT_EQ(api->C_SignInit(session, &mechanism, privateKey(keyPairId)), CKR_OK);
}

Bytes Room::first(std::size_t length) const {
    const auto begin = memory_.begin() + 1;
    return Bytes(begin, begin + static_cast<std::ptrdiff_t>(length));
}

bool Room::untouchedFrom(std::size_t position) const {
    return memory_.front() == pattern && std::all_of(memory_.begin() + 1 + static_cast<std::ptrdiff_t>(position),
                                                     memory_.end(), [](unsigned char byte) { return byte == pattern; });
}

}  // namespace support
