/// Memory that runs out at a chosen moment: this program's `operator new`, which the module uses too where libraries
/// share it.

#ifndef ZENTAK_TESTS_BEHAVIOUR_ALLOCATION_FAILURE_H
#define ZENTAK_TESTS_BEHAVIOUR_ALLOCATION_FAILURE_H

namespace behaviour {

/// Lets the `nth` allocation (1 is the next one) of the calling thread fail, once.
void failAllocation(int nth);

/// Ends that; true when the allocation has failed.
bool allocationFailed();

}  // namespace behaviour

#endif
