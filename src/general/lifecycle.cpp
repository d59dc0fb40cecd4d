#include "general/lifecycle.h"

#include "base/no_destructor.h"
#include "general/device_monitor.h"
#include "log/diagnostic_log.h"
#include "module/module_state.h"
#include "platform/operating_system.h"

namespace zentak {

namespace {

NoDestructor<std::mutex>& lifecycle() {
    static NoDestructor<std::mutex> place;
    return place;
}

/// The child may find no memory, and it can't do without these.
void prepareForChild() {
    lifecycle().prepareReplacement();
    prepareToReplaceModule();
    prepareToForgetDeviceMonitor();
}

/// No other thread of the module is inside the device library, and none writes to the log, while the process is copied.
/// This thread may be: a device library may fork while it is called.
void beforeFork() {
    Module& module = theModule();
    if (!module.mutex.isHeldByThisThread()) {
        // Else the monitor may be waiting, in the middle of its look, for the lock that this thread won't give away.
        holdDeviceMonitor();
    }
    module.mutex.holdForFork();
    holdLogWriters();
    prepareForChild();
}

void inParent() {
    releaseLogWriters();
    theModule().mutex.releaseAfterFork();
    releaseDeviceMonitor();
}

/// The child has neither the monitor nor a right to the parent's sessions. The copies stay where they are, unused: the
/// parent's instance isn't the child's to release. Where the device library has forked inside a call, the call goes on
/// in the child with the copies, whose locks it has or can take.
void inChild() {
    inParent();
    lifecycle().replace();
    replaceModule();
    forgetDeviceMonitor();
}

}  // namespace

std::mutex& lifecycleMutex() {
    return *lifecycle();
}

void followForks() {
    static std::once_flag once;
    std::call_once(once, [] {
        prepareForChild();
        platform::atFork(&beforeFork, &inParent, &inChild);
    });
}

}  // namespace zentak
