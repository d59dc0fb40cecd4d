#include "crypto/signature_mechanisms.h"

#include <array>

#include "crypto/hashing.h"
#include "module/mechanism_table.h"

namespace zentak {

namespace {

/// The FIPS column is uneven on purpose: SHA-224 is refused with PSS and ECDSA but not with PKCS #1 v1.5.
constexpr std::array<SignatureMechanism, 18> signatureMechanisms = {{
    {CKM_RSA_PKCS, 0, false, false},
    {CKM_SHA1_RSA_PKCS, hashSha1, false, true},
    {CKM_RSA_PKCS_PSS, 0, true, false},
    {CKM_SHA1_RSA_PKCS_PSS, hashSha1, true, true},
    {CKM_SHA256_RSA_PKCS, hashSha256, false, false},
    {CKM_SHA384_RSA_PKCS, hashSha384, false, false},
    {CKM_SHA512_RSA_PKCS, hashSha512, false, false},
    {CKM_SHA256_RSA_PKCS_PSS, hashSha256, true, false},
    {CKM_SHA384_RSA_PKCS_PSS, hashSha384, true, false},
    {CKM_SHA512_RSA_PKCS_PSS, hashSha512, true, false},
    {CKM_SHA224_RSA_PKCS, hashSha224, false, false},
    {CKM_SHA224_RSA_PKCS_PSS, hashSha224, true, true},
    {CKM_ECDSA, 0, false, false},
    {CKM_ECDSA_SHA1, hashSha1, false, true},
    {CKM_ECDSA_SHA224, hashSha224, false, true},
    {CKM_ECDSA_SHA256, hashSha256, false, false},
    {CKM_ECDSA_SHA384, hashSha384, false, false},
    {CKM_ECDSA_SHA512, hashSha512, false, false},
}};

}  // namespace

const SignatureMechanism* findSignatureMechanism(CK_MECHANISM_TYPE type) {
    return findMechanism(signatureMechanisms, type);
}

}  // namespace zentak
