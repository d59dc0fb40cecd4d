/// C_WaitForSlotEvent.

#include <optional>

#include "module/entry_frame.h"
#include "module/slot_events.h"

using namespace zentak;

namespace {

CK_RV takeEventWithoutWaiting(CK_SLOT_ID_PTR pSlot) {
    const std::optional<CK_SLOT_ID> slotID = slotEvents().takePending();
    if (!slotID.has_value()) {
        return refuse(CKR_NO_EVENT, "C_WaitForSlotEvent: no event pending (non-blocking)");
    }
    *pSlot = *slotID;
    logDebug("C_WaitForSlotEvent: non-blocking, returning slot ", *slotID);
    return CKR_OK;
}

CK_RV waitForEvent(CK_SLOT_ID_PTR pSlot) {
    const std::optional<CK_SLOT_ID> slotID = slotEvents().wait();
    if (!slotID.has_value()) {
        return refuse(CKR_CRYPTOKI_NOT_INITIALIZED,
                      "C_WaitForSlotEvent: monitor stopped, returning CKR_CRYPTOKI_NOT_INITIALIZED");
    }
    *pSlot = *slotID;
    logDebug("C_WaitForSlotEvent: blocking, returning slot ", *slotID);
    return CKR_OK;
}

}  // namespace

CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR /*pReserved*/) {
    constexpr auto name = "C_WaitForSlotEvent";
    logDebug(name);
    // Without the module's lock: an application may wait here for hours.
    return withoutExceptions(name, [&]() -> CK_RV {
        if (theModule().instanceWithoutLock() == nullptr) {
            return refuse(CKR_CRYPTOKI_NOT_INITIALIZED, name, ": not initialized");
        }
        if (pSlot == nullptr) {
            return refuse(CKR_ARGUMENTS_BAD, "C_WaitForSlotEvent: pSlot is NULL");
        }
        return (flags & CKF_DONT_BLOCK) != 0 ? takeEventWithoutWaiting(pSlot) : waitForEvent(pSlot);
    });
}
