/// What a FIPS 140-3 token may not sign although the caller did the hashing.

#ifndef ZENTAK_CRYPTO_RAW_INPUT_POLICY_H
#define ZENTAK_CRYPTO_RAW_INPUT_POLICY_H

#include <optional>
#include <string_view>

#include "base/byte_view.h"
#include "module/cryptoki.h"

namespace zentak {

/// Why `data` may not be signed by the raw `mechanism` on a FIPS 140-3 token: the text of the ERROR line. Nothing when
/// it may.
///
/// For CKM_RSA_PKCS this is a byte search for the object identifiers of SHA-1 and MD5 anywhere in input that looks like
/// a DigestInfo, for the others only a test of the length.
std::optional<std::string_view> fipsObjectionToRawInput(CK_MECHANISM_TYPE mechanism, ByteView data);

}  // namespace zentak

#endif
