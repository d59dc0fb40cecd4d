/// C_FindObjectsInit, C_FindObjects and C_FindObjectsFinal. The search itself happens in the first; the others hand out
/// what it found.

#include <algorithm>
#include <cstring>
#include <span>

#include "module/entry_frame.h"
#include "module/object_handles.h"
#include "objects/default_label.h"

using namespace zentak;

namespace {

constexpr CK_OBJECT_CLASS anyClass = 0x80000000;

/// What a template asks for. The views point into the caller's template; an empty one means that it isn't asked.
struct SearchCriteria {
    CK_OBJECT_CLASS objectClass = anyClass;
    std::string_view label;
    ByteView value;
    ByteView subject;
    ByteView id;
    ByteView modulus;
};

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
                // Terminated text: hosts give lengths with and without the terminator, so the length is not used.
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

// The first criterion that is given decides alone, a label before all others. Without a label in the template the
// record itself tells whether it matches, but for a certificate's subject.

bool matchesRecord(const SearchCriteria& criteria, const ZentakKeyPair& keyPair) {
    const ByteView publicKey = publicKeyOf(keyPair);
    if (!criteria.value.empty()) {
        return sameBytes(criteria.value, publicKey);
    }
    if (!criteria.id.empty()) {
        return sameBytes(criteria.id, objectIdOf(keyPair));
    }
    return criteria.modulus.empty() || sameBytes(criteria.modulus, publicKey);
}

bool matchesRecord(const SearchCriteria& criteria, const ZentakCertificate& certificate) {
    if (!criteria.value.empty()) {
        return sameBytes(criteria.value, derOf(certificate));
    }
    return criteria.id.empty() || sameBytes(criteria.id, objectIdOf(certificate));
}

bool matchesKeyPair(const SearchCriteria& criteria, const ZentakKeyPair& keyPair, ParsedCertificates& certificates) {
    if (criteria.label.empty()) {
        return matchesRecord(criteria, keyPair);
    }
    std::string label(storedLabel(keyPair));
    if (label.empty()) {
        label = defaultLabel(certificates.detailsOfKey(publicKeyOf(keyPair)));
    }
    return criteria.label == label;
}

/// A copy of the records that may match. A label isn't looked at yet: the library has to be asked for some.
template <typename Record>
std::vector<Record> candidates(const SearchCriteria& criteria, std::span<const Record> records) {
    if (criteria.objectClass == anyClass || !criteria.label.empty()) {
        return {records.begin(), records.end()};
    }
    std::vector<Record> matches;
    matches.reserve(records.size());
    std::copy_if(records.begin(), records.end(), std::back_inserter(matches),
                 [&](const Record& record) { return matchesRecord(criteria, record); });
    return matches;
}

/// What a search needs of both lists of a token. A list of the library's is good until the library is called again,
/// perhaps by the monitor's thread a moment later: what is needed of it is copied before anything else happens.
struct TokenObjects {
    bool oneListIsEmpty = false;
    std::vector<ZentakCertificate> certificates;
    std::vector<ZentakKeyPair> keyPairs;
};

TokenObjects listObjects(const ModuleState& state, const SessionRecord& session, const SearchCriteria& criteria) {
    TokenObjects objects;
    const bool certificatesAsked = criteria.objectClass == anyClass || criteria.objectClass == CKO_CERTIFICATE;
    const std::span<const ZentakCertificate> certificates =
        zentak_getCertificateList(session.deviceId(), state.instance);
    // Keys are matched without certificates, unless by a label: that of a key may be made from its certificate.
    if (certificatesAsked || !criteria.label.empty()) {
        objects.certificates = candidates(criteria, certificates);
    }
    objects.oneListIsEmpty = certificates.empty();
    const std::span<const ZentakKeyPair> keyPairs = zentak_getKeyPairList(session.deviceId(), state.instance);
    if (criteria.objectClass != CKO_CERTIFICATE) {
        objects.keyPairs = candidates(criteria, keyPairs);
    }
    objects.oneListIsEmpty |= keyPairs.empty();
    return objects;
}

/// Lists the token; where a list is empty the device is started anew and asked once more.
TokenObjects listInitialisedToken(const ModuleState& state, const SessionRecord& session,
                                  const SearchCriteria& criteria) {
    TokenObjects objects = listObjects(state, session, criteria);
    if (objects.oneListIsEmpty) {
        const int result = zentak_initDevice(session.deviceId(), true, state.instance);
        if (result == 0) {
            return listObjects(state, session, criteria);
        }
        logError("Init device for certificates in find objects failed : ", result);
    }
    return objects;
}

bool matchesCertificate(const SearchCriteria& criteria, ParsedCertificates& certificates, std::size_t index) {
    const ZentakCertificate& certificate = certificates.records()[index];
    const ByteView der = derOf(certificate);
    if (!criteria.label.empty()) {
        std::string label(storedLabel(certificate));
        if (label.empty() && !der.empty()) {
            label = defaultLabel(certificates.details(index));
        }
        return criteria.label == label;
    }
    const bool subjectDecides = criteria.value.empty() && criteria.id.empty() && !criteria.subject.empty();
    if (subjectDecides) {
        return sameBytes(criteria.subject,
                         zentak_getCertificateSubject(der.data(), static_cast<int>(der.size()), nullptr));
    }
    return matchesRecord(criteria, certificate);
}

std::vector<ZentakCertificate> matchingCertificates(const SearchCriteria& criteria, ParsedCertificates& certificates) {
    std::vector<ZentakCertificate> matches;
    for (std::size_t index = 0; index < certificates.records().size(); ++index) {
        if (matchesCertificate(criteria, certificates, index)) {
            matches.push_back(certificates.records()[index]);
        }
    }
    return matches;
}

std::vector<ZentakKeyPair> matchingKeyPairs(const SearchCriteria& criteria, std::span<const ZentakKeyPair> keyPairs,
                                            ParsedCertificates& certificates) {
    std::vector<ZentakKeyPair> matches;
    std::copy_if(keyPairs.begin(), keyPairs.end(), std::back_inserter(matches),
                 [&](const ZentakKeyPair& keyPair) { return matchesKeyPair(criteria, keyPair, certificates); });
    return matches;
}

/// Fills the session's found records and flags.
void findMatches(const SearchCriteria& criteria, TokenObjects& objects, SessionRecord& session) {
    if (criteria.objectClass == anyClass) {
        // Without a class everything is found, whatever else the template holds.
        session.foundKeyPairs = std::move(objects.keyPairs);
        session.foundCertificates = std::move(objects.certificates);
        session.findPublicKeys = true;
        session.findPrivateKeys = session.isUserSession();
        return;
    }
    ParsedCertificates certificates(objects.certificates);
    if (criteria.objectClass == CKO_CERTIFICATE) {
        session.foundCertificates = matchingCertificates(criteria, certificates);
    } else if (criteria.objectClass == CKO_PUBLIC_KEY || criteria.objectClass == CKO_PRIVATE_KEY) {
        session.foundKeyPairs = matchingKeyPairs(criteria, objects.keyPairs, certificates);
        const bool found = !session.foundKeyPairs.empty();
        session.findPublicKeys = found && criteria.objectClass == CKO_PUBLIC_KEY;
        session.findPrivateKeys = found && criteria.objectClass == CKO_PRIVATE_KEY && session.isUserSession();
    }
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
        TokenObjects objects = listInitialisedToken(state, session, criteria);
        // An identifier of an impossible length is compared with nothing and isn't shown either: see requireReadable.
        if (!criteria.id.empty() && criteria.id.size() <= longestArgument) {
            logDebug("Find init id : ", Hexadecimal{criteria.id});
        }
        findMatches(criteria, objects, session);
        session.activeOperation = ActiveOperation::Find;
        return CKR_OK;
    });
}

CK_RV C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject, CK_ULONG ulMaxObjectCount,
                    CK_ULONG_PTR pulObjectCount) {
    return sessionEntryPoint("C_FindObjects", hSession, [&](ModuleState&, SessionRecord& session) -> CK_RV {
        if (session.activeOperation != ActiveOperation::Find) {
            return refuse(CKR_OPERATION_NOT_INITIALIZED,
                          "C_FindObjects: operation not initialized, activeOperation=", session.activeOperation);
        }
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
    return sessionEntryPoint("C_FindObjectsFinal", hSession, [&](ModuleState&, SessionRecord& session) -> CK_RV {
        if (session.activeOperation != ActiveOperation::Find) {
            return refuse(CKR_OPERATION_NOT_INITIALIZED,
                          "C_FindObjectsFinal: operation not initialized, activeOperation=", session.activeOperation);
        }
        session.activeOperation = ActiveOperation::None;
        session.findCursor = 0;
        return CKR_OK;
    });
}
