#include "store/document.h"

#include <algorithm>

#include "platform/errors.h"
#include "platform/openssl_support.h"

namespace softtoken {

void failDamaged(const std::string& what) {
    throw Failure(Error::tokenDamaged, "the token's file is damaged: " + what);
}

DocumentWriter::DocumentWriter(std::string_view format, int version) {
    document_ += format;
    document_ += ' ';
    document_ += std::to_string(version);
    document_ += '\n';
}

void DocumentWriter::number(std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) {
        document_ += static_cast<char>(value >> shift);
    }
}

void DocumentWriter::text(std::string_view value) {
    number(static_cast<std::uint32_t>(value.size()));
    document_ += value;
}

void DocumentWriter::bytes(ByteView value) {
    text({reinterpret_cast<const char*>(value.data()), value.size()});
}

std::string DocumentWriter::finish() {
    const auto checksum = sha256(viewOf(document_));
    document_.append(checksum.begin(), checksum.end());
    return std::move(document_);
}

DocumentReader::DocumentReader(std::string_view format, int newestVersion, std::string_view document) {
    const std::string_view line = document.substr(0, std::min(document.find('\n'), document.size()));
    if (!line.starts_with(format) || line.size() == document.size() || line.substr(format.size(), 1) != " ") {
        failDamaged("it is no such document");
    }
    readVersion(line.substr(format.size() + 1), newestVersion);
    if (document.size() < line.size() + 1 + checksumLength) {
        failDamaged("it is too short");
    }
    const std::string_view covered = document.substr(0, document.size() - checksumLength);
    const auto checksum = sha256(viewOf(covered));
    if (!std::equal(checksum.begin(), checksum.end(), viewOf(document).last(checksumLength).begin())) {
        failDamaged("the checksum doesn't match");
    }
    rest_ = viewOf(covered).subspan(line.size() + 1);
}

void DocumentReader::readVersion(std::string_view digits, int newest) {
    if (digits.size() == 1 && digits[0] >= '1' && digits[0] <= '0' + newest) {
        version_ = digits[0] - '0';
        return;
    }
    const bool isNumber =
        !digits.empty() && digits.size() <= 9 && digits.find_first_not_of("0123456789") == std::string_view::npos;
    if (!isNumber) {
        failDamaged("its version is no number");
    }
    throw Failure(Error::unknownVersion, "the token's file is of version " + std::string(digits) +
                                             ", this program knows version 1" +
                                             (newest > 1 ? " to " + std::to_string(newest) : ""));
}

std::uint32_t DocumentReader::number(const char* name, std::uint32_t smallest, std::uint32_t largest) {
    const std::uint32_t value = plainNumber(name);
    if (value < smallest || value > largest) {
        failDamaged(name);
    }
    return value;
}

ByteView DocumentReader::bytes(const char* name, std::size_t smallest, std::size_t largest) {
    const std::size_t length = plainNumber(name);
    if (length < smallest || length > largest || length > rest_.size()) {
        failDamaged(name);
    }
    const ByteView value = rest_.first(length);
    rest_ = rest_.subspan(length);
    return value;
}

Bytes DocumentReader::ownBytes(const char* name, std::size_t smallest, std::size_t largest) {
    const ByteView value = bytes(name, smallest, largest);
    return {value.begin(), value.end()};
}

std::string DocumentReader::text(const char* name, std::size_t largest) {
    const ByteView value = bytes(name, 0, largest);
    if (std::find(value.begin(), value.end(), 0) != value.end()) {
        failDamaged(name);
    }
    return {value.begin(), value.end()};
}

Reference DocumentReader::reference(const char* name) {
    Reference value{};
    const ByteView view = bytes(name, value.size(), value.size());
    std::copy(view.begin(), view.end(), value.begin());
    return value;
}

void DocumentReader::finish() const {
    if (!rest_.empty()) {
        failDamaged("something follows its last field");
    }
}

std::uint32_t DocumentReader::plainNumber(const char* name) {
    if (rest_.size() < 4) {
        failDamaged(name);
    }
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        value |= static_cast<std::uint32_t>(rest_[i]) << (8 * i);
    }
    rest_ = rest_.subspan(4);
    return value;
}

}  // namespace softtoken
