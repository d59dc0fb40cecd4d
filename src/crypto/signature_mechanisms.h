/// The mechanisms of signing and verification. What each side refuses beyond this table stands with that side.

#ifndef ZENTAK_CRYPTO_SIGNATURE_MECHANISMS_H
#define ZENTAK_CRYPTO_SIGNATURE_MECHANISMS_H

#include "module/cryptoki.h"

namespace zentak {

struct SignatureMechanism {
    CK_MECHANISM_TYPE type;
    int hashCode;  ///< 0 for a raw mechanism, whose input goes to the token as it is
    bool isPss;
    bool signingRefusedOnFips;

    bool isRaw() const { return hashCode == 0; }
};

/// Null for a mechanism that neither signs nor verifies.
const SignatureMechanism* findSignatureMechanism(CK_MECHANISM_TYPE type);

}  // namespace zentak

#endif
