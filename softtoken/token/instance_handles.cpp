#include "token/instance_handles.h"

#include <cstdint>
#include <map>

#include "base/mutex.h"
#include "base/no_destructor.h"
#include "platform/environment.h"
#include "platform/errors.h"

namespace softtoken {

namespace {

struct Registry {
    zentak::Mutex mutex;
    /// Handles are numbers that are given once, so a released one never means another instance.
    std::uintptr_t lastHandle ZENTAK_THREAD_SAFETY(guarded_by(mutex)) = 0x1000;
    std::map<std::uintptr_t, std::shared_ptr<Instance>> instances ZENTAK_THREAD_SAFETY(guarded_by(mutex));
};

/// Never destroyed: an application may end without releasing its instances while its threads still use them.
Registry& registry() {
    static zentak::NoDestructor<Registry> only;
    return *only;
}

}  // namespace

void* openInstance() {
    auto instance = std::make_shared<Instance>(Store(defaultStoreFolder()));
    Registry& all = registry();
    const zentak::MutexLock lock(all.mutex);
    all.lastHandle += 16;
    all.instances.emplace(all.lastHandle, std::move(instance));
    return reinterpret_cast<void*>(all.lastHandle);
}

std::shared_ptr<Instance> findInstance(void* handle) {
    Registry& all = registry();
    const zentak::MutexLock lock(all.mutex);
    const auto found = all.instances.find(reinterpret_cast<std::uintptr_t>(handle));
    if (found == all.instances.end()) {
        throw Failure(Error::unknownInstance, "there is no such instance");
    }
    return found->second;
}

void closeInstance(void* handle) {
    std::shared_ptr<Instance> last;
    Registry& all = registry();
    const zentak::MutexLock lock(all.mutex);
    const auto found = all.instances.find(reinterpret_cast<std::uintptr_t>(handle));
    if (found == all.instances.end()) {
        return;
    }
    // Released after the lock is.
    // cppcheck-suppress unreadVariable
    last = std::move(found->second);
    all.instances.erase(found);
}

}  // namespace softtoken
