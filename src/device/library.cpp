#include "device/library.h"

#include "device/result.h"

namespace zentak::device {

namespace {

using CertificateField = std::vector<unsigned char> (*)(const unsigned char* der, int length, void* instance);

std::vector<unsigned char> read(CertificateField field, ByteView der) {
    if (der.size() > longestInput) {
        return {};
    }
    return field(der.data(), static_cast<int>(der.size()), nullptr);
}

}  // namespace

void* createInstance() {
    void* instance = nullptr;
    zentak_createInstance(&instance);
    return instance;
}

void releaseInstance(void* instance) {
    zentak_releaseInstance(instance);
}

std::vector<std::string> connectedDevices(void* instance) {
    return zentak_getConnectedDeviceList(false, instance);
}

TokenInfo tokenInfo(const std::string& device, void* instance) {
    return zentak_getTokenInfo(device.c_str(), instance);
}

std::optional<CertificateDetails> certificateDetails(ByteView der) {
    CertificateDetails details;
    if (der.size() > longestInput ||
        zentak_getCertificateDetails(der.data(), static_cast<int>(der.size()), &details, nullptr) != 0) {
        return std::nullopt;
    }
    return details;
}

std::vector<unsigned char> certificateSubject(ByteView der) {
    return read(zentak_getCertificateSubject, der);
}

std::vector<unsigned char> certificateIssuer(ByteView der) {
    return read(zentak_getCertificateIssuer, der);
}

std::vector<unsigned char> certificateSerialNumber(ByteView der) {
    return read(zentak_getCertificateSerialDER, der);
}

std::vector<CertificateFile> certificateFiles(const std::string& folder) {
    return zentak_getFilesWithExtensionsAndConvertDER(folder.c_str(), {".cer", ".der", ".pem", ".crt"}, nullptr);
}

}  // namespace zentak::device
