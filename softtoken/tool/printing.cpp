#include "tool/printing.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>

namespace softtoken::tool {

namespace {

struct Character {
    std::size_t length;  ///< bytes taken
    char32_t code;       ///< `notText` for a byte that isn't UTF-8
};

constexpr char32_t notText = 0xFFFFFFFF;

Character firstCharacter(std::string_view text) {
    const auto byte = [&](std::size_t i) -> std::uint32_t {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const std::uint32_t first = byte(0);
    if (first < 0x80) {
        return {1, first};
    }
    const std::size_t length = first >= 0xF0 ? 4 : (first >= 0xE0 ? 3 : 2);
    constexpr std::array<std::uint32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};
    std::uint32_t code = first & (0x7FU >> length);
    if (first < 0xC0 || first > 0xF7) {
        return {1, notText};
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0U) != 0x80) {
            return {1, notText};
        }
        code = code << 6 | (byte(i) & 0x3FU);
    }
    const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < smallest[length] || code > 0x10FFFF || isSurrogate) {
        return {1, notText};
    }
    return {length, code};
}

bool isHarmful(char32_t code) {
    const bool isControl = code < 0x20 || (code >= 0x7F && code <= 0x9F);
    const bool isDirection = code == 0x61C || code == 0x200E || code == 0x200F || (code >= 0x202A && code <= 0x202E) ||
                             (code >= 0x2066 && code <= 0x2069);
    return isControl || isDirection || code == notText;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const Character character = firstCharacter(text);
        if (isHarmful(character.code)) {
            result += '?';
        } else {
            result += text.substr(0, character.length);
        }
        text.remove_prefix(character.length);
    }
    return result;
}

std::string printableJson(const nlohmann::ordered_json& value) {
    const std::string plain = value.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    std::string result;
    for (std::string_view text = plain; !text.empty();) {
        const Character character = firstCharacter(text);
        // A line feed is between two fields: within a string it is escaped already.
        if (isHarmful(character.code) && character.code != '\n') {
            constexpr std::string_view digits = "0123456789abcdef";
            result += "\\u";
            for (int shift = 12; shift >= 0; shift -= 4) {
                result += digits[character.code >> shift & 0xF];
            }
        } else {
            result += text.substr(0, character.length);
        }
        text.remove_prefix(character.length);
    }
    return result;
}

}  // namespace softtoken::tool
