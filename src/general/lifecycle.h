/// What C_Initialize and C_Finalize share, and what becomes of the module when its process forks.

#ifndef ZENTAK_GENERAL_LIFECYCLE_H
#define ZENTAK_GENERAL_LIFECYCLE_H

#include <mutex>

namespace zentak {

/// Held by C_Initialize and C_Finalize from end to end. Not the module lock: stopping the monitor takes as long as its
/// poll, and the monitor needs that lock itself.
std::mutex& lifecycleMutex();

/// From the first call on, a forked child of this process starts with a module that isn't initialised, whatever the
/// parent's threads were doing, and the parent's goes on undisturbed. A fork waits for calls that are under way, but
/// not for that of the thread that forks: a device library may fork while it is called. Throws std::bad_alloc.
void followForks();

}  // namespace zentak

#endif
