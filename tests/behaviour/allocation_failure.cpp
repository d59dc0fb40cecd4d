#include "allocation_failure.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <malloc.h>
#include <new>
#include <utility>

namespace {

thread_local int allocationsToGo = 0;
thread_local bool failed = false;
thread_local bool andAllAfterIt = false;

thread_local std::size_t actionSize = 0;
thread_local const std::function<void()>* actionToRun = nullptr;

thread_local std::size_t followedSize = 0;
thread_local const unsigned char* followed = nullptr;

thread_local std::array<char, 64> watched = {};
thread_local std::size_t watchedLength = 0;
thread_local int freedPatterns = 0;

std::size_t sizeOf(void* memory) {
#if defined(_WIN32)
    return _msize(memory);
#else
    return malloc_usable_size(memory);
#endif
}

void giveBack(void* memory) {
    if (memory != nullptr && watchedLength > 0) {
        const auto* const first = static_cast<const char*>(memory);
        const char* const last = first + sizeOf(memory);
        if (std::search(first, last, watched.begin(), watched.begin() + watchedLength) != last) ++freedPatterns;
    }
    std::free(memory);
}

}  // namespace

namespace behaviour {

void failAllocation(int nth) {
    failed = false;
    andAllAfterIt = false;
    allocationsToGo = nth;
}

void failAllocationsFrom(int nth) {
    failAllocation(nth);
    andAllAfterIt = true;
}

bool allocationFailed() {
    allocationsToGo = 0;
    return failed;
}

void duringAllocation(std::size_t size, const std::function<void()>* action) {
    actionSize = size;
    actionToRun = action;
}

void followAllocations(std::size_t size) {
    followedSize = size;
    followed = nullptr;
}

const unsigned char* lastAllocation() {
    return followed;
}

void watchFreedMemory(std::string_view pattern) {
    watchedLength = std::min(pattern.size(), watched.size());
    std::copy_n(pattern.begin(), watchedLength, watched.begin());
    freedPatterns = 0;
}

int patternsFreed() {
    watchedLength = 0;
    return freedPatterns;
}

}  // namespace behaviour

void* operator new(std::size_t size) {
    if (allocationsToGo > 0 && --allocationsToGo == 0) {
        failed = true;
        allocationsToGo = andAllAfterIt ? 1 : 0;
        throw std::bad_alloc();
    }
    if (actionToRun != nullptr && size >= actionSize) (*std::exchange(actionToRun, nullptr))();
    if (void* const memory = std::malloc(size > 0 ? size : 1)) {
        if (size == followedSize) followed = static_cast<const unsigned char*>(memory);
        return memory;
    }
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void operator delete(void* memory) noexcept {
    giveBack(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    giveBack(memory);
}
void operator delete[](void* memory) noexcept {
    giveBack(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    giveBack(memory);
}
