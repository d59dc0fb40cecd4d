/// The commands of zentak-token. Each one adds itself to the command line and does its work when it was chosen.

#ifndef ZENTAK_SOFTTOKEN_TOOL_COMMANDS_H
#define ZENTAK_SOFTTOKEN_TOOL_COMMANDS_H

#include <CLI/CLI.hpp>
#include <string>

#include "store/store.h"
#include "tool/printing.h"

namespace softtoken::tool {

/// What all commands share.
struct Common {
    std::string storeFolder;  ///< empty for the user's own

    [[nodiscard]] Store store() const;
};

void addCreateCommand(CLI::App& program, const Common& common);
void addListCommand(CLI::App& program, const Common& common);
void addShowCommand(CLI::App& program, const Common& common);
void addGenerateCommand(CLI::App& program, const Common& common);
void addImportCommand(CLI::App& program, const Common& common);
void addExportCommand(CLI::App& program, const Common& common);
void addPlugCommands(CLI::App& program, const Common& common);
void addPinCommands(CLI::App& program, const Common& common);
void addRemoveCommand(CLI::App& program, const Common& common);
void addVerifyCommands(CLI::App& program, const Common& common);

/// Adds a command that runs `action` when chosen. The options of the program may follow it, too.
CLI::App* addCommand(CLI::App& program, const std::string& name, const std::string& description,
                     const std::function<void()>& action);

/// Adds the token that a command is about: its serial number or label, or nothing when there is one only.
void addTokenArgument(CLI::App& command, std::string& token);

/// The serial numbers of all tokens, those plugged in first.
std::vector<std::string> allTokens(const Store& store);

/// The serial number of the token meant. Throws Error::deviceNotPresent when there is none, or several.
std::string findToken(const Store& store, const std::string& token);

/// Adds the option for the bits of a key's usage.
void addUsageOption(CLI::App& command, std::uint32_t& usage);

/// A CKA_ID as given on the command line. Throws Error::invalidArgument.
Bytes objectIdFromHex(const std::string& text);

}  // namespace softtoken::tool

#endif
