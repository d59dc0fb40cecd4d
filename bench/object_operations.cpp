// Searches, attributes, and changes of what is on a token.

#include <array>
#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "operation_support.h"

namespace bench {

namespace {

constexpr std::array<unsigned char, 10> p256 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};

Work searchById(const Subjects& subjects) {
    return [&subjects] { findOne(subjects.session, CKO_PRIVATE_KEY, subjects.rsaId); };
}

Work searchByLabel(const Subjects& subjects) {
    return [&subjects, label = subjects.rsaLabel]() mutable {
        CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
        const auto handles = find(subjects.session, {entry(CKA_CLASS, objectClass), entry(CKA_LABEL, label)}, 2);
        if (handles.size() != 1) throw std::runtime_error("not one key of that label");
    };
}

template <CK_ULONG step>
Work findEverything(const Subjects& subjects) {
    return [&subjects] { find(subjects.session, {}, step); };
}

/// Reads into one area, large enough for any of the values.
void readAttributes(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                    std::initializer_list<CK_ATTRIBUTE_TYPE> types) {
    constexpr CK_ULONG room = 4096;
    static Bytes area(room * 4);
    Template wanted;
    for (const CK_ATTRIBUTE_TYPE type : types) wanted.push_back({type, area.data() + wanted.size() * room, room});
    require(p11().C_GetAttributeValue(session, object, wanted.data(), static_cast<CK_ULONG>(wanted.size())),
            "C_GetAttributeValue");
}

Work privateKeyAttributes(const Subjects& subjects) {
    return [&subjects] {
        readAttributes(subjects.session, subjects.rsaPrivateKey, {CKA_KEY_TYPE, CKA_ID, CKA_LABEL, CKA_MODULUS});
    };
}

Work certificateAttributes(const Subjects& subjects) {
    return [&subjects] {
        readAttributes(subjects.session, subjects.certificate, {CKA_ID, CKA_LABEL, CKA_SUBJECT, CKA_VALUE});
    };
}

Work listToken(const Subjects& subjects) {
    return [&subjects] {
        for (const CK_OBJECT_HANDLE object : find(subjects.session, {}, 64)) {
            readAttributes(subjects.session, object, {CKA_CLASS, CKA_ID, CKA_LABEL});
        }
    };
}

Work changeLabel(const Subjects& subjects) {
    return [&subjects] {
        // The label that is there already would be no change.
        for (std::string changed : {subjects.rsaLabel + ", changed", subjects.rsaLabel}) {
            CK_ATTRIBUTE change = entry(CKA_LABEL, changed);
            require(p11().C_SetAttributeValue(subjects.session, subjects.rsaPrivateKey, &change, 1),
                    "C_SetAttributeValue");
        }
    };
}

Work objectSize(const Subjects& subjects) {
    return [&subjects] {
        CK_ULONG size = 0;
        require(p11().C_GetObjectSize(subjects.session, subjects.certificate, &size), "C_GetObjectSize");
    };
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
        CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
        CK_CERTIFICATE_TYPE type = CKC_X_509;
        CK_BBOOL yes = CK_TRUE;
        std::string id = "imported";
        Template certificate = {entry(CKA_CLASS, objectClass),
                                entry(CKA_CERTIFICATE_TYPE, type),
                                entry(CKA_TOKEN, yes),
                                entry(CKA_LABEL, id),
                                entry(CKA_ID, id),
                                entry(CKA_VALUE, der)};
        CK_OBJECT_HANDLE imported = CK_INVALID_HANDLE;
        require(p11().C_CreateObject(subjects.session, certificate.data(), static_cast<CK_ULONG>(certificate.size()),
                                     &imported),
                "C_CreateObject");
    };
}

void generateAndDestroy(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE generation, Template publicTemplate,
                        CK_KEY_TYPE type) {
    CK_MECHANISM mechanism = {generation, nullptr, 0};
    CK_BBOOL yes = CK_TRUE;
    std::string id = "generated";
    publicTemplate.insert(publicTemplate.end(),
                          {entry(CKA_TOKEN, yes), entry(CKA_VERIFY, yes), entry(CKA_ID, id), entry(CKA_LABEL, id)});
    Template privateTemplate = {entry(CKA_TOKEN, yes),    entry(CKA_PRIVATE, yes), entry(CKA_SENSITIVE, yes),
                                entry(CKA_SIGN, yes),     entry(CKA_ID, id),       entry(CKA_LABEL, id),
                                entry(CKA_KEY_TYPE, type)};
    CK_OBJECT_HANDLE publicKey = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE privateKey = CK_INVALID_HANDLE;
    require(p11().C_GenerateKeyPair(session, &mechanism, publicTemplate.data(),
                                    static_cast<CK_ULONG>(publicTemplate.size()), privateTemplate.data(),
                                    static_cast<CK_ULONG>(privateTemplate.size()), &publicKey, &privateKey),
            "C_GenerateKeyPair");
    require(p11().C_DestroyObject(session, publicKey), "C_DestroyObject");
    require(p11().C_DestroyObject(session, privateKey), "C_DestroyObject");
}

Work generateEc(const Subjects& subjects) {
    return [&subjects, curve = p256]() mutable {
        generateAndDestroy(subjects.session, CKM_EC_KEY_PAIR_GEN, {entry(CKA_EC_PARAMS, curve)}, CKK_EC);
    };
}

Work generateRsa(const Subjects& subjects) {
    return [&subjects] {
        CK_ULONG bits = 2048;
        std::array<unsigned char, 3> exponent = {1, 0, 1};
        generateAndDestroy(subjects.session, CKM_RSA_PKCS_KEY_PAIR_GEN,
                           {entry(CKA_MODULUS_BITS, bits), entry(CKA_PUBLIC_EXPONENT, exponent)}, CKK_RSA);
    };
}

}  // namespace

std::vector<Operation> objectOperations() {
    using Kind = Operation::Kind;
    return {
        {"search by id", Kind::other, searchById},
        {"search by label", Kind::other, searchByLabel},
        {"find everything", Kind::wholeToken, findEverything<4096>},
        {"find everything, 10 at a time", Kind::wholeToken, findEverything<10>},
        {"4 attributes, private key", Kind::other, privateKeyAttributes},
        {"4 attributes, certificate", Kind::other, certificateAttributes},
        {"list with 3 attributes each", Kind::wholeToken, listToken},
        {"label changed, changed back", Kind::changing, changeLabel},
        {"P-256 pair made, destroyed", Kind::changing, generateEc},
        {"RSA-2048 pair made, destroyed", Kind::changing, generateRsa},
        {"certificate imported", Kind::filling, importCertificate},
        {"C_GetObjectSize", Kind::uncompared, objectSize},
    };
}

}  // namespace bench
