/// A mutex that clang checks: with -Wthread-safety, what is marked as guarded can't be touched without the lock.

#ifndef ZENTAK_FRAME_MUTEX_H
#define ZENTAK_FRAME_MUTEX_H

#include <mutex>

#if defined(__clang__)
#define ZENTAK_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define ZENTAK_THREAD_SAFETY(attribute)
#endif

namespace zentak {

class ZENTAK_THREAD_SAFETY(capability("mutex")) Mutex {
public:
    void lock() ZENTAK_THREAD_SAFETY(acquire_capability()) { mutex_.lock(); }
    void unlock() ZENTAK_THREAD_SAFETY(release_capability()) { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

class ZENTAK_THREAD_SAFETY(scoped_lockable) MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ZENTAK_THREAD_SAFETY(acquire_capability(mutex)) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() ZENTAK_THREAD_SAFETY(release_capability()) { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
};

}  // namespace zentak

#endif
