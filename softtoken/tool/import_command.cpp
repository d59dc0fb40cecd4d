#include <iostream>
#include <memory>

#include "commands.h"
#include "errors.h"
#include "import_files.h"
#include "pin_source.h"
#include "token_changes.h"

namespace softtoken::tool {

namespace {

struct ImportOptions {
    std::string token;
    std::string keyFile;
    std::vector<std::string> certificateFiles;
    std::string pkcs12File;
    std::string label;
    std::string objectId;
    std::string usage = "sign,decrypt";
    std::string pinFile;
    std::string passwordFile;
};

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

ImportedObjects readObjects(const ImportOptions& options) {
    const AskPassword askPassword = [&] {
        return readSecret(
            {options.passwordFile, "ZENTAK_FILE_PASSWORD", "password of the file", "--file-password-file"});
    };
    ImportedObjects objects;
    if (!options.pkcs12File.empty()) objects = readPkcs12File(options.pkcs12File, askPassword);
    if (!options.keyFile.empty()) objects.key = readPrivateKeyFile(options.keyFile, askPassword);
    for (const std::string& file : options.certificateFiles) {
        for (Bytes& der : readCertificateFile(file)) objects.certificates.push_back(std::move(der));
    }
    if (!objects.key && objects.certificates.empty()) {
        throw Failure(Error::invalidArgument, "nothing to import: use --key, --certificate or --pkcs12");
    }
    return objects;
}

void import(const Common& common, const ImportOptions& options) {
    Store store = common.store();
    const std::string serialNumber = findToken(store, options.token);
    const std::uint32_t usage = usageBits(options.usage);
    const auto givenId = bytesFromHex(options.objectId);
    if (!givenId) throw Failure(Error::invalidArgument, "--id takes pairs of hexadecimal digits");
    const ImportedObjects objects = readObjects(options);
    SecretBytes tokenKey;
    if (objects.key) {
        // The PIN authorises a private key; certificates are public.
        tokenKey = store.checkPin(serialNumber, Role::user,
                                  readSecret({options.pinFile, "ZENTAK_PIN", "user PIN", "--pin-file"}));
    }
    const Bytes keyIdentifier = objects.key ? publicKeyIdentifier(objects.key.get()) : Bytes();
    // One change for everything: either all of it is on the token afterwards or nothing.
    store.change(serialNumber, [&](TokenData& token) {
        if (objects.key) {
            const Bytes& objectId = givenId->empty() ? keyIdentifier : *givenId;
            addKeyPair(token, tokenKey, objects.key.get(), {options.label, objectId, usage});
        }
        for (const Bytes& der : objects.certificates) {
            const Bytes identifier = publicKeyIdentifier(der);
            // The name and the id are meant for the key's own certificate, or for the one that comes alone.
            const bool own = objects.key ? identifier == keyIdentifier : objects.certificates.size() == 1;
            addCertificate(token, der, own ? options.label : "", own && !givenId->empty() ? *givenId : identifier);
        }
    });
    std::cout << "Imported into " << serialNumber << ": key pairs " << (objects.key ? 1 : 0) << ", certificates "
              << objects.certificates.size() << "\n";
}

}  // namespace

void addImportCommand(CLI::App& program, const Common& common) {
    const auto options = std::make_shared<ImportOptions>();
    CLI::App* const command = addCommand(program, "import", "Bring a private key and certificates into a token",
                                         [&common, options] { import(common, *options); });
    addTokenArgument(*command, options->token);
    command->add_option("--key", options->keyFile, "Private key, PEM or DER")->type_name("FILE");
    command->add_option("--certificate", options->certificateFiles, "Certificate, PEM or DER; may be repeated")
        ->type_name("FILE");
    command->add_option("--pkcs12", options->pkcs12File, "PKCS #12 container with key and certificates")
        ->type_name("FILE");
    command->add_option("--label", options->label, "Label of the key and of its certificate");
    command->add_option("--id", options->objectId,
                        "CKA_ID of both in hexadecimal digits; SHA-1 of the public key without it");
    command->add_option("--usage", options->usage, "What the key is for")->capture_default_str();
    command->add_option("--pin-file", options->pinFile, "File with the user PIN; a private key needs it");
    command->add_option("--file-password-file", options->passwordFile,
                        "File with the password of an encrypted key or container; else ZENTAK_FILE_PASSWORD");
}

}  // namespace softtoken::tool
