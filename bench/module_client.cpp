#include "module_client.h"

#include <stdexcept>

#include "module.h"
#include "run_folder.h"

namespace bench {

namespace {

std::filesystem::path& chosenModule() {
    static std::filesystem::path file = support::moduleFile();
    return file;
}

/// A module may have slots besides that take a new token.
CK_SLOT_ID slotOfToken() {
    CK_ULONG count = 0;
    require(cryptoki().C_GetSlotList(CK_TRUE, nullptr, &count), "C_GetSlotList");
    std::vector<CK_SLOT_ID> slots(count);
    require(cryptoki().C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
    for (const CK_SLOT_ID slot : slots) {
        CK_TOKEN_INFO information;
        require(cryptoki().C_GetTokenInfo(slot, &information), "C_GetTokenInfo");
        if ((information.flags & CKF_TOKEN_INITIALIZED) != 0) return slot;
    }
    throw std::runtime_error("there is no token");
}

}  // namespace

void useModule(const std::filesystem::path& file) {
    chosenModule() = file;
}

void require(CK_RV result, const char* call) {
    if (result != CKR_OK) throw std::runtime_error(std::string(call) + " returned " + std::to_string(result));
}

const CK_FUNCTION_LIST& cryptoki() {
    static const CK_FUNCTION_LIST& functions = support::functionsOf(support::loadModule(chosenModule()));
    return functions;
}

void useUsualConfiguration() {
    support::setEnvironment("ZENTAK_CONFIG", std::nullopt);
}

OwnConfiguration::OwnConfiguration() {
    support::setEnvironment("ZENTAK_CONFIG", (support::runFolder() / "config").string());
}

UserSession::UserSession() {
    require(cryptoki().C_Initialize(nullptr), "C_Initialize");
    require(cryptoki().C_OpenSession(slotOfToken(), CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &handle_),
            "C_OpenSession");
    std::string pin = userPin;
    require(cryptoki().C_Login(handle_, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
                               static_cast<CK_ULONG>(pin.size())),
            "C_Login");
}

UserSession::~UserSession() {
    cryptoki().C_Finalize(nullptr);
}

std::vector<CK_OBJECT_HANDLE> UserSession::privateKeys(std::string id) const {
    CK_OBJECT_CLASS kind = CKO_PRIVATE_KEY;
    std::vector<CK_ATTRIBUTE> wanted = {{CKA_CLASS, &kind, sizeof kind}};
    if (!id.empty()) wanted.push_back({CKA_ID, id.data(), static_cast<CK_ULONG>(id.size())});
    require(cryptoki().C_FindObjectsInit(handle_, wanted.data(), static_cast<CK_ULONG>(wanted.size())),
            "C_FindObjectsInit");
    std::vector<CK_OBJECT_HANDLE> keys(4096);
    CK_ULONG count = 0;
    require(cryptoki().C_FindObjects(handle_, keys.data(), static_cast<CK_ULONG>(keys.size()), &count),
            "C_FindObjects");
    require(cryptoki().C_FindObjectsFinal(handle_), "C_FindObjectsFinal");
    keys.resize(count);
    return keys;
}

}  // namespace bench
