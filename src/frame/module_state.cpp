#include "frame/module_state.h"

#include "frame/lasting.h"

namespace zentak {

Module& theModule() {
    return lasting<Module>();
}

}  // namespace zentak
