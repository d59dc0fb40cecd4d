#include <array>
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

struct KindOfKey {
    const char* name;
    int code;
};

constexpr std::array<KindOfKey, 6> kinds = {
    {{"rsa-2048", 2}, {"rsa-3072", 3}, {"rsa-4096", 4}, {"p-256", 5}, {"p-384", 6}, {"p-521", 7}}};

struct GenerateOptions {
    std::string token;
    std::string kind = "rsa-2048";
    std::string label;
    std::string objectId;
    std::string usage = "sign,decrypt";
    std::string pinFile;
};

const KeyType& typeNamed(const std::string& name) {
    for (const KindOfKey& kind : kinds) {
        if (name == kind.name) {
            return *keyTypeOfCode(kind.code);
        }
    }
    throw Failure(Error::invalidArgument, "there is no kind of key " + name);
}

void generate(const Common& common, const GenerateOptions& options) {
    Store store = common.store();
    const std::string serialNumber = findToken(store, options.token);
    NewKeyPair settings{options.label, objectIdFromHex(options.objectId), usageBits(options.usage)};
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
    std::vector<std::string> names;
    names.reserve(kinds.size());
    for (const KindOfKey& kind : kinds) {
        names.emplace_back(kind.name);
    }
    command->add_option("--type", options->kind, "Kind of key")->check(CLI::IsMember(names))->capture_default_str();
    command->add_option("--label", options->label, "Label of the key pair");
    command->add_option("--id", options->objectId, "CKA_ID in hexadecimal digits; SHA-1 of the public key without it");
    command->add_option("--usage", options->usage, "What the key is for")->capture_default_str();
    command->add_option("--pin-file", options->pinFile, "File with the user PIN");
}

}  // namespace softtoken::tool
