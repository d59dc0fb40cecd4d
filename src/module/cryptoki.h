/// The types and constants of PKCS #11 (Cryptoki) 2.20, for C and C++.
///
/// Two binary forms exist, and an application and a module must agree on one:
///   - the Windows form: structures packed to one byte, CK_ULONG 32 bits wide;
///   - the platform's own form elsewhere: natural alignment, CK_ULONG as wide as `unsigned long`.
/// Windows always has the first. Define ZENTAK_WINDOWS_CRYPTOKI to get it on another system.

#ifndef ZENTAK_MODULE_CRYPTOKI_H
#define ZENTAK_MODULE_CRYPTOKI_H

#if defined(_WIN32) && !defined(ZENTAK_WINDOWS_CRYPTOKI)
#define ZENTAK_WINDOWS_CRYPTOKI
#endif

#ifdef ZENTAK_WINDOWS_CRYPTOKI
#pragma pack(push, 1)
#endif

/* The header is read by C compilers too, and its names are the standard's. */
/* NOLINTBEGIN(modernize-*, readability-*, cppcoreguidelines-*) */

#ifdef __cplusplus
extern "C" {
#endif

/* Basic types ------------------------------------------------------------------------------- */

typedef unsigned char CK_BYTE;
typedef CK_BYTE CK_CHAR;
typedef CK_BYTE CK_UTF8CHAR;
typedef CK_BYTE CK_BBOOL;
#if defined(ZENTAK_WINDOWS_CRYPTOKI) && !defined(_WIN32)
typedef unsigned int CK_ULONG;
typedef int CK_LONG;
#else
typedef unsigned long CK_ULONG;
typedef long CK_LONG;
#endif
typedef CK_ULONG CK_FLAGS;

typedef CK_BYTE* CK_BYTE_PTR;
typedef CK_CHAR* CK_CHAR_PTR;
typedef CK_UTF8CHAR* CK_UTF8CHAR_PTR;
typedef CK_ULONG* CK_ULONG_PTR;
typedef void* CK_VOID_PTR;
typedef CK_VOID_PTR* CK_VOID_PTR_PTR;

#define CK_TRUE 1
#define CK_FALSE 0
#define CK_UNAVAILABLE_INFORMATION (~(CK_ULONG)0)
#define CK_EFFECTIVELY_INFINITE 0
#define CK_INVALID_HANDLE 0

typedef CK_ULONG CK_NOTIFICATION;
typedef CK_ULONG CK_SLOT_ID;
typedef CK_ULONG CK_SESSION_HANDLE;
typedef CK_ULONG CK_OBJECT_HANDLE;
typedef CK_ULONG CK_USER_TYPE;
typedef CK_ULONG CK_STATE;
typedef CK_ULONG CK_OBJECT_CLASS;
typedef CK_ULONG CK_HW_FEATURE_TYPE;
typedef CK_ULONG CK_KEY_TYPE;
typedef CK_ULONG CK_CERTIFICATE_TYPE;
typedef CK_ULONG CK_ATTRIBUTE_TYPE;
typedef CK_ULONG CK_MECHANISM_TYPE;
typedef CK_ULONG CK_RV;
typedef CK_ULONG CK_EC_KDF_TYPE;
typedef CK_ULONG CK_RSA_PKCS_MGF_TYPE;
typedef CK_ULONG CK_RSA_PKCS_OAEP_SOURCE_TYPE;

typedef CK_SLOT_ID* CK_SLOT_ID_PTR;
typedef CK_SESSION_HANDLE* CK_SESSION_HANDLE_PTR;
typedef CK_OBJECT_HANDLE* CK_OBJECT_HANDLE_PTR;
typedef CK_OBJECT_CLASS* CK_OBJECT_CLASS_PTR;
typedef CK_MECHANISM_TYPE* CK_MECHANISM_TYPE_PTR;

/* Structures -------------------------------------------------------------------------------- */

typedef struct CK_VERSION {
    CK_BYTE major;
    CK_BYTE minor;
} CK_VERSION;
typedef CK_VERSION* CK_VERSION_PTR;

typedef struct CK_INFO {
    CK_VERSION cryptokiVersion;
    CK_UTF8CHAR manufacturerID[32];
    CK_FLAGS flags;
    CK_UTF8CHAR libraryDescription[32];
    CK_VERSION libraryVersion;
} CK_INFO;
typedef CK_INFO* CK_INFO_PTR;

typedef struct CK_SLOT_INFO {
    CK_UTF8CHAR slotDescription[64];
    CK_UTF8CHAR manufacturerID[32];
    CK_FLAGS flags;
    CK_VERSION hardwareVersion;
    CK_VERSION firmwareVersion;
} CK_SLOT_INFO;
typedef CK_SLOT_INFO* CK_SLOT_INFO_PTR;

typedef struct CK_TOKEN_INFO {
    CK_UTF8CHAR label[32];
    CK_UTF8CHAR manufacturerID[32];
    CK_UTF8CHAR model[16];
    CK_CHAR serialNumber[16];
    CK_FLAGS flags;
    CK_ULONG ulMaxSessionCount;
    CK_ULONG ulSessionCount;
    CK_ULONG ulMaxRwSessionCount;
    CK_ULONG ulRwSessionCount;
    CK_ULONG ulMaxPinLen;
    CK_ULONG ulMinPinLen;
    CK_ULONG ulTotalPublicMemory;
    CK_ULONG ulFreePublicMemory;
    CK_ULONG ulTotalPrivateMemory;
    CK_ULONG ulFreePrivateMemory;
    CK_VERSION hardwareVersion;
    CK_VERSION firmwareVersion;
    CK_CHAR utcTime[16];
} CK_TOKEN_INFO;
typedef CK_TOKEN_INFO* CK_TOKEN_INFO_PTR;

typedef struct CK_SESSION_INFO {
    CK_SLOT_ID slotID;
    CK_STATE state;
    CK_FLAGS flags;
    CK_ULONG ulDeviceError;
} CK_SESSION_INFO;
typedef CK_SESSION_INFO* CK_SESSION_INFO_PTR;

typedef struct CK_ATTRIBUTE {
    CK_ATTRIBUTE_TYPE type;
    CK_VOID_PTR pValue;
    CK_ULONG ulValueLen;
} CK_ATTRIBUTE;
typedef CK_ATTRIBUTE* CK_ATTRIBUTE_PTR;

typedef struct CK_DATE {
    CK_CHAR year[4];
    CK_CHAR month[2];
    CK_CHAR day[2];
} CK_DATE;

typedef struct CK_MECHANISM {
    CK_MECHANISM_TYPE mechanism;
    CK_VOID_PTR pParameter;
    CK_ULONG ulParameterLen;
} CK_MECHANISM;
typedef CK_MECHANISM* CK_MECHANISM_PTR;

typedef struct CK_MECHANISM_INFO {
    CK_ULONG ulMinKeySize;
    CK_ULONG ulMaxKeySize;
    CK_FLAGS flags;
} CK_MECHANISM_INFO;
typedef CK_MECHANISM_INFO* CK_MECHANISM_INFO_PTR;

typedef struct CK_RSA_PKCS_OAEP_PARAMS {
    CK_MECHANISM_TYPE hashAlg;
    CK_RSA_PKCS_MGF_TYPE mgf;
    CK_RSA_PKCS_OAEP_SOURCE_TYPE source;
    CK_VOID_PTR pSourceData;
    CK_ULONG ulSourceDataLen;
} CK_RSA_PKCS_OAEP_PARAMS;

typedef struct CK_RSA_PKCS_PSS_PARAMS {
    CK_MECHANISM_TYPE hashAlg;
    CK_RSA_PKCS_MGF_TYPE mgf;
    CK_ULONG sLen;
} CK_RSA_PKCS_PSS_PARAMS;

typedef struct CK_ECDH1_DERIVE_PARAMS {
    CK_EC_KDF_TYPE kdf;
    CK_ULONG ulSharedDataLen;
    CK_BYTE_PTR pSharedData;
    CK_ULONG ulPublicDataLen;
    CK_BYTE_PTR pPublicData;
} CK_ECDH1_DERIVE_PARAMS;

/* Callbacks --------------------------------------------------------------------------------- */

typedef CK_RV (*CK_NOTIFY)(CK_SESSION_HANDLE hSession, CK_NOTIFICATION event, CK_VOID_PTR pApplication);
typedef CK_RV (*CK_CREATEMUTEX)(CK_VOID_PTR_PTR ppMutex);
typedef CK_RV (*CK_DESTROYMUTEX)(CK_VOID_PTR pMutex);
typedef CK_RV (*CK_LOCKMUTEX)(CK_VOID_PTR pMutex);
typedef CK_RV (*CK_UNLOCKMUTEX)(CK_VOID_PTR pMutex);

typedef struct CK_C_INITIALIZE_ARGS {
    CK_CREATEMUTEX CreateMutex;
    CK_DESTROYMUTEX DestroyMutex;
    CK_LOCKMUTEX LockMutex;
    CK_UNLOCKMUTEX UnlockMutex;
    CK_FLAGS flags;
    CK_VOID_PTR pReserved;
} CK_C_INITIALIZE_ARGS;
typedef CK_C_INITIALIZE_ARGS* CK_C_INITIALIZE_ARGS_PTR;

/* Functions --------------------------------------------------------------------------------- */

struct CK_FUNCTION_LIST;
typedef struct CK_FUNCTION_LIST* CK_FUNCTION_LIST_PTR;
typedef CK_FUNCTION_LIST_PTR* CK_FUNCTION_LIST_PTR_PTR;

/* For each function: its declaration, and the type CK_<name> of a pointer to it. */
#define CRYPTOKI_FUNCTION(name, parameters) \
    CK_RV name parameters;                  \
    typedef CK_RV(*CK_##name) parameters;
#include "function_table.inc"
#undef CRYPTOKI_FUNCTION

struct CK_FUNCTION_LIST {
    CK_VERSION version;
#define CRYPTOKI_FUNCTION(name, parameters) CK_##name name;
#include "function_table.inc"
#undef CRYPTOKI_FUNCTION
};
typedef struct CK_FUNCTION_LIST CK_FUNCTION_LIST;

#ifdef __cplusplus
}
#endif

/* NOLINTEND(modernize-*, readability-*, cppcoreguidelines-*) */

#ifdef ZENTAK_WINDOWS_CRYPTOKI
#pragma pack(pop)
#endif

#include "cryptoki_constants.h"
#include "cryptoki_mechanisms.h"

#endif
