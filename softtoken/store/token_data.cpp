#include "store/token_data.h"

#include <algorithm>

#include "platform/errors.h"
#include "platform/openssl_support.h"

namespace softtoken {

namespace {

constexpr std::string_view tokenFormat = "zentak-software-token";
constexpr std::string_view attemptsFormat = "zentak-software-token-attempts";
/// The versions that are written; those before are read.
constexpr int tokenVersion = 2;
constexpr int attemptsVersion = 1;
/// More would keep a host waiting for minutes at a file that somebody prepared.
constexpr std::uint32_t maximumIterations = 20'000'000;
constexpr std::size_t maximumAttempts = 1000;
constexpr std::size_t maximumTextLength = 1024;

[[noreturn]] void damaged(const std::string& what) {
    throw Failure(Error::tokenDamaged, "the token's file is damaged: " + what);
}

/// Composes a document: the line with format and version, fields, checksum.
class Writer {
public:
    Writer(std::string_view format, int version) {
        document_ += format;
        document_ += ' ';
        document_ += std::to_string(version);
        document_ += '\n';
    }

    void number(std::uint32_t value) {
        for (int shift = 0; shift < 32; shift += 8) {
            document_ += static_cast<char>(value >> shift);
        }
    }
    void text(std::string_view value) {
        number(static_cast<std::uint32_t>(value.size()));
        document_ += value;
    }
    void bytes(ByteView value) { text({reinterpret_cast<const char*>(value.data()), value.size()}); }

    std::string finish() {
        const auto checksum = sha256(viewOf(document_));
        document_.append(checksum.begin(), checksum.end());
        return std::move(document_);
    }

private:
    std::string document_;
};

/// Takes a document apart. Every field is bounded, and named in the complaint about it.
class Reader {
public:
    Reader(std::string_view format, int newestVersion, std::string_view document) {
        const std::string_view line = document.substr(0, std::min(document.find('\n'), document.size()));
        if (!line.starts_with(format) || line.size() == document.size() || line.substr(format.size(), 1) != " ") {
            damaged("it is no such document");
        }
        const std::string_view digits = line.substr(format.size() + 1);
        if (digits.size() == 1 && digits[0] >= '1' && digits[0] <= '0' + newestVersion) {
            version_ = digits[0] - '0';
        } else {
            const bool isNumber = !digits.empty() && digits.size() <= 9 &&
                                  digits.find_first_not_of("0123456789") == std::string_view::npos;
            if (!isNumber) {
                damaged("its version is no number");
            }
            throw Failure(Error::unknownVersion, "the token's file is of version " + std::string(digits) +
                                                     ", this program knows version 1" +
                                                     (newestVersion > 1 ? " to " + std::to_string(newestVersion) : ""));
        }
        if (document.size() < line.size() + 1 + checksumLength) {
            damaged("it is too short");
        }
        const std::string_view covered = document.substr(0, document.size() - checksumLength);
        const auto checksum = sha256(viewOf(covered));
        if (!std::equal(checksum.begin(), checksum.end(), viewOf(document).last(checksumLength).begin())) {
            damaged("the checksum doesn't match");
        }
        rest_ = viewOf(covered).subspan(line.size() + 1);
    }

    [[nodiscard]] int version() const { return version_; }

    std::uint32_t number(const char* name, std::uint32_t smallest, std::uint32_t largest) {
        const std::uint32_t value = plainNumber(name);
        if (value < smallest || value > largest) {
            damaged(name);
        }
        return value;
    }

    ByteView bytes(const char* name, std::size_t smallest, std::size_t largest) {
        const std::size_t length = plainNumber(name);
        if (length < smallest || length > largest || length > rest_.size()) {
            damaged(name);
        }
        const ByteView value = rest_.first(length);
        rest_ = rest_.subspan(length);
        return value;
    }

    Bytes ownBytes(const char* name, std::size_t smallest, std::size_t largest) {
        const ByteView value = bytes(name, smallest, largest);
        return {value.begin(), value.end()};
    }

    std::string text(const char* name, std::size_t largest) {
        const ByteView value = bytes(name, 0, largest);
        if (std::find(value.begin(), value.end(), 0) != value.end()) {
            damaged(name);
        }
        return {value.begin(), value.end()};
    }

    Reference reference(const char* name) {
        Reference value{};
        const ByteView view = bytes(name, value.size(), value.size());
        std::copy(view.begin(), view.end(), value.begin());
        return value;
    }

    void finish() const {
        if (!rest_.empty()) {
            damaged("something follows its last field");
        }
    }

private:
    std::uint32_t plainNumber(const char* name) {
        if (rest_.size() < 4) {
            damaged(name);
        }
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            value |= static_cast<std::uint32_t>(rest_[i]) << (8 * i);
        }
        rest_ = rest_.subspan(4);
        return value;
    }

    int version_ = 0;
    ByteView rest_;
};

void writePinSection(Writer& writer, const PinSection& section) {
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

KeyDerivation readKeyDerivation(Reader& reader) {
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

PinSection readPinSection(Reader& reader) {
    PinSection section;
    section.derivation = readKeyDerivation(reader);
    section.salt = reader.ownBytes("the salt", 8, 64);
    section.wrappedTokenKey = reader.ownBytes("the wrapped token key", 29, 256);
    section.maximumAttempts = static_cast<int>(reader.number("the number of attempts", 1, maximumAttempts));
    return section;
}

void writeKeyPair(Writer& writer, const KeyPairEntry& entry) {
    writer.number(entry.id);
    writer.bytes(entry.keyId);
    writer.number(static_cast<std::uint32_t>(entry.keyType));
    writer.number(entry.keyUsage);
    writer.text(entry.alias);
    writer.bytes(entry.objectId);
    writer.bytes(entry.publicKey);
    writer.bytes(entry.sealedPrivateKey);
}

KeyPairEntry readKeyPair(Reader& reader) {
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

void writeCertificate(Writer& writer, const CertificateEntry& entry) {
    writer.number(entry.id);
    writer.bytes(entry.certId);
    writer.text(entry.label);
    writer.bytes(entry.objectId);
    writer.bytes(entry.der);
}

CertificateEntry readCertificate(Reader& reader) {
    CertificateEntry entry;
    entry.id = reader.number("a certificate's number", 1, largestObjectNumber);
    entry.certId = reader.reference("a certificate's reference");
    entry.label = reader.text("a certificate's label", maximumCertificateLabelLength);
    entry.objectId = reader.ownBytes("a certificate's CKA_ID", 0, maximumObjectIdLength);
    entry.der = reader.ownBytes("a certificate", 1, maximumCertificateLength);
    return entry;
}

template <typename Entry>
std::vector<Entry> readEntries(Reader& reader, const char* what, Entry (*readEntry)(Reader&)) {
    const std::uint32_t count = reader.number(what, 0, largestObjectNumber);
    std::vector<Entry> entries;
    entries.reserve(count);
    std::vector<bool> taken(largestObjectNumber + 1);
    for (std::uint32_t i = 0; i < count; ++i) {
        const Entry& entry = entries.emplace_back(readEntry(reader));
        if (taken[entry.id]) {
            damaged("an object number occurs twice");
        }
        taken[entry.id] = true;
    }
    return entries;
}

}  // namespace

std::string writeTokenData(const TokenData& token) {
    Writer writer(tokenFormat, tokenVersion);
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
    Reader reader(tokenFormat, tokenVersion, document);
    TokenData token;
    token.serialNumber = reader.text("the serial number", maximumSerialNumberLength);
    if (!isSerialNumber(token.serialNumber)) {
        damaged("the serial number");
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
    Writer writer(attemptsFormat, attemptsVersion);
    writer.number(static_cast<std::uint32_t>(attempts.user));
    writer.number(static_cast<std::uint32_t>(attempts.officer));
    return writer.finish();
}

Attempts readAttempts(std::string_view document) {
    Reader reader(attemptsFormat, attemptsVersion, document);
    Attempts attempts;
    attempts.user = static_cast<int>(reader.number("the user's attempts", 0, maximumAttempts));
    attempts.officer = static_cast<int>(reader.number("the officer's attempts", 0, maximumAttempts));
    reader.finish();
    return attempts;
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
        if (character >= '0' && character <= '9') {
            return character - '0';
        }
        if (character >= 'A' && character <= 'F') {
            return character - 'A' + 10;
        }
        if (character >= 'a' && character <= 'f') {
            return character - 'a' + 10;
        }
        return -1;
    };
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    Bytes bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = digit(text[i]);
        const int low = digit(text[i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
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
