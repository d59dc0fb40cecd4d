/// The README's ten lines, as a program.
///
///     ZENTAK_PIN=... zentak-first MODULE FILE
///
/// signs FILE with the first key of the first token, an RSA key, and prints the signature in hexadecimal.

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "example_support.h"
#include "module_file.h"

namespace {

// A PIN of its own: Cryptoki takes no constant one.
// cppcheck-suppress passedByValue
Bytes firstSignature(const std::string& path, std::string pin, Bytes data) {
    CK_SLOT_ID slots[16];
    CK_SESSION_HANDLE session = 0;
    CK_OBJECT_HANDLE key = 0;
    CK_OBJECT_CLASS privateKeys = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE wanted = {CKA_CLASS, &privateKeys, sizeof privateKeys};
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    CK_ULONG count = 16;
    Bytes signature(1024);
    auto signatureLength = static_cast<CK_ULONG>(signature.size());
    const auto pinLength = static_cast<CK_ULONG>(pin.size());
    const auto dataLength = static_cast<CK_ULONG>(data.size());
    auto* const pinBytes = reinterpret_cast<CK_BYTE_PTR>(pin.data());

    // --- The ten lines
    const CK_FUNCTION_LIST* token = loadModule(path);
    check("C_Initialize", token->C_Initialize(nullptr));
    check("C_GetSlotList", token->C_GetSlotList(CK_TRUE, slots, &count));
    check("C_OpenSession", token->C_OpenSession(slots[0], CKF_SERIAL_SESSION, nullptr, nullptr, &session));
    check("C_Login", token->C_Login(session, CKU_USER, pinBytes, pinLength));
    check("C_FindObjectsInit", token->C_FindObjectsInit(session, &wanted, 1));  // CKA_CLASS is CKO_PRIVATE_KEY
    check("C_FindObjects", token->C_FindObjects(session, &key, 1, &count));
    check("C_FindObjectsFinal", token->C_FindObjectsFinal(session));
    check("C_SignInit", token->C_SignInit(session, &mechanism, key));  // CKM_SHA256_RSA_PKCS
    check("C_Sign", token->C_Sign(session, data.data(), dataLength, signature.data(), &signatureLength));
    // ---

    check("C_Finalize", token->C_Finalize(nullptr));  // closes the session and logs out
    signature.resize(signatureLength);
    return signature;
}

}  // namespace

int main(int argc, char* argv[]) {
    const char* pin = std::getenv("ZENTAK_PIN");
    if (argc != 3 || pin == nullptr) {
        std::cerr << "Usage: ZENTAK_PIN=<the token's PIN> zentak-first MODULE FILE\n";
        return 2;
    }
    try {
        std::cout << hexadecimal(firstSignature(argv[1], pin, readFile(argv[2]))) << '\n';
    } catch (const std::exception& problem) {
        std::cout.flush();
        std::cerr << "zentak-first: " << problem.what() << '\n';
        return 1;
    }
    return 0;
}
