/// Text of a log line from its parts: texts as they are, numbers in decimal, enumerations as their number, bytes in
/// hexadecimal. Parts are passed by value, because many are fields of packed structures.

#ifndef ZENTAK_LOG_LOG_TEXT_H
#define ZENTAK_LOG_LOG_TEXT_H

#include <concepts>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace zentak {

/// Bytes to be shown as two upper-case digits each, without separators. Doesn't own them.
struct Hexadecimal {
    std::span<const unsigned char> bytes;
};

inline void appendPart(std::string& text, std::string_view part) {
    text += part;
}

template <std::integral Number>
requires(!std::same_as<Number, bool> && !std::same_as<Number, char>) void appendPart(std::string& text, Number number) {
    text += std::to_string(number);
}

template <typename Enumeration>
requires std::is_enum_v<Enumeration>
void appendPart(std::string& text, Enumeration value) {
    text += std::to_string(static_cast<std::underlying_type_t<Enumeration>>(value));
}

inline void appendPart(std::string& text, Hexadecimal part) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    text.reserve(text.size() + 2 * part.bytes.size());
    for (const unsigned char byte : part.bytes) {
        text += digits[byte >> 4U];
        text += digits[byte & 0xFU];
    }
}

template <typename... Parts>
std::string concatenate(Parts... parts) {
    std::string text;
    (appendPart(text, parts), ...);
    return text;
}

}  // namespace zentak

#endif
