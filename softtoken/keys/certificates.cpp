#include "keys/certificates.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <string>
#include <unordered_map>

#include "base/mutex.h"
#include "base/no_destructor.h"
#include "keys/keys.h"
#include "platform/errors.h"

namespace softtoken {

namespace {

/// Runs one of OpenSSL's i2d functions.
template <typename Object>
Bytes encode(int (*encoder)(const Object*, unsigned char**), const Object* object) {
    const int length = encoder(object, nullptr);
    requireCrypto(length > 0, "encoding a part of a certificate");
    Bytes der(static_cast<std::size_t>(length));
    unsigned char* position = der.data();
    encoder(object, &position);
    return der;
}

std::string contentOf(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return {data, static_cast<std::size_t>(length > 0 ? length : 0)};
}

/// Written like "CN=Name,O=Org,C=XX": the last part of the name first, in UTF-8.
std::string distinguishedName(const X509_NAME* name) {
    const Bio bio(BIO_new(BIO_s_mem()));
    constexpr unsigned long flags = XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
    requireCrypto(bio && X509_NAME_print_ex(bio.get(), name, 0, flags) >= 0, "writing a name");
    return contentOf(bio.get());
}

/// The last common name, which is the most specific one.
std::string commonName(const X509_NAME* name) {
    int last = -1;
    for (int next = X509_NAME_get_index_by_NID(name, NID_commonName, -1); next >= 0;
         next = X509_NAME_get_index_by_NID(name, NID_commonName, next)) {
        last = next;
    }
    std::string text;
    if (last >= 0) {
        unsigned char* utf8 = nullptr;
        const int length = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, last)));
        if (length > 0) {
            text.assign(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
        }
        OPENSSL_free(utf8);
    }
    // A zero byte would make the text end early for everybody who takes it as terminated.
    if (text.empty() || text.find('\0') != std::string::npos) {
        return distinguishedName(name);
    }
    return text;
}

std::string timeText(const ASN1_TIME* time) {
    tm parts{};
    if (ASN1_TIME_to_tm(time, &parts) != 1) {
        return {};
    }
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return {text, length};
}

std::string serialNumberHex(const X509* certificate) {
    const ASN1_INTEGER* serial = X509_get0_serialNumber(certificate);
    return hexText({ASN1_STRING_get0_data(serial), static_cast<std::size_t>(ASN1_STRING_length(serial))});
}

CertificateFacts readFacts(const X509* certificate) {
    const X509_NAME* const subject = X509_get_subject_name(certificate);
    const X509_NAME* const issuer = X509_get_issuer_name(certificate);
    CertificateFacts facts;
    facts.subject = encode(&i2d_X509_NAME, subject);
    facts.issuer = encode(&i2d_X509_NAME, issuer);
    facts.serialNumber = encode(&i2d_ASN1_INTEGER, X509_get0_serialNumber(certificate));
    CertificateDetails& details = facts.details;
    details.text1 = serialNumberHex(certificate);
    details.subjectCommonName = commonName(subject);
    details.issuer = distinguishedName(issuer);
    details.text4 = timeText(X509_get0_notBefore(certificate));
    details.text5 = timeText(X509_get0_notAfter(certificate));
    details.text6 = commonName(issuer);
    details.subject = distinguishedName(subject);
    if (const EVP_PKEY* key = X509_get0_pubkey(certificate)) {
        details.publicKey = publicKeyBytes(key);
    }
    return facts;
}

constexpr std::size_t mostRememberedFacts = 512;

struct RememberedFacts {
    zentak::Mutex mutex;
    std::unordered_map<std::string, std::shared_ptr<const CertificateFacts>> byCertificate;
};

}  // namespace

Certificate parseCertificate(ByteView der) {
    const unsigned char* position = der.data();
    X509* parsed = X509_new_ex(cryptoContext(), nullptr);
    requireCrypto(parsed != nullptr, "memory for a certificate");
    // d2i releases the object itself when it fails.
    if (d2i_X509(&parsed, &position, static_cast<long>(der.size())) == nullptr) {
        throw Failure(Error::certificateInvalid, "not a certificate");
    }
    Certificate certificate(parsed);
    if (position != der.data() + der.size()) {
        throw Failure(Error::certificateInvalid, "there are bytes after the certificate");
    }
    return certificate;
}

std::shared_ptr<const CertificateFacts> certificateFacts(ByteView der) {
    // Never destroyed: threads may still ask while the process ends.
    static zentak::NoDestructor<RememberedFacts> facts;
    auto& [mutex, remembered] = *facts;
    std::string name(reinterpret_cast<const char*>(der.data()), der.size());
    {
        const zentak::MutexLock lock(mutex);
        const auto found = remembered.find(name);
        if (found != remembered.end()) {
            return found->second;
        }
    }
    auto read = std::make_shared<const CertificateFacts>(readFacts(parseCertificate(der).get()));
    const zentak::MutexLock lock(mutex);
    if (remembered.size() >= mostRememberedFacts) {
        remembered.clear();
    }
    remembered.emplace(std::move(name), read);
    return read;
}

std::vector<Bytes> certificatesOfFile(const std::string& content) {
    if (content.find("-----BEGIN ") == std::string::npos) {
        return {Bytes(content.begin(), content.end())};
    }
    std::vector<Bytes> certificates;
    const Bio bio(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
    requireCrypto(bio != nullptr, "reading PEM");
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    while (PEM_read_bio(bio.get(), &name, &header, &data, &length) == 1) {
        const std::string_view kind = name;
        if (kind == PEM_STRING_X509 || kind == PEM_STRING_X509_OLD) {
            certificates.emplace_back(data, data + length);
        }
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_free(data);
    }
    return certificates;
}

}  // namespace softtoken
