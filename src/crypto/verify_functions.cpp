/// C_VerifyInit, C_Verify, C_VerifyUpdate and C_VerifyFinal. The single-part and the multi-part way differ in their
/// hash table, the form of the key, the PSS flag and the reading of a DigestInfo. Hosts have met both; they stay as
/// they are.

#include <algorithm>
#include <utility>

#include "crypto/der.h"
#include "crypto/hashing.h"
#include "crypto/key_selection.h"
#include "crypto/multi_part_input.h"
#include "crypto/operation_end.h"
#include "crypto/signature_mechanisms.h"
#include "module/entry_frame.h"
#include "module/object_handles.h"

using namespace zentak;

namespace {

/// Multi-part input of these two is collected; everything else is hashed, CKM_RSA_PKCS_PSS included.
bool isCollected(CK_MECHANISM_TYPE type) {
    return type == CKM_RSA_PKCS || type == CKM_ECDSA;
}

/// The hash of multi-part input. PSS mechanisms other than SHA-224's are hashed with SHA-256.
int multiPartHashCode(CK_MECHANISM_TYPE type) {
    switch (type) {
        case CKM_SHA1_RSA_PKCS:
        case CKM_ECDSA_SHA1:
            return hashSha1;
        case CKM_SHA384_RSA_PKCS:
        case CKM_ECDSA_SHA384:
            return hashSha384;
        case CKM_SHA512_RSA_PKCS:
        case CKM_ECDSA_SHA512:
            return hashSha512;
        case CKM_SHA224_RSA_PKCS:
        case CKM_SHA224_RSA_PKCS_PSS:
        case CKM_ECDSA_SHA224:
            return hashSha224;
        default:
            return hashSha256;
    }
}

/// The device library's verdict: 0 for a valid signature.
int verifyHash(const ModuleState& state, const SessionRecord& session, ByteView hash, ByteView publicKey,
               ByteView signature, bool pss) {
    return zentak_verifySignatureHash(static_cast<unsigned int>(session.keyPair->keyType), session.deviceId(),
                                      hash.data(), static_cast<int>(hash.size()), publicKey.data(),
                                      static_cast<int>(publicKey.size()), signature.data(),
                                      static_cast<int>(signature.size()), state.instance, pss);
}

/// The key of a single-part verification: a bare RSA modulus is wrapped (into `storage`), everything else goes as it
/// is.
ByteView preparePublicKey(const ZentakKeyPair& keyPair, std::vector<unsigned char>& storage) {
    const ByteView publicKey = publicKeyOf(keyPair);
    if (isEcKeyType(keyPair.keyType) || publicKey.empty() || publicKey[0] == 0x30) {
        logDebug("Public key passed as-is");
        return publicKey;
    }
    logDebug("Public key is not der need to convert to the der");
    storage = rsaSubjectPublicKeyInfo(publicKey);
    return storage;
}

CK_RV verifySinglePart(const ModuleState& state, const SessionRecord& session, ByteView data, ByteView signature) {
    const SignatureMechanism* mechanism = findSignatureMechanism(session.mechanism);
    if (mechanism == nullptr) {
        return CKR_MECHANISM_INVALID;
    }
    std::vector<unsigned char> digest;
    ByteView hash = data;
    if (!mechanism->isRaw()) {
        const CK_RV hashed = hashInOnePass(
            session.deviceId(), mechanism->hashCode, data, digest, state.instance,
            {"C_Verify: initHash failed ret=", "C_Verify: updateHash failed ret=", "C_Verify: finalHash failed ret="});
        if (hashed != CKR_OK) {
            return hashed;
        }
        hash = digest;
    } else if (mechanism->type == CKM_RSA_PKCS) {
        hash = hashInDigestInfo(data);
    }
    std::vector<unsigned char> encodedKey;
    const ByteView publicKey = preparePublicKey(*session.keyPair, encodedKey);
    if (hash.size() > longestArgument || signature.size() > longestArgument) {
        return refuse(CKR_DATA_LEN_RANGE, "C_Verify: input too long for the device library, length=",
                      std::max(hash.size(), signature.size()));
    }
    if (const int result = verifyHash(state, session, hash, publicKey, signature, session.isPss); result != 0) {
        return refuse(CKR_SIGNATURE_INVALID, "Verify signature failed : ", result);
    }
    return CKR_OK;
}

/// Whatever happens, the input is used up.
CK_RV verifyMultiPart(const ModuleState& state, SessionRecord& session, ByteView signature) {
    std::vector<unsigned char> hash = std::exchange(session.dataBuffer, {});
    if (!isCollected(session.mechanism)) {
        void* const context = std::exchange(session.hashContext, nullptr);
        if (const int result = finalHash(context, digestCapacity, hash, state.instance); result != 0) {
            return refuse(CKR_FUNCTION_FAILED, "C_VerifyFinal: finalHash failed ", result);
        }
    }
    if (hash.size() > longestArgument || signature.size() > longestArgument) {
        return refuse(CKR_DATA_LEN_RANGE, "C_VerifyFinal: input too long for the device library, length=",
                      std::max(hash.size(), signature.size()));
    }
    if (const int result = verifyHash(state, session, hash, publicKeyOf(*session.keyPair), signature, false);
        result != 0) {
        return refuse(CKR_SIGNATURE_INVALID, "C_VerifyFinal: verify failed ", result);
    }
    return CKR_OK;
}

}  // namespace

CK_RV C_VerifyInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
    return sessionEntryPoint("C_VerifyInit", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        // A digest is no obstacle: it is replaced.
        if (session.activeOperation != ActiveOperation::None && session.activeOperation != ActiveOperation::Digest) {
            return refuse(CKR_OPERATION_ACTIVE,
                          "C_VerifyInit: operation already active, activeOperation=", session.activeOperation);
        }
        if (pMechanism == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_VerifyInit: pMechanism is NULL");
        }
        const SignatureMechanism* mechanism = findSignatureMechanism(pMechanism->mechanism);
        if (mechanism == nullptr) {
            return refuse(CKR_MECHANISM_INVALID, "C_VerifyInit: unsupported mechanism=", pMechanism->mechanism);
        }
        if (hKey < privateKeyBase) {
            return refuse(CKR_OBJECT_HANDLE_INVALID, "C_VerifyInit: invalid hKey=", hKey);
        }
        const CK_RV selected =
            selectKeyPair(state, session, keyPairIdentifier(hKey), "Invalid input handle in verify : ", hKey);
        if (selected != CKR_OK) {
            return selected;
        }
        const CK_RV permitted =
            requireKeyUsage(session, keyUsageSign, "C_VerifyInit: key usage does not permit verify, keyUsage=");
        if (permitted != CKR_OK) {
            return permitted;
        }
        session.mechanism = mechanism->type;
        session.isPss = mechanism->isPss;
        session.activeOperation = ActiveOperation::Verify;
        return CKR_OK;
    });
}

CK_RV C_Verify(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
               CK_ULONG ulSignatureLen) {
    return sessionEntryPoint("C_Verify", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (session.activeOperation != ActiveOperation::Verify) {
            return refuse(CKR_OPERATION_NOT_INITIALIZED,
                          "C_Verify: operation not initialized, activeOperation=", session.activeOperation);
        }
        if (pData == nullptr || pSignature == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_Verify: pData or pSignature is NULL");
        }
        if (ulDataLen == 0 || ulSignatureLen == 0) {
            return refuse(CKR_ARGUMENTS_BAD, "C_Verify: ulDataLen or ulSignatureLen <= 0, ulDataLen=", ulDataLen,
                          " ulSignatureLen=", ulSignatureLen);
        }
        const OperationEnd end(session);
        return verifySinglePart(state, session, {pData, ulDataLen}, {pSignature, ulSignatureLen});
    });
}

CK_RV C_VerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
    return sessionEntryPoint("C_VerifyUpdate", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (session.activeOperation != ActiveOperation::Verify) {
            return refuse(CKR_OPERATION_NOT_INITIALIZED,
                          "C_VerifyUpdate: operation not initialized, activeOperation=", session.activeOperation);
        }
        if (pPart == nullptr || ulPartLen == 0) {
            return refuse(CKR_ARGUMENTS_BAD, "C_VerifyUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=", ulPartLen);
        }
        if (isCollected(session.mechanism)) {
            return collectPart("C_VerifyUpdate", session, {pPart, ulPartLen});
        }
        OperationEnd end(session);
        const CK_RV updated =
            updateSessionHash(session, multiPartHashCode(session.mechanism), {pPart, ulPartLen}, state.instance,
                              {"C_VerifyUpdate: initHash failed ", "C_VerifyUpdate: updateHash failed ", ""});
        if (updated == CKR_OK) {
            end.keepOperation();
        }
        return updated;
    });
}

CK_RV C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen) {
    return sessionEntryPoint("C_VerifyFinal", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (session.activeOperation != ActiveOperation::Verify) {
            return refuse(CKR_OPERATION_NOT_INITIALIZED,
                          "C_VerifyFinal: operation not initialized, activeOperation=", session.activeOperation);
        }
        if (pSignature == nullptr || ulSignatureLen == 0) {
            return refuse(CKR_ARGUMENTS_BAD,
                          "C_VerifyFinal: pSignature is NULL or ulSignatureLen<=0, ulSignatureLen=", ulSignatureLen);
        }
        const OperationEnd end(session);
        return verifyMultiPart(state, session, {pSignature, ulSignatureLen});
    });
}
