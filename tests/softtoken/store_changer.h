/// What the program store_changer makes of a token, so that a test can tell whether it is complete.

#ifndef ZENTAK_TESTS_SOFTTOKEN_STORE_CHANGER_H
#define ZENTAK_TESTS_SOFTTOKEN_STORE_CHANGER_H

#include <string>

#include "store/token_data.h"

namespace softtoken {

/// The PINs between which it changes.
inline constexpr const char* firstPin = "123456";
inline constexpr const char* secondPin = "a longer PIN than the first";

/// Gives the token the contents of a state, which many of its fields tell.
inline void setState(TokenData& token, std::uint32_t state) {
    token.lastCertificateNumber = state;
    token.label = "state " + std::to_string(state);
    token.certificates.assign(state % 5, CertificateEntry());
    std::uint32_t id = 0;
    for (CertificateEntry& entry : token.certificates) {
        entry.id = ++id;
        entry.label = token.label;
        entry.der.assign(1 + state % 3000, static_cast<unsigned char>(state));
    }
}

}  // namespace softtoken

#endif
