#include "frame/module_state.h"

namespace zentak {

ModuleState& moduleState() {
    static auto* state = new ModuleState;
    return *state;
}

}  // namespace zentak
