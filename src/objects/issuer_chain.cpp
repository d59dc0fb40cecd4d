#include "objects/issuer_chain.h"

#include <algorithm>
#include <set>

#include "device/record_views.h"
#include "log/diagnostic_log.h"

namespace zentak {

std::string_view commonNameIn(std::string_view distinguishedName) {
    // A search by hand: the standard's regular expressions recurse for each character of other people's certificates.
    constexpr std::string_view key = "CN=";
    for (std::size_t position = distinguishedName.find(key); position != std::string_view::npos;
         position = distinguishedName.find(key, position + 1)) {
        const std::string_view rest = distinguishedName.substr(position + key.size());
        const std::string_view name = rest.substr(0, rest.find_first_of(",\n\r"));
        if (!name.empty()) {
            return name;
        }
    }
    return distinguishedName;
}

ZentakCertificate certificateRecord(ByteView der, std::string_view label) {
    ZentakCertificate record = {};
    record.derLength = replaceField(record.der, textIn(der), sizeof(record.der));
    replaceField(record.label, label, longestCertificateLabel);
    return record;
}

IssuerTable::IssuerTable(const std::vector<device::CertificateFile>& files) {
    for (const auto& [fileName, der] : files) {
        if (der.empty() || der.size() > sizeof(ZentakCertificate::der)) {
            continue;
        }
        std::optional<CertificateDetails> details = device::certificateDetails(der);
        if (!details.has_value()) {
            continue;
        }
        const std::string name(commonNameIn(details->subject));
        certificates_.try_emplace(name, certificateRecord(der, name));
        details_.insert_or_assign(name, *std::move(details));
    }
}

std::vector<ZentakCertificate> IssuerTable::chainOf(const ZentakCertificate& leaf, std::string_view issuer) const {
    std::vector<ZentakCertificate> chain = {leaf};
    std::set<std::string_view> visited;
    for (std::string_view wanted = commonNameIn(issuer); !wanted.empty();) {
        const auto found = certificates_.find(wanted);
        if (found == certificates_.end() || !visited.insert(wanted).second) {
            logDebug("Issuer '", wanted, "' NOT found \u2014 skipping chain import");
            return {};
        }
        chain.push_back(found->second);
        const CertificateDetails& details = details_.find(wanted)->second;
        const std::string_view issuerName = commonNameIn(details.issuer);
        if (issuerName == commonNameIn(details.subject)) {
            break;
        }
        wanted = issuerName;
    }
    std::reverse(chain.begin(), chain.end());
    return chain;
}

}  // namespace zentak
