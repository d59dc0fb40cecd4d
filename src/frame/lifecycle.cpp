#include "frame/lifecycle.h"

#include "frame/lasting.h"
#include "frame/module_state.h"
#include "log/diagnostic_log.h"
#include "platform/platform.h"
#include "slots/device_monitor.h"

namespace zentak {

namespace {

/// No thread of the module is inside the device library, and none writes to the log, while the process is copied.
void beforeFork() ZENTAK_THREAD_SAFETY(no_thread_safety_analysis) {
    holdDeviceMonitor();
    theModule().mutex.lock();
    holdLogWriters();
}

void inParent() ZENTAK_THREAD_SAFETY(no_thread_safety_analysis) {
    releaseLogWriters();
    theModule().mutex.unlock();
    releaseDeviceMonitor();
}

/// The child has neither the monitor nor a right to the parent's sessions. The copies stay where they are, unused: the
/// parent's instance isn't the child's to release.
void inChild() {
    replaceLasting<LifecycleMutex>();
    replaceLasting<Module>();
    forgetDeviceMonitor();
    forgetLogWriters();
}

}  // namespace

void followForks() {
    static std::once_flag once;
    std::call_once(once, [] { platform::atFork(&beforeFork, &inParent, &inChild); });
}

}  // namespace zentak
