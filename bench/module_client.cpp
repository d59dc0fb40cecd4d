#include "module_client.h"

#include <dlfcn.h>
#include <stdexcept>

namespace bench {

std::filesystem::path programFolder() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

void* librarySymbol(const char* library, const char* name) {
    void* const handle = dlopen((programFolder() / library).c_str(), RTLD_NOW | RTLD_LOCAL);
    void* const symbol = handle == nullptr ? nullptr : dlsym(handle, name);
    if (symbol == nullptr) throw std::runtime_error(dlerror());
    return symbol;
}

void require(CK_RV result, const char* call) {
    if (result != CKR_OK) throw std::runtime_error(std::string(call) + " returned " + std::to_string(result));
}

const CK_FUNCTION_LIST& cryptoki() {
    static const CK_FUNCTION_LIST& functions = []() -> const CK_FUNCTION_LIST& {
        const auto get =
            reinterpret_cast<CK_C_GetFunctionList>(librarySymbol("libZentakPKCS11.so", "C_GetFunctionList"));
        CK_FUNCTION_LIST_PTR list = nullptr;
        require(get(&list), "C_GetFunctionList");
        return *list;
    }();
    return functions;
}

UserSession::UserSession() {
    require(cryptoki().C_Initialize(nullptr), "C_Initialize");
    CK_SLOT_ID slot = 0;
    CK_ULONG count = 1;
    require(cryptoki().C_GetSlotList(CK_TRUE, &slot, &count), "C_GetSlotList");
    require(cryptoki().C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &handle_),
            "C_OpenSession");
    std::string pin = userPin;
    require(cryptoki().C_Login(handle_, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), pin.size()),
            "C_Login");
}

UserSession::~UserSession() {
    cryptoki().C_Finalize(nullptr);
}

std::vector<CK_OBJECT_HANDLE> UserSession::privateKeys(std::string id) const {
    CK_OBJECT_CLASS kind = CKO_PRIVATE_KEY;
    std::vector<CK_ATTRIBUTE> wanted = {{CKA_CLASS, &kind, sizeof kind}};
    if (!id.empty()) wanted.push_back({CKA_ID, id.data(), id.size()});
    require(cryptoki().C_FindObjectsInit(handle_, wanted.data(), wanted.size()), "C_FindObjectsInit");
    std::vector<CK_OBJECT_HANDLE> keys(4096);
    CK_ULONG count = 0;
    require(cryptoki().C_FindObjects(handle_, keys.data(), keys.size(), &count), "C_FindObjects");
    require(cryptoki().C_FindObjectsFinal(handle_), "C_FindObjectsFinal");
    keys.resize(count);
    return keys;
}

}  // namespace bench
