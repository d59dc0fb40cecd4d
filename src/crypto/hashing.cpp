#include "crypto/hashing.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

#include "module/entry_frame.h"

namespace zentak {

int updateHash(void* context, const unsigned char* data, std::size_t length, void* instance) {
    constexpr std::size_t longestPiece = std::numeric_limits<int>::max();
    do {
        const std::size_t piece = std::min(length, longestPiece);
        const int result = zentak_updateHash(context, data, static_cast<int>(piece), instance);
        if (result != 0) {
            return result;
        }
        data += piece;
        length -= piece;
    } while (length > 0);
    return 0;
}

void cutToReportedLength(std::vector<unsigned char>& area, int reportedLength) {
    if (reportedLength < 0 || static_cast<std::size_t>(reportedLength) > area.size()) {
        throw std::length_error("the device library reports an output length of " + std::to_string(reportedLength));
    }
    area.resize(static_cast<std::size_t>(reportedLength));
}

int finalHash(void* context, std::size_t capacity, std::vector<unsigned char>& digest, void* instance) {
    std::vector<unsigned char> area(capacity);
    int length = static_cast<int>(capacity);
    const int result = zentak_finalHash(context, area.data(), &length, instance);
    if (result == 0) {
        cutToReportedLength(area, length);
        digest = std::move(area);
    }
    return result;
}

CK_RV hashInOnePass(const char* deviceId, int hashCode, ByteView data, std::vector<unsigned char>& digest,
                    void* instance, const HashFailureTexts& texts) {
    void* context = nullptr;
    if (const int result = zentak_initHash(deviceId, hashCode, &context, instance); result != 0) {
        return refuse(CKR_FUNCTION_FAILED, texts.init, result);
    }
    if (const int result = updateHash(context, data.data(), data.size(), instance); result != 0) {
        return refuse(CKR_FUNCTION_FAILED, texts.update, result);
    }
    if (const int result = finalHash(context, digestCapacity, digest, instance); result != 0) {
        return refuse(CKR_FUNCTION_FAILED, texts.final, result);
    }
    return CKR_OK;
}

CK_RV updateSessionHash(SessionRecord& session, int hashCode, ByteView part, void* instance,
                        const HashFailureTexts& texts) {
    if (session.hashContext == nullptr) {
        if (const int result = zentak_initHash(session.deviceId(), hashCode, &session.hashContext, instance);
            result != 0) {
            return refuse(CKR_FUNCTION_FAILED, texts.init, result);
        }
    }
    // Kept only when the update succeeds.
    void* const context = std::exchange(session.hashContext, nullptr);
    if (const int result = updateHash(context, part.data(), part.size(), instance); result != 0) {
        return refuse(CKR_FUNCTION_FAILED, texts.update, result);
    }
    session.hashContext = context;
    return CKR_OK;
}

}  // namespace zentak
