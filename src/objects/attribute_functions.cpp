/// C_GetAttributeValue and C_GetObjectSize.

#include <cstring>

#include "device/record_views.h"
#include "module/entry_frame.h"
#include "module/lookup.h"
#include "module/object_handles.h"
#include "objects/attribute_values.h"
#include "objects/default_label.h"

using namespace zentak;

namespace {

/// Gives a certificate without a label the default one, for this call only.
void completeLabel(ReadableObject& object, const ZentakCertificate& certificate) {
    if (!object.label.empty() || object.value.empty()) {
        return;
    }
    if (const std::optional<CertificateDetails> details = detailsOf(certificate)) {
        object.label = defaultLabel(*details);
        logDebug("Empty certificate label, computed: ", std::string_view(object.label));
    }
}

/// Gives a key pair without a label that of its certificate and, while a user is logged in, stores it on the token, so
/// that it is found under it from then on.
void completeLabel(ReadableObject& object, const ModuleState& state, const SessionRecord& session,
                   const ZentakKeyPair& keyPair) {
    if (!object.label.empty()) {
        return;
    }
    // A copy: the library's own list is good until the library is called again.
    const device::Token token = tokenOf(state, session);
    const std::vector<ZentakCertificate> list = token.certificates();
    ParsedCertificates certificates(list);
    const CertificateDetails* details = certificates.detailsOfKey(object.value);
    if (details == nullptr) {
        return;
    }
    object.label = defaultLabel(*details);
    logDebug("Empty key pair label, computed: ", std::string_view(object.label));
    if (!state.cachedUserPassword.empty()) {
        // Reading goes on whether or not the token takes the label.
        withoutExceptions("C_GetAttributeValue: zentak_updateKeyPairDetails", [&]() -> CK_RV {
            static_cast<void>(token.updateKeyPair(keyPair, object.label, {}));
            return CKR_OK;
        });
    }
}

CK_RV readTemplate(const ReadableObject& object, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
    std::vector<unsigned char> storage;
    for (CK_ULONG index = 0; index < ulCount; ++index) {
        CK_ATTRIBUTE& entry = pTemplate[index];
        logDebug("C_GetAttributeValue type : ", entry.type);
        const std::optional<ByteView> value = attributeValue(object, entry.type, storage);
        if (!value.has_value()) {
            entry.ulValueLen = CK_UNAVAILABLE_INFORMATION;
            continue;
        }
        const auto length = static_cast<CK_ULONG>(value->size());
        if (length > 0 && entry.pValue != nullptr) {
            if (entry.ulValueLen < length) {
                return refuse(CKR_BUFFER_TOO_SMALL, "C_GetAttributeValue: buffer too small at index=", index,
                              " type=", entry.type, " provided=", entry.ulValueLen, " required=", length);
            }
            std::memcpy(entry.pValue, value->data(), length);
        }
        entry.ulValueLen = length;
        logDebug("C_GetAttributeValue length : ", length);
    }
    return CKR_OK;
}

/// A derived secret has its value and nothing else.
CK_RV readDerivedSecret(const ModuleState& state, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                        CK_ULONG ulCount) {
    const auto found = state.derivedSecrets.find(hObject);
    if (found == state.derivedSecrets.end()) {
        return refuse(CKR_OBJECT_HANDLE_INVALID, "C_GetAttributeValue: derived key handle not found=", hObject);
    }
    const std::vector<unsigned char>& secret = found->second;
    for (CK_ULONG index = 0; index < ulCount; ++index) {
        CK_ATTRIBUTE& entry = pTemplate[index];
        if (entry.type != CKA_VALUE) {
            entry.ulValueLen = CK_UNAVAILABLE_INFORMATION;
            continue;
        }
        if (entry.pValue != nullptr) {
            if (entry.ulValueLen < secret.size()) {
                return CKR_BUFFER_TOO_SMALL;
            }
            std::memcpy(entry.pValue, secret.data(), secret.size());
        }
        entry.ulValueLen = static_cast<CK_ULONG>(secret.size());
    }
    return CKR_OK;
}

CK_RV readCertificate(ModuleState& state, const SessionRecord& session, CK_OBJECT_HANDLE hObject,
                      CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
    const ZentakCertificate* certificate = findCertificate(state, session, hObject - certificateBase);
    if (certificate == nullptr) {
        return refuse(CKR_OBJECT_HANDLE_INVALID, "Certificate not found in get attribute : ", hObject);
    }
    ReadableObject object = readableCertificate(hObject, *certificate);
    completeLabel(object, *certificate);
    return readTemplate(object, pTemplate, ulCount);
}

CK_RV readKey(ModuleState& state, const SessionRecord& session, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
              CK_ULONG ulCount) {
    const bool isPrivate = isPrivateKeyHandle(hObject);
    const ZentakKeyPair* keyPair = findKeyPair(state, session, hObject - (isPrivate ? privateKeyBase : publicKeyBase));
    if (keyPair == nullptr) {
        return refuse(CKR_OBJECT_HANDLE_INVALID, "Key pair not found in get attribute : ", hObject);
    }
    ReadableObject object = readableKey(hObject, isPrivate ? CKO_PRIVATE_KEY : CKO_PUBLIC_KEY, *keyPair);
    completeLabel(object, state, session, *keyPair);
    return readTemplate(object, pTemplate, ulCount);
}

}  // namespace

CK_RV C_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                          CK_ULONG ulCount) {
    return sessionEntryPoint("C_GetAttributeValue", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (pTemplate == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GetAttributeValue template is null");
        }
        logDebug("C_GetAttributeValue count : ", ulCount);
        if (ulCount == 0) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GetAttributeValue: ulCount<=0");
        }
        if (hObject >= derivedSecretBase) {
            return readDerivedSecret(state, hObject, pTemplate, ulCount);
        }
        // The first number of the certificates' range is never a certificate here.
        if (hObject > certificateBase) {
            return readCertificate(state, session, hObject, pTemplate, ulCount);
        }
        if (isPrivateKeyHandle(hObject) || isPublicKeyHandle(hObject)) {
            return readKey(state, session, hObject, pTemplate, ulCount);
        }
        return refuse(CKR_OBJECT_HANDLE_INVALID, "Input hobject not valid in get attribute : ", hObject);
    });
}

CK_RV C_GetObjectSize(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ULONG_PTR pulSize) {
    return sessionEntryPoint("C_GetObjectSize", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (pulSize == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GetObjectSize: pulSize is NULL");
        }
        if (isPrivateKeyHandle(hObject)) {
            const ZentakKeyPair* keyPair = findKeyPair(state, session, hObject - privateKeyBase);
            if (keyPair == nullptr) {
                return refuse(CKR_OBJECT_HANDLE_INVALID, "Private key not found in get object size : ", hObject);
            }
            *pulSize = static_cast<CK_ULONG>(2 * publicKeyOf(*keyPair).size());
            return CKR_OK;
        }
        if (isPublicKeyHandle(hObject)) {
            const ZentakKeyPair* keyPair = findKeyPair(state, session, hObject - publicKeyBase);
            if (keyPair == nullptr) {
                return refuse(CKR_OBJECT_HANDLE_INVALID, "Public key not found in get object size : ", hObject);
            }
            *pulSize = static_cast<CK_ULONG>(publicKeyOf(*keyPair).size());
            return CKR_OK;
        }
        // Everything else counts as a certificate, by 32-bit arithmetic also where handles are wider.
        const auto id = static_cast<std::uint32_t>(hObject - certificateBase);
        const ZentakCertificate* certificate = findCertificate(state, session, id);
        if (certificate == nullptr) {
            return refuse(CKR_OBJECT_HANDLE_INVALID, "Certificate not found in get object size : ", hObject);
        }
        *pulSize = static_cast<CK_ULONG>(derOf(*certificate).size());
        return CKR_OK;
    });
}
