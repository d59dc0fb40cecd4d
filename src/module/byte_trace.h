/// Bytes in the log.

#ifndef ZENTAK_MODULE_BYTE_TRACE_H
#define ZENTAK_MODULE_BYTE_TRACE_H

#include "base/byte_view.h"
#include "device/result.h"
#include "log/diagnostic_log.h"

namespace zentak {

/// Logs bytes of the caller's in hexadecimal at DEBUG level, unless no operation could take that many: their length
/// may be a mistake, and the line would need twice the memory.
inline void traceBytes(const char* what, ByteView bytes) noexcept {
    if (bytes.size() <= device::longestInput) {
        logDebug(what, Hexadecimal{bytes});
    }
}

}  // namespace zentak

#endif
