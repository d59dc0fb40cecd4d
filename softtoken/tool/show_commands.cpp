#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "keys/certificates.h"
#include "keys/keys.h"
#include "platform/errors.h"
#include "tool/commands.h"
#include "tool/pin_source.h"

namespace softtoken::tool {

namespace {

using Json = nlohmann::ordered_json;

Json describeToken(const Store& store, const std::string& serialNumber, bool plugged) {
    Json description = {{"serialNumber", serialNumber}, {"plugged", plugged}, {"usable", true}};
    try {
        const TokenData token = store.load(serialNumber);
        const Attempts attempts = store.loadAttempts(serialNumber);
        description["label"] = token.label;
        description["model"] = token.model;
        description["firmwareVersion"] = token.firmwareVersion;
        description["userPinChanged"] = token.userPinChanged;
        description["userPinAttemptsLeft"] = attempts.user;
        description["officerPin"] = token.officer.has_value();
        description["officerPinAttemptsLeft"] = attempts.officer;
        description["keyPairs"] = token.keyPairs.size();
        description["certificates"] = token.certificates.size();
    } catch (const Failure& failure) {
        description["usable"] = false;
        description["reason"] = failure.what();
    }
    return description;
}

std::string keyTypeName(int code) {
    const KeyType* const type = keyTypeOfCode(code);
    if (type == nullptr) {
        return "unknown";
    }
    return type->curve != nullptr ? std::string("EC ") + type->curve : "RSA " + std::to_string(type->rsaBits);
}

Json describeObjects(const TokenData& token) {
    Json keyPairs = Json::array();
    for (const KeyPairEntry& entry : token.keyPairs) {
        keyPairs.push_back({{"id", entry.id},
                            {"type", keyTypeName(entry.keyType)},
                            {"label", entry.alias},
                            {"objectId", hexText(entry.objectId)},
                            {"sign", (entry.keyUsage & 1) != 0},
                            {"decrypt", (entry.keyUsage & 2) != 0}});
    }
    Json certificates = Json::array();
    for (const CertificateEntry& entry : token.certificates) {
        Json& certificate = certificates.emplace_back(
            Json{{"id", entry.id}, {"label", entry.label}, {"objectId", hexText(entry.objectId)}});
        try {
            const auto facts = certificateFacts(entry.der);
            const CertificateDetails& details = facts->details;
            certificate.update({{"subject", details.subject},
                                {"issuer", details.text6},
                                {"serialNumber", details.text1},
                                {"notBefore", details.text4},
                                {"notAfter", details.text5}});
        } catch (const Failure& failure) {
            certificate.update({{"usable", false}, {"reason", failure.what()}});
        }
    }
    return {{"keyPairs", keyPairs}, {"certificates", certificates}};
}

void printText(const Json& value) {
    for (const auto& [name, field] : value.items()) {
        std::cout << name << ": " << (field.is_string() ? printable(field.get<std::string>()) : field.dump()) << "\n";
    }
}

void list(const Common& common, bool json) {
    forgetSecrets();
    const Store store = common.store();
    Json tokens = Json::array();
    for (const std::string& serialNumber : store.plugged()) {
        tokens.push_back(describeToken(store, serialNumber, true));
    }
    for (const std::string& serialNumber : store.unplugged()) {
        tokens.push_back(describeToken(store, serialNumber, false));
    }
    std::size_t unusable = 0;
    if (json) {
        std::cout << printableJson(tokens) << "\n";
    }
    for (const Json& token : tokens) {
        if (!token["usable"].get<bool>()) {
            ++unusable;
        }
        if (json) {
            continue;
        }
        std::cout << token["serialNumber"].get<std::string>() << "  "
                  << (token["plugged"].get<bool>() ? "plugged in" : "unplugged ") << "  "
                  << (token["usable"].get<bool>() ? printable(token["label"].get<std::string>())
                                                  : "unusable: " + printable(token["reason"].get<std::string>()))
                  << "\n";
    }
    if (unusable == 0) {
        return;
    }
    std::cout << std::flush;
    throw Failure(Error::tokenDamaged,
                  std::to_string(unusable) + " of " + std::to_string(tokens.size()) + " tokens can't be used");
}

/// After everything was printed, for the exit code.
void requireUsable(const Json& token) {
    const auto failUnlessUsable = [](const Json& thing, const std::string& name) {
        if (thing.value("usable", true)) {
            return;
        }
        std::cout << std::flush;
        throw Failure(Error::tokenDamaged, name + " can't be used: " + thing["reason"].get<std::string>());
    };
    failUnlessUsable(token, "the token");
    for (const Json& certificate : token["certificates"]) {
        failUnlessUsable(certificate, "certificate " + certificate["id"].dump());
    }
}

void show(const Common& common, const std::string& name, bool json) {
    forgetSecrets();
    const Store store = common.store();
    const std::string serialNumber = findToken(store, name);
    const Json objects = describeObjects(store.load(serialNumber));
    const Json description = describeToken(store, serialNumber, store.isPlugged(serialNumber));
    Json whole = description;
    whole.update(objects);
    if (json) {
        std::cout << printableJson(whole) << "\n";
        requireUsable(whole);
        return;
    }
    printText(description);
    for (const auto& [kind, title] : {std::pair{"keyPairs", "Key pair"}, {"certificates", "Certificate"}}) {
        for (const Json& object : objects[kind]) {
            std::cout << "\n" << title << "\n";
            printText(object);
        }
    }
    requireUsable(whole);
}

}  // namespace

void addListCommand(CLI::App& program, const Common& common) {
    const auto json = std::make_shared<bool>(false);
    CLI::App* const command = addCommand(program, "list", "List the tokens", [&common, json] { list(common, *json); });
    command->add_flag("--json", *json, "Print JSON");
}

void addShowCommand(CLI::App& program, const Common& common) {
    const auto json = std::make_shared<bool>(false);
    const auto token = std::make_shared<std::string>();
    CLI::App* const command = addCommand(program, "show", "Show a token and what it holds",
                                         [&common, json, token] { show(common, *token, *json); });
    addTokenArgument(*command, *token);
    command->add_flag("--json", *json, "Print JSON");
}

}  // namespace softtoken::tool
