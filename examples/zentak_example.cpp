/// What a program does to sign with a token, from loading the module to ending it, each call in plain sight.
///
///     ZENTAK_PIN=... zentak-example MODULE FILE FOLDER
///
/// signs FILE with the first RSA key and the first EC key on the first token. FOLDER receives rsa.sig and ec.sig (an EC
/// signature is r and s, one after the other) and the certificates that belong to the keys, rsa.der and ec.der.

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "example_support.h"
#include "module_file.h"

namespace {

CK_FUNCTION_LIST_PTR cryptoki = nullptr;

CK_SLOT_ID firstTokenSlot() {
    CK_INFO library;
    check("C_GetInfo", cryptoki->C_GetInfo(&library));
    show("library", fieldText(library.libraryDescription) + ' ' + versionText(library.libraryVersion));
    show("manufacturer", fieldText(library.manufacturerID));
    show("Cryptoki", versionText(library.cryptokiVersion));

    // Asked twice, like every list: first for the number of entries, then for the entries.
    CK_ULONG count = 0;
    check("C_GetSlotList (how many?)", cryptoki->C_GetSlotList(CK_TRUE, nullptr, &count));
    std::vector<CK_SLOT_ID> slots(count);
    check("C_GetSlotList (which?)", cryptoki->C_GetSlotList(CK_TRUE, slots.data(), &count));
    show("slots", count);
    if (count == 0) {
        throw std::runtime_error("no token is plugged in");
    }

    CK_SLOT_INFO slot;
    check("C_GetSlotInfo", cryptoki->C_GetSlotInfo(slots.front(), &slot));
    show("slot", hexadecimal(slots.front()));
    show("description", fieldText(slot.slotDescription));

    CK_TOKEN_INFO token;
    check("C_GetTokenInfo", cryptoki->C_GetTokenInfo(slots.front(), &token));
    show("label", fieldText(token.label));
    show("serial number", fieldText(token.serialNumber));
    show("model", fieldText(token.model));
    show("firmware", versionText(token.firmwareVersion));
    show("PIN length", std::to_string(token.ulMinPinLen) + " to " + std::to_string(token.ulMaxPinLen));
    return slots.front();
}

std::vector<CK_OBJECT_HANDLE> findObjects(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass) {
    CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &objectClass, sizeof objectClass}};
    check("C_FindObjectsInit", cryptoki->C_FindObjectsInit(session, wanted, 1));
    show("wanted", objectClass == CKO_PRIVATE_KEY ? "CKA_CLASS CKO_PRIVATE_KEY" : "CKA_CLASS CKO_CERTIFICATE");
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

/// The values of an object's attributes, in the order asked for; empty where the object has no such attribute.
std::vector<Bytes> readAttributes(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                  std::initializer_list<CK_ATTRIBUTE_TYPE> types) {
    std::vector<CK_ATTRIBUTE> wanted;
    for (const CK_ATTRIBUTE_TYPE type : types) {
        wanted.push_back({type, nullptr, 0});
    }
    const auto count = static_cast<CK_ULONG>(wanted.size());
    check("C_GetAttributeValue (how long?)", cryptoki->C_GetAttributeValue(session, object, wanted.data(), count));
    std::vector<Bytes> values(wanted.size());
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        if (wanted[i].ulValueLen != CK_UNAVAILABLE_INFORMATION) {
            values[i].resize(wanted[i].ulValueLen);
            wanted[i].pValue = values[i].data();
        }
    }
    check("C_GetAttributeValue", cryptoki->C_GetAttributeValue(session, object, wanted.data(), count));
    return values;
}

CK_ULONG number(const Bytes& value) {
    CK_ULONG result = 0;
    if (value.size() != sizeof result) {
        throw std::runtime_error("a numeric attribute doesn't have a number's length");
    }
    std::memcpy(&result, value.data(), sizeof result);
    return result;
}

struct Key {
    CK_OBJECT_HANDLE handle;
    CK_KEY_TYPE type;
    Bytes id;
};

Key describeKey(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE handle) {
    const std::vector<Bytes> values =
        readAttributes(session, handle, {CKA_LABEL, CKA_ID, CKA_KEY_TYPE, CKA_MODULUS_BITS, CKA_EC_PARAMS});
    Key key = {handle, number(values[2]), values[1]};
    show("private key", hexadecimal(handle));
    show("label", std::string(values[0].begin(), values[0].end()));
    show("id", hexadecimal(key.id));
    if (key.type == CKK_RSA) {
        show("key type", "RSA, " + std::to_string(number(values[3])) + " bits");
    } else {
        show("key type", "EC, curve " + hexadecimal(values[4]));
    }
    return key;
}

struct Certificate {
    Bytes id;
    Bytes der;
};

Certificate describeCertificate(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE handle) {
    const std::vector<Bytes> values = readAttributes(session, handle, {CKA_LABEL, CKA_ID, CKA_VALUE});
    show("certificate", hexadecimal(handle));
    show("label", std::string(values[0].begin(), values[0].end()));
    show("id", hexadecimal(values[1]));
    show("DER bytes", values[2].size());
    return {values[1], values[2]};
}

Bytes sign(CK_SESSION_HANDLE session, const Key& key, CK_MECHANISM_TYPE mechanismType, Bytes data) {
    CK_MECHANISM mechanism = {mechanismType, nullptr, 0};
    check("C_SignInit", cryptoki->C_SignInit(session, &mechanism, key.handle));
    const auto dataLength = static_cast<CK_ULONG>(data.size());
    CK_ULONG length = 0;
    check("C_Sign (how long?)", cryptoki->C_Sign(session, data.data(), dataLength, nullptr, &length));
    Bytes signature(length);
    check("C_Sign", cryptoki->C_Sign(session, data.data(), dataLength, signature.data(), &length));
    signature.resize(length);
    show("signature bytes", length);
    return signature;
}

/// Signs with the first key of the type, and puts the certificate with the key's identifier beside the signature.
void signWithFirst(CK_KEY_TYPE type, CK_MECHANISM_TYPE mechanism, CK_SESSION_HANDLE session,
                   const std::vector<Key>& keys, const std::vector<Certificate>& certificates, const Bytes& data,
                   const std::string& pathWithoutExtension) {
    for (const Key& key : keys) {
        if (key.type != type) {
            continue;
        }
        for (const Certificate& certificate : certificates) {
            if (certificate.id == key.id) {
                writeFile(pathWithoutExtension + ".sig", sign(session, key, mechanism, data));
                writeFile(pathWithoutExtension + ".der", certificate.der);
                return;
            }
        }
    }
    throw std::runtime_error("the token holds no such key with a certificate");
}

// C_Login takes the PIN as bytes that it might change.
// cppcheck-suppress passedByValue
void journey(const std::string& modulePath, std::string pin, const Bytes& data, const std::string& folder) {
    std::cout << "\nLoading the module " << modulePath << '\n';
    cryptoki = loadModule(modulePath);
    check("C_Initialize", cryptoki->C_Initialize(nullptr));

    std::cout << "\nLibrary, slot and token\n";
    const CK_SLOT_ID slot = firstTokenSlot();

    std::cout << "\nSession and login\n";
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    check("C_OpenSession", cryptoki->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session));
    show("session", hexadecimal(session));
    check("C_Login", cryptoki->C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
                                       static_cast<CK_ULONG>(pin.size())));

    std::cout << "\nPrivate keys\n";
    std::vector<Key> keys;
    for (const CK_OBJECT_HANDLE handle : findObjects(session, CKO_PRIVATE_KEY)) {
        keys.push_back(describeKey(session, handle));
    }

    std::cout << "\nCertificates\n";
    std::vector<Certificate> certificates;
    for (const CK_OBJECT_HANDLE handle : findObjects(session, CKO_CERTIFICATE)) {
        certificates.push_back(describeCertificate(session, handle));
    }

    std::cout << "\nSigning with RSA, CKM_SHA256_RSA_PKCS\n";
    signWithFirst(CKK_RSA, CKM_SHA256_RSA_PKCS, session, keys, certificates, data, folder + "/rsa");

    std::cout << "\nSigning with EC, CKM_ECDSA_SHA256\n";
    signWithFirst(CKK_EC, CKM_ECDSA_SHA256, session, keys, certificates, data, folder + "/ec");

    std::cout << "\nThe end\n";
    check("C_Logout", cryptoki->C_Logout(session));
    check("C_CloseSession", cryptoki->C_CloseSession(session));
    check("C_Finalize", cryptoki->C_Finalize(nullptr));
}

}  // namespace

int main(int argc, char* argv[]) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const char* pin = std::getenv("ZENTAK_PIN");
    if (arguments.size() != 3 || pin == nullptr) {
        std::cerr << "Usage: ZENTAK_PIN=<the token's PIN> zentak-example MODULE FILE FOLDER\n"
                     "Signs FILE with the first RSA and the first EC key of the first token; the signatures and the\n"
                     "keys' certificates go to FOLDER.\n";
        return 2;
    }
    try {
        journey(arguments[0], pin, readFile(arguments[1]), arguments[2]);
    } catch (const std::exception& problem) {
        std::cout.flush();
        std::cerr << "zentak-example: " << problem.what() << '\n';
        return 1;
    }
    return 0;
}
