/// Hashing by the device library: algorithm codes, feeding of data of any length, hashing in one pass.

#ifndef ZENTAK_CRYPTO_HASHING_H
#define ZENTAK_CRYPTO_HASHING_H

#include <cstddef>
#include <vector>

#include "device/records.h"
#include "module/module_state.h"

namespace zentak {

/// Algorithm codes of zentak_initHash.
inline constexpr int hashSha1 = 2;
inline constexpr int hashSha256 = 3;
inline constexpr int hashSha384 = 4;
inline constexpr int hashSha512 = 5;
inline constexpr int hashSha224 = 6;

/// Output area for a digest that is signed or verified, in bytes.
inline constexpr std::size_t digestCapacity = 64;

/// zentak_updateHash for data of any length: in pieces where an int can't hold it. 0, or the first failing result.
int updateHash(void* context, const unsigned char* data, std::size_t length, void* instance);

/// zentak_finalHash with an output area of `capacity` zero bytes, which becomes `digest` on success, whatever that
/// held. 0 or the library's result; throws std::length_error when the library reports a length that the area can't
/// hold.
int finalHash(void* context, std::size_t capacity, std::vector<unsigned char>& digest, void* instance);

/// What a failing step of a hash logs before the library's result.
struct HashFailureTexts {
    const char* init;
    const char* update;
    const char* final;
};

/// Hashes `data` in one pass, with a context of its own. CKR_OK, or CKR_FUNCTION_FAILED with the reason logged.
CK_RV hashInOnePass(const char* deviceId, int hashCode, ByteView data, std::vector<unsigned char>& digest,
                    void* instance, const HashFailureTexts& texts);

/// Feeds `part` to the session's hash context, which is opened first where there is none: one that an earlier operation
/// left is used as it is. After a failed update the context is dropped. CKR_OK, or CKR_FUNCTION_FAILED with the reason
/// logged.
CK_RV updateSessionHash(SessionRecord& session, int hashCode, ByteView part, void* instance,
                        const HashFailureTexts& texts);

/// The bytes of an output area that the library has filled, after a look at the length it reports.
void cutToReportedLength(std::vector<unsigned char>& area, int reportedLength);

}  // namespace zentak

#endif
