#include "crypto/session_hash.h"

#include <utility>

#include "crypto/operation_end.h"
#include "module/entry_frame.h"

namespace zentak {

CK_RV hashInOnePass(const device::Token& token, int hashCode, ByteView data, std::vector<unsigned char>& digest,
                    const HashFailureTexts& texts) {
    void* context = nullptr;
    if (const device::Result begun = token.initHash(hashCode, context); !begun) {
        return refuse(CKR_FUNCTION_FAILED, texts.init, begun.number());
    }
    if (const device::Result updated = token.updateHash(context, data); !updated) {
        return refuse(CKR_FUNCTION_FAILED, texts.update, updated.number());
    }
    if (const device::Result finished = token.finalHash(context, digestCapacity, digest); !finished) {
        return refuse(CKR_FUNCTION_FAILED, texts.final, finished.number());
    }
    return CKR_OK;
}

CK_RV updateSessionHash(const device::Token& token, SessionRecord& session, int hashCode, ByteView part,
                        const HashFailureTexts& texts) {
    OperationEnd end(session);
    if (session.hashContext == nullptr) {
        if (const device::Result begun = token.initHash(hashCode, session.hashContext); !begun) {
            return refuse(CKR_FUNCTION_FAILED, texts.init, begun.number());
        }
    }
    // Kept only if the update succeeds.
    void* const context = std::exchange(session.hashContext, nullptr);
    if (const device::Result updated = token.updateHash(context, part); !updated) {
        return refuse(CKR_FUNCTION_FAILED, texts.update, updated.number());
    }
    session.hashContext = context;
    end.keepOperation();
    return CKR_OK;
}

}  // namespace zentak
