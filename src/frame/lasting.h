/// Objects that live as long as the process: created on first use and never destroyed, because a host may exit or
/// unload the module without C_Finalize, while other threads are still inside.

#ifndef ZENTAK_FRAME_LASTING_H
#define ZENTAK_FRAME_LASTING_H

namespace zentak {

/// Where the one object of its type stands.
template <typename T>
T*& lastingObject() {
    static T* object = new T;
    return object;
}

template <typename T>
T& lasting() {
    return *lastingObject<T>();
}

/// Puts a new object in the old one's place, which is left as it is. Only for a forked child, where no other thread is:
/// its copy of the old one may be locked by a thread that it doesn't have.
template <typename T>
void replaceLasting() {
    lastingObject<T>() = new T;
}

}  // namespace zentak

#endif
