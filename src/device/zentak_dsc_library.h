/// The boundary to the device library ZentakDSCLibrary: its records and its operations.
///
/// The library is found by the loader under that name, so every operation has C linkage and the records below are an
/// agreement between separately built files: field order, sizes and offsets can't change on one side only. Lists and
/// texts are ordinary C++ values, so both sides need the same C++ runtime family and one C runtime heap.
///
/// Rules that hold for all operations: status results are 0 for success and a library error number otherwise; byte
/// lengths are in bytes; texts are zero-terminated 8-bit strings; the instance is the one that zentak_createInstance
/// gave, unless null is named. `deviceId` is the token's serial number.

#ifndef ZENTAK_DEVICE_ZENTAK_DSC_LIBRARY_H
#define ZENTAK_DEVICE_ZENTAK_DSC_LIBRARY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

/// What marks an exported operation. A build of the library defines it; the module, which imports, leaves it empty.
#ifndef ZENTAK_DSC_API
#define ZENTAK_DSC_API
#endif

/// What the library tells of a connected token. An empty serial number marks a device that isn't a usable token.
struct TokenInfo {
    std::string serialNumber;
    std::string text2;
    std::string label;
    std::string text4;
    std::string model;            ///< its third character decides FIPS 140-3 mode
    std::string firmwareVersion;  ///< major number, a full stop, minor number
    std::string text7;
    std::int32_t userPinChanged = 0;  ///< 1 when the user PIN was changed from its initial value
    std::int32_t number2 = 0;
    std::int32_t userPinAttemptsLeft = 0;
    std::int32_t number4 = 0;
    std::int32_t number5 = 0;
    std::int32_t number6 = 0;
    std::int32_t number7 = 0;
    std::int32_t number8 = 0;
    std::int32_t number9 = 0;
    std::int32_t number10 = 0;
    std::string text8;
};

/// A key pair on a token. Bits of `keyUsage`: 1 permits signing and verification, 2 encryption and decryption.
/// Codes of `keyType`: 1 to 4 are RSA with 1024, 2048, 3072 and 4096 bits, 5 to 7 are EC P-256, P-384 and P-521.
struct ZentakKeyPair {
    std::uint32_t id;               ///< small number; object handles are built from it
    unsigned char keyId[16];        ///< the library's key reference
    unsigned char publicKey[1024];  ///< RSA modulus (or a DER structure beginning with 0x30), or the EC point
    std::int32_t publicKeyLength;
    unsigned char objectId[128];  ///< CKA_ID
    std::int32_t objectIdLength;
    char alias[132];  ///< label, zero-terminated; empty when none was set
    std::uint32_t keyUsage;
    std::int32_t keyType;
    bool keyFlag;  ///< the library's own; handed back to zentak_decrypt and zentak_deleteKeyPair
    unsigned char reserved[3];
};

/// A certificate on a token.
struct ZentakCertificate {
    std::uint32_t id;          ///< small number; object handles are built from it
    unsigned char certId[16];  ///< the library's reference, filled by an import
    unsigned char der[3072];
    std::int32_t derLength;
    unsigned char objectId[128];  ///< CKA_ID
    std::int32_t objectIdLength;
    char label[152];  ///< zero-terminated; empty when none was set
};

static_assert(sizeof(bool) == 1);
static_assert(sizeof(ZentakKeyPair) == 1324 && std::is_trivially_copyable_v<ZentakKeyPair>);
static_assert(offsetof(ZentakKeyPair, keyId) == 4 && offsetof(ZentakKeyPair, publicKey) == 20);
static_assert(offsetof(ZentakKeyPair, publicKeyLength) == 1044 && offsetof(ZentakKeyPair, objectId) == 1048);
static_assert(offsetof(ZentakKeyPair, objectIdLength) == 1176 && offsetof(ZentakKeyPair, alias) == 1180);
static_assert(offsetof(ZentakKeyPair, keyUsage) == 1312 && offsetof(ZentakKeyPair, keyType) == 1316);
static_assert(offsetof(ZentakKeyPair, keyFlag) == 1320 && offsetof(ZentakKeyPair, reserved) == 1321);
static_assert(sizeof(ZentakCertificate) == 3380 && std::is_trivially_copyable_v<ZentakCertificate>);
static_assert(offsetof(ZentakCertificate, certId) == 4 && offsetof(ZentakCertificate, der) == 20);
static_assert(offsetof(ZentakCertificate, derLength) == 3092 && offsetof(ZentakCertificate, objectId) == 3096);
static_assert(offsetof(ZentakCertificate, objectIdLength) == 3224 && offsetof(ZentakCertificate, label) == 3228);

/// What zentak_getCertificateDetails reads from a certificate. The fields without a name are the library's own.
struct CertificateDetails {
    std::string text1;
    std::string subjectCommonName;  ///< first half of a default label
    std::string issuer;             ///< distinguished name: second half of a default label; chains are followed by it
    std::string text4;
    std::string text5;
    unsigned char data[16] = {};
    std::string text6;
    std::string subject;  ///< distinguished name
    std::string text8;
    std::vector<unsigned char> publicKey;  ///< in the form of ZentakKeyPair::publicKey
};

/// An RSA private key to import. `components` are in the order of PKCS #11: modulus, public exponent, private
/// exponent, prime 1, prime 2, exponent 1, exponent 2, coefficient.
struct ImportPFXDetails {
    std::vector<unsigned char> components[8];
    std::uint32_t keyUsage = 0;
    std::string label;
    unsigned char keyId[16] = {};  ///< filled by the library on success
    std::vector<unsigned char> objectId;
    std::vector<unsigned char> extra;
};

/// RSA key size of an encryption.
enum class EncryptionType : int { rsa1024 = 7, rsa2048 = 8, rsa3072 = 9, rsa4096 = 10 };

/// RSA padding of an encryption: PKCS #1 v1.5 or OAEP.
enum class PaddingMode : int { pkcs1 = 1, oaep = 4 };

// C linkage is only for the names; no C program calls these.
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif

extern "C" {

/// Leaves `*instance` null when there is none to be had.
ZENTAK_DSC_API void zentak_createInstance(void** instance);
ZENTAK_DSC_API void zentak_releaseInstance(void* instance);

ZENTAK_DSC_API std::vector<std::string> zentak_getConnectedDeviceList(bool flag, void* instance);
ZENTAK_DSC_API TokenInfo zentak_getTokenInfo(const char* device, void* instance);
ZENTAK_DSC_API int zentak_initDevice(const char* deviceId, bool flag, void* instance);

/// `userKind` is 1 for the user, 2 for the security officer.
ZENTAK_DSC_API int zentak_validatePassword(const char* deviceId, const char* pin, int userKind, int* attemptsLeft,
                                           void* instance);
ZENTAK_DSC_API bool zentak_changeUserPassword(const char* deviceId, const char* oldPin, const char* newPin,
                                              int* failureCount, bool flag1, bool flag2, void* instance);

/// The list is the library's own: its next call may overwrite it.
ZENTAK_DSC_API std::vector<ZentakKeyPair>& zentak_getKeyPairList(const char* deviceId, void* instance);
/// The list is the library's own: its next call may overwrite it.
ZENTAK_DSC_API std::vector<ZentakCertificate>& zentak_getCertificateList(const char* deviceId, void* instance);

// Reading a certificate. The instance is null in all four.
ZENTAK_DSC_API int zentak_getCertificateDetails(const unsigned char* der, int length, CertificateDetails* details,
                                                void* instance);
ZENTAK_DSC_API std::vector<unsigned char> zentak_getCertificateSubject(const unsigned char* der, int length,
                                                                       void* instance);
ZENTAK_DSC_API std::vector<unsigned char> zentak_getCertificateIssuer(const unsigned char* der, int length,
                                                                      void* instance);
ZENTAK_DSC_API std::vector<unsigned char> zentak_getCertificateSerialDER(const unsigned char* der, int length,
                                                                         void* instance);

/// An empty label or a null `objectId` leaves that one as it is.
ZENTAK_DSC_API int zentak_updateKeyPairDetails(const char* deviceId, const unsigned char* keyId, const char* password,
                                               const char* label, const unsigned char* objectId, int objectIdLength,
                                               void* instance);
ZENTAK_DSC_API int zentak_deleteKeyPair(const char* deviceId, const unsigned char* keyId, const char* password,
                                        bool keyFlag, void* instance);
ZENTAK_DSC_API int zentak_importCertificate(const char* deviceId, const char* password, ZentakCertificate* certificate,
                                            void* instance);
ZENTAK_DSC_API int zentak_importPfx(const char* deviceId, const char* password, ImportPFXDetails* details,
                                    void* instance);

/// Pairs of file name and DER; PEM files come back converted. The instance is null.
ZENTAK_DSC_API std::vector<std::pair<std::string, std::vector<unsigned char>>>
zentak_getFilesWithExtensionsAndConvertDER(const char* folder, const std::vector<std::string>& extensions,
                                           void* instance);

/// In: alias, objectId, objectIdLength, keyUsage, keyType. Out: id, keyId, publicKey, publicKeyLength.
ZENTAK_DSC_API int zentak_generateKeyPair(const char* deviceId, const char* password, ZentakKeyPair* keyPair,
                                          void* instance);

ZENTAK_DSC_API int zentak_initHash(const char* deviceId, int hashCode, void** context, void* instance);
ZENTAK_DSC_API int zentak_updateHash(void* context, const unsigned char* data, int length, void* instance);
/// `*length` is the capacity of `digest` on entry and the digest's length on return.
ZENTAK_DSC_API int zentak_finalHash(void* context, unsigned char* digest, int* length, void* instance);

/// `*signatureLength` is the capacity of `signature` on entry and the signature's length on return.
ZENTAK_DSC_API int zentak_signHash(const char* deviceId, const unsigned char* keyId, const char* password,
                                   const unsigned char* data, int length, unsigned char* signature,
                                   int* signatureLength, bool flag, void* instance, bool pss);
ZENTAK_DSC_API int zentak_verifySignatureHash(unsigned int keyType, const char* deviceId, const unsigned char* hash,
                                              int hashLength, const unsigned char* publicKey, int publicKeyLength,
                                              const unsigned char* signature, int signatureLength, void* instance,
                                              bool pss);

/// `output` holds 1024 bytes; `publicKeyDer` is a SubjectPublicKeyInfo.
ZENTAK_DSC_API int zentak_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* data, int length,
                                  unsigned char* output, int* outputLength, const unsigned char* publicKeyDer,
                                  int publicKeyDerLength, void* instance);
/// `*output` is allocated by the library with malloc; the caller frees it.
ZENTAK_DSC_API int zentak_decrypt(const char* deviceId, const unsigned char* keyId, const char* password,
                                  const unsigned char* data, int length, unsigned char** output, int* outputLength,
                                  bool keyFlag, void* instance);
/// `*output` is allocated by the library with malloc; the caller frees it.
ZENTAK_DSC_API int zentak_ecdhDerive(const char* deviceId, const unsigned char* keyId, const char* password,
                                     const unsigned char* publicData, int length, unsigned char** output,
                                     int* outputLength, void* instance);

/// The instance is null.
ZENTAK_DSC_API int zentak_generateRamdomNumber(const char* deviceId, int count, unsigned char* output, bool flag,
                                               void* instance);

}  // extern "C"

#ifdef __clang__
#pragma clang diagnostic pop
#endif

#endif
