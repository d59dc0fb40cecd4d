#include "host_operations.h"

#include <algorithm>
#include <stdexcept>

#include "operation_support.h"

namespace bench {

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

CK_SLOT_ID slotOf(const Subjects& subjects) {
    CK_SESSION_INFO information;
    require(p11().C_GetSessionInfo(subjects.session, &information), "C_GetSessionInfo");
    return information.slotID;
}

Subjects::Subjects(const UserSession& userSession, std::size_t keyPairs, std::size_t certificates)
    : session(userSession.handle()) {
    const std::string ecId = std::to_string(std::max<std::size_t>(keyPairs - keyPairs % 2, 1));
    rsaId = std::to_string(keyPairs - (keyPairs + 1) % 2);
    rsaLabel = "key " + rsaId;
    rsaPrivateKey = findOne(session, CKO_PRIVATE_KEY, rsaId);
    rsaPublicKey = findOne(session, CKO_PUBLIC_KEY, rsaId);
    ecPrivateKey = findOne(session, CKO_PRIVATE_KEY, ecId);
    ecPublicKey = findOne(session, CKO_PUBLIC_KEY, ecId);
    certificate =
        certificates == 0 ? CK_INVALID_HANDLE : findOne(session, CKO_CERTIFICATE, std::to_string(certificates));
}

const std::vector<Operation>& hostOperations() {
    static const std::vector<Operation> operations = [] {
        std::vector<Operation> all;
        for (const auto& some : {objectOperations(), cryptoOperations(), sessionOperations()}) {
            all.insert(all.end(), some.begin(), some.end());
        }
        return all;
    }();
    return operations;
}

const Operation& hostOperation(const std::string& name) {
    for (const Operation& operation : hostOperations()) {
        if (operation.name == name) return operation;
    }
    throw std::runtime_error("unknown operation " + name);
}

}  // namespace bench
