/// C_DigestInit, C_Digest, C_DigestUpdate and C_DigestFinal. The finished digest waits in the session's data buffer.

#include <array>

#include "crypto/hashing.h"
#include "crypto/two_call_output.h"
#include "module/entry_frame.h"
#include "module/mechanism_table.h"
#include "module/slot_table.h"

using namespace zentak;

namespace {

struct DigestMechanism {
    CK_MECHANISM_TYPE type;
    int hashCode;
};

constexpr std::array<DigestMechanism, 5> digestMechanisms = {{
    {CKM_SHA_1, hashSha1},
    {CKM_SHA256, hashSha256},
    {CKM_SHA224, hashSha224},
    {CKM_SHA384, hashSha384},
    {CKM_SHA512, hashSha512},
}};

/// Finishes the session's hash into its data buffer. The context stays where it is: what the device library makes of a
/// finished one is its own affair.
CK_RV finishDigest(const ModuleState& state, SessionRecord& session) {
    constexpr std::size_t capacity = 128;
    std::vector<unsigned char> digest;
    if (const int result = finalHash(session.hashContext, capacity, digest, state.instance); result != 0) {
        return refuse(CKR_FUNCTION_FAILED, "Final hash data in diget failed : ", result);
    }
    session.dataBuffer = std::move(digest);
    return CKR_OK;
}

CK_RV computeDigest(const ModuleState& state, SessionRecord& session, ByteView data) {
    if (const int result = updateHash(session.hashContext, data.data(), data.size(), state.instance); result != 0) {
        return refuse(CKR_FUNCTION_FAILED, "Update hash data in diget failed : ", result);
    }
    return finishDigest(state, session);
}

}  // namespace

CK_RV C_DigestInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism) {
    return sessionEntryPoint("C_DigestInit", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (!session.permitsOperations()) {
            return refuse(CKR_SESSION_HANDLE_INVALID, "C_DigestInit: invalid session state=", session.state);
        }
        if (session.activeOperation != ActiveOperation::None) {
            return refuse(CKR_OPERATION_ACTIVE,
                          "C_DigestInit: operation already active, activeOperation=", session.activeOperation);
        }
        if (pMechanism == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_DigestInit mechanism pointer in NULL");
        }
        const CK_MECHANISM_TYPE type = pMechanism->mechanism;
        if (type == CKM_SHA_1 && isFips140Token(session.tokenInfo)) {
            return refuse(CKR_MECHANISM_INVALID, "C_DigestInit: SHA-1 not allowed on FIPS 140-3 token");
        }
        const DigestMechanism* mechanism = findMechanism(digestMechanisms, type);
        if (mechanism == nullptr) {
            return refuse(CKR_MECHANISM_INVALID, "C_DigestInit mechanism not supported");
        }
        if (const int result =
                zentak_initHash(session.deviceId(), mechanism->hashCode, &session.hashContext, state.instance);
            result != 0) {
            return refuse(CKR_FUNCTION_FAILED, "Init hash in diges init failed : ", result);
        }
        session.dataBuffer.clear();
        session.activeOperation = ActiveOperation::Digest;
        return CKR_OK;
    });
}

CK_RV C_Digest(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pDigest,
               CK_ULONG_PTR pulDigestLen) {
    return sessionEntryPoint("C_Digest", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (session.activeOperation != ActiveOperation::Digest) {
            return refuse(CKR_OPERATION_NOT_INITIALIZED,
                          "C_Digest: operation not initialized, activeOperation=", session.activeOperation);
        }
        if (pData == nullptr && ulDataLen != 0) {
            return refuse(CKR_ARGUMENTS_BAD, "C_Digest: pData is NULL with ulDataLen=", ulDataLen);
        }
        if (pulDigestLen == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_Digest: pulDigestLen is NULL");
        }
        OperationEnd end(session);
        if (session.dataBuffer.empty()) {
            const CK_RV computed = computeDigest(state, session, {pData, ulDataLen});
            if (computed != CKR_OK) {
                return computed;
            }
        }
        const CK_RV delivered = deliverResult("C_Digest", session.dataBuffer, pDigest, pulDigestLen, end);
        if (delivered == CKR_OK) {
            logDebug("C_Digest Success");
        }
        return delivered;
    });
}

CK_RV C_DigestUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
    return sessionEntryPoint("C_DigestUpdate", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (session.activeOperation != ActiveOperation::Digest) {
            return refuse(CKR_OPERATION_NOT_INITIALIZED,
                          "C_DigestUpdate: operation not initialized, activeOperation=", session.activeOperation);
        }
        if (pPart == nullptr || ulPartLen == 0) {
            return refuse(CKR_ARGUMENTS_BAD, "C_DigestUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=", ulPartLen);
        }
        OperationEnd end(session);
        if (const int result = updateHash(session.hashContext, pPart, ulPartLen, state.instance); result != 0) {
            return refuse(CKR_FUNCTION_FAILED, "Update hash data in digest update failed : ", result);
        }
        end.keepOperation();
        return CKR_OK;
    });
}

CK_RV C_DigestFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen) {
    return sessionEntryPoint("C_DigestFinal", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (session.activeOperation != ActiveOperation::Digest) {
            return refuse(CKR_OPERATION_NOT_INITIALIZED,
                          "C_DigestFinal: operation not initialized, activeOperation=", session.activeOperation);
        }
        if (pulDigestLen == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_DigestFinal: pulDigestLen is NULL");
        }
        OperationEnd end(session);
        if (session.dataBuffer.empty()) {
            const CK_RV computed = finishDigest(state, session);
            if (computed != CKR_OK) {
                return computed;
            }
        }
        const CK_RV delivered = deliverResult("C_DigestFinal", session.dataBuffer, pDigest, pulDigestLen, end);
        if (delivered == CKR_OK) {
            logDebug("C_DigestFinal Success");
        }
        return delivered;
    });
}
