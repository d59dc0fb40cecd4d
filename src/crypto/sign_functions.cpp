/// C_SignInit, C_Sign, C_SignUpdate and C_SignFinal.

#include <utility>

#include "crypto/hashing.h"
#include "crypto/key_selection.h"
#include "crypto/multi_part_input.h"
#include "crypto/operation_end.h"
#include "crypto/raw_input_policy.h"
#include "crypto/signature_mechanisms.h"
#include "crypto/two_call_output.h"
#include "device/records.h"
#include "module/entry_frame.h"
#include "module/object_handles.h"
#include "module/slot_table.h"

using namespace zentak;

namespace {

constexpr std::size_t signatureCapacity = 1024;

/// The mechanism of the session's operation: C_SignInit has let no other in.
const SignatureMechanism& activeMechanism(const SessionRecord& session) {
    return *findSignatureMechanism(session.mechanism);
}

/// Signs `input` with the session's key. 0 with the signature in `resultBuffer`, or the device library's result.
int signHash(const ModuleState& state, SessionRecord& session, ByteView input) {
    std::vector<unsigned char> signature(signatureCapacity);
    int length = static_cast<int>(signatureCapacity);
    const int result = zentak_signHash(session.deviceId(), session.keyPair->keyId, state.cachedUserPassword.c_str(),
                                       input.data(), static_cast<int>(input.size()), signature.data(), &length, false,
                                       state.instance, session.isPss);
    if (result == 0) {
        cutToReportedLength(signature, length);
        session.resultBuffer = std::move(signature);
    }
    return result;
}

/// The bytes that C_Sign gives to the token: the digest (kept in `digest`) or, for a raw mechanism, the data itself.
CK_RV prepareInput(const ModuleState& state, const SessionRecord& session, ByteView data,
                   std::vector<unsigned char>& digest, ByteView& input) {
    const SignatureMechanism& mechanism = activeMechanism(session);
    if (!mechanism.isRaw()) {
        const CK_RV hashed = hashInOnePass(session.deviceId(), mechanism.hashCode, data, digest, state.instance,
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
    if (input.size() > longestArgument) {
        // Without the bytes in hexadecimal: the line would need twice the memory, only for the refusal to follow.
        return refuse(CKR_DATA_LEN_RANGE, "C_Sign: data too long for the device library, ulDataLen=", input.size());
    }
    if (input.empty()) {
        logDebug("Sign input hash : NULL or empty");
    } else {
        logDebug("Sign input hash : ", Hexadecimal{input});
    }
    if (const int result = signHash(state, session, input); result != 0) {
        return refuse(CKR_FUNCTION_FAILED, "Sign hash failed : ", result);
    }
    return CKR_OK;
}

/// Computes the signature of a multi-part operation into `resultBuffer`. Whatever happens, the input is used up.
CK_RV computeFinalSignature(const ModuleState& state, SessionRecord& session) {
    std::vector<unsigned char> input = std::exchange(session.dataBuffer, {});
    if (!activeMechanism(session).isRaw()) {
        void* const context = std::exchange(session.hashContext, nullptr);
        if (const int result = finalHash(context, digestCapacity, input, state.instance); result != 0) {
            return refuse(CKR_FUNCTION_FAILED, "C_SignFinal: finalHash failed ", result);
        }
    }
    if (input.size() > longestArgument) {
        return refuse(CKR_DATA_LEN_RANGE, "C_SignFinal: data too long for the device library, length=", input.size());
    }
    if (const int result = signHash(state, session, input); result != 0) {
        return refuse(CKR_FUNCTION_FAILED, "C_SignFinal: signHash failed ", result);
    }
    return CKR_OK;
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
        const SignatureMechanism* mechanism = findSignatureMechanism(pMechanism->mechanism);
        if (mechanism != nullptr && mechanism->signingRefusedOnFips && isFips140Token(session.tokenInfo)) {
            return refuse(CKR_MECHANISM_INVALID, "C_SignInit: mechanism not allowed on FIPS 140-3 token");
        }
        if (mechanism == nullptr) {
            return refuse(CKR_MECHANISM_INVALID, "C_SignInit: unsupported mechanism=", pMechanism->mechanism);
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
    return sessionEntryPoint("C_Sign", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (session.activeOperation != ActiveOperation::Sign) {
            return refuse(CKR_OPERATION_NOT_INITIALIZED,
                          "C_Sign: operation not initialized, activeOperation=", session.activeOperation);
        }
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
    return sessionEntryPoint("C_SignUpdate", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (session.activeOperation != ActiveOperation::Sign) {
            return refuse(CKR_OPERATION_NOT_INITIALIZED,
                          "C_SignUpdate: operation not initialized, activeOperation=", session.activeOperation);
        }
        if (pPart == nullptr || ulPartLen == 0) {
            return refuse(CKR_ARGUMENTS_BAD, "C_SignUpdate: pPart is NULL or ulPartLen<=0, ulPartLen=", ulPartLen);
        }
        const SignatureMechanism& mechanism = activeMechanism(session);
        if (mechanism.isRaw()) {
            return collectPart("C_SignUpdate", session, {pPart, ulPartLen});
        }
        OperationEnd end(session);
        const CK_RV updated =
            updateSessionHash(session, mechanism.hashCode, {pPart, ulPartLen}, state.instance,
                              {"C_SignUpdate: initHash failed ", "C_SignUpdate: updateHash failed ", ""});
        if (updated == CKR_OK) {
            end.keepOperation();
        }
        return updated;
    });
}

CK_RV C_SignFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen) {
    return sessionEntryPoint("C_SignFinal", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (session.activeOperation != ActiveOperation::Sign) {
            return refuse(CKR_OPERATION_NOT_INITIALIZED,
                          "C_SignFinal: operation not initialized, activeOperation=", session.activeOperation);
        }
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
