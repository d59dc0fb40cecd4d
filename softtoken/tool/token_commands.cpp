// Commands that plug, unplug and remove a token and look after its PINs.

#include <iostream>
#include <memory>

#include "platform/errors.h"
#include "platform/terminal.h"
#include "tool/commands.h"
#include "tool/pin_source.h"
#include "tool/progress.h"

namespace softtoken::tool {

namespace {

struct PinOptions {
    std::string token;
    std::string pinFile;
    std::string officerPinFile;
    std::string newPinFile;
    bool officer = false;
    bool newKey = false;
    bool initialPin = false;
};

SecretSource userPin(const PinOptions& options) {
    return {options.pinFile, "ZENTAK_PIN", "user PIN", "--pin-file"};
}

SecretSource officerPin(const PinOptions& options) {
    return {options.officerPinFile, "ZENTAK_SO_PIN", "security officer's PIN", "--so-pin-file"};
}

SecretSource newPin(const PinOptions& options) {
    return {options.newPinFile, "ZENTAK_NEW_PIN", "new PIN", "--new-pin-file"};
}

OpenedToken open(Store& store, const std::string& serialNumber, Role role, const SecretSource& source) {
    const std::string pin = readSecret(source);
    const Progress progress("checking the PIN");
    return store.open(serialNumber, role, pin);
}

void setPin(Store& store, const std::string& serialNumber, Role role, const SecretSource& source,
            const OpenedToken& opened, bool userPinChanged) {
    const std::string pin = readNewSecret(source);
    const Progress progress("changing the PIN");
    store.setPin(serialNumber, role, pin, opened, userPinChanged);
}

/// A new PIN together with a new token key. Where the token has both PINs, the other one is needed, too.
void renewKey(Store& store, const std::string& serialNumber, Role role, const PinOptions& options,
              const OpenedToken& opened) {
    const SecretSource other = role == Role::user ? officerPin(options) : userPin(options);
    const std::string otherPin = opened.officer ? readSecret(other) : "";
    const std::string pin = readNewSecret(newPin(options));
    const Progress progress("changing the PIN and the token key");
    try {
        store.renewTokenKey(serialNumber, role, pin, opened, otherPin);
    } catch (const PinFailure& failure) {
        throw PinFailure(failure.error, failure.attemptsLeft, std::string(other.prompt) + ": " + failure.what());
    }
}

void changePin(const Common& common, const PinOptions& options) {
    Store store = common.store();
    const std::string serialNumber = findToken(store, options.token);
    const Role role = options.officer ? Role::officer : Role::user;
    const OpenedToken opened =
        open(store, serialNumber, role, options.officer ? officerPin(options) : userPin(options));
    if (options.newKey) {
        renewKey(store, serialNumber, role, options, opened);
        std::cout << "PIN and token key changed on " << serialNumber << "\n";
        return;
    }
    const bool changed = role == Role::user || store.load(serialNumber).userPinChanged;
    setPin(store, serialNumber, role, newPin(options), opened, changed);
    std::cout << "PIN changed on " << serialNumber << "\n";
}

void unlock(const Common& common, const PinOptions& options) {
    Store store = common.store();
    const std::string serialNumber = findToken(store, options.token);
    const OpenedToken opened = open(store, serialNumber, Role::officer, officerPin(options));
    setPin(store, serialNumber, Role::user, newPin(options), opened, !options.initialPin);
    std::cout << "Unlocked " << serialNumber << "\n";
}

/// Asks whether the token may be destroyed. Throws Error::invalidArgument unless somebody says yes.
void requireYes(const Store& store, const std::string& serialNumber) {
    std::string description = serialNumber;
    try {
        const TokenData token = store.load(serialNumber);
        description += " \"" + printable(token.label) + "\" with " + std::to_string(token.keyPairs.size()) +
                       " key pairs and " + std::to_string(token.certificates.size()) + " certificates";
    } catch (const Failure&) {
        description += ", which can't be read,";
    }
    const auto answer = promptOnTerminal("Destroy " + description + " for good? (yes/no) ", Echo::on);
    if (!answer) {
        throw Failure(Error::invalidArgument, "this destroys " + serialNumber + ": add --yes");
    }
    if (*answer != "yes") {
        throw Failure(Error::invalidArgument, serialNumber + " was not removed");
    }
}

/// A command that needs nothing but a token.
void addTokenCommand(CLI::App& program, const Common& common, const std::string& name, const std::string& description,
                     const std::string& done, void (Store::*action)(std::string_view)) {
    const auto token = std::make_shared<std::string>();
    CLI::App* const command = addCommand(program, name, description, [&common, token, done, action] {
        Store store = common.store();
        const std::string serialNumber = findToken(store, *token);
        (store.*action)(serialNumber);
        std::cout << done << " " << serialNumber << "\n";
    });
    addTokenArgument(*command, *token);
}

}  // namespace

void addPlugCommands(CLI::App& program, const Common& common) {
    addTokenCommand(program, common, "plug", "Plug a token in", "Plugged in", &Store::plug);
    addTokenCommand(program, common, "unplug", "Pull a token out; it keeps what it holds", "Unplugged", &Store::unplug);
}

void addPinCommands(CLI::App& program, const Common& common) {
    const auto options = std::make_shared<PinOptions>();
    CLI::App* const change =
        addCommand(program, "set-pin", "Change a PIN", [&common, options] { changePin(common, *options); });
    addTokenArgument(*change, options->token);
    change->add_flag("--so", options->officer, "The security officer's PIN instead of the user's");
    change->add_flag("--new-key", options->newKey,
                     "A new token key too, after a leak: seals all private keys anew; needs both PINs of the token");
    change->add_option("--pin-file", options->pinFile, "File with the present user PIN");
    change->add_option("--so-pin-file", options->officerPinFile, "File with the security officer's present PIN");
    change->add_option("--new-pin-file", options->newPinFile, "File with the new PIN");

    const auto unlocking = std::make_shared<PinOptions>();
    CLI::App* const reset =
        addCommand(program, "unlock", "Give the user a new PIN and all attempts, as the security officer",
                   [&common, unlocking] { unlock(common, *unlocking); });
    addTokenArgument(*reset, unlocking->token);
    reset->add_option("--so-pin-file", unlocking->officerPinFile, "File with the security officer's PIN");
    reset->add_option("--new-pin-file", unlocking->newPinFile, "File with the new user PIN");
    reset->add_flag("--initial-pin", unlocking->initialPin, "The user has still to change the PIN");
}

void addRemoveCommand(CLI::App& program, const Common& common) {
    const auto token = std::make_shared<std::string>();
    const auto sure = std::make_shared<bool>(false);
    CLI::App* const command =
        addCommand(program, "remove", "Destroy a token with all its keys", [&common, token, sure] {
            Store store = common.store();
            const std::string serialNumber = findToken(store, *token);
            if (!*sure) {
                requireYes(store, serialNumber);
            }
            store.remove(serialNumber);
            std::cout << "Removed " << serialNumber << "\n";
        });
    addTokenArgument(*command, *token);
    command->add_flag("--yes", *sure, "Destroy it without asking");
}

}  // namespace softtoken::tool
