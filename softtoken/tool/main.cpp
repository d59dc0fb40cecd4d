// zentak-token: looks after the store of software tokens.

#include <algorithm>
#include <iostream>
#include <openssl/crypto.h>

#include "platform/environment.h"
#include "platform/errors.h"
#include "tool/command_line.h"
#include "tool/commands.h"

namespace softtoken::tool {

namespace {

[[maybe_unused]] constexpr std::size_t secureHeapSize = 4 << 20;

std::string messageFor(const std::string& text) {
    return "zentak-token: " + printable(text.substr(0, text.find('\n'))) + "\n";
}

int run(std::vector<std::string> arguments) {
    CLI::App program(
        "Makes software tokens and looks after them.\n\n"
        "Tokens lie in the folder named by ZENTAK_TOKENS, else in the user's local application data.\n"
        "PINs come from the first line of a file named by an option, else from the variables ZENTAK_PIN,\n"
        "ZENTAK_SO_PIN and ZENTAK_NEW_PIN, else from the terminal.",
        "zentak-token");
    Common common;
    program.add_option("--store", common.storeFolder, "Folder of the tokens")->type_name("FOLDER");
    program.require_subcommand(1);
    program.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) { return messageFor(error.what()); });
    addCreateCommand(program, common);
    addListCommand(program, common);
    addShowCommand(program, common);
    addGenerateCommand(program, common);
    addImportCommand(program, common);
    addExportCommand(program, common);
    addPlugCommands(program, common);
    addPinCommands(program, common);
    addRemoveCommand(program, common);
    addVerifyCommands(program, common);
    try {
        arguments.erase(arguments.begin());
        // It wants the last argument first.
        std::reverse(arguments.begin(), arguments.end());
        program.parse(arguments);
        if (!std::cout.flush()) {
            throw Failure(Error::storeFailed, "cannot write to the standard output");
        }
        return 0;
    } catch (const CLI::ParseError& error) {
        return program.exit(error, std::cout, std::cerr) == 0 ? 0 : 2;
    } catch (const std::exception& error) {
        std::cerr << messageFor(error.what());
        return 1;
    }
}

}  // namespace

}  // namespace softtoken::tool

int main(int count, char** arguments) {
    try {
        softtoken::keepMemoryPrivate();
        // Room for the numbers of all keys that one command works on. Where there is no memory to lock, it isn't
        // locked.
#if !defined(ZENTAK_SANITIZED)
        // LeakSanitizer doesn't look into that heap, and takes for lost what is only known there.
        CRYPTO_secure_malloc_init(softtoken::tool::secureHeapSize, 32);
#endif
        return softtoken::tool::run(softtoken::tool::commandLineUtf8(count, arguments));
    } catch (...) {
        // Only a lack of memory for the command line itself comes here: run() answers for everything else.
        return 1;
    }
}
