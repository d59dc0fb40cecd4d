#include "general/device_monitor.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "base/mutex.h"
#include "base/no_destructor.h"
#include "module/entry_frame.h"
#include "module/slot_table.h"
#include "platform/platform.h"

using namespace zentak;

namespace {

struct MonitorState {
    std::thread thread;
    std::atomic<bool> running{false};
    std::atomic<bool> stopRequested{false};
    /// Held around one poll of the devices and the walk over the sessions.
    Mutex monitorMutex;

    /// Guards, with the condition, what follows and the stop request against waiting past them.
    std::mutex eventMutex;
    std::condition_variable slotEvent;
    std::atomic<bool> eventPending{false};
    std::atomic<CK_SLOT_ID> eventSlot{firstSlotId};
    /// Counts the stops, for those who wait while the host stops the module and starts it again.
    unsigned stops = 0;
};

MonitorState& monitor() {
    return lasting<MonitorState>();
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

/// One poll; the number of devices connected.
std::size_t pollDevices() {
    const MutexLock polling(monitor().monitorMutex);
    Module& module = theModule();
    const std::vector<std::string> devices = zentak_getConnectedDeviceList(false, module.instanceWithoutLock());
    // The module isn't locked before here: a slow device must not hold up the host's calls.
    const MutexLock lock(module.mutex);
    dropLoginsOfMissingDevices(module.state, devices);
    return devices.size();
}

void raiseSlotEvent() {
    MonitorState& state = monitor();
    {
        const std::scoped_lock lock(state.eventMutex);
        state.eventSlot = firstSlotId;
        state.eventPending = true;
    }
    state.slotEvent.notify_all();
}

/// The second between two polls, cut short by a stop.
void sleepUntilNextPoll() {
    MonitorState& state = monitor();
    std::unique_lock lock(state.eventMutex);
    state.slotEvent.wait_for(lock, std::chrono::milliseconds(1000), [&] { return state.stopRequested.load(); });
}

void watchDevices() {
    const MonitorState& state = monitor();
    std::size_t lastCount = 0;
    while (!state.stopRequested) {
        // A poll that throws tells nothing about the devices; the next one may.
        withoutExceptions("Session monitor", [&]() -> CK_RV {
            const std::size_t count = pollDevices();
            if (count != lastCount) {
                logDebug("Slot event: device count changed from ", lastCount, " to ", count);
                lastCount = count;
                raiseSlotEvent();
            }
            return CKR_OK;
        });
        sleepUntilNextPoll();
    }
}

void runMonitor() noexcept {
    logDebug("Session monitor thread started.");
    withoutExceptions("Session monitor", []() -> CK_RV {
        watchDevices();
        return CKR_OK;
    });
    logDebug("Session monitor thread stopped.");
    monitor().running = false;
}

CK_RV takeEventWithoutWaiting(CK_SLOT_ID_PTR pSlot) {
    MonitorState& state = monitor();
    if (!state.eventPending.exchange(false)) {
        return refuse(CKR_NO_EVENT, "C_WaitForSlotEvent: no event pending (non-blocking)");
    }
    const CK_SLOT_ID slot = state.eventSlot;
    *pSlot = slot;
    logDebug("C_WaitForSlotEvent: non-blocking, returning slot ", slot);
    return CKR_OK;
}

CK_RV waitForEvent(CK_SLOT_ID_PTR pSlot) {
    MonitorState& state = monitor();
    std::unique_lock lock(state.eventMutex);
    const unsigned stopsBefore = state.stops;
    const auto stopped = [&] { return state.stopRequested || state.stops != stopsBefore; };
    state.slotEvent.wait(lock, [&] { return state.eventPending || stopped(); });
    if (stopped()) {
        return refuse(CKR_CRYPTOKI_NOT_INITIALIZED,
                      "C_WaitForSlotEvent: monitor stopped, returning CKR_CRYPTOKI_NOT_INITIALIZED");
    }
    state.eventPending = false;
    const CK_SLOT_ID slot = state.eventSlot;
    *pSlot = slot;
    logDebug("C_WaitForSlotEvent: blocking, returning slot ", slot);
    return CKR_OK;
}

}  // namespace

namespace zentak {

bool isDeviceMonitorRunning() {
    return monitor().running;
}

void startDeviceMonitor() {
    MonitorState& state = monitor();
    if (state.thread.joinable()) {
        // It has ended by itself; assigning over it would end the process.
        state.thread.join();
    }
    platform::keepModuleLoaded();
    state.stopRequested = false;
    // Before the thread gets to run, so that a host that initialises again at once finds it.
    state.running = true;
    try {
        state.thread = std::thread(runMonitor);
    } catch (...) {
        state.running = false;
        throw;
    }
}

void stopDeviceMonitor() {
    MonitorState& state = monitor();
    {
        // Under the mutex, so that nobody who has just looked at the request goes on to wait.
        const std::scoped_lock lock(state.eventMutex);
        state.stopRequested = true;
        ++state.stops;
    }
    state.slotEvent.notify_all();
    if (state.thread.joinable() && state.thread.get_id() != std::this_thread::get_id()) {
        state.thread.join();
        logDebug("Monitor thread joined (stopDeviceMonitor).");
    }
    state.running = false;
}

void holdDeviceMonitor() {
    monitor().monitorMutex.holdForFork();
}

void releaseDeviceMonitor() {
    monitor().monitorMutex.releaseAfterFork();
}

void prepareToForgetDeviceMonitor() {
    prepareToReplaceLasting<MonitorState>();
}

void forgetDeviceMonitor() {
    // A thread that has forked in the middle of its look ends in the child.
    monitor().stopRequested = true;
    replaceLasting<MonitorState>();
}

}  // namespace zentak

CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR /*pReserved*/) {
    constexpr auto name = "C_WaitForSlotEvent";
    logDebug(name);
    // Without the module's lock: a host may wait here for hours.
    return withoutExceptions(name, [&]() -> CK_RV {
        if (theModule().instanceWithoutLock() == nullptr) {
            return refuse(CKR_CRYPTOKI_NOT_INITIALIZED, name, ": not initialized");
        }
        if (pSlot == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_WaitForSlotEvent: pSlot is NULL");
        }
        return (flags & CKF_DONT_BLOCK) != 0 ? takeEventWithoutWaiting(pSlot) : waitForEvent(pSlot);
    });
}
