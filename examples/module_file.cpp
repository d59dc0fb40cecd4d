#include "module_file.h"

#include <filesystem>
#include <stdexcept>

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace {

/// The address of the function `name` in the module file at `path`.
void* loadFunction(const std::string& path, const char* name) {
#ifdef _WIN32
    // Only with an absolute path and this flag does Windows look for the module's own DLLs beside the module.
    HMODULE module = LoadLibraryExW(std::filesystem::absolute(path).c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (module == nullptr) {
        throw std::runtime_error("cannot load " + path + ": Windows error " + std::to_string(GetLastError()));
    }
    void* function = reinterpret_cast<void*>(GetProcAddress(module, name));
#else
    void* module = dlopen(std::filesystem::absolute(path).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        throw std::runtime_error(std::string("cannot load the module: ") + dlerror());
    }
    void* function = dlsym(module, name);
#endif
    if (function == nullptr) {
        throw std::runtime_error(path + " is no PKCS #11 module: it has no function " + name);
    }
    return function;
}

}  // namespace

CK_FUNCTION_LIST_PTR loadModule(const std::string& path) {
    // The other 67 functions needn't be looked up by name: this one hands them all out.
    auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(loadFunction(path, "C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR functions = nullptr;
    if (getFunctionList(&functions) != CKR_OK || functions == nullptr) {
        throw std::runtime_error("C_GetFunctionList of " + path + " gave no functions");
    }
    return functions;
}
