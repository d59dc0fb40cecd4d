/// Taking the padding off what RSA decrypted. Whoever can tell by the time it takes how a block is malformed can
/// decrypt with the key, so nothing here branches on a block's bytes or looks anything up by them.

#ifndef ZENTAK_SOFTTOKEN_KEYS_RSA_PADDING_H
#define ZENTAK_SOFTTOKEN_KEYS_RSA_PADDING_H

#include <optional>

#include "platform/bytes.h"

namespace softtoken {

/// The plaintext in a block as long as the modulus: OAEP with an empty label and SHA-1, SHA-224, SHA-256, SHA-384 or
/// SHA-512, its masks made with the same hash or with SHA-1; else v1.5. All of them are tried every time. Nothing when
/// none fits. A v1.5 block looks like OAEP by an accident of 2^-160; a block of OAEP that isn't understood here looks
/// like v1.5 once in some hundred, which is why OAEP comes first.
std::optional<SecretBytes> removePadding(ByteView block);

}  // namespace softtoken

#endif
