#include "journey_session.h"

#include <iterator>
#include <stdexcept>

#include "module_file.h"

CK_FUNCTION_LIST_PTR cryptoki = nullptr;

namespace {

std::string stateName(CK_STATE state) {
    static constexpr const char* names[] = {"CKS_RO_PUBLIC_SESSION", "CKS_RO_USER_FUNCTIONS", "CKS_RW_PUBLIC_SESSION",
                                            "CKS_RW_USER_FUNCTIONS", "CKS_RW_SO_FUNCTIONS"};
    return state < std::size(names) ? names[state] : hexadecimal(state);
}

std::string className(CK_OBJECT_CLASS objectClass) {
    static constexpr const char* names[] = {"CKO_DATA", "CKO_CERTIFICATE", "CKO_PUBLIC_KEY", "CKO_PRIVATE_KEY"};
    return objectClass < std::size(names) ? names[objectClass] : hexadecimal(objectClass);
}

/// `description` is the template in words.
std::vector<CK_OBJECT_HANDLE> search(CK_SESSION_HANDLE session, std::vector<CK_ATTRIBUTE> wanted,
                                     const std::string& description) {
    check("C_FindObjectsInit", cryptoki->C_FindObjectsInit(session, wanted.data(), lengthOf(wanted)));
    show("wanted", description);
    std::vector<CK_OBJECT_HANDLE> found;
    CK_ULONG count = 0;
    do {
        CK_OBJECT_HANDLE slice[16];
        check(found.empty() ? "C_FindObjects" : "C_FindObjects (any more?)",
              cryptoki->C_FindObjects(session, slice, std::size(slice), &count));
        found.insert(found.end(), slice, slice + count);
    } while (count > 0);
    check("C_FindObjectsFinal", cryptoki->C_FindObjectsFinal(session));
    show("found", found.size());
    return found;
}

}  // namespace

void step(std::string_view title) {
    static int number = 0;
    std::cout << '\n' << ++number << ". " << title << '\n';
}

void require(bool isSo, std::string_view claim) {
    if (!isSo) {
        throw std::runtime_error("this isn't so: " + std::string(claim));
    }
    std::cout << "  checked: " << claim << '\n';
}

void startModule(const std::string& path) {
    step("Loading the module");
    show("module", path);
    cryptoki = loadModule(path);
    check("C_Initialize", cryptoki->C_Initialize(nullptr));
}

void endModule() {
    step("The end");
    check("C_Finalize", cryptoki->C_Finalize(nullptr));
}

std::vector<CK_SLOT_ID> slotsWithToken() {
    CK_ULONG count = 0;
    check("C_GetSlotList (how many?)", cryptoki->C_GetSlotList(CK_TRUE, nullptr, &count));
    std::vector<CK_SLOT_ID> slots(count);
    if (count > 0) {
        check("C_GetSlotList (which?)", cryptoki->C_GetSlotList(CK_TRUE, slots.data(), &count));
    }
    show("tokens", count);
    return slots;
}

std::vector<Token> openTwoTokens() {
    step("Slots, tokens and sessions");
    const std::vector<CK_SLOT_ID> slots = slotsWithToken();
    if (slots.size() < 2) {
        throw std::runtime_error("two tokens have to be plugged in");
    }
    std::vector<Token> tokens;
    for (const CK_SLOT_ID slot : {slots[0], slots[1]}) {
        CK_SLOT_INFO place;
        check("C_GetSlotInfo", cryptoki->C_GetSlotInfo(slot, &place));
        show("slot", hexadecimal(slot));
        show("description", fieldText(place.slotDescription));
        CK_TOKEN_INFO token;
        check("C_GetTokenInfo", cryptoki->C_GetTokenInfo(slot, &token));
        show("label", fieldText(token.label));
        show("serial number", fieldText(token.serialNumber));
        show("model", fieldText(token.model));
        CK_ULONG mechanisms = 0;
        check("C_GetMechanismList", cryptoki->C_GetMechanismList(slot, nullptr, &mechanisms));
        show("mechanisms", mechanisms);
        tokens.push_back({slot, fieldText(token.serialNumber), openSession(slot)});
    }
    return tokens;
}

CK_SESSION_HANDLE openSession(CK_SLOT_ID slot, CK_FLAGS moreFlags) {
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    check("C_OpenSession", cryptoki->C_OpenSession(slot, CKF_SERIAL_SESSION | moreFlags, nullptr, nullptr, &session));
    show("session", hexadecimal(session));
    return session;
}

// C_Login takes the PIN as bytes that it might change.
// cppcheck-suppress passedByValue
CK_RV login(CK_SESSION_HANDLE session, std::string pin) {
    return cryptoki->C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), lengthOf(pin));
}

void showSessionState(CK_SESSION_HANDLE session, CK_STATE expected) {
    CK_SESSION_INFO info;
    check("C_GetSessionInfo", cryptoki->C_GetSessionInfo(session, &info));
    show("session", hexadecimal(session));
    show("state", stateName(info.state));
    if (info.state != expected) {
        throw std::runtime_error("the session should be in the state " + stateName(expected));
    }
}

std::vector<CK_OBJECT_HANDLE> findObjects(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass) {
    return search(session, {{CKA_CLASS, &objectClass, sizeof objectClass}}, "CKA_CLASS " + className(objectClass));
}

CK_OBJECT_HANDLE findObject(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass, Bytes id) {
    const std::vector<CK_OBJECT_HANDLE> found =
        search(session, {{CKA_CLASS, &objectClass, sizeof objectClass}, {CKA_ID, id.data(), lengthOf(id)}},
               "CKA_CLASS " + className(objectClass) + ", CKA_ID " + hexadecimal(id));
    if (found.size() != 1) {
        throw std::runtime_error("there should be exactly one such object");
    }
    return found.front();
}

std::vector<Bytes> readAttributes(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                  std::initializer_list<CK_ATTRIBUTE_TYPE> types) {
    std::vector<CK_ATTRIBUTE> wanted;
    for (const CK_ATTRIBUTE_TYPE type : types) {
        wanted.push_back({type, nullptr, 0});
    }
    check("C_GetAttributeValue (how long?)",
          cryptoki->C_GetAttributeValue(session, object, wanted.data(), lengthOf(wanted)));
    std::vector<Bytes> values(wanted.size());
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        if (wanted[i].ulValueLen != CK_UNAVAILABLE_INFORMATION) {
            values[i].resize(wanted[i].ulValueLen);
            wanted[i].pValue = values[i].data();
        }
    }
    check("C_GetAttributeValue", cryptoki->C_GetAttributeValue(session, object, wanted.data(), lengthOf(wanted)));
    return values;
}

std::string readLabel(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) {
    const Bytes label = readAttributes(session, object, {CKA_LABEL}).front();
    return {label.begin(), label.end()};
}

Bytes readPoint(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE publicKey) {
    Bytes point = readAttributes(session, publicKey, {CKA_EC_POINT}).front();
    // Tag and one byte of length: the points of the journey's curve are 65 bytes long.
    if (point.size() != 67) {
        throw std::runtime_error("this is no uncompressed point on P-256");
    }
    point.erase(point.begin(), point.begin() + 2);
    return point;
}
