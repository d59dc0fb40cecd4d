/// The program's arguments in the encoding that the rest of the tool works with.

#ifndef ZENTAK_SOFTTOKEN_TOOL_COMMAND_LINE_H
#define ZENTAK_SOFTTOKEN_TOOL_COMMAND_LINE_H

#include <string>
#include <vector>

namespace softtoken::tool {

/// The command line in UTF-8, the program's name first.
std::vector<std::string> commandLineUtf8(int count, char** arguments);

}  // namespace softtoken::tool

#endif
