#include "general/device_monitor.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "base/no_destructor.h"
#include "device/library.h"
#include "module/entry_frame.h"
#include "module/slot_events.h"
#include "platform/operating_system.h"

namespace zentak {

namespace {

struct Monitor {
    std::thread thread;
    std::atomic<bool> running{false};
    /// Held around one poll of the devices and the walk over the sessions.
    Mutex polling;
};

NoDestructor<Monitor>& monitor() {
    static NoDestructor<Monitor> place;
    return place;
}

/// Drops the login of sessions whose device isn't in the list. The sessions stay open.
void dropLoginsOfMissingDevices(ModuleState& state, const std::vector<std::string>& devices) {
    for (auto& [handle, session] : state.sessionTable) {
        const bool present = std::find(devices.begin(), devices.end(), session.tokenInfo.serialNumber) != devices.end();
        if (present || !session.isUserSession()) {
            continue;
        }
        logDebug("Device disconnected, clearing userPassword");
        forgetPassword(state);
        session.state = session.state == CKS_RW_USER_FUNCTIONS ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
    }
}

/// One poll. Returns the number of connected devices.
std::size_t pollDevices() {
    const MutexLock polling(monitor()->polling);
    Module& module = theModule();
    const std::vector<std::string> devices = device::connectedDevices(module.instanceWithoutLock());
    // The module isn't locked before here: a slow device must not hold up the application's calls.
    const MutexLock lock(module.mutex);
    dropLoginsOfMissingDevices(module.state, devices);
    return devices.size();
}

/// Polls until `events` is closed. These are the events of the process that started the thread: a thread that forks in
/// the middle of its poll ends in the child.
void watchDevices(SlotEvents& events) {
    std::size_t lastCount = 0;
    while (!events.isClosed()) {
        // A poll that throws tells nothing about the devices; the next one may.
        withoutExceptions("Session monitor", [&]() -> CK_RV {
            const std::size_t count = pollDevices();
            if (count != lastCount) {
                logDebug("Slot event: device count changed from ", lastCount, " to ", count);
                lastCount = count;
                events.raise(firstSlotId);
            }
            return CKR_OK;
        });
        events.sleepUnlessClosed(std::chrono::seconds(1));
    }
}

void runMonitor() noexcept {
    logDebug("Session monitor thread started.");
    withoutExceptions("Session monitor", []() -> CK_RV {
        watchDevices(slotEvents());
        return CKR_OK;
    });
    logDebug("Session monitor thread stopped.");
    monitor()->running = false;
}

}  // namespace

bool isDeviceMonitorRunning() {
    return monitor()->running;
}

void startDeviceMonitor() {
    Monitor& started = *monitor();
    if (started.thread.joinable()) {
        // It has ended by itself; assigning over it would end the process.
        started.thread.join();
    }
    platform::keepModuleLoaded();
    slotEvents().open();
    // Before the thread gets to run, so that an application that initialises again at once finds it.
    started.running = true;
    try {
        started.thread = std::thread(runMonitor);
    } catch (...) {
        started.running = false;
        throw;
    }
}

void stopDeviceMonitor() {
    Monitor& stopped = *monitor();
    slotEvents().close();
    if (stopped.thread.joinable() && stopped.thread.get_id() != std::this_thread::get_id()) {
        stopped.thread.join();
        logDebug("Monitor thread joined (stopDeviceMonitor).");
    }
    stopped.running = false;
}

void holdDeviceMonitor() {
    monitor()->polling.holdForFork();
}

void releaseDeviceMonitor() {
    monitor()->polling.releaseAfterFork();
}

void prepareToForgetDeviceMonitor() {
    monitor().prepareReplacement();
    prepareToReplaceSlotEvents();
}

void forgetDeviceMonitor() noexcept {
    slotEvents().closeWithoutWaking();
    monitor().replace();
    replaceSlotEvents();
}

}  // namespace zentak
