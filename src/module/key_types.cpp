#include "module/key_types.h"

#include <array>

#include "device/codes.h"

namespace zentak {

namespace {

constexpr std::array<unsigned char, 10> p256 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
constexpr std::array<unsigned char, 7> p384 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
constexpr std::array<unsigned char, 7> p521 = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};

/// By key type code less 1.
constexpr std::array<KeyTypeProperties, 7> keyTypes = {{
    {CKK_RSA, 1024, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
    {CKK_RSA, 2048, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
    {CKK_RSA, 3072, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
    {CKK_RSA, 4096, CKM_RSA_PKCS_KEY_PAIR_GEN, {}},
    {CKK_EC, 256, CKM_EC_KEY_PAIR_GEN, p256},
    {CKK_EC, 384, CKM_EC_KEY_PAIR_GEN, p384},
    {CKK_EC, 521, CKM_EC_KEY_PAIR_GEN, p521},
}};
constexpr const KeyTypeProperties& rsa2048 = keyTypes[1];

}  // namespace

const KeyTypeProperties& keyTypeProperties(std::int32_t keyTypeCode) {
    const auto count = static_cast<std::int32_t>(keyTypes.size());
    // Both are constants.
    // cppcheck-suppress returnTempReference
    return keyTypeCode >= 1 && keyTypeCode <= count ? keyTypes[static_cast<std::size_t>(keyTypeCode - 1)] : rsa2048;
}

}  // namespace zentak
