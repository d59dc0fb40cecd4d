#include "module/module_state.h"

#include "base/no_destructor.h"

namespace zentak {

void rememberPassword(ModuleState& state, const std::string& pin) {
    // A text of its own first: the old one's memory would be given back unwiped where it is too small for the new one.
    std::string fresh = pin;
    const WipedAtEnd wipeFresh(fresh);
    forgetPassword(state);
    state.cachedUserPassword.swap(fresh);
}

void forgetPassword(ModuleState& state) noexcept {
    wipe(state.cachedUserPassword);
}

Module& theModule() {
    return lasting<Module>();
}

}  // namespace zentak
