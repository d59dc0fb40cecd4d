/// A document on disk: a line with format and version, fields, and a checksum over all of it.

#ifndef ZENTAK_SOFTTOKEN_STORE_DOCUMENT_H
#define ZENTAK_SOFTTOKEN_STORE_DOCUMENT_H

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/bytes.h"

namespace softtoken {

/// A document ends with its checksum, of this many bytes.
inline constexpr std::size_t checksumLength = 32;

/// Throws Error::tokenDamaged.
[[noreturn]] void failDamaged(const std::string& what);

/// Composes a document, field by field.
class DocumentWriter {
public:
    DocumentWriter(std::string_view format, int version);

    void number(std::uint32_t value);
    void text(std::string_view value);
    void bytes(ByteView value);

    /// The whole document. The writer is empty then.
    std::string finish();

private:
    std::string document_;
};

/// Takes a document apart. Every field is bounded, and named in the complaint about it. All of this throws
/// Error::tokenDamaged.
class DocumentReader {
public:
    /// Also throws Error::unknownVersion. The document must outlive the reader.
    DocumentReader(std::string_view format, int newestVersion, std::string_view document);

    [[nodiscard]] int version() const { return version_; }

    std::uint32_t number(const char* name, std::uint32_t smallest, std::uint32_t largest);
    /// Within the document.
    ByteView bytes(const char* name, std::size_t smallest, std::size_t largest);
    Bytes ownBytes(const char* name, std::size_t smallest, std::size_t largest);
    /// Without zero bytes.
    std::string text(const char* name, std::size_t largest);
    Reference reference(const char* name);

    void finish() const;

private:
    void readVersion(std::string_view digits, int newest);
    std::uint32_t plainNumber(const char* name);

    int version_ = 0;
    ByteView rest_;
};

}  // namespace softtoken

#endif
