#include "objects/search.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <string>

#include "device/library.h"
#include "device/record_views.h"
#include "log/diagnostic_log.h"
#include "objects/default_label.h"

namespace zentak {

namespace {

// Only the first criterion that is given decides, a label before all others. Without a label in the template the
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

TokenObjects listObjects(const device::Token& token, const SearchCriteria& criteria) {
    TokenObjects objects;
    const bool certificatesAsked = criteria.objectClass == anyClass || criteria.objectClass == CKO_CERTIFICATE;
    const std::span<const ZentakCertificate> certificates = token.certificates();
    // Keys are matched without certificates, unless by a label: that of a key may be made from its certificate.
    if (certificatesAsked || !criteria.label.empty()) {
        objects.certificates = candidates(criteria, certificates);
    }
    objects.oneListIsEmpty = certificates.empty();
    const std::span<const ZentakKeyPair> keyPairs = token.keyPairs();
    if (criteria.objectClass != CKO_CERTIFICATE) {
        objects.keyPairs = candidates(criteria, keyPairs);
    }
    objects.oneListIsEmpty |= keyPairs.empty();
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
        return sameBytes(criteria.subject, device::certificateSubject(der));
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

}  // namespace

TokenObjects listCandidates(const device::Token& token, const SearchCriteria& criteria) {
    TokenObjects objects = listObjects(token, criteria);
    if (objects.oneListIsEmpty) {
        const device::Result initialised = token.initialise();
        if (initialised) {
            return listObjects(token, criteria);
        }
        logError("Init device for certificates in find objects failed : ", initialised.number());
    }
    return objects;
}

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

}  // namespace zentak
