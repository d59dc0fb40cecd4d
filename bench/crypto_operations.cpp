// Signatures, ciphers, key agreement, digests and random numbers.

#include <memory>

#include "operations.h"

namespace bench {

namespace {

using Functions = CK_FUNCTION_LIST;
using Init = CK_RV (*Functions::*)(CK_SESSION_HANDLE, CK_MECHANISM_PTR, CK_OBJECT_HANDLE);
using InOnePart = CK_RV (*Functions::*)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR);

constexpr std::size_t hashLength = 32;

Bytes sampleBytes(std::size_t count) {
    Bytes bytes(count);
    for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 1);
    return bytes;
}

CK_BYTE_PTR pointer(const Bytes& bytes) {
    return const_cast<CK_BYTE_PTR>(bytes.data());
}

/// With the parameters that the mechanism needs.
CK_MECHANISM mechanismOf(CK_MECHANISM_TYPE type) {
    static CK_RSA_PKCS_OAEP_PARAMS oaep = {CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, nullptr, 0};
    static CK_RSA_PKCS_PSS_PARAMS pss = {CKM_SHA256, CKG_MGF1_SHA256, hashLength};
    if (type == CKM_RSA_PKCS_OAEP) return {type, &oaep, sizeof oaep};
    if (type == CKM_SHA256_RSA_PKCS_PSS) return {type, &pss, sizeof pss};
    return {type, nullptr, 0};
}

void start(Init init, CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key) {
    CK_MECHANISM mechanism = mechanismOf(type);
    require((p11().*init)(session, &mechanism, key), "the function that begins");
}

Bytes inOnePart(Init init, InOnePart function, CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key,
                const Bytes& data) {
    start(init, session, type, key);
    Bytes result(1024);
    CK_ULONG length = sizeOf(result);
    require((p11().*function)(session, pointer(data), sizeOf(data), result.data(), &length),
            "the function in one part");
    result.resize(length);
    return result;
}

/// A session beside that of the subjects. What is hashed in parts needs one in which no digest was made: its finished
/// hash would be in the way.
std::shared_ptr<CK_SESSION_HANDLE> ownSession(const Subjects& subjects) {
    CK_SESSION_HANDLE handle = CK_INVALID_HANDLE;
    require(p11().C_OpenSession(subjects.slot, CKF_SERIAL_SESSION, nullptr, nullptr, &handle), "C_OpenSession");
    return {new CK_SESSION_HANDLE(handle), [](const CK_SESSION_HANDLE* session) {
                p11().C_CloseSession(*session);
                delete session;
            }};
}

using Key = CK_OBJECT_HANDLE Subjects::*;

template <CK_MECHANISM_TYPE type, Key key>
Work signature(const Subjects& subjects) {
    return [&subjects, data = sampleBytes(hashLength)] { sign(subjects.session, type, subjects.*key, data); };
}

template <CK_MECHANISM_TYPE type, Key privateKey, Key publicKey>
Work verification(const Subjects& subjects) {
    const Bytes data = sampleBytes(hashLength);
    const Bytes made = sign(subjects.session, type, subjects.*privateKey, data);
    return [&subjects, data, made] { verify(subjects.session, type, subjects.*publicKey, data, made); };
}

template <CK_MECHANISM_TYPE type>
Work decryption(const Subjects& subjects) {
    const Bytes made = encrypt(subjects.session, type, subjects.rsaPublicKey, sampleBytes(hashLength));
    return [&subjects, made] { decrypt(subjects.session, type, subjects.rsaPrivateKey, made); };
}

Work encryption(const Subjects& subjects) {
    return [&subjects, data = sampleBytes(hashLength)] {
        encrypt(subjects.session, CKM_RSA_PKCS, subjects.rsaPublicKey, data);
    };
}

Work signatureInParts(const Subjects& subjects) {
    return [&subjects, session = ownSession(subjects), data = sampleBytes(hashLength)] {
        CK_BYTE made[1024];
        CK_ULONG length = sizeof made;
        start(&Functions::C_SignInit, *session, CKM_SHA256_RSA_PKCS, subjects.rsaPrivateKey);
        require(p11().C_SignUpdate(*session, pointer(data), sizeOf(data)), "C_SignUpdate");
        require(p11().C_SignFinal(*session, made, &length), "C_SignFinal");
    };
}

Work verificationInParts(const Subjects& subjects) {
    const Bytes data = sampleBytes(hashLength);
    const Bytes made = sign(subjects.session, CKM_SHA256_RSA_PKCS, subjects.rsaPrivateKey, data);
    return [&subjects, session = ownSession(subjects), data, made] {
        start(&Functions::C_VerifyInit, *session, CKM_SHA256_RSA_PKCS, subjects.rsaPublicKey);
        require(p11().C_VerifyUpdate(*session, pointer(data), sizeOf(data)), "C_VerifyUpdate");
        require(p11().C_VerifyFinal(*session, pointer(made), sizeOf(made)), "C_VerifyFinal");
    };
}

/// The secret is read and destroyed, as an application does it that uses one.
Work keyAgreement(const Subjects& subjects) {
    Bytes encoded(256);
    CK_ATTRIBUTE wanted = entry(CKA_EC_POINT, encoded);
    require(p11().C_GetAttributeValue(subjects.session, subjects.ecPublicKey, &wanted, 1), "C_GetAttributeValue");
    // Without the head of its OCTET STRING: an uncompressed point of the curve.
    const Bytes point(encoded.begin() + 2, encoded.begin() + static_cast<std::ptrdiff_t>(wanted.ulValueLen));
    return [&subjects, point] {
        CK_ECDH1_DERIVE_PARAMS parameters = {CKD_NULL, 0, nullptr, sizeOf(point), pointer(point)};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
        CK_OBJECT_CLASS objectClass = CKO_SECRET_KEY;
        CK_KEY_TYPE type = CKK_GENERIC_SECRET;
        CK_BBOOL yes = CK_TRUE;
        CK_BBOOL no = CK_FALSE;
        CK_ULONG length = 32;
        Template wished = {entry(CKA_CLASS, objectClass), entry(CKA_KEY_TYPE, type),   entry(CKA_TOKEN, no),
                           entry(CKA_SENSITIVE, no),      entry(CKA_EXTRACTABLE, yes), entry(CKA_VALUE_LEN, length)};
        CK_OBJECT_HANDLE secret = CK_INVALID_HANDLE;
        require(p11().C_DeriveKey(subjects.session, &mechanism, subjects.ecPrivateKey, wished.data(),
                                  static_cast<CK_ULONG>(wished.size()), &secret),
                "C_DeriveKey");
        Bytes value(length);
        CK_ATTRIBUTE read = entry(CKA_VALUE, value);
        require(p11().C_GetAttributeValue(subjects.session, secret, &read, 1), "C_GetAttributeValue");
        require(p11().C_DestroyObject(subjects.session, secret), "C_DestroyObject");
    };
}

template <std::size_t length, bool inParts = false>
Work digest(const Subjects& subjects) {
    return [&subjects, data = sampleBytes(length)] {
        CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
        CK_BYTE hash[hashLength];
        CK_ULONG hashSize = sizeof hash;
        require(p11().C_DigestInit(subjects.session, &mechanism), "C_DigestInit");
        if (inParts) {
            require(p11().C_DigestUpdate(subjects.session, pointer(data), sizeOf(data)), "C_DigestUpdate");
            require(p11().C_DigestFinal(subjects.session, hash, &hashSize), "C_DigestFinal");
        } else {
            require(p11().C_Digest(subjects.session, pointer(data), sizeOf(data), hash, &hashSize), "C_Digest");
        }
    };
}

template <std::size_t length>
Work randomNumber(const Subjects& subjects) {
    return [&subjects, bytes = Bytes(length)]() mutable {
        require(p11().C_GenerateRandom(subjects.session, bytes.data(), sizeOf(bytes)), "C_GenerateRandom");
    };
}

}  // namespace

Bytes sign(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, const Bytes& data) {
    return inOnePart(&Functions::C_SignInit, &Functions::C_Sign, session, type, key, data);
}

Bytes encrypt(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, const Bytes& data) {
    return inOnePart(&Functions::C_EncryptInit, &Functions::C_Encrypt, session, type, key, data);
}

Bytes decrypt(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, const Bytes& data) {
    return inOnePart(&Functions::C_DecryptInit, &Functions::C_Decrypt, session, type, key, data);
}

Bytes verify(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key, const Bytes& data,
             const Bytes& signature) {
    start(&Functions::C_VerifyInit, session, type, key);
    require(p11().C_Verify(session, pointer(data), sizeOf(data), pointer(signature), sizeOf(signature)), "C_Verify");
    return {1};
}

std::vector<Operation> cryptoOperations() {
    constexpr Key rsa = &Subjects::rsaPrivateKey;
    constexpr Key ec = &Subjects::ecPrivateKey;
    return {
        {"RSA-2048 signature", Kind::other, signature<CKM_RSA_PKCS, rsa>},
        {"RSA-2048 SHA-256 signature", Kind::other, signature<CKM_SHA256_RSA_PKCS, rsa>},
        {"RSA-2048 PSS signature", Kind::other, signature<CKM_SHA256_RSA_PKCS_PSS, rsa>},
        {"P-256 signature", Kind::other, signature<CKM_ECDSA, ec>},
        {"RSA-2048 verification", Kind::other, verification<CKM_SHA256_RSA_PKCS, rsa, &Subjects::rsaPublicKey>},
        {"P-256 verification", Kind::other, verification<CKM_ECDSA, ec, &Subjects::ecPublicKey>},
        {"RSA-2048 encryption", Kind::other, encryption},
        {"RSA-2048 decryption v1.5", Kind::other, decryption<CKM_RSA_PKCS>},
        {"RSA-2048 decryption OAEP", Kind::other, decryption<CKM_RSA_PKCS_OAEP>},
        {"P-256 key agreement", Kind::other, keyAgreement},
        {"SHA-256 of 32 B", Kind::other, digest<32>},
        {"SHA-256 of 64 KiB", Kind::other, digest<65536>},
        {"random 32 B", Kind::other, randomNumber<32>},
        {"random 4 KiB", Kind::other, randomNumber<4096>},
        {"SHA-256 of 32 B by C_DigestUpdate", Kind::uncompared, digest<32, true>},
        {"RSA-2048 SHA-256 signature by C_SignUpdate", Kind::uncompared, signatureInParts},
        {"RSA-2048 verification by C_VerifyUpdate", Kind::uncompared, verificationInParts},
    };
}

}  // namespace bench
