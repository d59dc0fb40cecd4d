/// Objects that live as long as the process: created on first use and never destroyed, because an application may exit
/// or unload the library while other threads are still inside it.

#ifndef ZENTAK_BASE_NO_DESTRUCTOR_H
#define ZENTAK_BASE_NO_DESTRUCTOR_H

#include <new>
#include <utility>

namespace zentak {

/// Declared `static` in the function that hands out its object. Nothing runs when the process ends.
template <typename T>
class NoDestructor {
public:
    T& operator*() const { return *object_; }
    T* operator->() const { return object_; }

    /// Before a fork: makes the object that `replace` will take, if there is memory for it.
    void prepareReplacement() {
        if (next_ == nullptr) {
            next_ = new (std::nothrow) T;
        }
    }

    /// Puts a new object in the old one's place, which is left as it is: whoever forked from inside still uses it. Only
    /// for a forked child, which has no other thread: its copy of the old object may be locked by a thread of the
    /// parent. Never fails: if there was no memory before the fork, the new object is built on top of the old one.
    void replace() noexcept { object_ = next_ != nullptr ? std::exchange(next_, nullptr) : new (object_) T; }

private:
    T* object_ = new T;
    T* next_ = nullptr;
};

}  // namespace zentak

#endif
