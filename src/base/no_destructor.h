/// Objects that live as long as the process: created on first use and never destroyed, because a host may exit or
/// unload the module without C_Finalize, while other threads are still inside.

#ifndef ZENTAK_BASE_NO_DESTRUCTOR_H
#define ZENTAK_BASE_NO_DESTRUCTOR_H

#include <new>
#include <utility>

namespace zentak {

template <typename T>
struct Lasting {
    T* object = new T;
    T* next = nullptr;  ///< for a forked child
};

template <typename T>
Lasting<T>& lastingPlace() {
    static Lasting<T> place;
    return place;
}

template <typename T>
T& lasting() {
    return *lastingPlace<T>().object;
}

/// Before a fork: makes what `replaceLasting` will take, where there is memory.
template <typename T>
void prepareToReplaceLasting() {
    Lasting<T>& place = lastingPlace<T>();
    if (place.next == nullptr) {
        place.next = new (std::nothrow) T;
    }
}

/// Puts a new object in the old one's place, which is left as it is: whoever forked from inside still has it. Only for
/// a forked child, where no other thread is: its copy of the old one may be locked by a thread that it doesn't have.
/// Never fails: without memory before the fork, the new object stands where the old one stood.
template <typename T>
void replaceLasting() noexcept {
    Lasting<T>& place = lastingPlace<T>();
    place.object = place.next != nullptr ? std::exchange(place.next, nullptr) : new (place.object) T;
}

}  // namespace zentak

#endif
