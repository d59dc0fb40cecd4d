/// The least that a program in plain C needs to sign with a token, on both systems.
///
///     ZENTAK_PIN=... zentak-hello MODULE [FILE]
///
/// signs FILE, or the standard input, with the first private key of the first token and prints the signature in
/// hexadecimal; the token's label goes to the standard error. An EC signature is r and s, one after the other.

#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "module/cryptoki.h"

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>

#include <windows.h>
#define main wmain
#define PATH_FORMAT "%ls"
typedef wchar_t PathCharacter;
#else
#include <dlfcn.h>
#define PATH_FORMAT "%s"
typedef char PathCharacter;
#endif

static CK_FUNCTION_LIST_PTR cryptoki = NULL;

static bool succeeded(const char* function, CK_RV result) {
    if (result == CKR_OK) {
        return true;
    }
    const char* meaning = "";
    if (result == CKR_PIN_INCORRECT) {
        meaning = " (wrong PIN)";
    }
    if (result == CKR_PIN_LOCKED) {
        meaning = " (the PIN is locked)";
    }
    fprintf(stderr, "zentak-hello: %s returned 0x%08lX%s\n", function, (unsigned long)result, meaning);
    return false;
}

/// Sets `cryptoki` to the functions of the module file at `path`, which stays loaded until the program ends.
static bool loadModule(const PathCharacter* path) {
    CK_C_GetFunctionList getFunctionList = NULL;
#ifdef _WIN32
    // Only with an absolute path and this flag does Windows look for the module's own DLLs beside the module.
    wchar_t absolute[MAX_PATH];
    const DWORD length = GetFullPathNameW(path, MAX_PATH, absolute, NULL);
    HMODULE module = NULL;
    if (length < MAX_PATH) {
        module = LoadLibraryExW(absolute, NULL, LOAD_WITH_ALTERED_SEARCH_PATH);
    }
    if (module == NULL) {
        fprintf(stderr, "zentak-hello: cannot load %ls: Windows error %lu\n", path, GetLastError());
        return false;
    }
    getFunctionList = (CK_C_GetFunctionList)(void (*)(void))GetProcAddress(module, "C_GetFunctionList");
#else
    void* module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (module == NULL) {
        fprintf(stderr, "zentak-hello: cannot load the module: %s\n", dlerror());
        return false;
    }
    // C has no cast from an object's address to a function's.
    *(void**)&getFunctionList = dlsym(module, "C_GetFunctionList");
#endif
    if (getFunctionList == NULL) {
        fprintf(stderr, "zentak-hello: " PATH_FORMAT " is no PKCS #11 module: it has no C_GetFunctionList\n", path);
        return false;
    }
    return succeeded("C_GetFunctionList", getFunctionList(&cryptoki));
}

static bool findFirstToken(CK_SLOT_ID* slot) {
    // Asked twice, like every list: first for the number of entries, then for the entries.
    CK_ULONG count = 0;
    if (!succeeded("C_GetSlotList", cryptoki->C_GetSlotList(CK_TRUE, NULL, &count))) {
        return false;
    }
    CK_SLOT_ID* slots = calloc(count + 1, sizeof *slots);
    const bool listed = slots != NULL && succeeded("C_GetSlotList", cryptoki->C_GetSlotList(CK_TRUE, slots, &count));
    if (listed && count > 0) {
        *slot = slots[0];
    }
    if (listed && count == 0) {
        fprintf(stderr, "zentak-hello: no token is plugged in\n");
    }
    free(slots);
    return listed && count > 0;
}

static bool showLabel(CK_SLOT_ID slot) {
    CK_TOKEN_INFO token;
    if (!succeeded("C_GetTokenInfo", cryptoki->C_GetTokenInfo(slot, &token))) {
        return false;
    }
    // The field is padded and ends nowhere by itself.
    int length = sizeof token.label;
    while (length > 0 && (token.label[length - 1] == ' ' || token.label[length - 1] == '\0')) {
        --length;
    }
    fprintf(stderr, "Token: %.*s\n", length, (const char*)token.label);
    return true;
}

static bool findFirstPrivateKey(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* key) {
    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE wanted = {CKA_CLASS, &objectClass, sizeof objectClass};
    CK_ULONG count = 0;
    if (!succeeded("C_FindObjectsInit", cryptoki->C_FindObjectsInit(session, &wanted, 1)) ||
        !succeeded("C_FindObjects", cryptoki->C_FindObjects(session, key, 1, &count)) ||
        !succeeded("C_FindObjectsFinal", cryptoki->C_FindObjectsFinal(session))) {
        return false;
    }
    if (count == 0) {
        fprintf(stderr, "zentak-hello: the token holds no private key\n");
    }
    return count > 0;
}

static bool sign(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, FILE* input) {
    CK_KEY_TYPE type = 0;
    CK_ATTRIBUTE keyType = {CKA_KEY_TYPE, &type, sizeof type};
    if (!succeeded("C_GetAttributeValue", cryptoki->C_GetAttributeValue(session, key, &keyType, 1))) {
        return false;
    }
    CK_MECHANISM mechanism = {type == CKK_RSA ? CKM_SHA256_RSA_PKCS : CKM_ECDSA_SHA256, NULL, 0};
    if (!succeeded("C_SignInit", cryptoki->C_SignInit(session, &mechanism, key))) {
        return false;
    }
    static CK_BYTE piece[65536];
    size_t length = 0;
    while ((length = fread(piece, 1, sizeof piece, input)) > 0) {
        if (!succeeded("C_SignUpdate", cryptoki->C_SignUpdate(session, piece, (CK_ULONG)length))) {
            return false;
        }
    }
    if (ferror(input)) {
        perror("zentak-hello: cannot read what is to be signed");
        return false;
    }
    CK_BYTE signature[1024];
    CK_ULONG signatureLength = sizeof signature;
    if (!succeeded("C_SignFinal", cryptoki->C_SignFinal(session, signature, &signatureLength))) {
        return false;
    }
    for (CK_ULONG i = 0; i < signatureLength; ++i) {
        printf("%02x", signature[i]);
    }
    printf("\n");
    return fflush(stdout) == 0;
}

/// Leaves the session open and the user logged in: C_Finalize ends both, after a failure too.
static bool signWithFirstToken(char* pin, FILE* input) {
    CK_SLOT_ID slot = 0;
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
    return findFirstToken(&slot) && showLabel(slot) &&
           succeeded("C_OpenSession", cryptoki->C_OpenSession(slot, CKF_SERIAL_SESSION, NULL, NULL, &session)) &&
           succeeded("C_Login", cryptoki->C_Login(session, CKU_USER, (CK_BYTE_PTR)pin, (CK_ULONG)strlen(pin))) &&
           findFirstPrivateKey(session, &key) && sign(session, key, input);
}

int main(int argc, PathCharacter* argv[]) {
    char* pin = getenv("ZENTAK_PIN");
    if (argc < 2 || argc > 3 || pin == NULL) {
        fprintf(stderr, "Usage: ZENTAK_PIN=<the token's PIN> zentak-hello MODULE [FILE]\n");
        return 2;
    }
#ifdef _WIN32
    _setmode(_fileno(stdin), _O_BINARY);
    FILE* input = argc == 3 ? _wfopen(argv[2], L"rb") : stdin;
#else
    FILE* input = argc == 3 ? fopen(argv[2], "rb") : stdin;
#endif
    if (input == NULL) {
        fprintf(stderr, "zentak-hello: cannot open " PATH_FORMAT "\n", argv[2]);
        return 1;
    }
    bool done = false;
    if (loadModule(argv[1]) && succeeded("C_Initialize", cryptoki->C_Initialize(NULL))) {
        done = signWithFirstToken(pin, input);
        done = succeeded("C_Finalize", cryptoki->C_Finalize(NULL)) && done;
    }
    if (argc == 3) {
        fclose(input);
    }
    return done ? 0 : 1;
}
