/// The frame that every exported function runs in: its name in the log, the refusal of an uninitialised module, the
/// session lookup, the module lock, and the promise that no exception reaches the application.

#ifndef ZENTAK_MODULE_ENTRY_FRAME_H
#define ZENTAK_MODULE_ENTRY_FRAME_H

#include <string_view>

#include "log/diagnostic_log.h"
#include "module/cryptoki.h"
#include "module/module_state.h"

namespace zentak {

/// Logs the reason, given in parts, at ERROR level and returns `code`: a check that fails is one line.
template <typename... Parts>
[[nodiscard]] CK_RV refuse(CK_RV code, Parts... parts) noexcept {
    logError(parts...);
    return code;
}

/// Inside a catch block: the return code for the exception in flight, with an ERROR line. CKR_HOST_MEMORY for
/// std::bad_alloc, CKR_FUNCTION_FAILED for anything else.
[[nodiscard]] CK_RV refuseException(const char* name) noexcept;

/// Runs `body`, turning what it throws into a return code.
template <typename Body>
CK_RV withoutExceptions(const char* name, const Body& body) noexcept {
    try {
        return body();
    } catch (...) {
        return refuseException(name);
    }
}

/// A function of an initialised module: `body` runs with the module locked.
template <typename Body>
CK_RV entryPoint(const char* name, const Body& body) noexcept {
    logDebug(name);
    return withoutExceptions(name, [&]() -> CK_RV {
        Module& module = theModule();
        const MutexLock lock(module.mutex);
        if (module.state.instance == nullptr) {
            return refuse(CKR_CRYPTOKI_NOT_INITIALIZED, name, ": not initialized");
        }
        return body(module.state);
    });
}

/// A function of an open session: `body` gets its record.
template <typename Body>
CK_RV sessionEntryPoint(const char* name, CK_SESSION_HANDLE hSession, const Body& body) noexcept {
    return entryPoint(name, [&](ModuleState& state) -> CK_RV {
        const auto found = state.sessionTable.find(hSession);
        if (found == state.sessionTable.end()) {
            return refuse(CKR_SESSION_HANDLE_INVALID, name, ": invalid hSession=", hSession);
        }
        return body(state, found->second);
    });
}

/// A function that continues the session's `operation`; every other state of the session is refused.
template <typename Body>
CK_RV operationEntryPoint(const char* name, CK_SESSION_HANDLE hSession, ActiveOperation operation,
                          const Body& body) noexcept {
    return sessionEntryPoint(name, hSession, [&](ModuleState& state, SessionRecord& session) -> CK_RV {
        if (session.activeOperation != operation) {
            return refuse(CKR_OPERATION_NOT_INITIALIZED, name,
                          ": operation not initialized, activeOperation=", session.activeOperation);
        }
        return body(state, session);
    });
}

}  // namespace zentak

#endif
