/// The certificate authorities that issued a certificate, from files in a folder.

#ifndef ZENTAK_OBJECTS_ISSUER_CHAIN_H
#define ZENTAK_OBJECTS_ISSUER_CHAIN_H

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/byte_view.h"
#include "device/library.h"

namespace zentak {

/// The common name in the text of a distinguished name: what is between the first "CN=" with something behind it
/// and the next comma or line end; the whole text if there is none.
std::string_view commonNameIn(std::string_view distinguishedName);

/// The longest label that is given to a certificate, in bytes.
inline constexpr std::size_t longestCertificateLabel = 128;

/// A record of a certificate that fits into one.
ZentakCertificate certificateRecord(ByteView der, std::string_view label);

/// The authorities of one folder by common name.
class IssuerTable {
public:
    /// Files that can't be read or stored as a certificate are passed over.
    explicit IssuerTable(const std::vector<device::CertificateFile>& files);

    /// `leaf` with its issuers, root first and leaf last; empty when one of them isn't in the table or they go round in
    /// a circle. `issuer` is the leaf's issuer as a distinguished name; without one the chain is only the leaf.
    std::vector<ZentakCertificate> chainOf(const ZentakCertificate& leaf, std::string_view issuer) const;

private:
    /// Of two files with one name the first gives the certificate and the last gives the details: that is how chains
    /// have been followed in the field.
    std::map<std::string, ZentakCertificate, std::less<>> certificates_;
    std::map<std::string, CertificateDetails, std::less<>> details_;
};

}  // namespace zentak

#endif
