// A host that has functions of the standard's names itself, as one does that links another module statically, and
// exports them. What the module hands out must be its own all the same. Prints what isn't.

#include <dlfcn.h>
#include <iostream>

#include "module.h"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-parameter"  // the table names them for the module
#define CRYPTOKI_FUNCTION(name, parameters) \
    CK_RV name parameters {                 \
        return CKR_GENERAL_ERROR;           \
    }
#include "module/function_table.inc"
#undef CRYPTOKI_FUNCTION
#pragma GCC diagnostic pop

namespace {

/// The loaded file that an address lies in.
template <typename Pointer>
const void* fileOf(Pointer address) {
    Dl_info info = {};
    return dladdr(reinterpret_cast<const void*>(address), &info) != 0 ? info.dli_fbase : nullptr;
}

}  // namespace

int main() {
    const CK_FUNCTION_LIST& list = support::functions();
    const void* const module = fileOf(support::moduleSymbol("C_Initialize"));
    if (module == nullptr || fileOf(&C_Initialize) == module || C_GetInfo(nullptr) != CKR_GENERAL_ERROR) {
        std::cout << "no host with functions of its own\n";
        return 1;
    }
    if (fileOf(&list) != module) std::cout << "the list\n";
#define CRYPTOKI_FUNCTION(name, parameters) \
    if (fileOf(list.name) != module) std::cout << #name "\n";
#include "module/function_table.inc"
#undef CRYPTOKI_FUNCTION
    return 0;
}
