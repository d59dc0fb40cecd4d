/// What a host sees when a token goes away and comes back, and when the module ends under a waiting thread.

#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

#include "journey_stages.h"

namespace {

struct SlotEvent {
    CK_RV result;
    CK_SLOT_ID slot;
};

/// Waits for the next slot event in a thread that nobody joins: a wait that never ends must not keep the program.
std::future<SlotEvent> waitInThread() {
    std::promise<SlotEvent> promise;
    std::future<SlotEvent> event = promise.get_future();
    std::thread(
        [](std::promise<SlotEvent> answer) {
            SlotEvent seen = {CKR_OK, 0};
            seen.result = cryptoki->C_WaitForSlotEvent(0, &seen.slot, nullptr);
            answer.set_value(seen);
        },
        std::move(promise))
        .detach();
    return event;
}

void waitForEvent() {
    std::cout << "  C_WaitForSlotEvent ..." << std::endl;
    std::future<SlotEvent> waiting = waitInThread();
    if (waiting.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        throw std::runtime_error("no slot event within 30 seconds");
    }
    const SlotEvent event = waiting.get();
    check("C_WaitForSlotEvent", event.result);
    show("slot", hexadecimal(event.slot));
    // Whoever does what this program asks for reads along.
    std::cout.flush();
}

void endUnderWaitingThread() {
    step("Ending the module while a thread waits for a slot event");
    std::cout << "  C_WaitForSlotEvent ... in a thread of its own\n";
    std::future<SlotEvent> waiting = waitInThread();
    if (waiting.wait_for(std::chrono::milliseconds(1500)) == std::future_status::ready) {
        throw std::runtime_error("C_WaitForSlotEvent returned without an event");
    }
    check("C_Finalize", cryptoki->C_Finalize(nullptr));
    if (waiting.wait_for(std::chrono::seconds(2)) != std::future_status::ready) {
        throw std::runtime_error("the thread still waits two seconds after C_Finalize");
    }
    check("C_WaitForSlotEvent", waiting.get().result, CKR_CRYPTOKI_NOT_INITIALIZED);
}

}  // namespace

void watchUnplugging(const Token& token, const std::string& pin) {
    step("The event for the tokens that were plugged in from the start");
    waitForEvent();

    step("Login with a second, read-only session open");
    const CK_SESSION_HANDLE readOnly = openSession(token.slot, 0);
    check("C_Login", login(token.session, pin));
    showSessionState(token.session, CKS_RW_USER_FUNCTIONS);
    showSessionState(readOnly, CKS_RO_USER_FUNCTIONS);

    step("The token is pulled out");
    std::cout << "Please unplug " << token.serialNumber << '\n';
    waitForEvent();
    showSessionState(token.session, CKS_RW_PUBLIC_SESSION);
    showSessionState(readOnly, CKS_RO_PUBLIC_SESSION);
    require(slotsWithToken().size() == 1, "one token is left");
    check("C_Login", login(token.session, pin), CKR_FUNCTION_FAILED);

    step("The token is put back");
    std::cout << "Please plug in " << token.serialNumber << '\n';
    waitForEvent();
    require(slotsWithToken().size() == 2, "both tokens are there");
    showSessionState(token.session, CKS_RW_PUBLIC_SESSION);

    step("The same session serves after another login");
    check("C_Login", login(token.session, pin));
    showSessionState(token.session, CKS_RW_USER_FUNCTIONS);
    showSessionState(readOnly, CKS_RO_USER_FUNCTIONS);
    require(!signWithRsa(token, {1, 2, 3}).empty(), "the key on the token still signs");

    endUnderWaitingThread();
}
