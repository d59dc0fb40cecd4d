#include <iostream>
#include <map>
#include <memory>
#include <optional>

#include "platform/errors.h"
#include "token/token_changes.h"
#include "tool/commands.h"
#include "tool/import_files.h"
#include "tool/pin_source.h"
#include "tool/progress.h"

namespace softtoken::tool {

namespace {

struct ImportOptions {
    std::string token;
    std::vector<std::string> keyFiles;
    std::vector<std::string> certificateFiles;
    std::vector<std::string> pkcs12Files;
    std::string label;
    std::string objectId;
    std::uint32_t usage = usageSign | usageDecrypt;
    std::string pinFile;
    std::string passwordFile;
};

void append(ImportedObjects& all, ImportedObjects more) {
    for (ImportedKey& key : more.keys) {
        all.keys.push_back(std::move(key));
    }
    for (Bytes& der : more.certificates) {
        all.certificates.push_back(std::move(der));
    }
}

ImportedObjects readObjects(const ImportOptions& options) {
    std::optional<Progress> progress(std::in_place, "reading the files");
    std::optional<std::string> password;
    // One password for all files, asked for when it is needed.
    const AskPassword askPassword = [&] {
        if (!password) {
            progress.reset();
            password = readSecret(
                {options.passwordFile, "ZENTAK_FILE_PASSWORD", "password of the file", "--file-password-file"});
            progress.emplace("reading the files");
        }
        return *password;
    };
    ImportedObjects objects;
    for (const std::string& file : options.pkcs12Files) {
        append(objects, readPkcs12File(file, askPassword));
    }
    for (const std::string& file : options.keyFiles) {
        objects.keys.push_back({readPrivateKeyFile(file, askPassword), ""});
    }
    for (const std::string& file : options.certificateFiles) {
        append(objects, {{}, readCertificateFile(file)});
    }
    if (objects.keys.empty() && objects.certificates.empty()) {
        throw Failure(Error::invalidArgument, "nothing to import: use --key, --certificate or --pkcs12");
    }
    if (objects.keys.size() > 1 && !(options.label.empty() && options.objectId.empty())) {
        throw Failure(Error::invalidArgument, "--label and --id are for one key pair, not for several");
    }
    return objects;
}

/// Adds the key pairs; their labels by the identifier of the public key.
std::map<Bytes, std::string> addKeys(TokenData& token, const OpenedToken& opened, const ImportedObjects& objects,
                                     const ImportOptions& options, Progress& progress) {
    const Bytes givenId = objectIdFromHex(options.objectId);
    std::map<Bytes, std::string> labels;
    for (const auto& [key, name] : objects.keys) {
        const Bytes identifier = publicKeyIdentifier(key.get());
        const std::string& label = options.label.empty() ? name : options.label;
        addKeyPair(token, opened.key, key.get(), {label, givenId.empty() ? identifier : givenId, options.usage});
        labels[identifier] = label;
        progress.advance();
    }
    return labels;
}

/// Adds the certificates. Those of the imported keys get the keys' labels.
void addCertificates(TokenData& token, const std::map<Bytes, std::string>& labels, const ImportedObjects& objects,
                     const ImportOptions& options, Progress& progress) {
    const Bytes givenId = objectIdFromHex(options.objectId);
    // The name and the id are meant for a single certificate, too.
    const bool alone = objects.keys.empty() && objects.certificates.size() == 1;
    for (const Bytes& der : objects.certificates) {
        const Bytes identifier = publicKeyIdentifier(der);
        const auto key = labels.find(identifier);
        if (key != labels.end()) {
            addCertificate(token, der, key->second, givenId.empty() ? identifier : givenId);
        } else {
            addCertificate(token, der, alone ? options.label : "", alone ? givenId : Bytes(), identifier);
        }
        progress.advance();
    }
}

void import(const Common& common, const ImportOptions& options) {
    Store store = common.store();
    const std::string serialNumber = findToken(store, options.token);
    // Before anything is asked for.
    static_cast<void>(objectIdFromHex(options.objectId));
    const ImportedObjects objects = readObjects(options);
    // The PIN authorises private keys; certificates are public.
    const bool withKeys = !objects.keys.empty();
    const std::string pin = withKeys ? readSecret({options.pinFile, "ZENTAK_PIN", "user PIN", "--pin-file"}) : "";
    Progress progress("importing", objects.keys.size() + objects.certificates.size());
    const OpenedToken opened = withKeys ? store.open(serialNumber, Role::user, pin) : OpenedToken();
    // One change for everything: either all of it is on the token afterwards or nothing.
    store.change(serialNumber, [&](TokenData& token) {
        if (withKeys) {
            requireKeyOf(token, opened);
        }
        const std::map<Bytes, std::string> labels = addKeys(token, opened, objects, options, progress);
        addCertificates(token, labels, objects, options, progress);
    });
    std::cout << "Imported into " << serialNumber << ": key pairs " << objects.keys.size() << ", certificates "
              << objects.certificates.size() << "\n";
}

}  // namespace

void addImportCommand(CLI::App& program, const Common& common) {
    const auto options = std::make_shared<ImportOptions>();
    CLI::App* const command = addCommand(program, "import", "Bring a private key and certificates into a token",
                                         [&common, options] { import(common, *options); });
    addTokenArgument(*command, options->token);
    command->add_option("--key", options->keyFiles, "Private keys, PEM or DER")->type_name("FILE");
    command->add_option("--certificate", options->certificateFiles, "Certificates, PEM or DER")->type_name("FILE");
    command->add_option("--pkcs12", options->pkcs12Files, "PKCS #12 containers with key and certificates")
        ->type_name("FILE");
    command->add_option("--label", options->label,
                        "Label of the key and of its certificate; else the name in the PKCS #12 container");
    command->add_option("--id", options->objectId,
                        "CKA_ID of both in hexadecimal digits; SHA-1 of the public key without it");
    addUsageOption(*command, options->usage);
    command->add_option("--pin-file", options->pinFile, "File with the user PIN; a private key needs it");
    command->add_option("--file-password-file", options->passwordFile,
                        "File with the password of an encrypted key or container; else ZENTAK_FILE_PASSWORD");
}

}  // namespace softtoken::tool
