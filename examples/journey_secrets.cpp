/// Encryption, digests, shared secrets and random bytes.

#include "journey_stages.h"

namespace {

Bytes encrypt(CK_SESSION_HANDLE session, CK_MECHANISM mechanism, CK_OBJECT_HANDLE publicKey, Bytes plaintext) {
    check("C_EncryptInit", cryptoki->C_EncryptInit(session, &mechanism, publicKey));
    CK_ULONG length = 0;
    check("C_Encrypt (how long?)",
          cryptoki->C_Encrypt(session, plaintext.data(), lengthOf(plaintext), nullptr, &length));
    Bytes ciphertext(length);
    check("C_Encrypt", cryptoki->C_Encrypt(session, plaintext.data(), lengthOf(plaintext), ciphertext.data(), &length));
    ciphertext.resize(length);
    show("ciphertext bytes", length);
    return ciphertext;
}

Bytes decrypt(CK_SESSION_HANDLE session, CK_MECHANISM mechanism, CK_OBJECT_HANDLE privateKey, Bytes ciphertext) {
    check("C_DecryptInit", cryptoki->C_DecryptInit(session, &mechanism, privateKey));
    CK_ULONG length = 0;
    check("C_Decrypt (how long?)",
          cryptoki->C_Decrypt(session, ciphertext.data(), lengthOf(ciphertext), nullptr, &length));
    Bytes plaintext(length);
    check("C_Decrypt",
          cryptoki->C_Decrypt(session, ciphertext.data(), lengthOf(ciphertext), plaintext.data(), &length));
    plaintext.resize(length);
    show("plaintext", std::string(plaintext.begin(), plaintext.end()));
    return plaintext;
}

Bytes readEcPoint(const Token& token) {
    return readPoint(token.session, findObject(token.session, CKO_PUBLIC_KEY, ecKeyId));
}

/// The secret that the token's EC key shares with the owner of `point`.
Bytes derive(const Token& token, Bytes point) {
    const CK_OBJECT_HANDLE key = findObject(token.session, CKO_PRIVATE_KEY, ecKeyId);
    CK_ECDH1_DERIVE_PARAMS parameters = {CKD_NULL, 0, nullptr, lengthOf(point), point.data()};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
    CK_OBJECT_CLASS objectClass = CKO_SECRET_KEY;
    CK_ATTRIBUTE attribute = {CKA_CLASS, &objectClass, sizeof objectClass};
    CK_OBJECT_HANDLE secret = CK_INVALID_HANDLE;
    check("C_DeriveKey", cryptoki->C_DeriveKey(token.session, &mechanism, key, &attribute, 1, &secret));
    show("secret", hexadecimal(secret));
    Bytes value = readAttributes(token.session, secret, {CKA_VALUE}).front();
    show("value", hexadecimal(value));
    return value;
}

}  // namespace

void encryptAndDecrypt(const Token& token, const std::string& folder) {
    step("The keys to encrypt and to decrypt with");
    const CK_OBJECT_HANDLE publicKey = findObject(token.session, CKO_PUBLIC_KEY, rsaKeyId);
    const CK_OBJECT_HANDLE privateKey = findObject(token.session, CKO_PRIVATE_KEY, rsaKeyId);
    const std::string text = "Only the token can read this.";
    const Bytes message(text.begin(), text.end());

    CK_RSA_PKCS_OAEP_PARAMS parameters = {CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, nullptr, 0};
    const CK_MECHANISM pkcs1 = {CKM_RSA_PKCS, nullptr, 0};
    const CK_MECHANISM oaep = {CKM_RSA_PKCS_OAEP, &parameters, sizeof parameters};

    step("Encrypting and decrypting, CKM_RSA_PKCS");
    const Bytes first = encrypt(token.session, pkcs1, publicKey, message);
    require(first != message && decrypt(token.session, pkcs1, privateKey, first) == message, "the message came back");
    step("Encrypting and decrypting, CKM_RSA_PKCS_OAEP");
    const Bytes second = encrypt(token.session, oaep, publicKey, message);
    require(second != message && decrypt(token.session, oaep, privateKey, second) == message, "the message came back");

    step("Decrypting what others have encrypted for the key, CKM_RSA_PKCS");
    writeFile(folder + "/pkcs1.decrypted",
              decrypt(token.session, pkcs1, privateKey, readFile(folder + "/pkcs1.encrypted")));
    step("Decrypting what others have encrypted for the key, CKM_RSA_PKCS_OAEP");
    writeFile(folder + "/oaep.decrypted",
              decrypt(token.session, oaep, privateKey, readFile(folder + "/oaep.encrypted")));
}

void digestDocument(const Token& token, const std::string& folder) {
    step("A digest, CKM_SHA256");
    Bytes document = readFile(folder + "/document.txt");
    CK_MECHANISM mechanism = {CKM_SHA256, nullptr, 0};
    check("C_DigestInit", cryptoki->C_DigestInit(token.session, &mechanism));
    Bytes digest(32);
    CK_ULONG length = lengthOf(digest);
    check("C_Digest", cryptoki->C_Digest(token.session, document.data(), lengthOf(document), digest.data(), &length));
    digest.resize(length);
    show("digest", hexadecimal(digest));
    writeFile(folder + "/document.sha256", digest);
}

void deriveSecrets(const std::vector<Token>& tokens, const std::string& folder) {
    step("The points of the EC keys on both tokens");
    const Bytes firstPoint = readEcPoint(tokens[0]);
    const Bytes secondPoint = readEcPoint(tokens[1]);
    require(firstPoint != secondPoint, "they are two keys");

    step("The first token's secret with the second, CKM_ECDH1_DERIVE");
    const Bytes first = derive(tokens[0], secondPoint);
    step("The second token's secret with the first");
    const Bytes second = derive(tokens[1], firstPoint);
    require(first.size() == 32 && first == second, "both tokens have derived the same secret");

    step("The first token's secret with a key that is on no token");
    writeFile(folder + "/peer.secret", derive(tokens[0], readFile(folder + "/peer.point")));
}

void drawRandomBytes(const Token& token) {
    step("Random bytes");
    std::vector<Bytes> draws(2, Bytes(16));
    for (Bytes& bytes : draws) {
        check("C_GenerateRandom", cryptoki->C_GenerateRandom(token.session, bytes.data(), lengthOf(bytes)));
        show("random", hexadecimal(bytes));
    }
    require(draws[0] != draws[1], "they differ");
}
