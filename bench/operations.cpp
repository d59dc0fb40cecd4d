#include "operations.h"

#include <algorithm>
#include <stdexcept>

#include "log_level.h"
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
    require(p11().C_GetSlotList(CK_TRUE, nullptr, &count), "C_GetSlotList");
    std::vector<CK_SLOT_ID> slots(count);
    require(p11().C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
    for (const CK_SLOT_ID slot : slots) {
        CK_TOKEN_INFO information;
        require(p11().C_GetTokenInfo(slot, &information), "C_GetTokenInfo");
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

const CK_FUNCTION_LIST& p11() {
    static const CK_FUNCTION_LIST& functions = support::functionsOf(support::loadModule(chosenModule()));
    return functions;
}

void useUsualConfiguration() {
    support::setEnvironment("ZENTAK_CONFIG", std::nullopt);
}

LogLevel::LogLevel(int level) {
    support::setEnvironment("ZENTAK_CONFIG", (support::runFolder() / "config").string());
    support::setLogLevel(level);
}

LogLevel::~LogLevel() {
    support::removeLogLevel();
    useUsualConfiguration();
}

UserSession::UserSession() {
    require(p11().C_Initialize(nullptr), "C_Initialize");
    slot_ = slotOfToken();
    require(p11().C_OpenSession(slot_, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &handle_),
            "C_OpenSession");
    require(p11().C_Login(handle_, CKU_USER, pinBytes(), pinLength), "C_Login");
}

std::vector<CK_OBJECT_HANDLE> find(CK_SESSION_HANDLE session, Template wanted, CK_ULONG step) {
    require(p11().C_FindObjectsInit(session, wanted.empty() ? nullptr : wanted.data(),
                                    static_cast<CK_ULONG>(wanted.size())),
            "C_FindObjectsInit");
    std::vector<CK_OBJECT_HANDLE> handles;
    for (CK_ULONG count = step; count == step;) {
        handles.resize(handles.size() + step);
        require(p11().C_FindObjects(session, handles.data() + handles.size() - step, step, &count), "C_FindObjects");
        handles.resize(handles.size() - step + count);
    }
    require(p11().C_FindObjectsFinal(session), "C_FindObjectsFinal");
    return handles;
}

CK_OBJECT_HANDLE findOne(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass, std::string id) {
    const auto handles = find(session, {entry(CKA_CLASS, objectClass), entry(CKA_ID, id)}, 2);
    if (handles.size() != 1) throw std::runtime_error("not one object of class " + std::to_string(objectClass));
    return handles.front();
}

Subjects::Subjects(const UserSession& userSession, std::size_t keyPairs, std::size_t certificates)
    : session(userSession.handle()), slot(userSession.slot()), rsaId(std::to_string(keyPairs - (keyPairs + 1) % 2)) {
    const std::string ecId = std::to_string(std::max<std::size_t>(keyPairs - keyPairs % 2, 1));
    rsaPrivateKey = findOne(session, CKO_PRIVATE_KEY, rsaId);
    rsaPublicKey = findOne(session, CKO_PUBLIC_KEY, rsaId);
    ecPrivateKey = findOne(session, CKO_PRIVATE_KEY, ecId);
    ecPublicKey = findOne(session, CKO_PUBLIC_KEY, ecId);
    certificate =
        certificates == 0 ? CK_INVALID_HANDLE : findOne(session, CKO_CERTIFICATE, std::to_string(certificates));
}

const std::vector<Operation>& operations() {
    static const std::vector<Operation> all = [] {
        std::vector<Operation> collected;
        for (const auto& some : {objectOperations(), cryptoOperations(), sessionOperations()}) {
            collected.insert(collected.end(), some.begin(), some.end());
        }
        return collected;
    }();
    return all;
}

const Operation& operation(const std::string& name) {
    for (const Operation& candidate : operations()) {
        if (candidate.name == name) return candidate;
    }
    throw std::runtime_error("unknown operation " + name);
}

}  // namespace bench
