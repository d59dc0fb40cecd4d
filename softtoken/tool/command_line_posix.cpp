#include "tool/command_line.h"

namespace softtoken::tool {

std::vector<std::string> commandLineUtf8(int count, char** arguments) {
    return {arguments, arguments + count};
}

}  // namespace softtoken::tool
