/// Text on its way to a terminal. Labels and names come from anywhere, and may hold what moves a terminal's cursor or
/// turns the direction of what follows.

#ifndef ZENTAK_SOFTTOKEN_TOOL_PRINTING_H
#define ZENTAK_SOFTTOKEN_TOOL_PRINTING_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace softtoken::tool {

/// The text on one line: control characters, marks of direction and bytes that aren't UTF-8 become question marks.
std::string printable(std::string_view text);

/// JSON on several lines, with the same characters escaped.
std::string printableJson(const nlohmann::ordered_json& value);

}  // namespace softtoken::tool

#endif
