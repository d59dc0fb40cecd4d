#include "host_operations.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace bench {

namespace {

using Bytes = std::vector<unsigned char>;
using Work = std::function<void()>;
using Template = std::vector<CK_ATTRIBUTE>;

const CK_FUNCTION_LIST& p11() {
    return cryptoki();
}

template <typename Value>
CK_ATTRIBUTE entry(CK_ATTRIBUTE_TYPE type, Value& value) {
    return {type, &value, sizeof value};
}

CK_ATTRIBUTE entry(CK_ATTRIBUTE_TYPE type, std::string& text) {
    return {type, text.data(), static_cast<CK_ULONG>(text.size())};
}

CK_ULONG sizeOf(const Bytes& bytes) {
    return static_cast<CK_ULONG>(bytes.size());
}

/// What a search finds, handed out `step` at a time.
std::vector<CK_OBJECT_HANDLE> find(CK_SESSION_HANDLE session, Template wanted, CK_ULONG step) {
    require(p11().C_FindObjectsInit(session, wanted.empty() ? nullptr : wanted.data(),
                                    static_cast<CK_ULONG>(wanted.size())),
            "C_FindObjectsInit");
    std::vector<CK_OBJECT_HANDLE> handles;
    for (CK_ULONG count = step; count == step;) {
        handles.resize(handles.size() + step);
        require(p11().C_FindObjects(session, handles.data() + handles.size() - step, step, &count), "C_FindObjects");
        handles.resize(handles.size() - step + count);
    }
    require(p11().C_FindObjectsFinal(session), "C_FindObjectsFinal");
    return handles;
}

CK_OBJECT_HANDLE findOne(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass, std::string id) {
    const auto handles = find(session, {entry(CKA_CLASS, objectClass), entry(CKA_ID, id)}, 2);
    if (handles.size() != 1) throw std::runtime_error("not one object of class " + std::to_string(objectClass));
    return handles.front();
}

Bytes sampleBytes(std::size_t count) {
    Bytes bytes(count);
    for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 1);
    return bytes;
}

constexpr std::size_t hashLength = 32;
constexpr std::array<unsigned char, 10> p256 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};

// --- Signatures and ciphers
// -------------------------------------------------------------------------------------------

/// A mechanism that carries the parameters that it needs.
struct Mechanism {
    explicit Mechanism(CK_MECHANISM_TYPE wanted) : type(wanted) {}

    CK_MECHANISM* get() {
        mechanism = {type, nullptr, 0};
        if (type == CKM_RSA_PKCS_OAEP) mechanism = {type, &oaep, sizeof oaep};
        if (type == CKM_SHA256_RSA_PKCS_PSS) mechanism = {type, &pss, sizeof pss};
        return &mechanism;
    }

    CK_MECHANISM_TYPE type;
    CK_MECHANISM mechanism = {};
    CK_RSA_PKCS_OAEP_PARAMS oaep = {CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, nullptr, 0};
    CK_RSA_PKCS_PSS_PARAMS pss = {CKM_SHA256, CKG_MGF1_SHA256, hashLength};
};

Bytes sign(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key, Bytes& data) {
    Bytes signature(1024);
    CK_ULONG length = sizeOf(signature);
    require(p11().C_SignInit(session, mechanism, key), "C_SignInit");
    require(p11().C_Sign(session, data.data(), sizeOf(data), signature.data(), &length), "C_Sign");
    signature.resize(length);
    return signature;
}

Bytes encrypt(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key, Bytes& data) {
    Bytes ciphertext(1024);
    CK_ULONG length = sizeOf(ciphertext);
    require(p11().C_EncryptInit(session, mechanism, key), "C_EncryptInit");
    require(p11().C_Encrypt(session, data.data(), sizeOf(data), ciphertext.data(), &length), "C_Encrypt");
    ciphertext.resize(length);
    return ciphertext;
}

template <CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE Subjects::*key, std::size_t length = hashLength>
Work signature(const Subjects& subjects) {
    return [&subjects, mechanism = Mechanism(type), data = sampleBytes(length)]() mutable {
        sign(subjects.session, mechanism.get(), subjects.*key, data);
    };
}

template <CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE Subjects::*privateKey, CK_OBJECT_HANDLE Subjects::*publicKey>
Work verification(const Subjects& subjects) {
    Mechanism mechanism(type);
    Bytes data = sampleBytes(hashLength);
    Bytes signature = sign(subjects.session, mechanism.get(), subjects.*privateKey, data);
    return [&subjects, mechanism, data, signature]() mutable {
        require(p11().C_VerifyInit(subjects.session, mechanism.get(), subjects.*publicKey), "C_VerifyInit");
        require(p11().C_Verify(subjects.session, data.data(), sizeOf(data), signature.data(), sizeOf(signature)),
                "C_Verify");
    };
}

template <CK_MECHANISM_TYPE type>
Work encryption(const Subjects& subjects) {
    return [&subjects, mechanism = Mechanism(type), data = sampleBytes(hashLength)]() mutable {
        encrypt(subjects.session, mechanism.get(), subjects.rsaPublicKey, data);
    };
}

template <CK_MECHANISM_TYPE type>
Work decryption(const Subjects& subjects) {
    Mechanism mechanism(type);
    Bytes data = sampleBytes(hashLength);
    Bytes ciphertext = encrypt(subjects.session, mechanism.get(), subjects.rsaPublicKey, data);
    return [&subjects, mechanism, ciphertext]() mutable {
        Bytes plaintext(1024);
        CK_ULONG length = sizeOf(plaintext);
        require(p11().C_DecryptInit(subjects.session, mechanism.get(), subjects.rsaPrivateKey), "C_DecryptInit");
        require(p11().C_Decrypt(subjects.session, ciphertext.data(), sizeOf(ciphertext), plaintext.data(), &length),
                "C_Decrypt");
    };
}

/// The secret is read and destroyed, as a host does it that uses one.
Work keyAgreement(const Subjects& subjects) {
    Bytes encoded(256);
    CK_ATTRIBUTE wanted = {CKA_EC_POINT, encoded.data(), sizeOf(encoded)};
    require(p11().C_GetAttributeValue(subjects.session, subjects.ecPublicKey, &wanted, 1), "C_GetAttributeValue");
    // Without the head of its OCTET STRING: an uncompressed point of the curve.
    Bytes point(encoded.begin() + 2, encoded.begin() + static_cast<std::ptrdiff_t>(wanted.ulValueLen));
    return [&subjects, point]() mutable {
        CK_ECDH1_DERIVE_PARAMS parameters = {CKD_NULL, 0, nullptr, sizeOf(point), point.data()};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
        CK_OBJECT_CLASS objectClass = CKO_SECRET_KEY;
        CK_KEY_TYPE type = CKK_GENERIC_SECRET;
        CK_BBOOL yes = CK_TRUE;
        CK_BBOOL no = CK_FALSE;
        CK_ULONG length = 32;
        CK_ATTRIBUTE secretTemplate[] = {entry(CKA_CLASS, objectClass), entry(CKA_KEY_TYPE, type),
                                         entry(CKA_TOKEN, no),          entry(CKA_SENSITIVE, no),
                                         entry(CKA_EXTRACTABLE, yes),   entry(CKA_VALUE_LEN, length)};
        CK_OBJECT_HANDLE secret = CK_INVALID_HANDLE;
        require(p11().C_DeriveKey(subjects.session, &mechanism, subjects.ecPrivateKey, secretTemplate,
                                  static_cast<CK_ULONG>(std::size(secretTemplate)), &secret),
                "C_DeriveKey");
        Bytes value(length);
        CK_ATTRIBUTE read = {CKA_VALUE, value.data(), sizeOf(value)};
        require(p11().C_GetAttributeValue(subjects.session, secret, &read, 1), "C_GetAttributeValue");
        require(p11().C_DestroyObject(subjects.session, secret), "C_DestroyObject");
    };
}

// --- Digests and random numbers
// ---------------------------------------------------------------------------------------

template <std::size_t length>
Work digest(const Subjects& subjects) {
    return [&subjects, data = sampleBytes(length)]() mutable {
        CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
        CK_BYTE hash[hashLength];
        CK_ULONG hashSize = sizeof hash;
        require(p11().C_DigestInit(subjects.session, &mechanism), "C_DigestInit");
        require(p11().C_Digest(subjects.session, data.data(), sizeOf(data), hash, &hashSize), "C_Digest");
    };
}

template <std::size_t length>
Work randomNumber(const Subjects& subjects) {
    return [&subjects, bytes = Bytes(length)]() mutable {
        require(p11().C_GenerateRandom(subjects.session, bytes.data(), sizeOf(bytes)), "C_GenerateRandom");
    };
}

// --- Objects
// ----------------------------------------------------------------------------------------------------------

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

// --- Slots and sessions
// -----------------------------------------------------------------------------------------------

CK_SLOT_ID slotOf(const Subjects& subjects) {
    CK_SESSION_INFO information;
    require(p11().C_GetSessionInfo(subjects.session, &information), "C_GetSessionInfo");
    return information.slotID;
}

Work sessionInformation(const Subjects& subjects) {
    return [&subjects] {
        CK_SESSION_INFO information;
        require(p11().C_GetSessionInfo(subjects.session, &information), "C_GetSessionInfo");
    };
}

Work libraryInformation(const Subjects& /*subjects*/) {
    return [] {
        CK_INFO information;
        require(p11().C_GetInfo(&information), "C_GetInfo");
    };
}

Work slotList(const Subjects& /*subjects*/) {
    return [] {
        CK_SLOT_ID slots[16];
        CK_ULONG count = 16;
        require(p11().C_GetSlotList(CK_TRUE, slots, &count), "C_GetSlotList");
    };
}

Work tokenInformation(const Subjects& subjects) {
    return [slot = slotOf(subjects)] {
        CK_TOKEN_INFO information;
        require(p11().C_GetTokenInfo(slot, &information), "C_GetTokenInfo");
    };
}

Work mechanismList(const Subjects& subjects) {
    return [slot = slotOf(subjects)] {
        CK_MECHANISM_TYPE mechanisms[256];
        CK_ULONG count = 256;
        require(p11().C_GetMechanismList(slot, mechanisms, &count), "C_GetMechanismList");
    };
}

Work openAndCloseSession(const Subjects& subjects) {
    return [slot = slotOf(subjects)] {
        CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
        require(p11().C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session), "C_OpenSession");
        require(p11().C_CloseSession(session), "C_CloseSession");
    };
}

}  // namespace

Subjects::Subjects(const UserSession& userSession, std::size_t keyPairs, std::size_t certificates)
    : session(userSession.handle()) {
    const std::string ecId = std::to_string(std::max<std::size_t>(keyPairs - keyPairs % 2, 1));
    rsaId = std::to_string(keyPairs - (keyPairs + 1) % 2);
    rsaLabel = "key " + rsaId;
    rsaPrivateKey = findOne(session, CKO_PRIVATE_KEY, rsaId);
    rsaPublicKey = findOne(session, CKO_PUBLIC_KEY, rsaId);
    ecPrivateKey = findOne(session, CKO_PRIVATE_KEY, ecId);
    ecPublicKey = findOne(session, CKO_PUBLIC_KEY, ecId);
    certificate =
        certificates == 0 ? CK_INVALID_HANDLE : findOne(session, CKO_CERTIFICATE, std::to_string(certificates));
}

const std::vector<Operation>& hostOperations() {
    using Kind = Operation::Kind;
    static const std::vector<Operation> operations = {
        {"search by id", Kind::other, searchById},
        {"search by label", Kind::other, searchByLabel},
        {"find everything", Kind::wholeToken, findEverything<4096>},
        {"find everything, 10 at a time", Kind::wholeToken, findEverything<10>},
        {"4 attributes, private key", Kind::other, privateKeyAttributes},
        {"4 attributes, certificate", Kind::other, certificateAttributes},
        {"list with 3 attributes each", Kind::wholeToken, listToken},
        {"RSA-2048 signature", Kind::other, signature<CKM_RSA_PKCS, &Subjects::rsaPrivateKey>},
        {"RSA-2048 SHA-256 signature", Kind::other, signature<CKM_SHA256_RSA_PKCS, &Subjects::rsaPrivateKey>},
        {"RSA-2048 PSS signature", Kind::other, signature<CKM_SHA256_RSA_PKCS_PSS, &Subjects::rsaPrivateKey>},
        {"P-256 signature", Kind::other, signature<CKM_ECDSA, &Subjects::ecPrivateKey>},
        {"RSA-2048 verification", Kind::other,
         verification<CKM_SHA256_RSA_PKCS, &Subjects::rsaPrivateKey, &Subjects::rsaPublicKey>},
        {"P-256 verification", Kind::other, verification<CKM_ECDSA, &Subjects::ecPrivateKey, &Subjects::ecPublicKey>},
        {"RSA-2048 encryption", Kind::other, encryption<CKM_RSA_PKCS>},
        {"RSA-2048 decryption v1.5", Kind::other, decryption<CKM_RSA_PKCS>},
        {"RSA-2048 decryption OAEP", Kind::other, decryption<CKM_RSA_PKCS_OAEP>},
        {"P-256 key agreement", Kind::other, keyAgreement},
        {"SHA-256 of 32 B", Kind::other, digest<32>},
        {"SHA-256 of 64 KiB", Kind::other, digest<65536>},
        {"random 32 B", Kind::other, randomNumber<32>},
        {"random 4 KiB", Kind::other, randomNumber<4096>},
        {"label changed, changed back", Kind::changing, changeLabel},
        {"P-256 pair made, destroyed", Kind::changing, generateEc},
        {"RSA-2048 pair made, destroyed", Kind::changing, generateRsa},
        {"C_OpenSession, C_CloseSession", Kind::other, openAndCloseSession},
        {"C_GetSlotList", Kind::stored, slotList},
        {"C_GetTokenInfo", Kind::stored, tokenInformation},
        {"C_GetMechanismList", Kind::stored, mechanismList},
        {"C_GetSessionInfo", Kind::stored, sessionInformation},
        {"C_GetInfo", Kind::stored, libraryInformation},
    };
    return operations;
}

const Operation& hostOperation(const std::string& name) {
    for (const Operation& operation : hostOperations()) {
        if (operation.name == name) return operation;
    }
    throw std::runtime_error("unknown operation " + name);
}

}  // namespace bench
