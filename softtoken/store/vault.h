/// Secrets at rest: the token key wrapped under a PIN, and private keys sealed under the token key. AES-256-GCM
/// throughout, so that what was tampered with doesn't open.

#ifndef ZENTAK_SOFTTOKEN_STORE_VAULT_H
#define ZENTAK_SOFTTOKEN_STORE_VAULT_H

#include <optional>
#include <string_view>

#include "platform/bytes.h"
#include "store/token_data.h"

namespace softtoken {

/// Whose PIN it is. The numbers are the boundary's user kinds.
enum class Role : int { user = 1, officer = 2 };

inline constexpr std::size_t minimumPinLength = 4;
inline constexpr std::size_t maximumPinLength = 63;

/// Throws Error::pinRequired for an empty PIN and Error::pinLength for one that can't be a PIN.
void requirePinLength(std::string_view pin);

SecretBytes newTokenKey();

/// The ciphertext with nonce and tag, to be opened only with the same additional data.
Bytes seal(ByteView key, ByteView additionalData, ByteView plaintext);
/// Nothing when key, additional data or ciphertext are not the ones of seal().
std::optional<SecretBytes> unseal(ByteView key, ByteView additionalData, ByteView sealed);

/// The key that wraps the token key. Takes as long, and as much memory, as the section says.
SecretBytes derivePinKey(const PinSection& section, std::string_view pin);

/// The section of a new PIN, bound to the token's serial number and model. Derives the key.
PinSection makePinSection(const TokenData& token, Role role, std::string_view pin, ByteView tokenKey,
                          const KeyDerivation& derivation, int maximumAttempts);

/// Throws PinFailure for an officer that the token doesn't have.
const PinSection& pinSectionOf(const TokenData& token, Role role);

/// The token key, or nothing when `pinKey` was derived from a wrong PIN or what the section is bound to has changed.
/// Quick.
std::optional<SecretBytes> openPinSection(const TokenData& token, Role role, ByteView pinKey);

/// What a sealed private key is bound to: everything about the pair that decides what the key may do, but not the
/// label and CKA_ID.
Bytes keyPairBinding(std::string_view serialNumber, const KeyPairEntry& entry);

}  // namespace softtoken

#endif
