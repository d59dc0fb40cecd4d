/// Input in several parts that goes to the device library in one piece.

#ifndef ZENTAK_CRYPTO_MULTI_PART_INPUT_H
#define ZENTAK_CRYPTO_MULTI_PART_INPUT_H

#include "crypto/operation_end.h"
#include "device/result.h"
#include "module/entry_frame.h"

namespace zentak {

/// Adds `part` to the session's input. A part that the device library could never take isn't copied: CKR_DATA_LEN_RANGE
/// with a line in the log, and the operation ends and its input is dropped, as when the library refuses it at the end.
inline CK_RV collectPart(const char* name, SessionRecord& session, ByteView part) {
    if (part.size() > device::longestInput) {
        const OperationEnd end(session);
        session.dataBuffer.clear();
        return refuse(CKR_DATA_LEN_RANGE, name, ": part too long for the device library, ulPartLen=", part.size());
    }
    session.dataBuffer.insert(session.dataBuffer.end(), part.begin(), part.end());
    return CKR_OK;
}

}  // namespace zentak

#endif
