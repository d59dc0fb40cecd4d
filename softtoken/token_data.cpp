#include "token_data.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

#include "errors.h"
#include "openssl_support.h"

namespace softtoken {

namespace {

using Json = nlohmann::json;

constexpr const char* tokenFormat = "zentak-software-token";
constexpr const char* attemptsFormat = "zentak-software-token-attempts";
constexpr int formatVersion = 1;
/// More would keep a host waiting for minutes at a file that somebody prepared.
constexpr std::uint32_t maximumIterations = 20'000'000;
constexpr std::size_t maximumAttempts = 1000;

[[noreturn]] void damaged(const std::string& what) {
    throw Failure(Error::tokenDamaged, "the token's file is damaged: " + what);
}

/// Labels are bytes that applications choose; JSON holds valid UTF-8 alone, so other labels are written as digits.
Json textToJson(const std::string& text) {
    try {
        static_cast<void>(Json(text).dump());
        return text;
    } catch (const Json::type_error&) {
        return Json{{"hex", hexText(viewOf(text))}};
    }
}

Bytes bytesFromJson(const Json& value, std::size_t smallest, std::size_t largest) {
    auto bytes = bytesFromHex(value.get_ref<const std::string&>());
    if (!bytes || bytes->size() < smallest || bytes->size() > largest) damaged("a byte field");
    return *std::move(bytes);
}

std::string textFromJson(const Json& value, std::size_t largest) {
    std::string text;
    if (value.is_object()) {
        const Bytes bytes = bytesFromJson(value.at("hex"), 0, largest);
        text.assign(bytes.begin(), bytes.end());
    } else {
        text = value.get<std::string>();
    }
    if (text.size() > largest || text.find('\0') != std::string::npos) damaged("a text field");
    return text;
}

Reference referenceFromJson(const Json& value) {
    const Bytes bytes = bytesFromJson(value, sizeof(Reference), sizeof(Reference));
    Reference reference{};
    std::copy(bytes.begin(), bytes.end(), reference.begin());
    return reference;
}

/// A whole number within the bounds; JSON numbers convert silently otherwise.
std::uint32_t numberFromJson(const Json& value, std::size_t smallest, std::size_t largest) {
    if (!value.is_number_unsigned()) damaged("a number");
    const auto number = value.get<std::uint64_t>();
    if (number < smallest || number > largest) damaged("a number");
    return static_cast<std::uint32_t>(number);
}

Json pinSectionToJson(const PinSection& section) {
    return {{"kdf", "PBKDF2-HMAC-SHA256"},
            {"iterations", section.iterations},
            {"salt", hexText(section.salt)},
            {"wrappedTokenKey", hexText(section.wrappedTokenKey)},
            {"maximumAttempts", section.maximumAttempts}};
}

PinSection pinSectionFromJson(const Json& value) {
    if (value.at("kdf") != "PBKDF2-HMAC-SHA256") damaged("the key derivation function");
    PinSection section;
    section.iterations = numberFromJson(value.at("iterations"), 1, maximumIterations);
    section.salt = bytesFromJson(value.at("salt"), 8, 64);
    section.wrappedTokenKey = bytesFromJson(value.at("wrappedTokenKey"), 29, 256);
    section.maximumAttempts = static_cast<int>(numberFromJson(value.at("maximumAttempts"), 1, maximumAttempts));
    return section;
}

Json keyPairToJson(const KeyPairEntry& entry) {
    return {{"id", entry.id},
            {"keyId", hexText(entry.keyId)},
            {"keyType", entry.keyType},
            {"keyUsage", entry.keyUsage},
            {"alias", textToJson(entry.alias)},
            {"objectId", hexText(entry.objectId)},
            {"publicKey", hexText(entry.publicKey)},
            {"sealedPrivateKey", hexText(entry.sealedPrivateKey)}};
}

KeyPairEntry keyPairFromJson(const Json& value) {
    KeyPairEntry entry;
    entry.id = numberFromJson(value.at("id"), 1, largestObjectNumber);
    entry.keyId = referenceFromJson(value.at("keyId"));
    entry.keyType = static_cast<int>(numberFromJson(value.at("keyType"), 1, 7));
    entry.keyUsage = numberFromJson(value.at("keyUsage"), 0, UINT32_MAX);
    entry.alias = textFromJson(value.at("alias"), maximumAliasLength);
    entry.objectId = bytesFromJson(value.at("objectId"), 0, maximumObjectIdLength);
    entry.publicKey = bytesFromJson(value.at("publicKey"), 1, 1024);
    entry.sealedPrivateKey = bytesFromJson(value.at("sealedPrivateKey"), 29, 16384);
    return entry;
}

Json certificateToJson(const CertificateEntry& entry) {
    return {{"id", entry.id},
            {"certId", hexText(entry.certId)},
            {"label", textToJson(entry.label)},
            {"objectId", hexText(entry.objectId)},
            {"der", hexText(entry.der)}};
}

CertificateEntry certificateFromJson(const Json& value) {
    CertificateEntry entry;
    entry.id = numberFromJson(value.at("id"), 1, largestObjectNumber);
    entry.certId = referenceFromJson(value.at("certId"));
    entry.label = textFromJson(value.at("label"), maximumCertificateLabelLength);
    entry.objectId = bytesFromJson(value.at("objectId"), 0, maximumObjectIdLength);
    entry.der = bytesFromJson(value.at("der"), 1, maximumCertificateLength);
    return entry;
}

/// Wraps a document's content with what tells whether it is ours and whole.
std::string writeDocument(const char* format, const Json& content) {
    const std::string text = content.dump();
    return Json{{"format", format},
                {"version", formatVersion},
                {"checksum", hexText(sha256(viewOf(text)))},
                {"content", content}}
               .dump(1) +
           "\n";
}

Json readDocument(const char* format, std::string_view text) {
    // Our documents are flat; writing a value for its checksum takes stack for each level.
    const auto refuseDepth = [](int depth, Json::parse_event_t /*event*/, const Json& /*value*/) {
        if (depth > 8) damaged("it is nested too deeply");
        return true;
    };
    const Json document = Json::parse(text, refuseDepth, false);
    if (!document.is_object() || document.value("format", Json()) != format) damaged("it is no such document");
    const Json& version = document.at("version");
    if (version != formatVersion) {
        throw Failure(Error::unknownVersion, "the token's file is of version " + version.dump() +
                                                 ", this program knows version " + std::to_string(formatVersion));
    }
    const Json& content = document.at("content");
    if (document.at("checksum") != hexText(sha256(viewOf(content.dump())))) damaged("the checksum doesn't match");
    return content;
}

/// Gives the JSON library's complaints about missing or mistyped fields our own form.
template <typename Read>
auto translatingErrors(Read&& read) {
    try {
        return read();
    } catch (const Json::exception& error) {
        damaged(error.what());
    }
}

template <typename Entries>
void requireUniqueNumbers(const Entries& entries) {
    std::set<std::uint32_t> numbers;
    for (const auto& entry : entries) {
        if (!numbers.insert(entry.id).second) damaged("an object number occurs twice");
    }
}

}  // namespace

std::string writeTokenData(const TokenData& token) {
    Json keyPairs = Json::array();
    for (const KeyPairEntry& entry : token.keyPairs) keyPairs.push_back(keyPairToJson(entry));
    Json certificates = Json::array();
    for (const CertificateEntry& entry : token.certificates) certificates.push_back(certificateToJson(entry));
    return writeDocument(tokenFormat, {{"serialNumber", token.serialNumber},
                                       {"label", textToJson(token.label)},
                                       {"model", textToJson(token.model)},
                                       {"firmwareVersion", textToJson(token.firmwareVersion)},
                                       {"userPinChanged", token.userPinChanged},
                                       {"user", pinSectionToJson(token.user)},
                                       {"officer", token.officer ? pinSectionToJson(*token.officer) : Json()},
                                       {"capacity", token.capacity},
                                       {"lastKeyPairNumber", token.lastKeyPairNumber},
                                       {"lastCertificateNumber", token.lastCertificateNumber},
                                       {"keyPairs", keyPairs},
                                       {"certificates", certificates}});
}

TokenData readTokenData(std::string_view document) {
    return translatingErrors([&] {
        const Json content = readDocument(tokenFormat, document);
        TokenData token;
        token.serialNumber = textFromJson(content.at("serialNumber"), maximumSerialNumberLength);
        if (!isSerialNumber(token.serialNumber)) damaged("the serial number");
        token.label = textFromJson(content.at("label"), 1024);
        token.model = textFromJson(content.at("model"), 1024);
        token.firmwareVersion = textFromJson(content.at("firmwareVersion"), 64);
        token.userPinChanged = content.at("userPinChanged").get<bool>();
        token.user = pinSectionFromJson(content.at("user"));
        if (!content.at("officer").is_null()) token.officer = pinSectionFromJson(content.at("officer"));
        token.capacity = numberFromJson(content.at("capacity"), 0, largestObjectNumber);
        token.lastKeyPairNumber = numberFromJson(content.at("lastKeyPairNumber"), 0, largestObjectNumber);
        token.lastCertificateNumber = numberFromJson(content.at("lastCertificateNumber"), 0, largestObjectNumber);
        for (const Json& entry : content.at("keyPairs")) token.keyPairs.push_back(keyPairFromJson(entry));
        for (const Json& entry : content.at("certificates")) token.certificates.push_back(certificateFromJson(entry));
        requireUniqueNumbers(token.keyPairs);
        requireUniqueNumbers(token.certificates);
        return token;
    });
}

std::string writeAttempts(const Attempts& attempts) {
    return writeDocument(attemptsFormat, {{"user", attempts.user}, {"officer", attempts.officer}});
}

Attempts readAttempts(std::string_view document) {
    return translatingErrors([&] {
        const Json content = readDocument(attemptsFormat, document);
        return Attempts{static_cast<int>(numberFromJson(content.at("user"), 0, maximumAttempts)),
                        static_cast<int>(numberFromJson(content.at("officer"), 0, maximumAttempts))};
    });
}

std::string hexText(ByteView bytes) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

std::optional<Bytes> bytesFromHex(std::string_view text) {
    const auto digit = [](char character) -> int {
        if (character >= '0' && character <= '9') return character - '0';
        if (character >= 'A' && character <= 'F') return character - 'A' + 10;
        if (character >= 'a' && character <= 'f') return character - 'a' + 10;
        return -1;
    };
    if (text.size() % 2 != 0) return std::nullopt;
    Bytes bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = digit(text[i]);
        const int low = digit(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes.push_back(static_cast<unsigned char>(high * 16 + low));
    }
    return bytes;
}

bool isSerialNumber(std::string_view text) {
    return !text.empty() && text.size() <= maximumSerialNumberLength &&
           std::all_of(text.begin(), text.end(),
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z'); });
}

}  // namespace softtoken
