/// C_VerifyInit, C_Verify, C_VerifyUpdate and C_VerifyFinal. The single-part and the multi-part way differ in their
/// hash, the form of the key, the PSS flag and the reading of a DigestInfo. Applications have met both; they stay as
/// they are.

#include <algorithm>
#include <utility>

#include "crypto/der.h"
#include "crypto/key_selection.h"
#include "crypto/multi_part_input.h"
#include "crypto/operation_end.h"
#include "crypto/session_hash.h"
#include "device/codes.h"
#include "device/record_views.h"
#include "module/entry_frame.h"
#include "module/object_handles.h"

using namespace zentak;

namespace {

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
    const device::Token token = tokenOf(state, session);
    const Mechanism& mechanism = activeMechanism(session);
    std::vector<unsigned char> digest;
    ByteView hash = data;
    if (!mechanism.isRaw()) {
        const CK_RV hashed = hashInOnePass(
            token, mechanism.hashCode, data, digest,
            {"C_Verify: initHash failed ret=", "C_Verify: updateHash failed ret=", "C_Verify: finalHash failed ret="});
        if (hashed != CKR_OK) {
            return hashed;
        }
        hash = digest;
    } else if (mechanism.type == CKM_RSA_PKCS) {
        hash = hashInDigestInfo(data);
    }
    std::vector<unsigned char> encodedKey;
    const ByteView publicKey = preparePublicKey(*session.keyPair, encodedKey);
    const device::Result verified = token.verify(*session.keyPair, publicKey, hash, signature, session.isPss);
    if (verified.isInputTooLong()) {
        return refuse(CKR_DATA_LEN_RANGE, "C_Verify: input too long for the device library, length=",
                      std::max(hash.size(), signature.size()));
    }
    return verified ? CKR_OK : refuse(CKR_SIGNATURE_INVALID, "Verify signature failed : ", verified.number());
}

/// Whatever happens, the input is used up.
CK_RV verifyMultiPart(const ModuleState& state, SessionRecord& session, ByteView signature) {
    const device::Token token = tokenOf(state, session);
    std::vector<unsigned char> hash = std::exchange(session.dataBuffer, {});
    if (activeMechanism(session).multiPartVerificationHash != 0) {
        void* const context = std::exchange(session.hashContext, nullptr);
        if (const device::Result finished = token.finalHash(context, digestCapacity, hash); !finished) {
            return refuse(CKR_FUNCTION_FAILED, "C_VerifyFinal: finalHash failed ", finished.number());
        }
    }
    const device::Result verified =
        token.verify(*session.keyPair, publicKeyOf(*session.keyPair), hash, signature, false);
    if (verified.isInputTooLong()) {
        return refuse(CKR_DATA_LEN_RANGE, "C_VerifyFinal: input too long for the device library, length=",
                      std::max(hash.size(), signature.size()));
    }
    return verified ? CKR_OK : refuse(CKR_SIGNATURE_INVALID, "C_VerifyFinal: verify failed ", verified.number());
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
        const Mechanism* mechanism = findMechanism(pMechanism->mechanism, CKF_VERIFY);
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
    return operationEntryPoint(
        "C_Verify", hSession, ActiveOperation::Verify, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
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
    return operationEntryPoint(
        "C_VerifyUpdate", hSession, ActiveOperation::Verify, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
            if (pPart == nullptr || ulPartLen == 0) {
                return refuse(CKR_ARGUMENTS_BAD,
                              "C_VerifyUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=", ulPartLen);
            }
            const int hashCode = activeMechanism(session).multiPartVerificationHash;
            if (hashCode == 0) {
                return collectPart("C_VerifyUpdate", session, {pPart, ulPartLen});
            }
            return updateSessionHash(tokenOf(state, session), session, hashCode, {pPart, ulPartLen},
                                     {"C_VerifyUpdate: initHash failed ", "C_VerifyUpdate: updateHash failed ", ""});
        });
}

CK_RV C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen) {
    return operationEntryPoint(
        "C_VerifyFinal", hSession, ActiveOperation::Verify, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
            if (pSignature == nullptr || ulSignatureLen == 0) {
                return refuse(
                    CKR_ARGUMENTS_BAD,
                    "C_VerifyFinal: pSignature is NULL or ulSignatureLen<=0, ulSignatureLen=", ulSignatureLen);
            }
            const OperationEnd end(session);
            return verifyMultiPart(state, session, {pSignature, ulSignatureLen});
        });
}
