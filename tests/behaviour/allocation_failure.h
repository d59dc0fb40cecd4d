/// Memory that runs out at a chosen moment, and a look at what is taken and given back: this program's `operator new`
/// and `delete`, which the module uses too where libraries share them. All for the calling thread alone.

#ifndef ZENTAK_TESTS_BEHAVIOUR_ALLOCATION_FAILURE_H
#define ZENTAK_TESTS_BEHAVIOUR_ALLOCATION_FAILURE_H

#include <cstddef>
#include <functional>
#include <string_view>

namespace behaviour {

/// Lets the `nth` allocation (1 is the next one) of the calling thread fail, once.
void failAllocation(int nth);

/// Lets the `nth` allocation of the calling thread fail, and every one after it.
void failAllocationsFrom(int nth);

/// Ends that; true when the allocation has failed.
bool allocationFailed();

/// Runs `action`, once, inside the next allocation of at least `size` bytes. It must live until then; null ends that.
void duringAllocation(std::size_t size, const std::function<void()>* action);

/// Remembers allocations of exactly `size` bytes from now on.
void followAllocations(std::size_t size);
/// The last one of them, null without one.
const unsigned char* lastAllocation();

/// Looks for `pattern` (at most 64 bytes) in all memory that is given back from now on.
void watchFreedMemory(std::string_view pattern);
/// Ends that; how many pieces of memory held it.
int patternsFreed();

}  // namespace behaviour

#endif
