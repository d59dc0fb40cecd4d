// Signatures, ciphers, key agreement, digests and random numbers.

#include <memory>

#include "operation_support.h"

namespace bench {

namespace {

Bytes sampleBytes(std::size_t count) {
    Bytes bytes(count);
    for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 1);
    return bytes;
}

constexpr std::size_t hashLength = 32;

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

/// What a function with a key makes of the data in one part, its Init included.
template <auto init, auto function>
Bytes inOnePart(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key, Bytes& data,
                const char* name) {
    Bytes result(1024);
    CK_ULONG length = sizeOf(result);
    require((p11().*init)(session, mechanism, key), name);
    require((p11().*function)(session, data.data(), sizeOf(data), result.data(), &length), name);
    result.resize(length);
    return result;
}

Bytes sign(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key, Bytes& data) {
    return inOnePart<&CK_FUNCTION_LIST::C_SignInit, &CK_FUNCTION_LIST::C_Sign>(session, mechanism, key, data,
                                                                               "C_SignInit or C_Sign");
}

Bytes encrypt(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key, Bytes& data) {
    return inOnePart<&CK_FUNCTION_LIST::C_EncryptInit, &CK_FUNCTION_LIST::C_Encrypt>(session, mechanism, key, data,
                                                                                     "C_EncryptInit or C_Encrypt");
}

Bytes decrypt(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key, Bytes& data) {
    return inOnePart<&CK_FUNCTION_LIST::C_DecryptInit, &CK_FUNCTION_LIST::C_Decrypt>(session, mechanism, key, data,
                                                                                     "C_DecryptInit or C_Decrypt");
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

/// A session beside that of the subjects. What is hashed in parts needs one in which no digest was made: its finished
/// hash would be in the way.
class OwnSession {
public:
    explicit OwnSession(const Subjects& subjects) {
        require(p11().C_OpenSession(slotOf(subjects), CKF_SERIAL_SESSION, nullptr, nullptr, &handle_), "C_OpenSession");
    }
    OwnSession(const OwnSession&) = delete;
    OwnSession& operator=(const OwnSession&) = delete;
    ~OwnSession() { p11().C_CloseSession(handle_); }

    [[nodiscard]] CK_SESSION_HANDLE handle() const { return handle_; }

private:
    CK_SESSION_HANDLE handle_ = CK_INVALID_HANDLE;
};

Work signatureInParts(const Subjects& subjects) {
    const auto session = std::make_shared<OwnSession>(subjects);
    return [&subjects, session, mechanism = Mechanism(CKM_SHA256_RSA_PKCS), data = sampleBytes(hashLength)]() mutable {
        CK_BYTE signature[1024];
        CK_ULONG length = sizeof signature;
        require(p11().C_SignInit(session->handle(), mechanism.get(), subjects.rsaPrivateKey), "C_SignInit");
        require(p11().C_SignUpdate(session->handle(), data.data(), sizeOf(data)), "C_SignUpdate");
        require(p11().C_SignFinal(session->handle(), signature, &length), "C_SignFinal");
    };
}

Work verificationInParts(const Subjects& subjects) {
    Mechanism mechanism(CKM_SHA256_RSA_PKCS);
    Bytes data = sampleBytes(hashLength);
    Bytes signature = sign(subjects.session, mechanism.get(), subjects.rsaPrivateKey, data);
    const auto session = std::make_shared<OwnSession>(subjects);
    return [&subjects, session, mechanism, data, signature]() mutable {
        require(p11().C_VerifyInit(session->handle(), mechanism.get(), subjects.rsaPublicKey), "C_VerifyInit");
        require(p11().C_VerifyUpdate(session->handle(), data.data(), sizeOf(data)), "C_VerifyUpdate");
        require(p11().C_VerifyFinal(session->handle(), signature.data(), sizeOf(signature)), "C_VerifyFinal");
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
        decrypt(subjects.session, mechanism.get(), subjects.rsaPrivateKey, ciphertext);
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

Work digestInParts(const Subjects& subjects) {
    return [&subjects, data = sampleBytes(hashLength)]() mutable {
        CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
        CK_BYTE hash[hashLength];
        CK_ULONG hashSize = sizeof hash;
        require(p11().C_DigestInit(subjects.session, &mechanism), "C_DigestInit");
        require(p11().C_DigestUpdate(subjects.session, data.data(), sizeOf(data)), "C_DigestUpdate");
        require(p11().C_DigestFinal(subjects.session, hash, &hashSize), "C_DigestFinal");
    };
}

template <std::size_t length>
Work randomNumber(const Subjects& subjects) {
    return [&subjects, bytes = Bytes(length)]() mutable {
        require(p11().C_GenerateRandom(subjects.session, bytes.data(), sizeOf(bytes)), "C_GenerateRandom");
    };
}

}  // namespace

std::vector<Operation> cryptoOperations() {
    using Kind = Operation::Kind;
    return {
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
        {"SHA-256 of 32 B by C_DigestUpdate", Kind::uncompared, digestInParts},
        {"RSA-2048 SHA-256 signature by C_SignUpdate", Kind::uncompared, signatureInParts},
        {"RSA-2048 verification by C_VerifyUpdate", Kind::uncompared, verificationInParts},
    };
}

}  // namespace bench
