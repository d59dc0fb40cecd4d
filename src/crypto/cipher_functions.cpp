/// C_EncryptInit, C_Encrypt, C_DecryptInit and C_Decrypt. Either Init may come during a digest; the operation that it
/// then leaves can be neither carried out nor replaced, and applications are used to it.

#include "crypto/der.h"
#include "crypto/key_selection.h"
#include "crypto/two_call_output.h"
#include "device/codes.h"
#include "device/record_views.h"
#include "module/entry_frame.h"
#include "module/object_handles.h"

using namespace zentak;

namespace {

bool hasParameter(const CK_MECHANISM& mechanism) {
    return mechanism.pParameter != nullptr || mechanism.ulParameterLen != 0;
}

bool blocksInit(const SessionRecord& session) {
    return session.activeOperation != ActiveOperation::None && session.activeOperation != ActiveOperation::Digest;
}

/// Makes the key of an encryption the session's.
CK_RV selectEncryptionKey(ModuleState& state, SessionRecord& session, const CK_MECHANISM& mechanism,
                          CK_OBJECT_HANDLE hKey) {
    switch (mechanism.mechanism) {
        case CKM_RSA_PKCS:
            if (hasParameter(mechanism)) {
                return refuse(CKR_MECHANISM_PARAM_INVALID,
                              "C_EncryptInit: mechanism param invalid for mechanism=", mechanism.mechanism);
            }
            if (hKey < privateKeyBase) {
                return refuse(CKR_OBJECT_HANDLE_INVALID, "C_EncryptInit: invalid hKey=", hKey);
            }
            return selectKeyPair(state, session, keyPairIdentifier(hKey), "Invalid input handle in encrypt : ", hKey);
        case CKM_RSA_PKCS_OAEP:
            if (hKey < publicKeyBase) {
                return refuse(CKR_OBJECT_HANDLE_INVALID, "C_EncryptInit: invalid hKey=", hKey,
                              " for CKM_RSA_PKCS_OAEP");
            }
            return selectKeyPair(state, session, keyPairIdentifier(hKey),
                                 "C_EncryptInit: invalid input handle for OAEP encrypt : ", hKey);
        default:
            return refuse(CKR_MECHANISM_INVALID, "C_EncryptInit: unsupported mechanism=", mechanism.mechanism);
    }
}

/// The same for a decryption, with private-key handles only.
CK_RV selectDecryptionKey(ModuleState& state, SessionRecord& session, const CK_MECHANISM& mechanism,
                          CK_OBJECT_HANDLE hKey) {
    switch (mechanism.mechanism) {
        case CKM_RSA_PKCS:
            if (hasParameter(mechanism)) {
                return refuse(CKR_MECHANISM_PARAM_INVALID, "C_DecryptInit: mechanism param invalid for CKM_RSA_PKCS");
            }
            if (hKey < privateKeyBase) {
                return refuse(CKR_OBJECT_HANDLE_INVALID, "C_DecryptInit: invalid hKey=", hKey, " for CKM_RSA_PKCS");
            }
            return selectKeyPair(state, session, hKey - privateKeyBase, "Invalid input handle in decrypt : ", hKey);
        case CKM_RSA_PKCS_OAEP:
            if (hKey < privateKeyBase) {
                return refuse(CKR_OBJECT_HANDLE_INVALID, "C_DecryptInit: invalid hKey=", hKey,
                              " for CKM_RSA_PKCS_OAEP");
            }
            return selectKeyPair(state, session, hKey - privateKeyBase,
                                 "Invalid input handle in decrypt OAEP : ", hKey);
        default:
            return refuse(CKR_MECHANISM_INVALID, "C_DecryptInit: unsupported mechanism=", mechanism.mechanism);
    }
}

/// Encrypts into `resultBuffer`. The key is wrapped whatever it is: the stored bytes count as an RSA modulus.
CK_RV encrypt(const ModuleState& state, SessionRecord& session, ByteView data) {
    const std::vector<unsigned char> publicKey = rsaSubjectPublicKeyInfo(publicKeyOf(*session.keyPair));
    const PaddingMode padding = session.cipherMechanism == CKM_RSA_PKCS_OAEP ? PaddingMode::oaep : PaddingMode::pkcs1;
    const device::Result encrypted =
        tokenOf(state, session).encrypt(*session.keyPair, publicKey, padding, data, session.resultBuffer);
    if (encrypted.isInputTooLong()) {
        return refuse(CKR_DATA_LEN_RANGE, "C_Encrypt: data too long for the device library, ulDataLen=", data.size());
    }
    return encrypted ? CKR_OK : refuse(CKR_FUNCTION_FAILED, "Encrypt data failed : ", encrypted.number());
}

/// Decrypts into `resultBuffer`.
CK_RV decrypt(const ModuleState& state, SessionRecord& session, ByteView data) {
    const device::Result decrypted = tokenOf(state, session).decrypt(*session.keyPair, data, session.resultBuffer);
    if (decrypted.isInputTooLong()) {
        return refuse(CKR_DATA_LEN_RANGE,
                      "C_Decrypt: data too long for the device library, ulEncryptedDataLen=", data.size());
    }
    return decrypted ? CKR_OK : refuse(CKR_FUNCTION_FAILED, "Dacrypt data failed : ", decrypted.number());
}

}  // namespace

CK_RV C_EncryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
    return sessionEntryPoint("C_EncryptInit", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (blocksInit(session)) {
            return refuse(CKR_OPERATION_ACTIVE,
                          "C_EncryptInit: operation already active, activeOperation=", session.activeOperation);
        }
        if (pMechanism == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_EncryptInit: pMechanism is NULL");
        }
        const CK_RV selected = selectEncryptionKey(state, session, *pMechanism, hKey);
        if (selected != CKR_OK) {
            return selected;
        }
        const CK_RV permitted =
            requireKeyUsage(session, keyUsageEncrypt, "C_EncryptInit: key usage does not permit encrypt, keyUsage=");
        if (permitted != CKR_OK) {
            return permitted;
        }
        session.cipherMechanism = pMechanism->mechanism;
        session.activeOperation = session.activeOperation == ActiveOperation::None ? ActiveOperation::Encrypt
                                                                                   : ActiveOperation::DigestEncrypt;
        wipe(session.resultBuffer);
        return CKR_OK;
    });
}

CK_RV C_Encrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pEncryptedData,
                CK_ULONG_PTR pulEncryptedDataLen) {
    return operationEntryPoint(
        "C_Encrypt", hSession, ActiveOperation::Encrypt, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
            if (pData == nullptr || ulDataLen == 0) {
                return refuse(CKR_ARGUMENTS_BAD, "C_Encrypt: pData is NULL or ulDataLen<=0, ulDataLen=", ulDataLen);
            }
            if (pulEncryptedDataLen == nullptr) {
                return refuse(CKR_ARGUMENTS_BAD, "C_Encrypt: pulEncryptedDataLen is NULL");
            }
            CK_RV answer = CKR_OK;
            {
                OperationEnd end(session);
                if (session.resultBuffer.empty()) {
                    answer = encrypt(state, session, {pData, ulDataLen});
                }
                if (answer == CKR_OK) {
                    answer = deliverResult("C_Encrypt", session.resultBuffer, pEncryptedData, pulEncryptedDataLen, end);
                }
            }
            if (session.activeOperation == ActiveOperation::None) {
                session.cipherMechanism = 0;
            }
            return answer;
        });
}

CK_RV C_DecryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
    return sessionEntryPoint("C_DecryptInit", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (!session.permitsOperations()) {
            return refuse(CKR_SESSION_HANDLE_INVALID, "C_DecryptInit: invalid session state=", session.state);
        }
        if (blocksInit(session)) {
            return refuse(CKR_OPERATION_ACTIVE,
                          "C_DecryptInit: operation already active, activeOperation=", session.activeOperation);
        }
        if (pMechanism == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_DecryptInit: pMechanism is NULL");
        }
        const CK_RV selected = selectDecryptionKey(state, session, *pMechanism, hKey);
        if (selected != CKR_OK) {
            return selected;
        }
        const CK_RV permitted =
            requireKeyUsage(session, keyUsageEncrypt, "C_DecryptInit: key usage does not permit decrypt, keyUsage=");
        if (permitted != CKR_OK) {
            return permitted;
        }
        session.activeOperation = session.activeOperation == ActiveOperation::None ? ActiveOperation::Decrypt
                                                                                   : ActiveOperation::DigestDecrypt;
        wipe(session.resultBuffer);
        return CKR_OK;
    });
}

CK_RV C_Decrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedData, CK_ULONG ulEncryptedDataLen, CK_BYTE_PTR pData,
                CK_ULONG_PTR pulDataLen) {
    return operationEntryPoint(
        "C_Decrypt", hSession, ActiveOperation::Decrypt, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
            if (pEncryptedData == nullptr) {
                return refuse(CKR_ARGUMENTS_BAD, "C_Decrypt: pEncryptedData is NULL");
            }
            if (ulEncryptedDataLen == 0) {
                return refuse(CKR_ARGUMENTS_BAD,
                              "C_Decrypt: ulEncryptedDataLen<=0, ulEncryptedDataLen=", ulEncryptedDataLen);
            }
            if (pulDataLen == nullptr) {
                return refuse(CKR_ARGUMENTS_BAD, "C_Decrypt: pulDataLen is NULL");
            }
            OperationEnd end(session);
            // An empty plaintext is no waiting result: it is computed again.
            if (session.resultBuffer.empty()) {
                const CK_RV decrypted = decrypt(state, session, {pEncryptedData, ulEncryptedDataLen});
                if (decrypted != CKR_OK) {
                    return decrypted;
                }
            }
            return deliverResult("C_Decrypt", session.resultBuffer, pData, pulDataLen, end);
        });
}
