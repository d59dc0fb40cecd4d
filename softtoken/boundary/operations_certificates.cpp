// Operations that read certificates. They need no instance.

#include "boundary/boundary.h"
#include "device/zentak_dsc_library.h"
#include "keys/certificates.h"
#include "keys/folder_scan.h"

using namespace softtoken;

int zentak_getCertificateDetails(const unsigned char* der, int length, CertificateDetails* details,
                                 void* /*instance*/) {
    return statusOf([&] {
        requireArgument(details != nullptr);
        *details = certificateFacts(bytesOf(der, length))->details;
    });
}

std::vector<unsigned char> zentak_getCertificateSubject(const unsigned char* der, int length, void* /*instance*/) {
    return valueOf([&] { return certificateFacts(bytesOf(der, length))->subject; });
}

std::vector<unsigned char> zentak_getCertificateIssuer(const unsigned char* der, int length, void* /*instance*/) {
    return valueOf([&] { return certificateFacts(bytesOf(der, length))->issuer; });
}

std::vector<unsigned char> zentak_getCertificateSerialDER(const unsigned char* der, int length, void* /*instance*/) {
    return valueOf([&] { return certificateFacts(bytesOf(der, length))->serialNumber; });
}

std::vector<std::pair<std::string, std::vector<unsigned char>>> zentak_getFilesWithExtensionsAndConvertDER(
    const char* folder, const std::vector<std::string>& extensions, void* /*instance*/) {
    return valueOf([&] { return scanFolder(textOf(folder), extensions); });
}
