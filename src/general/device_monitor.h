/// The device monitor: a thread that watches, from C_Initialize to C_Finalize, for tokens that come and go. It drops
/// the login of a token that is gone and raises the slot events that C_WaitForSlotEvent hands out.

#ifndef ZENTAK_GENERAL_DEVICE_MONITOR_H
#define ZENTAK_GENERAL_DEVICE_MONITOR_H

namespace zentak {

/// Whether a monitor runs, perhaps from an earlier initialisation that got no instance.
bool isDeviceMonitorRunning();

/// Starts the thread. Throws std::system_error when the system gives none.
void startDeviceMonitor();

/// Stops the thread and waits until it has ended, at most for the poll that it is in; wakes all who wait for a slot
/// event. Without a thread only the wake-up happens. Not to be called with the module locked.
void stopDeviceMonitor();

/// Around a fork, in the parent: waits for the poll that is under way, unless it is this thread's own, and keeps the
/// next one from beginning. A thread that holds the module lock must not ask for it. The release may come without the
/// hold.
void holdDeviceMonitor();
void releaseDeviceMonitor();

/// Before a fork: what `forgetDeviceMonitor` needs. Throws std::bad_alloc.
void prepareToForgetDeviceMonitor();

/// In a forked child, which doesn't have the thread: there is no monitor and no event.
void forgetDeviceMonitor() noexcept;

}  // namespace zentak

#endif
