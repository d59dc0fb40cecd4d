/// Key pairs and the certificate: made, described, imported, renamed, deleted.

#include <stdexcept>

#include "journey_stages.h"

namespace {

// The object identifiers rsaEncryption with its empty parameters, id-ecPublicKey, and P-256.
const Bytes rsaAlgorithm = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
const Bytes ecAlgorithm = {0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};
const Bytes p256 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};

Bytes operator+(Bytes first, const Bytes& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

/// A DER element of fewer than 65536 bytes.
Bytes der(CK_BYTE tag, const Bytes& content) {
    const std::size_t length = content.size();
    // cppcheck doesn't see the use in a list.
    // cppcheck-suppress unreadVariable
    const auto low = static_cast<CK_BYTE>(length & 0xFF);
    if (length < 0x80) {
        return Bytes{tag, low} + content;
    }
    if (length < 0x100) {
        return Bytes{tag, 0x81, low} + content;
    }
    return Bytes{tag, 0x82, static_cast<CK_BYTE>(length >> 8), low} + content;
}

Bytes unsignedInteger(const Bytes& bigEndian) {
    return der(0x02, bigEndian.front() >= 0x80 ? Bytes{0} + bigEndian : bigEndian);
}

/// The form in which other programs take a public key.
Bytes subjectPublicKeyInfo(const Bytes& algorithm, const Bytes& key) {
    return der(0x30, der(0x30, algorithm) + der(0x03, Bytes{0} + key));
}

struct KeyPair {
    CK_OBJECT_HANDLE publicKey;
    CK_OBJECT_HANDLE privateKey;
};

KeyPair generate(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE mechanismType, std::vector<CK_ATTRIBUTE> publicTemplate,
                 std::vector<CK_ATTRIBUTE> privateTemplate) {
    CK_MECHANISM mechanism = {mechanismType, nullptr, 0};
    KeyPair pair = {CK_INVALID_HANDLE, CK_INVALID_HANDLE};
    check("C_GenerateKeyPair",
          cryptoki->C_GenerateKeyPair(session, &mechanism, publicTemplate.data(), lengthOf(publicTemplate),
                                      privateTemplate.data(), lengthOf(privateTemplate), &pair.publicKey,
                                      &pair.privateKey));
    show("public key", hexadecimal(pair.publicKey));
    show("private key", hexadecimal(pair.privateKey));
    return pair;
}

/// Without a label: the key takes its name from the certificate that comes later.
void generateRsa(CK_SESSION_HANDLE session, const std::string& path) {
    CK_ULONG bits = 2048;
    CK_KEY_TYPE type = CKK_RSA;
    CK_BBOOL yes = CK_TRUE;
    Bytes id = rsaKeyId;
    const KeyPair pair = generate(session, CKM_RSA_PKCS_KEY_PAIR_GEN, {{CKA_MODULUS_BITS, &bits, sizeof bits}},
                                  {{CKA_KEY_TYPE, &type, sizeof type},
                                   {CKA_ID, id.data(), lengthOf(id)},
                                   {CKA_SIGN, &yes, sizeof yes},
                                   {CKA_DECRYPT, &yes, sizeof yes}});
    const std::vector<Bytes> numbers = readAttributes(session, pair.publicKey, {CKA_MODULUS, CKA_PUBLIC_EXPONENT});
    show("modulus", hexadecimal(Bytes(numbers[0].begin(), numbers[0].begin() + 8)) + "...");
    show("modulus bytes", numbers[0].size());
    show("public exponent", hexadecimal(numbers[1]));
    const Bytes key = der(0x30, unsignedInteger(numbers[0]) + unsignedInteger(numbers[1]));
    writeFile(path, subjectPublicKeyInfo(rsaAlgorithm, key));
}

void generateEc(CK_SESSION_HANDLE session, const std::string& path) {
    CK_KEY_TYPE type = CKK_EC;
    Bytes curve = p256;
    Bytes id = ecKeyId;
    std::string label = "Journey EC";
    const KeyPair pair = generate(session, CKM_EC_KEY_PAIR_GEN, {{CKA_EC_PARAMS, curve.data(), lengthOf(curve)}},
                                  {{CKA_KEY_TYPE, &type, sizeof type},
                                   {CKA_ID, id.data(), lengthOf(id)},
                                   {CKA_LABEL, label.data(), lengthOf(label)}});
    const Bytes point = readPoint(session, pair.publicKey);
    show("point", hexadecimal(Bytes(point.begin(), point.begin() + 9)) + "...");
    writeFile(path, subjectPublicKeyInfo(ecAlgorithm + p256, point));
}

/// Shows the private keys on the token, of which there have to be `count`.
void showKeys(const Token& token, std::size_t count) {
    const std::vector<CK_OBJECT_HANDLE> keys = findObjects(token.session, CKO_PRIVATE_KEY);
    for (const CK_OBJECT_HANDLE key : keys) {
        const std::vector<Bytes> values = readAttributes(token.session, key, {CKA_ID, CKA_LABEL});
        show("private key", hexadecimal(key));
        show("id", hexadecimal(values[0]));
        show("label", std::string(values[1].begin(), values[1].end()));
    }
    if (keys.size() != count) {
        throw std::runtime_error("there should be " + std::to_string(count) + " private keys");
    }
}

}  // namespace

void generateKeys(const std::vector<Token>& tokens, const std::string& folder) {
    step("An RSA key pair of 2048 bits on the first token");
    generateRsa(tokens[0].session, folder + "/rsa.public.der");
    step("An EC key pair on P-256 on the first token");
    generateEc(tokens[0].session, folder + "/ec1.public.der");
    step("An EC key pair on P-256 on the second token");
    generateEc(tokens[1].session, folder + "/ec2.public.der");

    step("The private keys on the first token");
    showKeys(tokens[0], 2);
    step("The private keys on the second token");
    showKeys(tokens[1], 1);
}

void importCertificate(const Token& token, const std::string& folder) {
    step("Importing the certificate of the RSA key; its issuers come along");
    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    Bytes id = rsaKeyId;
    Bytes certificate = readFile(folder + "/rsa.certificate.der");
    CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &objectClass, sizeof objectClass},
                                 {CKA_ID, id.data(), lengthOf(id)},
                                 {CKA_VALUE, certificate.data(), lengthOf(certificate)}};
    // A chain has no one handle, and none is given back: the search below finds what came.
    CK_OBJECT_HANDLE unused = CK_INVALID_HANDLE;
    check("C_CreateObject", cryptoki->C_CreateObject(token.session, attributes, 3, &unused));

    step("The certificates on the token now");
    const std::vector<CK_OBJECT_HANDLE> certificates = findObjects(token.session, CKO_CERTIFICATE);
    for (const CK_OBJECT_HANDLE handle : certificates) {
        show("certificate", hexadecimal(handle));
        show("label", readLabel(token.session, handle));
    }
    require(certificates.size() == 3, "the root, the intermediate and our certificate are there");

    step("The key pair and its certificate belong together");
    const CK_OBJECT_HANDLE own = findObject(token.session, CKO_CERTIFICATE, rsaKeyId);
    require(readAttributes(token.session, own, {CKA_VALUE}).front() == certificate,
            "the certificate with the key's id is the one that we gave");
    const std::string keyLabel = readLabel(token.session, findObject(token.session, CKO_PRIVATE_KEY, rsaKeyId));
    show("key's label", keyLabel);
    require(!keyLabel.empty() && keyLabel == readLabel(token.session, own),
            "the key pair that had no name bears its certificate's");
}

void renameAndDelete(const std::vector<Token>& tokens) {
    step("Renaming the EC key pair on the first token");
    const CK_OBJECT_HANDLE first = findObject(tokens[0].session, CKO_PRIVATE_KEY, ecKeyId);
    std::string label = "Journey EC, renamed";
    CK_ATTRIBUTE attribute = {CKA_LABEL, label.data(), lengthOf(label)};
    check("C_SetAttributeValue", cryptoki->C_SetAttributeValue(tokens[0].session, first, &attribute, 1));
    require(readLabel(tokens[0].session, first) == label, "the private key bears the new name");
    require(readLabel(tokens[0].session, findObject(tokens[0].session, CKO_PUBLIC_KEY, ecKeyId)) == label,
            "the public key bears it too");

    step("Deleting the EC key pair on the second token");
    const CK_OBJECT_HANDLE second = findObject(tokens[1].session, CKO_PRIVATE_KEY, ecKeyId);
    check("C_DestroyObject", cryptoki->C_DestroyObject(tokens[1].session, second));
    showKeys(tokens[1], 0);
    require(findObjects(tokens[1].session, CKO_PUBLIC_KEY).empty(), "the public key went with the private one");
}
