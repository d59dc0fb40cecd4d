#include "example_support.h"

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

std::string hexadecimal(CK_ULONG number) {
    std::ostringstream text;
    text << "0x" << std::hex << std::uppercase << number;
    return text.str();
}

std::string hexadecimal(const Bytes& bytes) {
    std::ostringstream text;
    for (const CK_BYTE byte : bytes) {
        text << std::hex << std::uppercase << std::setfill('0') << std::setw(2) << unsigned{byte};
    }
    return text.str();
}

std::string returnCodeName(CK_RV code) {
    static constexpr std::pair<CK_RV, const char*> names[] = {
        {CKR_OK, "CKR_OK"},
        {CKR_HOST_MEMORY, "CKR_HOST_MEMORY"},
        {CKR_SLOT_ID_INVALID, "CKR_SLOT_ID_INVALID"},
        {CKR_FUNCTION_FAILED, "CKR_FUNCTION_FAILED"},
        {CKR_ARGUMENTS_BAD, "CKR_ARGUMENTS_BAD"},
        {CKR_NO_EVENT, "CKR_NO_EVENT"},
        {CKR_DATA_INVALID, "CKR_DATA_INVALID"},
        {CKR_DATA_LEN_RANGE, "CKR_DATA_LEN_RANGE"},
        {CKR_DEVICE_MEMORY, "CKR_DEVICE_MEMORY"},
        {CKR_FUNCTION_NOT_SUPPORTED, "CKR_FUNCTION_NOT_SUPPORTED"},
        {CKR_KEY_HANDLE_INVALID, "CKR_KEY_HANDLE_INVALID"},
        {CKR_KEY_SIZE_RANGE, "CKR_KEY_SIZE_RANGE"},
        {CKR_KEY_FUNCTION_NOT_PERMITTED, "CKR_KEY_FUNCTION_NOT_PERMITTED"},
        {CKR_MECHANISM_INVALID, "CKR_MECHANISM_INVALID"},
        {CKR_MECHANISM_PARAM_INVALID, "CKR_MECHANISM_PARAM_INVALID"},
        {CKR_OBJECT_HANDLE_INVALID, "CKR_OBJECT_HANDLE_INVALID"},
        {CKR_OPERATION_ACTIVE, "CKR_OPERATION_ACTIVE"},
        {CKR_OPERATION_NOT_INITIALIZED, "CKR_OPERATION_NOT_INITIALIZED"},
        {CKR_PIN_INCORRECT, "CKR_PIN_INCORRECT"},
        {CKR_PIN_LEN_RANGE, "CKR_PIN_LEN_RANGE"},
        {CKR_PIN_LOCKED, "CKR_PIN_LOCKED"},
        {CKR_SESSION_HANDLE_INVALID, "CKR_SESSION_HANDLE_INVALID"},
        {CKR_SESSION_READ_ONLY, "CKR_SESSION_READ_ONLY"},
        {CKR_SIGNATURE_INVALID, "CKR_SIGNATURE_INVALID"},
        {CKR_TOKEN_NOT_PRESENT, "CKR_TOKEN_NOT_PRESENT"},
        {CKR_USER_ALREADY_LOGGED_IN, "CKR_USER_ALREADY_LOGGED_IN"},
        {CKR_USER_NOT_LOGGED_IN, "CKR_USER_NOT_LOGGED_IN"},
        {CKR_BUFFER_TOO_SMALL, "CKR_BUFFER_TOO_SMALL"},
        {CKR_CRYPTOKI_NOT_INITIALIZED, "CKR_CRYPTOKI_NOT_INITIALIZED"},
    };
    for (const auto& [value, name] : names) {
        if (value == code) {
            return name;
        }
    }
    return hexadecimal(code);
}

void check(std::string_view call, CK_RV result, CK_RV expected) {
    const bool isRefusalWanted = expected != CKR_OK && result == expected;
    std::cout << "  " << call << " -> " << returnCodeName(result) << (isRefusalWanted ? ", as it should\n" : "\n");
    if (result != expected) {
        throw std::runtime_error(std::string(call) + " returned " + returnCodeName(result) +
                                 (expected == CKR_OK ? "" : ", not " + returnCodeName(expected)));
    }
}

std::string fieldText(std::span<const CK_BYTE> field) {
    std::string text(field.begin(), field.end());
    return text.substr(0, text.find('\0'));
}

std::string versionText(CK_VERSION version) {
    return std::to_string(version.major) + '.' + std::to_string(version.minor);
}

Bytes readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const Bytes& bytes) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
    show("written", path);
}
