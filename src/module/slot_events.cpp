#include "module/slot_events.h"

#include "base/no_destructor.h"

namespace zentak {

namespace {

NoDestructor<SlotEvents>& place() {
    static NoDestructor<SlotEvents> events;
    return events;
}

}  // namespace

SlotEvents& slotEvents() {
    return *place();
}

void prepareToReplaceSlotEvents() {
    place().prepareReplacement();
}

void replaceSlotEvents() noexcept {
    place().replace();
}

}  // namespace zentak
