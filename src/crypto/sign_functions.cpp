/// C_SignInit, C_Sign, C_SignUpdate and C_SignFinal.

#include <utility>

#include "crypto/key_selection.h"
#include "crypto/multi_part_input.h"
#include "crypto/operation_end.h"
#include "crypto/raw_input_policy.h"
#include "crypto/session_hash.h"
#include "crypto/two_call_output.h"
#include "device/codes.h"
#include "module/byte_trace.h"
#include "module/entry_frame.h"
#include "module/object_handles.h"
#include "module/slot_table.h"

using namespace zentak;

namespace {

/// The bytes that C_Sign gives to the token: the digest (kept in `digest`) or, for a raw mechanism, the data itself.
CK_RV prepareInput(const ModuleState& state, const SessionRecord& session, ByteView data,
                   std::vector<unsigned char>& digest, ByteView& input) {
    const Mechanism& mechanism = activeMechanism(session);
    if (!mechanism.isRaw()) {
        const CK_RV hashed = hashInOnePass(tokenOf(state, session), mechanism.hashCode, data, digest,
                                           {"init hash failed ", "update hash failed ", "final hash failed "});
        input = digest;
        return hashed;
    }
    if (isFips140Token(session.tokenInfo)) {
        if (const std::optional<std::string_view> objection = fipsObjectionToRawInput(mechanism.type, data)) {
            return refuse(CKR_MECHANISM_INVALID, *objection);
        }
    }
    input = data;
    return CKR_OK;
}

/// Computes the signature of a single-part operation into `resultBuffer`.
CK_RV computeSignature(const ModuleState& state, SessionRecord& session, ByteView data) {
    std::vector<unsigned char> digest;
    ByteView input;
    const CK_RV prepared = prepareInput(state, session, data, digest, input);
    if (prepared != CKR_OK) {
        return prepared;
    }
    logDebug("Sign: password empty=", state.cachedUserPassword.empty() ? 1 : 0, " hashLen=", input.size(),
             " session state=", session.state);
    if (input.empty()) {
        logDebug("Sign input hash : NULL or empty");
    } else {
        traceBytes("Sign input hash : ", input);
    }
    const device::Result made =
        tokenOf(state, session).sign(*session.keyPair, input, session.isPss, session.resultBuffer);
    if (made.isInputTooLong()) {
        return refuse(CKR_DATA_LEN_RANGE, "C_Sign: data too long for the device library, ulDataLen=", input.size());
    }
    return made ? CKR_OK : refuse(CKR_FUNCTION_FAILED, "Sign hash failed : ", made.number());
}

/// Computes the signature of a multi-part operation into `resultBuffer`. Whatever happens, the input is used up.
CK_RV computeFinalSignature(const ModuleState& state, SessionRecord& session) {
    const device::Token token = tokenOf(state, session);
    std::vector<unsigned char> input = std::exchange(session.dataBuffer, {});
    if (!activeMechanism(session).isRaw()) {
        void* const context = std::exchange(session.hashContext, nullptr);
        if (const device::Result finished = token.finalHash(context, digestCapacity, input); !finished) {
            return refuse(CKR_FUNCTION_FAILED, "C_SignFinal: finalHash failed ", finished.number());
        }
    }
    const device::Result made = token.sign(*session.keyPair, input, session.isPss, session.resultBuffer);
    if (made.isInputTooLong()) {
        return refuse(CKR_DATA_LEN_RANGE, "C_SignFinal: data too long for the device library, length=", input.size());
    }
    return made ? CKR_OK : refuse(CKR_FUNCTION_FAILED, "C_SignFinal: signHash failed ", made.number());
}

}  // namespace

CK_RV C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
    return sessionEntryPoint("C_SignInit", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (!session.permitsOperations()) {
            return refuse(CKR_SESSION_HANDLE_INVALID, "C_SignInit: invalid session state=", session.state);
        }
        if (session.activeOperation != ActiveOperation::None) {
            return refuse(CKR_OPERATION_ACTIVE,
                          "C_SignInit: operation already active, activeOperation=", session.activeOperation);
        }
        if (pMechanism == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_SignInit: pMechanism is NULL");
        }
        const Mechanism* mechanism = findMechanism(pMechanism->mechanism, CKF_SIGN);
        if (mechanism == nullptr) {
            return refuse(CKR_MECHANISM_INVALID, "C_SignInit: unsupported mechanism=", pMechanism->mechanism);
        }
        if (mechanism->refusedOnFips && isFips140Token(session.tokenInfo)) {
            return refuse(CKR_MECHANISM_INVALID, "C_SignInit: mechanism not allowed on FIPS 140-3 token");
        }
        // PSS parameters are never read: the device library chooses the details itself.
        if (!mechanism->isPss && (pMechanism->pParameter != nullptr || pMechanism->ulParameterLen != 0)) {
            return refuse(CKR_MECHANISM_PARAM_INVALID,
                          "C_SignInit: mechanism param invalid for mechanism=", mechanism->type);
        }
        session.mechanism = mechanism->type;
        session.isPss = mechanism->isPss;

        if (hKey < privateKeyBase) {
            return refuse(CKR_OBJECT_HANDLE_INVALID, "C_SignInit: invalid hKey=", hKey);
        }
        const CK_RV selected =
            selectKeyPair(state, session, hKey - privateKeyBase, "Invalid input handle in sign : ", hKey);
        if (selected != CKR_OK) {
            return selected;
        }
        const CK_RV permitted =
            requireKeyUsage(session, keyUsageSign, "C_SignInit: key usage does not permit signing, keyUsage=");
        if (permitted != CKR_OK) {
            return permitted;
        }
        if (session.keyPair->keyType == keyTypeRsa1024) {
            session.keyPair = nullptr;
            return refuse(CKR_KEY_SIZE_RANGE,
                          "C_SignInit: RSA-1024 signing not allowed \u2014 key size below 112-bit security strength");
        }
        wipe(session.resultBuffer);
        session.activeOperation = ActiveOperation::Sign;
        return CKR_OK;
    });
}

CK_RV C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
             CK_ULONG_PTR pulSignatureLen) {
    return operationEntryPoint(
        "C_Sign", hSession, ActiveOperation::Sign, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
            if (pData == nullptr) {
                return refuse(CKR_ARGUMENTS_BAD, "C_Sign: pData is NULL");
            }
            if (ulDataLen == 0) {
                return refuse(CKR_ARGUMENTS_BAD, "C_Sign: ulDataLen<=0, ulDataLen=", ulDataLen);
            }
            if (pulSignatureLen == nullptr) {
                return refuse(CKR_ARGUMENTS_BAD, "C_Sign: pulSignatureLen is NULL");
            }
            logDebug("sign echanism : ", session.mechanism);

            OperationEnd end(session);
            // A signature that a size query has computed is delivered whatever the data is now.
            if (session.resultBuffer.empty()) {
                const CK_RV computed = computeSignature(state, session, {pData, ulDataLen});
                if (computed != CKR_OK) {
                    return computed;
                }
            }
            return deliverResult("C_Sign", session.resultBuffer, pSignature, pulSignatureLen, end);
        });
}

CK_RV C_SignUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
    return operationEntryPoint(
        "C_SignUpdate", hSession, ActiveOperation::Sign, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
            if (pPart == nullptr || ulPartLen == 0) {
                return refuse(CKR_ARGUMENTS_BAD, "C_SignUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=", ulPartLen);
            }
            const Mechanism& mechanism = activeMechanism(session);
            if (mechanism.isRaw()) {
                return collectPart("C_SignUpdate", session, {pPart, ulPartLen});
            }
            return updateSessionHash(tokenOf(state, session), session, mechanism.hashCode, {pPart, ulPartLen},
                                     {"C_SignUpdate: initHash failed ", "C_SignUpdate: updateHash failed ", ""});
        });
}

CK_RV C_SignFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen) {
    return operationEntryPoint(
        "C_SignFinal", hSession, ActiveOperation::Sign, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
            if (pulSignatureLen == nullptr) {
                return refuse(CKR_ARGUMENTS_BAD, "C_SignFinal: pulSignatureLen is NULL");
            }
            OperationEnd end(session);
            if (session.resultBuffer.empty()) {
                const CK_RV computed = computeFinalSignature(state, session);
                if (computed != CKR_OK) {
                    return computed;
                }
            }
            return deliverResult("C_SignFinal", session.resultBuffer, pSignature, pulSignatureLen, end);
        });
}
