/// Reading the files that can be imported into a token: PEM, DER and PKCS #12.

#ifndef ZENTAK_SOFTTOKEN_TOOL_IMPORT_FILES_H
#define ZENTAK_SOFTTOKEN_TOOL_IMPORT_FILES_H

#include <functional>
#include <string>
#include <vector>

#include "platform/openssl_support.h"

namespace softtoken::tool {

struct ImportedKey {
    Key key;
    std::string label;  ///< what the file calls it; may be empty
};

struct ImportedObjects {
    std::vector<ImportedKey> keys;
    std::vector<Bytes> certificates;
};

/// Asked when a file turns out to be encrypted.
using AskPassword = std::function<std::string()>;

/// All of these throw Error::invalidArgument when the file holds no such thing, or the password is wrong; and what
/// AskPassword throws.
Key readPrivateKeyFile(const std::string& file, const AskPassword& askPassword);
std::vector<Bytes> readCertificateFile(const std::string& file);
/// The key's own certificate comes first.
ImportedObjects readPkcs12File(const std::string& file, const AskPassword& askPassword);

/// SHA-1 of the public key as a certificate carries it: the usual CKA_ID of a key and its certificate.
Bytes publicKeyIdentifier(const EVP_PKEY* key);
/// The same from a certificate in DER.
Bytes publicKeyIdentifier(ByteView certificate);

}  // namespace softtoken::tool

#endif
