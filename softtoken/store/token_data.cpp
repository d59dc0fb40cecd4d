#include "store/token_data.h"

#include <algorithm>

#include "store/document.h"

namespace softtoken {

namespace {

constexpr std::string_view tokenFormat = "zentak-software-token";
constexpr std::string_view attemptsFormat = "zentak-software-token-attempts";
/// The versions that are written; those before are read.
constexpr int tokenVersion = 2;
constexpr int attemptsVersion = 1;
/// More would keep an application waiting for minutes at a file that somebody prepared.
constexpr std::uint32_t maximumIterations = 20'000'000;
constexpr std::size_t maximumAttempts = 1000;
constexpr std::size_t maximumTextLength = 1024;

void writePinSection(DocumentWriter& writer, const PinSection& section) {
    const KeyDerivation& derivation = section.derivation;
    writer.number(static_cast<std::uint32_t>(derivation.function));
    if (derivation.function == KeyDerivation::Function::pbkdf2) {
        writer.number(derivation.iterations);
    } else {
        writer.number(derivation.costLog2);
        writer.number(derivation.blockSize);
        writer.number(derivation.parallelization);
    }
    writer.bytes(section.salt);
    writer.bytes(section.wrappedTokenKey);
    writer.number(static_cast<std::uint32_t>(section.maximumAttempts));
}

KeyDerivation readKeyDerivation(DocumentReader& reader) {
    const std::uint32_t newest = reader.version() == 1 ? 1 : 2;
    const auto function = static_cast<KeyDerivation::Function>(reader.number("the key derivation function", 1, newest));
    if (function == KeyDerivation::Function::pbkdf2) {
        return KeyDerivation::pbkdf2(reader.number("the iterations", 1, maximumIterations));
    }
    // The limits keep the memory, 128 * N * r bytes, to 256 MiB and the time to 64 times that of a new PIN.
    KeyDerivation scrypt;
    scrypt.costLog2 = reader.number("scrypt's cost", 1, maximumCostLog2);
    scrypt.blockSize = reader.number("scrypt's block size", 2, 8);
    scrypt.parallelization = reader.number("scrypt's parallelization", 1, 16);
    return scrypt;
}

PinSection readPinSection(DocumentReader& reader) {
    PinSection section;
    section.derivation = readKeyDerivation(reader);
    section.salt = reader.ownBytes("the salt", 8, 64);
    section.wrappedTokenKey = reader.ownBytes("the wrapped token key", 29, 256);
    section.maximumAttempts = static_cast<int>(reader.number("the number of attempts", 1, maximumAttempts));
    return section;
}

void writeKeyPair(DocumentWriter& writer, const KeyPairEntry& entry) {
    writer.number(entry.id);
    writer.bytes(entry.keyId);
    writer.number(static_cast<std::uint32_t>(entry.keyType));
    writer.number(entry.keyUsage);
    writer.text(entry.alias);
    writer.bytes(entry.objectId);
    writer.bytes(entry.publicKey);
    writer.bytes(entry.sealedPrivateKey);
}

KeyPairEntry readKeyPair(DocumentReader& reader) {
    KeyPairEntry entry;
    entry.id = reader.number("a key pair's number", 1, largestObjectNumber);
    entry.keyId = reader.reference("a key pair's reference");
    entry.keyType = static_cast<int>(reader.number("a key pair's type", 1, 7));
    entry.keyUsage = reader.number("a key pair's usage", 0, UINT32_MAX);
    entry.alias = reader.text("a key pair's label", maximumAliasLength);
    entry.objectId = reader.ownBytes("a key pair's CKA_ID", 0, maximumObjectIdLength);
    entry.publicKey = reader.ownBytes("a public key", 1, 1024);
    entry.sealedPrivateKey = reader.ownBytes("a private key", 29, 16384);
    return entry;
}

void writeCertificate(DocumentWriter& writer, const CertificateEntry& entry) {
    writer.number(entry.id);
    writer.bytes(entry.certId);
    writer.text(entry.label);
    writer.bytes(entry.objectId);
    writer.bytes(entry.der);
}

CertificateEntry readCertificate(DocumentReader& reader) {
    CertificateEntry entry;
    entry.id = reader.number("a certificate's number", 1, largestObjectNumber);
    entry.certId = reader.reference("a certificate's reference");
    entry.label = reader.text("a certificate's label", maximumCertificateLabelLength);
    entry.objectId = reader.ownBytes("a certificate's CKA_ID", 0, maximumObjectIdLength);
    entry.der = reader.ownBytes("a certificate", 1, maximumCertificateLength);
    return entry;
}

template <typename Entry>
std::vector<Entry> readEntries(DocumentReader& reader, const char* what, Entry (*readEntry)(DocumentReader&)) {
    const std::uint32_t count = reader.number(what, 0, largestObjectNumber);
    std::vector<Entry> entries;
    entries.reserve(count);
    std::vector<bool> taken(largestObjectNumber + 1);
    for (std::uint32_t i = 0; i < count; ++i) {
        const Entry& entry = entries.emplace_back(readEntry(reader));
        if (taken[entry.id]) {
            failDamaged("an object number occurs twice");
        }
        taken[entry.id] = true;
    }
    return entries;
}

}  // namespace

std::string writeTokenData(const TokenData& token) {
    DocumentWriter writer(tokenFormat, tokenVersion);
    writer.text(token.serialNumber);
    writer.text(token.label);
    writer.text(token.model);
    writer.text(token.firmwareVersion);
    writer.number(token.userPinChanged ? 1 : 0);
    writePinSection(writer, token.user);
    writer.number(token.officer ? 1 : 0);
    if (token.officer) {
        writePinSection(writer, *token.officer);
    }
    writer.number(token.capacity);
    writer.number(token.lastKeyPairNumber);
    writer.number(token.lastCertificateNumber);
    writer.number(static_cast<std::uint32_t>(token.keyPairs.size()));
    for (const KeyPairEntry& entry : token.keyPairs) {
        writeKeyPair(writer, entry);
    }
    writer.number(static_cast<std::uint32_t>(token.certificates.size()));
    for (const CertificateEntry& entry : token.certificates) {
        writeCertificate(writer, entry);
    }
    return writer.finish();
}

TokenData readTokenData(std::string_view document) {
    DocumentReader reader(tokenFormat, tokenVersion, document);
    TokenData token;
    token.serialNumber = reader.text("the serial number", maximumSerialNumberLength);
    if (!isSerialNumber(token.serialNumber)) {
        failDamaged("the serial number");
    }
    token.label = reader.text("the label", maximumTextLength);
    token.model = reader.text("the model", maximumTextLength);
    token.firmwareVersion = reader.text("the firmware version", maximumTextLength);
    token.userPinChanged = reader.number("the state of the PIN", 0, 1) == 1;
    token.user = readPinSection(reader);
    if (reader.number("the officer's presence", 0, 1) == 1) {
        token.officer = readPinSection(reader);
    }
    token.capacity = reader.number("the capacity", 0, largestObjectNumber);
    token.lastKeyPairNumber = reader.number("the last key pair's number", 0, largestObjectNumber);
    token.lastCertificateNumber = reader.number("the last certificate's number", 0, largestObjectNumber);
    token.keyPairs = readEntries(reader, "the number of key pairs", &readKeyPair);
    token.certificates = readEntries(reader, "the number of certificates", &readCertificate);
    reader.finish();
    return token;
}

std::string writeAttempts(const Attempts& attempts) {
    DocumentWriter writer(attemptsFormat, attemptsVersion);
    writer.number(static_cast<std::uint32_t>(attempts.user));
    writer.number(static_cast<std::uint32_t>(attempts.officer));
    return writer.finish();
}

Attempts readAttempts(std::string_view document) {
    DocumentReader reader(attemptsFormat, attemptsVersion, document);
    Attempts attempts;
    attempts.user = static_cast<int>(reader.number("the user's attempts", 0, maximumAttempts));
    attempts.officer = static_cast<int>(reader.number("the officer's attempts", 0, maximumAttempts));
    reader.finish();
    return attempts;
}

bool isSerialNumber(std::string_view text) {
    return !text.empty() && text.size() <= maximumSerialNumberLength &&
           std::all_of(text.begin(), text.end(),
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z'); });
}

}  // namespace softtoken
