/// Hashing by the token for signatures, in one pass or over the calls of a session.

#ifndef ZENTAK_CRYPTO_SESSION_HASH_H
#define ZENTAK_CRYPTO_SESSION_HASH_H

#include <cstddef>
#include <vector>

#include "base/byte_view.h"
#include "device/token.h"
#include "module/module_state.h"

namespace zentak {

/// Output area for a digest that is signed or verified, in bytes.
inline constexpr std::size_t digestCapacity = 64;

/// What a failing step of a hash logs before the library's result.
struct HashFailureTexts {
    const char* init;
    const char* update;
    const char* final;
};

/// Hashes `data` in one pass, with a context of its own. CKR_OK, or CKR_FUNCTION_FAILED with the reason logged.
CK_RV hashInOnePass(const device::Token& token, int hashCode, ByteView data, std::vector<unsigned char>& digest,
                    const HashFailureTexts& texts);

/// Feeds `part` to the session's hash context, which is opened first if there is none: one that an earlier operation
/// left is used as it is. After a failed update the context is dropped, and the operation ends. CKR_OK, or
/// CKR_FUNCTION_FAILED with the reason logged.
CK_RV updateSessionHash(const device::Token& token, SessionRecord& session, int hashCode, ByteView part,
                        const HashFailureTexts& texts);

}  // namespace zentak

#endif
