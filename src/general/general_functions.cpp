/// C_Initialize, C_Finalize and C_GetInfo.

#include <cstring>

#include "device/library.h"
#include "general/device_monitor.h"
#include "general/lifecycle.h"
#include "module/entry_frame.h"

using namespace zentak;

CK_RV C_Initialize(CK_VOID_PTR /*pInitArgs*/) {
    constexpr auto name = "C_Initialize";
    logDebug(name);
    std::unique_lock<std::mutex> lifecycle;
    const CK_RV prepared = withoutExceptions(name, [&]() -> CK_RV {
        lifecycle = std::unique_lock<std::mutex>(lifecycleMutex());
        followForks();
        if (theModule().instanceWithoutLock() != nullptr) {
            return refuse(CKR_CRYPTOKI_ALREADY_INITIALIZED, name, ": already initialized");
        }
        void* const instance = device::createInstance();
        {
            // Looked for only now: if the library has forked, this is the child's own, as the instance is.
            Module& module = theModule();
            const MutexLock lock(module.mutex);
            module.state.instance = instance;
        }
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
    // The one exception that reaches an application: the system has no thread for the monitor.
    startDeviceMonitor();
    if (theModule().instanceWithoutLock() == nullptr) {
        // The application learns of it from its next call, which finds the module uninitialised.
        logError("Init pkcs11 library failed failed");
    }
    return CKR_OK;
}

CK_RV C_Finalize(CK_VOID_PTR /*pReserved*/) {
    constexpr auto name = "C_Finalize";
    logDebug(name);
    return withoutExceptions(name, []() -> CK_RV {
        const std::scoped_lock<std::mutex> lifecycle(lifecycleMutex());
        Module& module = theModule();
        if (module.instanceWithoutLock() == nullptr) {
            return refuse(CKR_CRYPTOKI_NOT_INITIALIZED, name, ": not initialized");
        }
        stopDeviceMonitor();
        const MutexLock lock(module.mutex);
        ModuleState& state = module.state;
        device::releaseInstance(state.instance);
        state.instance = nullptr;
        state.slotTable.clear();
        state.sessionTable.clear();
        forgetPassword(state);
        logDebug("C_Finalize completed successfully.");
        return CKR_OK;
    });
}

namespace {

/// Writes `text` with its terminator and leaves the rest of the field as the application had it.
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
        pInfo->libraryVersion = {ZENTAK_VERSION_MAJOR, ZENTAK_VERSION_MINOR};
        return CKR_OK;
    });
}
