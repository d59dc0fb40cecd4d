// Searches, attributes, and changes of what is on a token; slots, sessions and logins.

#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "operations.h"
#include "records.h"

namespace bench {

namespace {

Work searchById(const Subjects& subjects) {
    return [&subjects] { findOne(subjects.session, CKO_PRIVATE_KEY, subjects.rsaId); };
}

Work searchByLabel(const Subjects& subjects) {
    return [&subjects, label = "key " + subjects.rsaId]() mutable {
        CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
        const auto handles = find(subjects.session, {entry(CKA_CLASS, objectClass), entry(CKA_LABEL, label)}, 2);
        if (handles.size() != 1) throw std::runtime_error("not one key of that label");
    };
}

template <CK_ULONG step>
Work findEverything(const Subjects& subjects) {
    return [&subjects] { find(subjects.session, {}, step); };
}

using Types = std::vector<CK_ATTRIBUTE_TYPE>;

/// Reads into one area, large enough for any of the values.
void readAttributes(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, const Types& types) {
    constexpr CK_ULONG room = 4096;
    static Bytes area(room * 4);
    Template wanted;
    for (const CK_ATTRIBUTE_TYPE type : types) wanted.push_back({type, area.data() + wanted.size() * room, room});
    require(p11().C_GetAttributeValue(session, object, wanted.data(), static_cast<CK_ULONG>(wanted.size())),
            "C_GetAttributeValue");
}

Operation attributes(const char* name, CK_OBJECT_HANDLE Subjects::*object, const Types& types) {
    return {name, Kind::other, [=](const Subjects& subjects) -> Work {
                return [=, &subjects] { readAttributes(subjects.session, subjects.*object, types); };
            }};
}

Work listToken(const Subjects& subjects) {
    return [&subjects, types = Types{CKA_CLASS, CKA_ID, CKA_LABEL}] {
        for (const CK_OBJECT_HANDLE object : find(subjects.session, {}, 64)) {
            readAttributes(subjects.session, object, types);
        }
    };
}

Work changeLabel(const Subjects& subjects) {
    return [&subjects, label = "key " + subjects.rsaId] {
        // The label that is there already would be no change.
        for (std::string changed : {label + ", changed", label}) {
            CK_ATTRIBUTE change = entry(CKA_LABEL, changed);
            require(p11().C_SetAttributeValue(subjects.session, subjects.rsaPrivateKey, &change, 1),
                    "C_SetAttributeValue");
        }
    };
}

/// The templates are for a pair that verifies and signs.
Operation generateAndDestroy(const char* name, CK_MECHANISM_TYPE generation, CK_KEY_TYPE type,
                             const std::function<void(support::Template&)>& addSize) {
    const auto publicKey = std::make_shared<support::Template>();
    const auto privateKey = std::make_shared<support::Template>();
    addSize(*publicKey);
    publicKey->add(CKA_TOKEN, true).add(CKA_VERIFY, true).add(CKA_ID, "generated").add(CKA_LABEL, "generated");
    privateKey->add(CKA_TOKEN, true).add(CKA_PRIVATE, true).add(CKA_SENSITIVE, true).add(CKA_SIGN, true);
    privateKey->add(CKA_ID, "generated").add(CKA_LABEL, "generated").addNumber(CKA_KEY_TYPE, type);
    return {name, Kind::changing, [=](const Subjects& subjects) -> Work {
                return [=, session = subjects.session] {
                    CK_MECHANISM mechanism = {generation, nullptr, 0};
                    CK_OBJECT_HANDLE made[2] = {};
                    require(p11().C_GenerateKeyPair(session, &mechanism, publicKey->data(), publicKey->count(),
                                                    privateKey->data(), privateKey->count(), &made[0], &made[1]),
                            "C_GenerateKeyPair");
                    for (const CK_OBJECT_HANDLE object : made) {
                        require(p11().C_DestroyObject(session, object), "C_DestroyObject");
                    }
                };
            }};
}

/// The last certificate with another signature each time: the same again would be no import. Nobody checks it.
Work importCertificate(const Subjects& subjects) {
    Bytes der(4096);
    CK_ATTRIBUTE wanted = entry(CKA_VALUE, der);
    require(p11().C_GetAttributeValue(subjects.session, subjects.certificate, &wanted, 1), "C_GetAttributeValue");
    der.resize(wanted.ulValueLen);
    return [&subjects, der]() mutable {
        static std::uint32_t next = 0;
        ++next;
        std::memcpy(der.data() + der.size() - sizeof next, &next, sizeof next);
        support::Template certificate;
        certificate.addNumber(CKA_CLASS, CKO_CERTIFICATE).addNumber(CKA_CERTIFICATE_TYPE, CKC_X_509);
        certificate.add(CKA_TOKEN, true).add(CKA_LABEL, "imported").add(CKA_ID, "imported").add(CKA_VALUE, der);
        CK_OBJECT_HANDLE imported = CK_INVALID_HANDLE;
        require(p11().C_CreateObject(subjects.session, certificate.data(), certificate.count(), &imported),
                "C_CreateObject");
    };
}

Work objectSize(const Subjects& subjects) {
    return [&subjects] {
        CK_ULONG size = 0;
        require(p11().C_GetObjectSize(subjects.session, subjects.certificate, &size), "C_GetObjectSize");
    };
}

/// An operation that needs nothing prepared: one or two calls. The other result that is as good counts, too.
Operation calls(const char* name, Kind kind, CK_RV (*function)(const Subjects& subjects), CK_RV asGood = CKR_OK) {
    return {name, kind, [=](const Subjects& subjects) -> Work {
                return [=, &subjects] {
                    const CK_RV result = function(subjects);
                    if (result != asGood) require(result, name);
                };
            }};
}

CK_RV openAndCloseSession(const Subjects& subjects) {
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    require(p11().C_OpenSession(subjects.slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session), "C_OpenSession");
    return p11().C_CloseSession(session);
}

CK_RV slotList(const Subjects& /*subjects*/) {
    CK_SLOT_ID slots[16];
    CK_ULONG count = 16;
    return p11().C_GetSlotList(CK_TRUE, slots, &count);
}

CK_RV mechanismList(const Subjects& subjects) {
    CK_MECHANISM_TYPE mechanisms[256];
    CK_ULONG count = 256;
    return p11().C_GetMechanismList(subjects.slot, mechanisms, &count);
}

template <auto function, auto subject, typename Information>
CK_RV information(const Subjects& subjects) {
    Information answer;
    return (p11().*function)(subjects.*subject, &answer);
}

CK_RV libraryInformation(const Subjects& /*subjects*/) {
    CK_INFO information;
    return p11().C_GetInfo(&information);
}

CK_RV functionList(const Subjects& /*subjects*/) {
    CK_FUNCTION_LIST* list = nullptr;
    return p11().C_GetFunctionList(&list);
}

CK_RV mechanismInformation(const Subjects& subjects) {
    CK_MECHANISM_INFO information;
    return p11().C_GetMechanismInfo(subjects.slot, CKM_ECDSA, &information);
}

/// Only the first question finds that something has happened: the token was there.
CK_RV slotEvent(const Subjects& /*subjects*/) {
    CK_SLOT_ID changed = 0;
    return p11().C_WaitForSlotEvent(CKF_DONT_BLOCK, &changed, nullptr);
}

/// Any of those that the module has for completeness only.
CK_RV seedRandom(const Subjects& subjects) {
    return p11().C_SeedRandom(subjects.session, nullptr, 0);
}

CK_RV logoutAndLogin(const Subjects& subjects) {
    require(p11().C_Logout(subjects.session), "C_Logout");
    return p11().C_Login(subjects.session, CKU_USER, pinBytes(), pinLength);
}

/// The PIN stays the same, which is a change all the same: the next login costs what an ordinary token's does.
CK_RV changePin(const Subjects& subjects) {
    return p11().C_SetPIN(subjects.session, pinBytes(), pinLength, pinBytes(), pinLength);
}

}  // namespace

std::vector<Operation> objectOperations() {
    return {
        {"search by id", Kind::other, searchById},
        {"search by label", Kind::other, searchByLabel},
        {"find everything", Kind::other, findEverything<4096>},
        {"find everything, 10 at a time", Kind::other, findEverything<10>},
        attributes("4 attributes, private key", &Subjects::rsaPrivateKey,
                   {CKA_KEY_TYPE, CKA_ID, CKA_LABEL, CKA_MODULUS}),
        attributes("4 attributes, certificate", &Subjects::certificate, {CKA_ID, CKA_LABEL, CKA_SUBJECT, CKA_VALUE}),
        {"list with 3 attributes each", Kind::other, listToken},
        {"label changed, changed back", Kind::changing, changeLabel},
        generateAndDestroy("P-256 pair made, destroyed", CKM_EC_KEY_PAIR_GEN, CKK_EC,
                           [](support::Template& key) {
                               key.add(CKA_EC_PARAMS, {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07});
                           }),
        generateAndDestroy("RSA-2048 pair made, destroyed", CKM_RSA_PKCS_KEY_PAIR_GEN, CKK_RSA,
                           [](support::Template& key) {
                               key.addNumber(CKA_MODULUS_BITS, 2048).add(CKA_PUBLIC_EXPONENT, {1, 0, 1});
                           }),
        {"certificate imported", Kind::filling, importCertificate},
        {"C_GetObjectSize", Kind::uncompared, objectSize},
    };
}

std::vector<Operation> sessionOperations() {
    return {
        calls("C_OpenSession, C_CloseSession", Kind::other, openAndCloseSession),
        calls("C_GetSlotList", Kind::stored, slotList),
        calls("C_GetTokenInfo", Kind::stored,
              information<&CK_FUNCTION_LIST::C_GetTokenInfo, &Subjects::slot, CK_TOKEN_INFO>),
        calls("C_GetMechanismList", Kind::stored, mechanismList),
        calls("C_GetSessionInfo", Kind::stored,
              information<&CK_FUNCTION_LIST::C_GetSessionInfo, &Subjects::session, CK_SESSION_INFO>),
        calls("C_GetInfo", Kind::stored, libraryInformation),
        calls("C_GetFunctionList", Kind::uncompared, functionList),
        calls("C_GetSlotInfo", Kind::uncompared,
              information<&CK_FUNCTION_LIST::C_GetSlotInfo, &Subjects::slot, CK_SLOT_INFO>),
        calls("C_GetMechanismInfo", Kind::uncompared, mechanismInformation),
        calls("C_WaitForSlotEvent, no event", Kind::uncompared, slotEvent, CKR_NO_EVENT),
        calls("C_Logout, C_Login", Kind::waiting, logoutAndLogin),
        calls("C_SetPIN", Kind::filling, changePin),
        calls("C_SeedRandom, not supported", Kind::uncompared, seedRandom, CKR_FUNCTION_NOT_SUPPORTED),
    };
}

}  // namespace bench
