/// Views of bytes and texts that belong to somebody else, and how they are compared and trimmed.

#ifndef ZENTAK_BASE_BYTE_VIEW_H
#define ZENTAK_BASE_BYTE_VIEW_H

#include <algorithm>
#include <span>
#include <string_view>

namespace zentak {

using ByteView = std::span<const unsigned char>;

/// Compares the lengths first: views of different lengths are never looked into.
inline bool sameBytes(ByteView left, ByteView right) {
    return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin());
}

/// The bytes as text that needs no terminator.
inline std::string_view textIn(ByteView bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// Without the white space (of the "C" locale) at both ends.
inline std::string_view trimmed(std::string_view text) {
    constexpr std::string_view whiteSpace = " \t\n\r\f\v";
    const std::size_t last = text.find_last_not_of(whiteSpace);
    if (last == std::string_view::npos) {
        return {};
    }
    text = text.substr(0, last + 1);
    return text.substr(text.find_first_not_of(whiteSpace));
}

}  // namespace zentak

#endif
