/// The one table of mechanisms. What applications are told about them and what the operations accept are columns of the
/// same row.

#ifndef ZENTAK_MODULE_MECHANISMS_H
#define ZENTAK_MODULE_MECHANISMS_H

#include <span>

#include "module/cryptoki.h"

namespace zentak {

struct Mechanism {
    CK_MECHANISM_TYPE type;
    CK_ULONG minimumBits;  ///< of a key; 0 for a digest
    CK_ULONG maximumBits;
    /// What C_GetMechanismInfo tells, without CKF_HW, which all have. Signing and verification accept the mechanisms
    /// with CKF_SIGN, digests those with CKF_DIGEST. Encryption and decryption also accept CKM_RSA_PKCS, which has
    /// always been listed for signatures only.
    CK_FLAGS use;
    /// The device library's code; 0 for a raw mechanism, whose input goes to the token as it is.
    int hashCode;
    bool isPss;
    /// The hash of multi-part verification, 0 if the parts are collected. It differs from `hashCode` for PSS, whose
    /// parts are hashed with SHA-256 unless the mechanism is SHA-224's; signatures in the field were checked that way.
    int multiPartVerificationHash;
    /// Neither listed for a FIPS 140-3 token nor accepted for signing and digests there; verification goes on. Uneven
    /// on purpose: of the SHA-224 mechanisms PKCS #1 v1.5 is permitted, PSS and ECDSA are not.
    bool refusedOnFips;

    bool isRaw() const { return hashCode == 0; }
};

/// In the order in which applications get them.
std::span<const Mechanism> allMechanisms();

/// The row of `type`; null if there is none or it has none of the `uses` (CKF_SIGN, CKF_DIGEST ...).
const Mechanism* findMechanism(CK_MECHANISM_TYPE type, CK_FLAGS uses);

/// The row of `type`, null if there is none.
const Mechanism* findMechanism(CK_MECHANISM_TYPE type);

}  // namespace zentak

#endif
