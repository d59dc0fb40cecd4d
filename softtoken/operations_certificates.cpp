// Operations that read certificates. They need no instance.

#include "boundary.h"
#include "certificates.h"
#include "device/zentak_dsc_library.h"
#include "folder_scan.h"

using namespace softtoken;

int zentak_getCertificateDetails(const unsigned char* der, int length, CertificateDetails* details,
                                 void* /*instance*/) {
    return statusOf([&] {
        requireArgument(details != nullptr);
        *details = certificateDetails(bytesOf(der, length));
    });
}

std::vector<unsigned char> zentak_getCertificateSubject(const unsigned char* der, int length, void* /*instance*/) {
    return valueOf([&] { return subjectDer(parseCertificate(bytesOf(der, length)).get()); });
}

std::vector<unsigned char> zentak_getCertificateIssuer(const unsigned char* der, int length, void* /*instance*/) {
    return valueOf([&] { return issuerDer(parseCertificate(bytesOf(der, length)).get()); });
}

std::vector<unsigned char> zentak_getCertificateSerialDER(const unsigned char* der, int length, void* /*instance*/) {
    return valueOf([&] { return serialNumberDer(parseCertificate(bytesOf(der, length)).get()); });
}

std::vector<std::pair<std::string, std::vector<unsigned char>>> zentak_getFilesWithExtensionsAndConvertDER(
    const char* folder, const std::vector<std::string>& extensions, void* /*instance*/) {
    return valueOf([&] { return scanFolder(textOf(folder), extensions); });
}
