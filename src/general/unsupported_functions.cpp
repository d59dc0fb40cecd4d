/// The functions that only answer CKR_FUNCTION_NOT_SUPPORTED, the same before C_Initialize as after it.

#include "log/diagnostic_log.h"
#include "module/vendor_extensions.h"

namespace {

CK_RV unsupported(const char* name) {
    zentak::logDebug(name);
    return CKR_FUNCTION_NOT_SUPPORTED;
}

}  // namespace

#define CRYPTOKI_FUNCTION(name, parameters)
#define CRYPTOKI_UNSUPPORTED(name, parameters) \
    CK_RV name parameters {                    \
        return unsupported(#name);             \
    }
#define VENDOR_EXTENSION(name, parameters, mangled) \
    CK_RV name parameters {                         \
        return unsupported(#name);                  \
    }
#include "module/function_table.inc"
#undef VENDOR_EXTENSION
#undef CRYPTOKI_UNSUPPORTED
#undef CRYPTOKI_FUNCTION
