/// Delivery of a computed result under the two-call output convention.

#ifndef ZENTAK_CRYPTO_TWO_CALL_OUTPUT_H
#define ZENTAK_CRYPTO_TWO_CALL_OUTPUT_H

#include <algorithm>
#include <vector>

#include "base/secrets.h"
#include "crypto/operation_end.h"
#include "module/entry_frame.h"

namespace zentak {

/// Writes the length of `result` to `*pulLength` and, into a non-null `output`, the whole of it, which wipes and
/// empties `result` and ends the operation. A null `output` asks only for the length and keeps both.
///
/// The caller's capacity is overwritten before it could be looked at, so CKR_BUFFER_TOO_SMALL needs a result of 4 GiB
/// or more. Applications must offer enough space.
inline CK_RV deliverResult(const char* name, std::vector<unsigned char>& result, CK_BYTE_PTR output,
                           CK_ULONG_PTR pulLength, OperationEnd& end) {
    *pulLength = static_cast<CK_ULONG>(result.size());
    if (output == nullptr) {
        end.keepOperation();
        return CKR_OK;
    }
    if (*pulLength < result.size()) {
        end.keepOperation();
        return refuse(CKR_BUFFER_TOO_SMALL, name, ": buffer too small, provided=", *pulLength,
                      " required=", result.size());
    }
    std::copy(result.begin(), result.end(), output);
    wipe(result);
    return CKR_OK;
}

}  // namespace zentak

#endif
