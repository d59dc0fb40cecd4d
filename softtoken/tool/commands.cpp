#include "tool/commands.h"

#include "platform/errors.h"
#include "platform/files.h"
#include "token/token_changes.h"

namespace softtoken::tool {

Store Common::store() const {
    return Store(storeFolder.empty() ? defaultStoreFolder() : std::filesystem::absolute(pathFromUtf8(storeFolder)));
}

CLI::App* addCommand(CLI::App& program, const std::string& name, const std::string& description,
                     const std::function<void()>& action) {
    CLI::App* const command = program.add_subcommand(name, description);
    command->fallthrough();
    command->callback(action);
    return command;
}

void addTokenArgument(CLI::App& command, std::string& token) {
    command.add_option("token", token, "Serial number or label; may be left out when there is one token only")
        ->type_name("TOKEN");
}

std::vector<std::string> allTokens(const Store& store) {
    std::vector<std::string> all = store.plugged();
    const std::vector<std::string> unplugged = store.unplugged();
    all.insert(all.end(), unplugged.begin(), unplugged.end());
    return all;
}

std::string findToken(const Store& store, const std::string& token) {
    const std::vector<std::string> all = allTokens(store);
    if (token.empty()) {
        if (all.size() == 1) {
            return all.front();
        }
        throw Failure(Error::deviceNotPresent,
                      all.empty() ? "there is no token" : "there are several tokens: name one of them");
    }
    if (std::find(all.begin(), all.end(), token) != all.end()) {
        return token;
    }
    std::vector<std::string> matching;
    for (const std::string& serialNumber : all) {
        try {
            if (store.load(serialNumber).label == token) {
                matching.push_back(serialNumber);
            }
        } catch (const Failure&) {
            // A damaged token has no label to be found by.
            continue;
        }
    }
    if (matching.size() == 1) {
        return matching.front();
    }
    throw Failure(Error::deviceNotPresent, matching.empty()
                                               ? "there is no token " + token
                                               : "several tokens have the label " + token + ": use a serial number");
}

std::uint32_t usageBits(const std::string& text) {
    std::uint32_t bits = 0;
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::string_view word = rest.substr(0, rest.find(','));
        rest.remove_prefix(std::min(rest.size(), word.size() + 1));
        if (word == "sign") {
            bits |= usageSign;
        } else if (word == "decrypt") {
            bits |= usageDecrypt;
        } else {
            throw Failure(Error::invalidArgument, "a usage is \"sign\" or \"decrypt\", or both with a comma");
        }
    }
    return bits;
}

Bytes objectIdFromHex(const std::string& text) {
    auto bytes = bytesFromHex(text);
    if (!bytes) {
        throw Failure(Error::invalidArgument, "--id takes pairs of hexadecimal digits");
    }
    return *std::move(bytes);
}

}  // namespace softtoken::tool
