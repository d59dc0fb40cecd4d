/// A mutex that clang checks: with -Wthread-safety, what is marked as guarded can't be touched without the lock. It
/// knows its thread, so that a process can be forked from inside.

#ifndef ZENTAK_BASE_MUTEX_H
#define ZENTAK_BASE_MUTEX_H

#include <atomic>
#include <mutex>
#include <thread>

#if defined(__clang__)
#define ZENTAK_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define ZENTAK_THREAD_SAFETY(attribute)
#endif

namespace zentak {

class ZENTAK_THREAD_SAFETY(capability("mutex")) Mutex {
public:
    void lock() ZENTAK_THREAD_SAFETY(acquire_capability()) {
        mutex_.lock();
        holder_ = std::this_thread::get_id();
    }
    void unlock() ZENTAK_THREAD_SAFETY(release_capability()) {
        holder_ = std::thread::id();
        mutex_.unlock();
    }

    bool isHeldByThisThread() const { return holder_ == std::this_thread::get_id(); }

    /// Around a fork: nobody else is inside meanwhile. A thread that holds the mutex already, because the device
    /// library forks while it is called, goes on holding it afterwards, and so does its copy in the child.
    void holdForFork() ZENTAK_THREAD_SAFETY(no_thread_safety_analysis) {
        if (!isHeldByThisThread()) {
            lock();
            heldForFork_ = true;
        }
    }
    void releaseAfterFork() ZENTAK_THREAD_SAFETY(no_thread_safety_analysis) {
        if (isHeldByThisThread() && heldForFork_) {
            heldForFork_ = false;
            unlock();
        }
    }

private:
    std::mutex mutex_;
    /// Only a thread itself writes its own number here, so it can tell without the mutex whether it is inside.
    std::atomic<std::thread::id> holder_{};
    bool heldForFork_ = false;  ///< belongs to who holds the mutex
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
