/// C_SetAttributeValue and C_DestroyObject. Only key pairs can be changed or deleted.

#include <string>

#include "module/entry_frame.h"
#include "module/lookup.h"
#include "module/object_handles.h"
#include "module/template_reader.h"

using namespace zentak;

CK_RV C_SetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                          CK_ULONG ulCount) {
    return sessionEntryPoint("C_SetAttributeValue", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (pTemplate == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_SetAttributeValue: pTemplate is NULL");
        }
        if (ulCount == 0) {
            return refuse(CKR_ARGUMENTS_BAD, "C_SetAttributeValue: ulCount<=0");
        }
        if (!isPrivateKeyHandle(hObject) && !isPublicKeyHandle(hObject)) {
            return refuse(CKR_OBJECT_HANDLE_INVALID, "C_SetAttributeValue: invalid hObject=", hObject);
        }
        const ZentakKeyPair* keyPair = findKeyPair(state, session, keyPairIdentifier(hObject));
        if (keyPair == nullptr) {
            return refuse(CKR_OBJECT_HANDLE_INVALID, "Key pair not found in Set attribute : ", hObject);
        }

        ByteView label;
        ByteView id;
        forEachValue(pTemplate, ulCount, [&](CK_ATTRIBUTE_TYPE type, ByteView value) {
            logDebug("C_SetAttributeValue - attrip type : ", type);
            if (type == CKA_LABEL) {
                label = value;
            } else if (type == CKA_ID) {
                id = value;
            }
        });
        if (const CK_RV readable = requireReadable("C_SetAttributeValue", {{"CKA_LABEL", label}, {"CKA_ID", id}});
            readable != CKR_OK) {
            return readable;
        }
        if (!label.empty() || !id.empty()) {
            const device::Result updated =
                tokenOf(state, session).updateKeyPair(*keyPair, std::string(textIn(label)), id);
            if (!updated) {
                return refuse(CKR_FUNCTION_FAILED, "Update key pair details failed : ", updated.number());
            }
        }
        logDebug("Set attribute end");
        return CKR_OK;
    });
}

CK_RV C_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject) {
    // Not a sessionEntryPoint: an unknown session is told in other words here, at DEBUG.
    return entryPoint("C_DestroyObject", [&](ModuleState& state) -> CK_RV {
        const auto found = state.sessionTable.find(hSession);
        if (found == state.sessionTable.end()) {
            logDebug("Delete session state invalid");
            return CKR_SESSION_HANDLE_INVALID;
        }
        const SessionRecord& session = found->second;
        if (!session.isReadWrite()) {
            logDebug("Delete session state invalid : ", session.state);
            return CKR_SESSION_READ_ONLY;
        }
        logDebug("Delete key pair id : ", hObject);
        if (hObject < privateKeyBase) {
            return refuse(CKR_OBJECT_HANDLE_INVALID, "C_DestroyObject: invalid hObject=", hObject);
        }
        // Applications clean up public keys and certificates as a matter of course; there is nothing to do for them.
        if (!isPrivateKeyHandle(hObject)) {
            return CKR_OK;
        }
        const ZentakKeyPair* keyPair = findKeyPair(state, session, hObject - privateKeyBase);
        if (keyPair == nullptr) {
            logDebug("Input keypair not found in destroy : ", hObject);
            return CKR_OK;
        }
        if (const device::Result deleted = tokenOf(state, session).deleteKeyPair(*keyPair); !deleted) {
            return refuse(CKR_FUNCTION_FAILED, "Delete keypair in destroy object failed : ", deleted.number());
        }
        return CKR_OK;
    });
}
