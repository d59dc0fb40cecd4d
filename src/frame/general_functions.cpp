/// C_Initialize, C_Finalize and C_GetInfo.

#include <cstring>

#include "frame/entry_frame.h"
#include "slots/device_monitor.h"

using namespace zentak;

namespace {

/// Held by C_Initialize and C_Finalize from end to end. Not the module lock: stopping the monitor takes as long as its
/// poll, and the monitor needs that lock itself.
std::mutex& lifecycleMutex() {
    static auto* mutex = new std::mutex;
    return *mutex;
}

}  // namespace

CK_RV C_Initialize(CK_VOID_PTR /*pInitArgs*/) {
    constexpr auto name = "C_Initialize";
    logDebug(name);
    std::unique_lock lifecycle(lifecycleMutex(), std::defer_lock);
    const CK_RV prepared = withoutExceptions(name, [&]() -> CK_RV {
        lifecycle.lock();
        ModuleState& state = moduleState();
        if (state.instance != nullptr) {
            return refuse(CKR_CRYPTOKI_ALREADY_INITIALIZED, name, ": already initialized");
        }
        void* instance = nullptr;
        zentak_createInstance(&instance);
        state.instance = instance;
        if (isDeviceMonitorRunning()) {
            // Left by an initialisation that got no instance.
            logDebug("Monitor already running. Stopping old thread.");
            stopDeviceMonitor();
        }
        return CKR_OK;
    });
    if (prepared != CKR_OK) {
        return prepared;
    }
    // The one exception that reaches a host: the system has no thread for the monitor.
    startDeviceMonitor();
    if (moduleState().instance == nullptr) {
        // The host learns of it from its next call, which finds the module uninitialised.
        logError("Init pkcs11 library failed failed");
    }
    return CKR_OK;
}

CK_RV C_Finalize(CK_VOID_PTR /*pReserved*/) {
    constexpr auto name = "C_Finalize";
    logDebug(name);
    return withoutExceptions(name, []() -> CK_RV {
        const std::scoped_lock lifecycle(lifecycleMutex());
        ModuleState& state = moduleState();
        if (state.instance == nullptr) {
            return refuse(CKR_CRYPTOKI_NOT_INITIALIZED, name, ": not initialized");
        }
        stopDeviceMonitor();
        const std::scoped_lock lock(state.mutex);
        zentak_releaseInstance(state.instance);
        state.instance = nullptr;
        state.slotTable.clear();
        state.sessionTable.clear();
        state.cachedUserPassword.clear();
        logDebug("C_Finalize completed successfully.");
        return CKR_OK;
    });
}

namespace {

/// Writes `text` with its terminator and leaves the rest of the field as the host had it.
template <std::size_t FieldSize, std::size_t TextSize>
void writeTerminated(CK_UTF8CHAR (&field)[FieldSize], const char (&text)[TextSize]) {
    static_assert(TextSize <= FieldSize);
    std::memcpy(field, text, TextSize);
}

}  // namespace

CK_RV C_GetInfo(CK_INFO_PTR pInfo) {
    return entryPoint("C_GetInfo", [&](ModuleState&) -> CK_RV {
        if (pInfo == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_GetInfo: pInfo is NULL");
        }
        pInfo->cryptokiVersion = {CRYPTOKI_VERSION_MAJOR, CRYPTOKI_VERSION_MINOR};
        writeTerminated(pInfo->manufacturerID, "Dravenko Sentronics");
        pInfo->flags = 0;
        writeTerminated(pInfo->libraryDescription, "Zentak PKCS11 Library");
        pInfo->libraryVersion = {3, 6};
        return CKR_OK;
    });
}
