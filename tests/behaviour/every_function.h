/// Calls any function of the list with made-up arguments, so that a test can go through all of them.

#ifndef ZENTAK_TESTS_BEHAVIOUR_EVERY_FUNCTION_H
#define ZENTAK_TESTS_BEHAVIOUR_EVERY_FUNCTION_H

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "module.h"

namespace behaviour {

struct AnyFunction {
    std::string name;
    bool supported;  ///< false for one that only answers CKR_FUNCTION_NOT_SUPPORTED
    /// Calls it with null for each pointer, `first` for a number at the first place and `number` for the others.
    std::function<CK_RV(CK_ULONG first, CK_ULONG number)> call;
    void* listed;  ///< the pointer in the function list
};

template <typename Argument>
Argument madeUp([[maybe_unused]] CK_ULONG number) {
    if constexpr (std::is_pointer_v<Argument>) {
        return nullptr;
    } else {
        return static_cast<Argument>(number);
    }
}

template <typename First, typename... Rest>
std::function<CK_RV(CK_ULONG, CK_ULONG)> withMadeUpArguments(CK_RV (*function)(First, Rest...)) {
    return [function]([[maybe_unused]] CK_ULONG first, [[maybe_unused]] CK_ULONG number) {
        return function(madeUp<First>(first), madeUp<Rest>(number)...);
    };
}

/// The 68 functions in the order of the list.
inline std::vector<AnyFunction> everyFunction() {
    const CK_FUNCTION_LIST& list = support::functions();
    return {
#define CRYPTOKI_FUNCTION(name, parameters) \
    {#name, true, withMadeUpArguments(list.name), reinterpret_cast<void*>(list.name)},
#define CRYPTOKI_UNSUPPORTED(name, parameters) \
    {#name, false, withMadeUpArguments(list.name), reinterpret_cast<void*>(list.name)},
#include "module/function_table.inc"
#undef CRYPTOKI_FUNCTION
#undef CRYPTOKI_UNSUPPORTED
    };
}

/// The three vendor extensions: name, symbol.
struct VendorExtension {
    std::string name;
    std::string symbol;
};

inline std::vector<VendorExtension> everyVendorExtension() {
    return {
#define CRYPTOKI_FUNCTION(name, parameters)
#define VENDOR_EXTENSION(name, parameters, mangled) {#name, support::vendorSymbol(#name, #mangled)},
#include "module/function_table.inc"
#undef CRYPTOKI_FUNCTION
#undef VENDOR_EXTENSION
    };
}

}  // namespace behaviour

#endif
