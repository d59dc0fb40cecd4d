#include "module/mechanisms.h"

#include <algorithm>
#include <array>

#include "device/codes.h"

namespace zentak {

namespace {

constexpr CK_FLAGS signature = CKF_SIGN | CKF_VERIFY;
constexpr int none = 0;

// clang-format off
constexpr std::array<Mechanism, 27> mechanisms = {{
    //                          bits of a key                                           multi-part
    // type                     least  most  use                        hash        PSS    verification refusedOnFips
    {CKM_RSA_PKCS_KEY_PAIR_GEN, 2048, 4096, CKF_GENERATE_KEY_PAIR,     none,       false, none,       false},
    {CKM_RSA_PKCS,              2048, 4096, signature,                 none,       false, none,       false},
    {CKM_RSA_PKCS_OAEP,         2048, 4096, CKF_ENCRYPT | CKF_DECRYPT, none,       false, none,       false},
    {CKM_RSA_PKCS_PSS,          2048, 4096, signature,                 none,       true,  hashSha256, false},
    {CKM_SHA1_RSA_PKCS,         2048, 4096, signature,                 hashSha1,   false, hashSha1,   true},
    {CKM_SHA224_RSA_PKCS,       2048, 4096, signature,                 hashSha224, false, hashSha224, false},
    {CKM_SHA256_RSA_PKCS,       2048, 4096, signature,                 hashSha256, false, hashSha256, false},
    {CKM_SHA384_RSA_PKCS,       2048, 4096, signature,                 hashSha384, false, hashSha384, false},
    {CKM_SHA512_RSA_PKCS,       2048, 4096, signature,                 hashSha512, false, hashSha512, false},
    {CKM_SHA1_RSA_PKCS_PSS,     2048, 4096, signature,                 hashSha1,   true,  hashSha256, true},
    {CKM_SHA224_RSA_PKCS_PSS,   2048, 4096, signature,                 hashSha224, true,  hashSha224, true},
    {CKM_SHA256_RSA_PKCS_PSS,   2048, 4096, signature,                 hashSha256, true,  hashSha256, false},
    {CKM_SHA384_RSA_PKCS_PSS,   2048, 4096, signature,                 hashSha384, true,  hashSha256, false},
    {CKM_SHA512_RSA_PKCS_PSS,   2048, 4096, signature,                 hashSha512, true,  hashSha256, false},
    {CKM_EC_KEY_PAIR_GEN,       256,  521,  CKF_GENERATE_KEY_PAIR,     none,       false, none,       false},
    {CKM_ECDH1_DERIVE,          256,  521,  CKF_DERIVE,                none,       false, none,       false},
    {CKM_ECDSA,                 256,  521,  signature,                 none,       false, none,       false},
    {CKM_ECDSA_SHA1,            256,  521,  signature,                 hashSha1,   false, hashSha1,   true},
    {CKM_ECDSA_SHA224,          256,  521,  signature,                 hashSha224, false, hashSha224, true},
    {CKM_ECDSA_SHA256,          256,  521,  signature,                 hashSha256, false, hashSha256, false},
    {CKM_ECDSA_SHA384,          256,  521,  signature,                 hashSha384, false, hashSha384, false},
    {CKM_ECDSA_SHA512,          256,  521,  signature,                 hashSha512, false, hashSha512, false},
    {CKM_SHA_1,                 0,    0,    CKF_DIGEST,                hashSha1,   false, none,       true},
    {CKM_SHA224,                0,    0,    CKF_DIGEST,                hashSha224, false, none,       false},
    {CKM_SHA256,                0,    0,    CKF_DIGEST,                hashSha256, false, none,       false},
    {CKM_SHA384,                0,    0,    CKF_DIGEST,                hashSha384, false, none,       false},
    {CKM_SHA512,                0,    0,    CKF_DIGEST,                hashSha512, false, none,       false},
}};
// clang-format on

}  // namespace

std::span<const Mechanism> allMechanisms() {
    return mechanisms;
}

const Mechanism* findMechanism(CK_MECHANISM_TYPE type) {
    const std::span<const Mechanism> all = allMechanisms();
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const Mechanism& mechanism) { return mechanism.type == type; });
    return found != all.end() ? &*found : nullptr;
}

const Mechanism* findMechanism(CK_MECHANISM_TYPE type, CK_FLAGS uses) {
    const Mechanism* const mechanism = findMechanism(type);
    return mechanism != nullptr && (mechanism->use & uses) != 0 ? mechanism : nullptr;
}

}  // namespace zentak
