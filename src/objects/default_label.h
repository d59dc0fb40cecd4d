/// Labels for objects whose stored label is empty: made from the certificate concerned.

#ifndef ZENTAK_OBJECTS_DEFAULT_LABEL_H
#define ZENTAK_OBJECTS_DEFAULT_LABEL_H

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/byte_view.h"
#include "device/zentak_dsc_library.h"

namespace zentak {

/// What the device library reads from a certificate, nothing when it can't.
std::optional<CertificateDetails> detailsOf(const ZentakCertificate& certificate);

/// The subject's common name and the issuer, joined by "_", at most 128 bytes.
std::string defaultLabel(const CertificateDetails& details);

/// The same, or an empty label without details.
std::string defaultLabel(const CertificateDetails* details);

/// The certificates of one token, each parsed at most once and only when it is asked for.
class ParsedCertificates {
public:
    /// `certificates` stay where they are for as long as this lives.
    explicit ParsedCertificates(std::span<const ZentakCertificate> certificates)
        : records_(certificates), parsed_(certificates.size()) {}

    std::span<const ZentakCertificate> records() const { return records_; }

    /// Details of the certificate at `index`, null when the device library can't read it.
    const CertificateDetails* details(std::size_t index);

    /// Details of the first certificate with this public key, null without one.
    const CertificateDetails* detailsOfKey(ByteView publicKey);

private:
    struct Slot {
        bool asked = false;
        std::optional<CertificateDetails> details;
    };

    std::span<const ZentakCertificate> records_;
    std::vector<Slot> parsed_;
};

}  // namespace zentak

#endif
