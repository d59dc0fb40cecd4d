/// Questions at the terminal.

#ifndef ZENTAK_SOFTTOKEN_PLATFORM_TERMINAL_H
#define ZENTAK_SOFTTOKEN_PLATFORM_TERMINAL_H

#include <optional>
#include <string>

namespace softtoken {

/// Asks for a line on the terminal. Nothing when there is no terminal to ask on.
enum class Echo { off, on };
std::optional<std::string> promptOnTerminal(const std::string& prompt, Echo echo);

}  // namespace softtoken

#endif
