#include "objects/default_label.h"

#include "device/library.h"
#include "device/record_views.h"

namespace zentak {

std::optional<CertificateDetails> detailsOf(const ZentakCertificate& certificate) {
    return device::certificateDetails(derOf(certificate));
}

std::string defaultLabel(const CertificateDetails& details) {
    constexpr std::size_t longestLabel = 128;
    std::string label = details.subjectCommonName + "_" + details.issuer;
    if (label.size() > longestLabel) {
        label.resize(longestLabel);
    }
    return label;
}

std::string defaultLabel(const CertificateDetails* details) {
    return details != nullptr ? defaultLabel(*details) : std::string();
}

const CertificateDetails* ParsedCertificates::details(std::size_t index) {
    Slot& slot = parsed_[index];
    if (!slot.asked) {
        slot.details = detailsOf(records_[index]);
        slot.asked = true;
    }
    return slot.details.has_value() ? &*slot.details : nullptr;
}

const CertificateDetails* ParsedCertificates::detailsOfKey(ByteView publicKey) {
    for (std::size_t index = 0; index < records_.size(); ++index) {
        const CertificateDetails* found = details(index);
        if (found != nullptr && sameBytes(found->publicKey, publicKey)) {
            return found;
        }
    }
    return nullptr;
}

}  // namespace zentak
