#include "device/zentak_dsc_library.h"

void zentak_createInstance(void**) {}
void zentak_releaseInstance(void*) {}
std::vector<std::string> zentak_getConnectedDeviceList(bool, void*) {
    return {};
}
TokenInfo zentak_getTokenInfo(const char*, void*) {
    return {};
}
int zentak_initDevice(const char*, bool, void*) {
    return 1;
}
int zentak_validatePassword(const char*, const char*, int, int*, void*) {
    return 1;
}
bool zentak_changeUserPassword(const char*, const char*, const char*, int*, bool, bool, void*) {
    return {};
}
std::vector<ZentakKeyPair>& zentak_getKeyPairList(const char*, void*) {
    static std::vector<ZentakKeyPair> none;
    return none;
}
std::vector<ZentakCertificate>& zentak_getCertificateList(const char*, void*) {
    static std::vector<ZentakCertificate> none;
    return none;
}
int zentak_getCertificateDetails(const unsigned char*, int, CertificateDetails*, void*) {
    return 1;
}
std::vector<unsigned char> zentak_getCertificateSubject(const unsigned char*, int, void*) {
    return {};
}
std::vector<unsigned char> zentak_getCertificateIssuer(const unsigned char*, int, void*) {
    return {};
}
std::vector<unsigned char> zentak_getCertificateSerialDER(const unsigned char*, int, void*) {
    return {};
}
int zentak_updateKeyPairDetails(const char*, const unsigned char*, const char*, const char*, const unsigned char*, int,
                                void*) {
    return 1;
}
int zentak_deleteKeyPair(const char*, const unsigned char*, const char*, bool, void*) {
    return 1;
}
int zentak_importCertificate(const char*, const char*, ZentakCertificate*, void*) {
    return 1;
}
int zentak_importPfx(const char*, const char*, ImportPFXDetails*, void*) {
    return 1;
}
std::vector<std::pair<std::string, std::vector<unsigned char>>> zentak_getFilesWithExtensionsAndConvertDER(
    const char*, const std::vector<std::string>&, void*) {
    return {};
}
int zentak_generateKeyPair(const char*, const char*, ZentakKeyPair*, void*) {
    return 1;
}
int zentak_initHash(const char*, int, void**, void*) {
    return 1;
}
int zentak_updateHash(void*, const unsigned char*, int, void*) {
    return 1;
}
int zentak_finalHash(void*, unsigned char*, int*, void*) {
    return 1;
}
int zentak_signHash(const char*, const unsigned char*, const char*, const unsigned char*, int, unsigned char*, int*,
                    bool, void*, bool) {
    return 1;
}
int zentak_verifySignatureHash(unsigned int, const char*, const unsigned char*, int, const unsigned char*, int,
                               const unsigned char*, int, void*, bool) {
    return 1;
}
int zentak_encrypt(EncryptionType, PaddingMode, const unsigned char*, int, unsigned char*, int*, const unsigned char*,
                   int, void*) {
    return 1;
}
int zentak_decrypt(const char*, const unsigned char*, const char*, const unsigned char*, int, unsigned char**, int*,
                   bool, void*) {
    return 1;
}
int zentak_ecdhDerive(const char*, const unsigned char*, const char*, const unsigned char*, int, unsigned char**, int*,
                      void*) {
    return 1;
}
int zentak_generateRamdomNumber(const char*, int, unsigned char*, bool, void*) {
    return 1;
}
