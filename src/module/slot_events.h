/// Slot events on their way from the device monitor, which raises them, to those who wait for one. There is one event
/// at most: what happens until somebody takes it is the same event.

#ifndef ZENTAK_MODULE_SLOT_EVENTS_H
#define ZENTAK_MODULE_SLOT_EVENTS_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

#include "module/slot_table.h"

namespace zentak {

/// No lock of the module is held in here while somebody waits.
class SlotEvents {
public:
    /// From a start of the module on, events are waited for; from its stop on, nobody waits any more. A pending event
    /// outlives both.
    void open() { closed_ = false; }
    void close() {
        {
            // Under the mutex, so that nobody who has just looked goes on to wait.
            const std::scoped_lock lock(mutex_);
            closed_ = true;
            ++closings_;
        }
        changed_.notify_all();
    }
    bool isClosed() const { return closed_; }
    /// For a forked child, in which the monitor's thread may go on for a moment without anybody to wake.
    void closeWithoutWaking() { closed_ = true; }

    void raise(CK_SLOT_ID slotID) {
        {
            const std::scoped_lock lock(mutex_);
            slotID_ = slotID;
            pending_ = true;
        }
        changed_.notify_all();
    }

    /// Takes the pending event, if there is one.
    std::optional<CK_SLOT_ID> takePending() {
        if (!pending_.exchange(false)) {
            return std::nullopt;
        }
        return slotID_;
    }

    /// Waits for an event and takes it. Nothing if the module was stopped, even if it was started again meanwhile.
    std::optional<CK_SLOT_ID> wait() {
        std::unique_lock lock(mutex_);
        const unsigned closingsBefore = closings_;
        const auto stopped = [&] { return closed_ || closings_ != closingsBefore; };
        changed_.wait(lock, [&] { return pending_ || stopped(); });
        if (stopped()) {
            return std::nullopt;
        }
        pending_ = false;
        return slotID_;
    }

    /// Sleeps, at most until the events are closed.
    void sleepUnlessClosed(std::chrono::milliseconds duration) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, duration, [&] { return closed_.load(); });
    }

private:
    /// Guards, with the condition, what follows against waiting past a change.
    std::mutex mutex_;
    std::condition_variable changed_;
    std::atomic<bool> closed_{false};
    std::atomic<bool> pending_{false};
    std::atomic<CK_SLOT_ID> slotID_{firstSlotId};
    unsigned closings_ = 0;
};

/// The events of this process. They are never destroyed.
SlotEvents& slotEvents();

/// Before a fork: what `replaceSlotEvents` needs. Throws std::bad_alloc.
void prepareToReplaceSlotEvents();

/// In a forked child: no event is pending.
void replaceSlotEvents() noexcept;

}  // namespace zentak

#endif
