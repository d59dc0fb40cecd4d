#include "tool/commands.h"

#include "platform/environment.h"
#include "platform/errors.h"
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

void addUsageOption(CLI::App& command, std::uint32_t& usage) {
    static const CLI::TransformPairs<std::uint32_t> bits = {{"sign", usageSign}, {"decrypt", usageDecrypt}};
    command
        .add_option_function<std::vector<std::string>>(
            "--usage",
            [&usage](const std::vector<std::string>& words) {
                usage = 0;
                for (const auto& [word, bit] : bits) {
                    usage |= std::find(words.begin(), words.end(), word) != words.end() ? bit : 0;
                }
            },
            "What the key is for, both with a comma")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(CLI::IsMember(bits))
        ->default_str("sign,decrypt");
}

Bytes objectIdFromHex(const std::string& text) {
    auto bytes = bytesFromHex(text);
    if (!bytes) {
        throw Failure(Error::invalidArgument, "--id takes pairs of hexadecimal digits");
    }
    return *std::move(bytes);
}

}  // namespace softtoken::tool
