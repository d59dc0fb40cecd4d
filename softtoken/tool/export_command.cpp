#include <fstream>
#include <iostream>
#include <memory>
#include <openssl/pem.h>

#include "keys/certificates.h"
#include "platform/environment.h"
#include "platform/errors.h"
#include "tool/commands.h"
#include "tool/pin_source.h"

namespace softtoken::tool {

namespace {

struct ExportOptions {
    std::string token;
    std::uint32_t number = 0;
    std::string label;
    std::string objectId;
    bool all = false;
    bool der = false;
    std::string output;
};

std::string pemOf(const CertificateEntry& entry) {
    const Bio bio(BIO_new(BIO_s_mem()));
    requireCrypto(bio && PEM_write_bio_X509(bio.get(), parseCertificate(entry.der).get()) == 1, "writing PEM");
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return {data, static_cast<std::size_t>(length)};
}

/// The certificates meant: all that fit what was given.
std::vector<CertificateEntry> select(const TokenData& token, const ExportOptions& options) {
    const Bytes objectId = objectIdFromHex(options.objectId);
    std::vector<CertificateEntry> selected;
    for (const CertificateEntry& entry : token.certificates) {
        if (options.number != 0 && entry.id != options.number) {
            continue;
        }
        if (!options.label.empty() && entry.label != options.label) {
            continue;
        }
        if (!objectId.empty() && entry.objectId != objectId) {
            continue;
        }
        selected.push_back(entry);
    }
    if (selected.empty()) {
        throw Failure(Error::invalidArgument, "the token has no such certificate");
    }
    if (selected.size() > 1 && !options.all) {
        throw Failure(Error::invalidArgument,
                      std::to_string(selected.size()) + " certificates fit: name one by --number, or take --all");
    }
    return selected;
}

void exportCertificate(const Common& common, const ExportOptions& options) {
    forgetSecrets();
    const Store store = common.store();
    const TokenData token = store.load(findToken(store, options.token));
    std::string content;
    for (const CertificateEntry& entry : select(token, options)) {
        content += options.der ? std::string(entry.der.begin(), entry.der.end()) : pemOf(entry);
    }
    if (options.output.empty()) {
        std::cout << content;
        return;
    }
    std::ofstream file(pathFromUtf8(options.output), std::ios::binary);
    if (!(file << content << std::flush)) {
        throw Failure(Error::storeFailed, "cannot write " + options.output);
    }
}

}  // namespace

void addExportCommand(CLI::App& program, const Common& common) {
    const auto options = std::make_shared<ExportOptions>();
    CLI::App* const command = addCommand(program, "export-certificate", "Write a certificate of a token, as PEM",
                                         [&common, options] { exportCertificate(common, *options); });
    addTokenArgument(*command, options->token);
    command->add_option("--number", options->number, "Number of the certificate: its \"id\" in \"show\"")
        ->check(CLI::Range(1U, largestObjectNumber));
    command->add_option("--label", options->label, "Label of the certificate");
    command->add_option("--id", options->objectId,
                        "CKA_ID of the certificate in hexadecimal digits: its \"objectId\" in \"show\"");
    CLI::Option* const all = command->add_flag("--all", options->all, "All that fit, one after the other");
    CLI::Option* const output =
        command->add_option("--output", options->output, "File to write; else the standard output")->type_name("FILE");
    // A standard output of text would spoil DER on Windows, and several can't be told apart in it.
    command->add_flag("--der", options->der, "DER instead of PEM")->needs(output)->excludes(all);
}

}  // namespace softtoken::tool
