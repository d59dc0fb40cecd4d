/// C_GenerateRandom.

#include <algorithm>
#include <limits>

#include "module/entry_frame.h"

using namespace zentak;

namespace {

/// The device library counts in int, so a longer area is filled in pieces. 0, or the first failing result.
int fillRandom(const SessionRecord& session, CK_BYTE_PTR output, std::size_t length) {
    constexpr std::size_t longestPiece = std::numeric_limits<int>::max();
    while (length > 0) {
        const std::size_t piece = std::min(length, longestPiece);
        if (const int result =
                zentak_generateRamdomNumber(session.deviceId(), static_cast<int>(piece), output, true, nullptr);
            result != 0) {
            return result;
        }
        output += piece;
        length -= piece;
    }
    return 0;
}

}  // namespace

CK_RV C_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR RandomData, CK_ULONG ulRandomLen) {
    return sessionEntryPoint("C_GenerateRandom", hSession, [&](ModuleState&, const SessionRecord& session) -> CK_RV {
        if (RandomData == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GenerateRandom: RandomData is NULL");
        }
        if (ulRandomLen == 0) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GenerateRandom: ulRandomLen<=0, ulRandomLen=", ulRandomLen);
        }
        if (const int result = fillRandom(session, RandomData, ulRandomLen); result != 0) {
            return refuse(CKR_FUNCTION_FAILED, "C_GenerateRandom: generate random number failed ret=", result);
        }
        return CKR_OK;
    });
}
