/// C_FindObjectsInit, C_FindObjects and C_FindObjectsFinal. The search itself happens in the first; the others hand out
/// what it found.

#include <algorithm>
#include <cstring>
#include <vector>

#include "module/byte_trace.h"
#include "module/entry_frame.h"
#include "module/object_handles.h"
#include "objects/search.h"

using namespace zentak;

namespace {

CK_RV parseTemplate(CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount, SearchCriteria& criteria) {
    for (CK_ULONG index = 0; index < ulCount; ++index) {
        const CK_ATTRIBUTE attribute = pTemplate[index];
        if (attribute.pValue == nullptr) {
            return refuse(CKR_ATTRIBUTE_VALUE_INVALID, "C_FindObjectsInit: pValue is NULL at attribute index=", index,
                          " type=", attribute.type);
        }
        if (attribute.ulValueLen == 0) {
            return refuse(CKR_ATTRIBUTE_VALUE_INVALID, "C_FindObjectsInit: ulValueLen<=0 at attribute index=", index,
                          " type=", attribute.type);
        }
        logDebug("Find object init type : ", attribute.type);
        const ByteView bytes(static_cast<const unsigned char*>(attribute.pValue), attribute.ulValueLen);
        switch (attribute.type) {
            case CKA_CLASS:
                if (bytes.size() != sizeof(CK_OBJECT_CLASS)) {
                    return refuse(CKR_ATTRIBUTE_VALUE_INVALID,
                                  "C_FindObjectsInit: wrong size for CKA_CLASS at index=", index,
                                  " ulValueLen=", attribute.ulValueLen);
                }
                std::memcpy(&criteria.objectClass, bytes.data(), sizeof(CK_OBJECT_CLASS));
                logDebug("Find object class : ", criteria.objectClass);
                break;
            case CKA_LABEL:
                // Terminated text: applications give lengths with and without the terminator, so the length is not
                // used.
                criteria.label = static_cast<const char*>(attribute.pValue);
                break;
            case CKA_VALUE:
                criteria.value = bytes;
                break;
            case CKA_SUBJECT:
                criteria.subject = bytes;
                break;
            case CKA_ID:
                criteria.id = bytes;
                break;
            case CKA_MODULUS:
                logDebug("Modulus provided length : ", attribute.ulValueLen);
                criteria.modulus = bytes;
                break;
            default:
                break;
        }
    }
    return CKR_OK;
}

void clearSearch(SessionRecord& session) {
    session.foundCertificates.clear();
    session.foundKeyPairs.clear();
    session.findPublicKeys = false;
    session.findPrivateKeys = false;
    session.findCursor = 0;
}

/// The handles of all results in their fixed order: public keys, private keys, certificates.
std::vector<CK_OBJECT_HANDLE> resultHandles(const SessionRecord& session) {
    std::vector<CK_OBJECT_HANDLE> handles;
    const auto append = [&](CK_OBJECT_HANDLE base, const auto& records) {
        for (const auto& record : records) {
            handles.push_back(base + record.id);
        }
    };
    if (session.findPublicKeys) {
        append(publicKeyBase, session.foundKeyPairs);
    }
    if (session.findPrivateKeys) {
        append(privateKeyBase, session.foundKeyPairs);
    }
    append(certificateBase, session.foundCertificates);
    return handles;
}

}  // namespace

CK_RV C_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
    return sessionEntryPoint("C_FindObjectsInit", hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (pTemplate == nullptr && ulCount != 0) {
            return refuse(CKR_ARGUMENTS_BAD, "C_FindObjectsInit: pTemplate is NULL with ulCount=", ulCount);
        }
        // An active operation is no obstacle: a search is restarted, anything else abandoned with its buffers as they
        // are.
        clearSearch(session);
        logDebug("Find object init count : ", ulCount);
        SearchCriteria criteria;
        const CK_RV parsed = parseTemplate(pTemplate, ulCount, criteria);
        if (parsed != CKR_OK) {
            return parsed;
        }
        TokenObjects objects = listCandidates(tokenOf(state, session), criteria);
        if (!criteria.id.empty()) {
            traceBytes("Find init id : ", criteria.id);
        }
        findMatches(criteria, objects, session);
        session.activeOperation = ActiveOperation::Find;
        return CKR_OK;
    });
}

CK_RV C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject, CK_ULONG ulMaxObjectCount,
                    CK_ULONG_PTR pulObjectCount) {
    return operationEntryPoint(
        "C_FindObjects", hSession, ActiveOperation::Find, [&](ModuleState&, SessionRecord& session) -> CK_RV {
            if (phObject == nullptr && ulMaxObjectCount != 0) {
                return refuse(CKR_ARGUMENTS_BAD,
                              "C_FindObjects: phObject is NULL with ulMaxObjectCount=", ulMaxObjectCount);
            }
            if (pulObjectCount == nullptr) {
                return refuse(CKR_ARGUMENTS_BAD, "C_FindObjects: pulObjectCount is NULL");
            }
            *pulObjectCount = 0;
            const std::vector<CK_OBJECT_HANDLE> handles = resultHandles(session);
            logDebug("C_FindObjects find object count : ", handles.size());
            if (handles.empty()) {
                logDebug("C_FindObjects find object count 0");
                return CKR_OK;
            }
            if (ulMaxObjectCount == 0) {
                logDebug("C_FindObjects find object max count is 0 : ", ulMaxObjectCount);
                return CKR_OK;
            }
            const std::size_t left = handles.size() - std::min<std::size_t>(session.findCursor, handles.size());
            const std::size_t count = std::min<std::size_t>(left, ulMaxObjectCount);
            std::copy_n(handles.end() - static_cast<std::ptrdiff_t>(left), count, phObject);
            *pulObjectCount = static_cast<CK_ULONG>(count);
            session.findCursor += static_cast<std::uint32_t>(count);
            for (std::size_t index = 0; index < count; ++index) {
                logDebug("Find object return : ", phObject[index]);
            }
            logDebug("C_FindObjects find object count return : ", count);
            return CKR_OK;
        });
}

CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE hSession) {
    return operationEntryPoint("C_FindObjectsFinal", hSession, ActiveOperation::Find,
                               [&](ModuleState&, SessionRecord& session) -> CK_RV {
                                   session.activeOperation = ActiveOperation::None;
                                   session.findCursor = 0;
                                   return CKR_OK;
                               });
}
