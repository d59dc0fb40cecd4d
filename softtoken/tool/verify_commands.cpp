// Commands that look tokens over and mend them.

#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/errors.h"
#include "store/repair.h"
#include "tool/commands.h"
#include "tool/pin_source.h"

namespace softtoken::tool {

namespace {

using Json = nlohmann::ordered_json;

/// The token named, or all of them.
std::vector<std::string> selectTokens(const Store& store, const std::string& token) {
    return token.empty() ? allTokens(store) : std::vector<std::string>{findToken(store, token)};
}

std::string joined(const std::vector<std::string>& texts) {
    std::string result;
    for (const std::string& text : texts) {
        result += (result.empty() ? "" : "; ") + text;
    }
    return result;
}

void failUnlessNone(std::size_t failed, std::size_t all, const std::string& what) {
    if (failed == 0) {
        return;
    }
    std::cout << std::flush;
    throw Failure(Error::tokenDamaged, std::to_string(failed) + " of " + std::to_string(all) + " tokens " + what);
}

void verify(const Common& common, const std::string& name, bool json) {
    forgetSecrets();
    const Store store = common.store();
    const std::vector<std::string> tokens = selectTokens(store, name);
    Json results = Json::array();
    std::size_t failed = 0;
    for (const std::string& serialNumber : tokens) {
        const bool plugged = store.isPlugged(serialNumber);
        const std::vector<std::string> faults = faultsOf(store, serialNumber);
        if (!faults.empty()) {
            ++failed;
        }
        results.push_back({{"serialNumber", serialNumber}, {"plugged", plugged}, {"faults", faults}});
        if (json) {
            continue;
        }
        std::cout << serialNumber << "  " << (plugged ? "plugged in" : "unplugged ") << "  "
                  << (faults.empty() ? "in order" : "faulty: " + printable(joined(faults))) << "\n";
    }
    if (json) {
        std::cout << printableJson(results) << "\n";
    }
    failUnlessNone(failed, tokens.size(), "are faulty");
}

void repair(const Common& common, const std::string& name) {
    forgetSecrets();
    const Store store = common.store();
    const std::vector<std::string> tokens = selectTokens(store, name);
    std::size_t failed = 0;
    for (const std::string& serialNumber : tokens) {
        std::cout << serialNumber << "  ";
        try {
            const std::vector<std::string> done = repairToken(store, serialNumber);
            std::cout << (done.empty() ? "in order, nothing was changed" : "repaired: " + printable(joined(done)))
                      << "\n";
        } catch (const Failure& failure) {
            ++failed;
            std::cout << "not repaired: " << printable(failure.what()) << "\n";
        }
    }
    failUnlessNone(failed, tokens.size(), "can't be repaired");
}

}  // namespace

void addVerifyCommands(CLI::App& program, const Common& common) {
    const auto json = std::make_shared<bool>(false);
    const auto token = std::make_shared<std::string>();
    const std::string description = "Serial number or label; all tokens without it";
    CLI::App* const verifying = addCommand(program, "verify", "Look tokens over and say what is wrong with them",
                                           [&common, json, token] { verify(common, *token, *json); });
    verifying->add_option("token", *token, description)->type_name("TOKEN");
    verifying->add_flag("--json", *json, "Print JSON");
    CLI::App* const repairing =
        addCommand(program, "repair", "Mend lost PIN counters and a file that a power failure took the name of",
                   [&common, token] { repair(common, *token); });
    repairing->add_option("token", *token, description)->type_name("TOKEN");
}

}  // namespace softtoken::tool
