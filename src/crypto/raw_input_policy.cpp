#include "crypto/raw_input_policy.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>

namespace zentak {

namespace {

constexpr std::size_t shortestDigestInfo = 11;
/// What is said to be longer can't be there, and isn't looked for.
constexpr std::size_t longestMemory = std::numeric_limits<std::ptrdiff_t>::max();
constexpr unsigned char sequenceTag = 0x30;
/// Content of the object identifier of SHA-1, 1.3.14.3.2.26.
constexpr std::array<unsigned char, 5> sha1Identifier = {0x2B, 0x0E, 0x03, 0x02, 0x1A};
/// Content of the object identifier of MD5, 1.2.840.113549.2.5.
constexpr std::array<unsigned char, 8> md5Identifier = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x05};

constexpr std::size_t sha1Length = 20;
constexpr std::size_t md5Length = 16;

bool contains(ByteView data, ByteView pattern) {
    return std::search(data.begin(), data.end(), pattern.begin(), pattern.end()) != data.end();
}

}  // namespace

std::optional<std::string_view> fipsObjectionToRawInput(CK_MECHANISM_TYPE mechanism, ByteView data) {
    switch (mechanism) {
        case CKM_RSA_PKCS:
            if (data.size() < shortestDigestInfo || data.size() > longestMemory || data[0] != sequenceTag) {
                return std::nullopt;
            }
            if (contains(data, sha1Identifier)) {
                return "C_Sign: SHA1 DigestInfo signing not allowed on FIPS 140-3 token";
            }
            if (contains(data, md5Identifier)) {
                return "C_Sign: MD5 DigestInfo signing not allowed on FIPS 140-3 token";
            }
            return std::nullopt;
        case CKM_ECDSA:
            if (data.size() == sha1Length) {
                return "C_Sign: SHA1 hash signing via CKM_ECDSA not allowed on FIPS 140-3 token";
            }
            if (data.size() == md5Length) {
                return "C_Sign: MD5 hash signing via CKM_ECDSA not allowed on FIPS 140-3 token";
            }
            return std::nullopt;
        case CKM_RSA_PKCS_PSS:
            if (data.size() == sha1Length) {
                return "C_Sign: SHA1 hash signing via CKM_RSA_PKCS_PSS not allowed on FIPS 140-3 token";
            }
            if (data.size() == md5Length) {
                return "C_Sign: MD5 hash signing via CKM_RSA_PKCS_PSS not allowed on FIPS 140-3 token";
            }
            return std::nullopt;
        default:
            return std::nullopt;
    }
}

}  // namespace zentak
