#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "token/token_changes.h"
#include "tool/commands.h"
#include "tool/pin_source.h"
#include "tool/progress.h"

namespace softtoken::tool {

namespace {

// The third character of a model decides: '1' is a token outside of FIPS 140-3 mode.
constexpr const char* ordinaryModel = "ZS1 Software";
constexpr const char* fipsModel = "ZS3 Software";

struct CreateOptions {
    NewToken token;
    bool fips = false;
    bool initialPin = false;
    bool json = false;
    std::string pinFile;
    std::string officerPinFile;
};

void create(const Common& common, CreateOptions options) {
    NewToken& token = options.token;
    if (token.model.empty()) {
        token.model = options.fips ? fipsModel : ordinaryModel;
    }
    token.userPin = readNewSecret({options.pinFile, "ZENTAK_PIN", "user PIN", "--pin-file"});
    token.officerPin =
        readOptionalNewSecret({options.officerPinFile, "ZENTAK_SO_PIN", "security officer's PIN", "--so-pin-file"});
    token.userPinChanged = !options.initialPin;
    Store store = common.store();
    const std::string serialNumber = [&] {
        const Progress progress("making the token");
        return createToken(store, token);
    }();
    if (options.json) {
        std::cout << printableJson({{"serialNumber", serialNumber}, {"label", token.label}, {"model", token.model}})
                  << "\n";
    } else {
        std::cout << "Serial number: " << serialNumber << "\nLabel: " << printable(token.label) << "\n";
    }
}

}  // namespace

void addCreateCommand(CLI::App& program, const Common& common) {
    const auto options = std::make_shared<CreateOptions>();
    CLI::App* const command =
        addCommand(program, "create", "Make a new token, plugged in", [&common, options] { create(common, *options); });
    NewToken& token = options->token;
    command->add_option("--label", token.label, "Label of the token, 64 bytes at most")->required();
    CLI::Option* const model = command->add_option("--model", token.model, "Model name, 16 bytes at most");
    command->add_flag("--fips,!--no-fips", options->fips, "Model name of a token in FIPS 140-3 mode")->excludes(model);
    command->add_option("--pin-file", options->pinFile, "File with the user PIN (4 to 63 bytes) in its first line");
    command->add_option("--so-pin-file", options->officerPinFile,
                        "File with the security officer's PIN; without one a locked PIN stays locked");
    command->add_flag("--initial-pin", options->initialPin, "The user has still to change the PIN");
    command->add_option("--attempts", token.attempts, "Wrong PINs until the token locks")
        ->check(CLI::Range(3, 100))
        ->capture_default_str();
    command->add_option("--capacity", token.capacity, "Key pairs, and certificates, that the token can hold")
        ->check(CLI::Range(0, static_cast<int>(largestObjectNumber)))
        ->capture_default_str();
    command
        ->add_option("--kdf-cost", token.derivation.costLog2,
                     "Cost of trying a PIN, each step the double; lower it for tests alone")
        ->check(CLI::Range(1, static_cast<int>(maximumCostLog2)))
        ->capture_default_str();
    command->add_flag("--json", options->json, "Print JSON");
}

}  // namespace softtoken::tool
