#include "test_certificates.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <stdexcept>

namespace softtoken {

namespace {

void require(bool succeeded) {
    if (!succeeded) throw std::runtime_error("a test certificate can't be made");
}

void fillName(X509_NAME* name, const NameParts& parts) {
    for (const auto& [type, text] : parts) {
        require(X509_NAME_add_entry_by_txt(name, type.c_str(), MBSTRING_UTF8,
                                           reinterpret_cast<const unsigned char*>(text.data()),
                                           static_cast<int>(text.size()), -1, 0) == 1);
    }
}

std::string memoryOf(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return {data, static_cast<std::size_t>(length)};
}

}  // namespace

Bytes makeCertificate(const Key& key, const CertificateSettings& settings) {
    const Certificate certificate(X509_new());
    require(certificate && X509_set_version(certificate.get(), X509_VERSION_3) == 1);
    const BigNumber serial(
        BN_bin2bn(settings.serialNumber.data(), static_cast<int>(settings.serialNumber.size()), nullptr));
    require(BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate.get())) != nullptr);
    fillName(X509_get_subject_name(certificate.get()), settings.subject);
    fillName(X509_get_issuer_name(certificate.get()), settings.issuer);
    require(ASN1_TIME_set_string_X509(X509_getm_notBefore(certificate.get()), "20260102030405Z") == 1);
    require(ASN1_TIME_set_string_X509(X509_getm_notAfter(certificate.get()), "20360102030405Z") == 1);
    require(X509_set_pubkey(certificate.get(), key.get()) == 1);
    if (settings.paddingLength > 0) {
        const std::string comment(settings.paddingLength, 'x');
        X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, nullptr, NID_netscape_comment, comment.c_str());
        require(extension != nullptr && X509_add_ext(certificate.get(), extension, -1) == 1);
        X509_EXTENSION_free(extension);
    }
    require(X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0);
    Bytes der(static_cast<std::size_t>(i2d_X509(certificate.get(), nullptr)));
    unsigned char* position = der.data();
    i2d_X509(certificate.get(), &position);
    return der;
}

std::string pemCertificate(ByteView der) {
    const Bio bio(BIO_new(BIO_s_mem()));
    require(PEM_write_bio(bio.get(), PEM_STRING_X509, "", der.data(), static_cast<long>(der.size())) > 0);
    return memoryOf(bio.get());
}

std::string pemPrivateKey(const Key& key) {
    const Bio bio(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1);
    return memoryOf(bio.get());
}

}  // namespace softtoken
