/// C_DigestInit, C_Digest, C_DigestUpdate and C_DigestFinal. The finished digest waits in the session's data buffer.

#include "crypto/two_call_output.h"
#include "module/entry_frame.h"
#include "module/mechanisms.h"
#include "module/slot_table.h"

using namespace zentak;

namespace {

/// Finishes the session's hash into its data buffer. The context stays where it is: what the device library makes of a
/// finished one is its own affair.
CK_RV finishDigest(const device::Token& token, SessionRecord& session) {
    constexpr std::size_t capacity = 128;
    const device::Result finished = token.finalHash(session.hashContext, capacity, session.dataBuffer);
    return finished ? CKR_OK : refuse(CKR_FUNCTION_FAILED, "Final hash data in diget failed : ", finished.number());
}

CK_RV computeDigest(const device::Token& token, SessionRecord& session, ByteView data) {
    if (const device::Result updated = token.updateHash(session.hashContext, data); !updated) {
        return refuse(CKR_FUNCTION_FAILED, "Update hash data in diget failed : ", updated.number());
    }
    return finishDigest(token, session);
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
        const Mechanism* mechanism = findMechanism(pMechanism->mechanism, CKF_DIGEST);
        if (mechanism == nullptr) {
            return refuse(CKR_MECHANISM_INVALID, "C_DigestInit mechanism not supported");
        }
        if (mechanism->refusedOnFips && isFips140Token(session.tokenInfo)) {
            return refuse(CKR_MECHANISM_INVALID, "C_DigestInit: SHA-1 not allowed on FIPS 140-3 token");
        }
        const device::Result begun = tokenOf(state, session).initHash(mechanism->hashCode, session.hashContext);
        if (!begun) {
            return refuse(CKR_FUNCTION_FAILED, "Init hash in diges init failed : ", begun.number());
        }
        session.dataBuffer.clear();
        session.activeOperation = ActiveOperation::Digest;
        return CKR_OK;
    });
}

CK_RV C_Digest(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pDigest,
               CK_ULONG_PTR pulDigestLen) {
    return operationEntryPoint(
        "C_Digest", hSession, ActiveOperation::Digest, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
            if (pData == nullptr && ulDataLen != 0) {
                return refuse(CKR_ARGUMENTS_BAD, "C_Digest: pData is NULL with ulDataLen=", ulDataLen);
            }
            if (pulDigestLen == nullptr) {
                return refuse(CKR_ARGUMENTS_BAD, "C_Digest: pulDigestLen is NULL");
            }
            OperationEnd end(session);
            if (session.dataBuffer.empty()) {
                const CK_RV computed = computeDigest(tokenOf(state, session), session, {pData, ulDataLen});
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
    return operationEntryPoint(
        "C_DigestUpdate", hSession, ActiveOperation::Digest, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
            if (pPart == nullptr || ulPartLen == 0) {
                return refuse(CKR_ARGUMENTS_BAD,
                              "C_DigestUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=", ulPartLen);
            }
            OperationEnd end(session);
            const device::Result updated = tokenOf(state, session).updateHash(session.hashContext, {pPart, ulPartLen});
            if (!updated) {
                return refuse(CKR_FUNCTION_FAILED, "Update hash data in digest update failed : ", updated.number());
            }
            end.keepOperation();
            return CKR_OK;
        });
}

CK_RV C_DigestFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen) {
    return operationEntryPoint(
        "C_DigestFinal", hSession, ActiveOperation::Digest, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
            if (pulDigestLen == nullptr) {
                return refuse(CKR_ARGUMENTS_BAD, "C_DigestFinal: pulDigestLen is NULL");
            }
            OperationEnd end(session);
            if (session.dataBuffer.empty()) {
                const CK_RV computed = finishDigest(tokenOf(state, session), session);
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
