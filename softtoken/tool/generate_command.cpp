#include <algorithm>
#include <iostream>
#include <memory>

#include "platform/errors.h"
#include "token/token_changes.h"
#include "tool/commands.h"
#include "tool/import_files.h"
#include "tool/pin_source.h"
#include "tool/progress.h"

namespace softtoken::tool {

namespace {

/// By the names on the command line.
const CLI::TransformPairs<int>& keyTypeCodes() {
    static const CLI::TransformPairs<int> codes = {{"rsa-2048", 2}, {"rsa-3072", 3}, {"rsa-4096", 4},
                                                   {"p-256", 5},    {"p-384", 6},    {"p-521", 7}};
    return codes;
}

struct GenerateOptions {
    std::string token;
    std::string kind = "rsa-2048";
    std::string label;
    std::string objectId;
    std::uint32_t usage = usageSign | usageDecrypt;
    std::string pinFile;
};

const KeyType& typeNamed(const std::string& name) {
    const auto& codes = keyTypeCodes();
    const auto found = std::find_if(codes.begin(), codes.end(), [&](const auto& code) { return code.first == name; });
    return *keyTypeOfCode(found->second);
}

void generate(const Common& common, const GenerateOptions& options) {
    Store store = common.store();
    const std::string serialNumber = findToken(store, options.token);
    NewKeyPair settings{options.label, objectIdFromHex(options.objectId), options.usage};
    const std::string pin = readSecret({options.pinFile, "ZENTAK_PIN", "user PIN", "--pin-file"});
    const Progress progress("generating a key pair " + options.kind);
    const OpenedToken opened = store.open(serialNumber, Role::user, pin);
    const Key key = generateKey(typeNamed(options.kind));
    if (settings.objectId.empty()) {
        settings.objectId = publicKeyIdentifier(key.get());
    }
    store.change(serialNumber, [&](TokenData& token) {
        requireKeyOf(token, opened);
        addKeyPair(token, opened.key, key.get(), settings);
    });
    std::cout << "Generated on " << serialNumber << ": " << options.kind << ", id " << hexText(settings.objectId)
              << "\n";
}

}  // namespace

void addGenerateCommand(CLI::App& program, const Common& common) {
    const auto options = std::make_shared<GenerateOptions>();
    CLI::App* const command = addCommand(program, "generate", "Make a key pair on a token",
                                         [&common, options] { generate(common, *options); });
    addTokenArgument(*command, options->token);
    command->add_option("--type", options->kind, "Kind of key")
        ->check(CLI::IsMember(keyTypeCodes()))
        ->capture_default_str();
    command->add_option("--label", options->label, "Label of the key pair");
    command->add_option("--id", options->objectId, "CKA_ID in hexadecimal digits; SHA-1 of the public key without it");
    addUsageOption(*command, options->usage);
    command->add_option("--pin-file", options->pinFile, "File with the user PIN");
}

}  // namespace softtoken::tool
