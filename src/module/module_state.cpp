#include "module/module_state.h"

#include "base/no_destructor.h"

namespace zentak {

namespace {

NoDestructor<Module>& modulePlace() {
    static NoDestructor<Module> place;
    return place;
}

}  // namespace

void rememberPassword(ModuleState& state, const std::string& pin) {
    // A text of its own first: the old one's memory would be given back unwiped if it is too small for the new one.
    std::string fresh = pin;
    const WipedAtEnd wipeFresh(fresh);
    forgetPassword(state);
    state.cachedUserPassword.swap(fresh);
}

void forgetPassword(ModuleState& state) noexcept {
    wipe(state.cachedUserPassword);
}

Module& theModule() {
    return *modulePlace();
}

void prepareToReplaceModule() {
    modulePlace().prepareReplacement();
}

void replaceModule() noexcept {
    modulePlace().replace();
}

}  // namespace zentak
