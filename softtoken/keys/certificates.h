/// Reading X.509 certificates in DER.

#ifndef ZENTAK_SOFTTOKEN_KEYS_CERTIFICATES_H
#define ZENTAK_SOFTTOKEN_KEYS_CERTIFICATES_H

#include "device/zentak_dsc_library.h"
#include "platform/openssl_support.h"

namespace softtoken {

/// Throws Error::certificateInvalid for anything but exactly one certificate.
Certificate parseCertificate(ByteView der);

/// What callers ask of a certificate.
struct CertificateFacts {
    /// text1 the serial number in hexadecimal, text4 and text5 the validity's begin and end, text6 the issuer's common
    /// name, text8 empty. A name without a common name gives its distinguished name instead.
    CertificateDetails details;
    Bytes subject;       ///< DER, as it is in the certificate
    Bytes issuer;        ///< the same
    Bytes serialNumber;  ///< a DER INTEGER
};

/// Reads a certificate and remembers what was read: listing a token asks for the same ones again and again. Throws
/// Error::certificateInvalid.
std::shared_ptr<const CertificateFacts> certificateFacts(ByteView der);

/// The certificates of a file: all of a PEM text, or the bytes themselves when they aren't PEM. Nothing is decoded: the
/// bytes are handed on as the file has them, where OSSL_STORE would leave out what it can't read.
std::vector<Bytes> certificatesOfFile(const std::string& content);

}  // namespace softtoken

#endif
