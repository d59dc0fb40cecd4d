#include "module.h"

#include <stdexcept>

#include "run_folder.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace support {
namespace {

void* symbolIn(void* handle, const std::string& name) {
#if defined(_WIN32)
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle), name.c_str()));
#else
    return dlsym(handle, name.c_str());
#endif
}

void* theModule() {
    static void* const handle = loadModule();
    return handle;
}

}  // namespace

std::filesystem::path moduleFile() {
    return programFile().parent_path() / ZENTAK_TEST_MODULE;
}

void* loadModule(const std::filesystem::path& file) {
#if defined(_WIN32)
    void* const handle = LoadLibraryW(file.lexically_normal().make_preferred().wstring().c_str());
    const std::string reason = "error " + std::to_string(GetLastError());
#else
    void* const handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    const char* const message = handle == nullptr ? dlerror() : nullptr;
    const std::string reason = message == nullptr ? "" : message;
#endif
    if (handle == nullptr) throw std::runtime_error("the module can't be loaded: " + file.string() + ": " + reason);
    return handle;
}

void unloadModule(void* handle) {
#if defined(_WIN32)
    FreeLibrary(static_cast<HMODULE>(handle));
#else
    dlclose(handle);
#endif
}

const CK_FUNCTION_LIST& functionsOf(void* handle) {
    const auto get = reinterpret_cast<CK_C_GetFunctionList>(symbolIn(handle, "C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR list = nullptr;
    if (get == nullptr || get(&list) != CKR_OK || list == nullptr) {
        throw std::runtime_error("the module gives no function list");
    }
    return *list;
}

void* moduleSymbol(const std::string& name) {
    return symbolIn(theModule(), name);
}

std::string vendorSymbol(const std::string& name, std::string parameters) {
#if defined(ZENTAK_WINDOWS_CRYPTOKI) && !defined(_WIN32)
    for (char& letter : parameters) letter = letter == 'm' ? 'j' : letter;
#endif
    return "_Z" + std::to_string(name.size()) + name + parameters;
}

const CK_FUNCTION_LIST& functions() {
    static const CK_FUNCTION_LIST& list = functionsOf(theModule());
    return list;
}

}  // namespace support
