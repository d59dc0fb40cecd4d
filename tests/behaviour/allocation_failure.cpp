#include "allocation_failure.h"

#include <cstdlib>
#include <new>

namespace {

thread_local int allocationsToGo = 0;
thread_local bool failed = false;

}  // namespace

namespace behaviour {

void failAllocation(int nth) {
    failed = false;
    allocationsToGo = nth;
}

bool allocationFailed() {
    allocationsToGo = 0;
    return failed;
}

}  // namespace behaviour

void* operator new(std::size_t size) {
    if (allocationsToGo > 0 && --allocationsToGo == 0) {
        failed = true;
        throw std::bad_alloc();
    }
    if (void* const memory = std::malloc(size > 0 ? size : 1)) return memory;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
