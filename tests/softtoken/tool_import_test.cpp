// Bringing keys and certificates into a token by the tool.

#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>

#include "keys/certificates.h"
#include "test_certificates.h"
#include "tool_test.h"

namespace softtoken {

namespace {

class ToolImportTest : public ToolTest {
protected:
    [[nodiscard]] TokenData load(const std::string& serialNumber) const {
        return Store(folder_.path() / "tokens").load(serialNumber);
    }
};

std::string contentOf(const Bio& bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return {data, static_cast<std::size_t>(length)};
}

Bytes publicKeyOf(ByteView certificate) {
    return publicKeyBytes(X509_get0_pubkey(parseCertificate(certificate).get()));
}

TEST_F(ToolImportTest, ImportedKeyAndCertificateBelongTogether) {
    const std::string serialNumber = create();
    const std::string key = file("key.pem", pemPrivateKey(testKey(2)));
    const std::string certificate = file("certificate.pem", pemCertificate(makeCertificate(testKey(2))));
    outputOf("import --key " + key + " --certificate " + certificate + " --label mine --usage sign");
    const TokenData token = load(serialNumber);
    ASSERT_EQ(token.keyPairs.size(), 1U);
    ASSERT_EQ(token.certificates.size(), 1U);
    EXPECT_EQ(token.keyPairs[0].alias, "mine");
    EXPECT_EQ(token.keyPairs[0].keyUsage, usageSign);
    EXPECT_EQ(token.certificates[0].label, "mine");
    // The identifier that certificates carry of their key by custom.
    const Certificate parsed = parseCertificate(token.certificates[0].der);
    const ASN1_BIT_STRING* const bits = X509_get0_pubkey_bitstr(parsed.get());
    Bytes expected(20);
    EVP_Digest(ASN1_STRING_get0_data(bits), static_cast<std::size_t>(ASN1_STRING_length(bits)), expected.data(),
               nullptr, EVP_sha1(), nullptr);
    EXPECT_EQ(token.keyPairs[0].objectId, expected);
    EXPECT_EQ(token.certificates[0].objectId, expected);
}

TEST_F(ToolImportTest, ImportTakesAnIdAndSeveralCertificates) {
    const std::string serialNumber = create();
    const std::string key = file("key.pem", pemPrivateKey(testKey(5)));
    const std::string own = file("own.pem", pemCertificate(makeCertificate(testKey(5))));
    const Bytes authority = makeCertificate(testKey(6));
    const std::string other = file("authority.der", {authority.begin(), authority.end()});
    outputOf("import Demo --key " + key + " --certificate " + other + " --certificate " + own +
             " --id 00aaFF --label mine");
    const TokenData token = load(serialNumber);
    ASSERT_EQ(token.certificates.size(), 2U);
    EXPECT_EQ(token.keyPairs.at(0).objectId, (Bytes{0x00, 0xAA, 0xFF}));
    EXPECT_EQ(token.certificates[0].label, "");
    EXPECT_EQ(token.certificates[1].objectId, (Bytes{0x00, 0xAA, 0xFF}));
    EXPECT_EQ(token.certificates[1].label, "mine");
}

TEST_F(ToolImportTest, CertificateAloneNeedsNoPin) {
    create();
    setEnvironment("ZENTAK_PIN", "");
    const std::string certificate = file("c.pem", pemCertificate(makeCertificate(testKey(5))));
    outputOf("import --certificate " + certificate);
    EXPECT_EQ(jsonOf("show --json")["certificates"].size(), 1U);
}

TEST_F(ToolImportTest, ImportRefusals) {
    create();
    const std::string key = file("key.pem", pemPrivateKey(testKey(5)));
    const std::string text = file("text", "no key at all");
    expectError("import", "nothing to import");
    expectError("import --key " + text, "no private key can be read");
    expectError("import --certificate " + text, "not a certificate");
    expectError("import --certificate none.pem", "there is no file none.pem");
    expectError("import --key " + key + " --id 0", "hexadecimal");
    expectError("import --key " + key + " --usage fly", "usage");
    expectError("import 00 --key " + key, "there is no token 00");
    outputOf("import --key " + key);
    expectError("import --key " + key, "holds this key already");
    setEnvironment("ZENTAK_PIN", "");
    expectError("import --key " + key, "--pin-file");
    setEnvironment("ZENTAK_PIN", "123");
    expectError("import --key " + key, "4 to 63");
    EXPECT_EQ(jsonOf("show --json")["keyPairs"].size(), 1U);
}

TEST_F(ToolImportTest, FailedImportChangesNothing) {
    const std::string serialNumber = create("--capacity 1");
    const std::string key = file("key.pem", pemPrivateKey(testKey(5)));
    const std::string certificates =
        file("c.pem", pemCertificate(makeCertificate(testKey(5))) + pemCertificate(makeCertificate(testKey(6))));
    expectError("import --key " + key + " --certificate " + certificates, "full");
    const TokenData token = load(serialNumber);
    EXPECT_TRUE(token.keyPairs.empty());
    EXPECT_TRUE(token.certificates.empty());
}

TEST_F(ToolImportTest, EncryptedKeyNeedsItsPassword) {
    const std::string serialNumber = create();
    const Bio bio(BIO_new(BIO_s_mem()));
    ASSERT_EQ(
        PEM_write_bio_PKCS8PrivateKey(bio.get(), testKey(5).get(), EVP_aes_256_cbc(), "secret", 6, nullptr, nullptr),
        1);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    const std::string key = file("key.pem", {data, static_cast<std::size_t>(length)});
    expectError("import --key " + key, "no password of the file: use --file-password-file");
    setEnvironment("ZENTAK_FILE_PASSWORD", "wrong");
    expectError("import --key " + key, "no private key can be read");
    setEnvironment("ZENTAK_FILE_PASSWORD", "");
    outputOf("import --key " + key + " --file-password-file " + file("password", "secret"));
    EXPECT_EQ(load(serialNumber).keyPairs.at(0).keyType, 5);
}

TEST_F(ToolImportTest, KeysInDerPlainAndEncrypted) {
    const std::string serialNumber = create();
    const Bio plain(BIO_new(BIO_s_mem()));
    const Bio encrypted(BIO_new(BIO_s_mem()));
    ASSERT_EQ(i2d_PKCS8PrivateKey_bio(plain.get(), testKey(5).get(), nullptr, nullptr, 0, nullptr, nullptr), 1);
    ASSERT_EQ(
        i2d_PKCS8PrivateKey_bio(encrypted.get(), testKey(2).get(), EVP_aes_256_cbc(), "secret", 6, nullptr, nullptr),
        1);
    const std::string plainFile = file("plain.der", contentOf(plain));
    const std::string encryptedFile = file("encrypted.der", contentOf(encrypted));
    outputOf("import --key " + plainFile);
    expectError("import --key " + encryptedFile, "no password of the file");
    setEnvironment("ZENTAK_FILE_PASSWORD", "wrong");
    expectError("import --key " + encryptedFile, "no private key can be read");
    setEnvironment("ZENTAK_FILE_PASSWORD", "secret");
    outputOf("import --key " + encryptedFile);
    EXPECT_EQ(load(serialNumber).keyPairs.size(), 2U);
}

TEST_F(ToolImportTest, ManyFilesAreOneChange) {
    const std::string serialNumber = create();
    std::string keys;
    for (const int type : {2, 5, 6, 7}) {
        const std::string name = std::to_string(type);
        keys += " " + file("key" + name, pemPrivateKey(testKey(type)));
    }
    const std::string chain =
        file("chain", pemCertificate(makeCertificate(testKey(5))) + pemCertificate(makeCertificate(testKey(6))));
    expectError("import --label x --key" + keys, "--label and --id are for one key pair");
    EXPECT_EQ(outputOf("import --key" + keys + " --certificate " + chain),
              "Imported into " + serialNumber + ": key pairs 4, certificates 2\n");
    const TokenData token = load(serialNumber);
    ASSERT_EQ(token.keyPairs.size(), 4U);
    ASSERT_EQ(token.certificates.size(), 2U);
    EXPECT_EQ(token.certificates[0].objectId, token.keyPairs[1].objectId);
    // One that is there already: none of the others comes either.
    const std::string fresh = file("fresh", pemPrivateKey(testKey(3)));
    expectError("import --key " + fresh + keys, "holds this key already");
    EXPECT_EQ(load(serialNumber), token);
}

/// A container with the key of type 2, its certificate, and an authority's.
std::string pkcs12(int keyCipher, int certificateCipher) {
    const Certificate own = parseCertificate(makeCertificate(testKey(2)));
    const Certificate authority = parseCertificate(makeCertificate(testKey(6)));
    STACK_OF(X509)* const others = sk_X509_new_null();
    sk_X509_push(others, authority.get());
    PKCS12* const container = PKCS12_create("secret", "their name", testKey(2).get(), own.get(), others, keyCipher,
                                            certificateCipher, 0, 0, 0);
    sk_X509_free(others);
    EXPECT_NE(container, nullptr);
    const Bio bio(BIO_new(BIO_s_mem()));
    EXPECT_EQ(i2d_PKCS12_bio(bio.get(), container), 1);
    PKCS12_free(container);
    return contentOf(bio);
}

TEST_F(ToolImportTest, Pkcs12BringsEverythingInIt) {
    const std::string serialNumber = create();
    const std::string path = file("container.p12", pkcs12(0, 0));
    expectError("import --pkcs12 " + path, "no password of the file");
    setEnvironment("ZENTAK_FILE_PASSWORD", "wrong");
    expectError("import --pkcs12 " + path, "the password is wrong");
    expectError("import --pkcs12 " + file("text", "no container"), "is no PKCS #12 file");
    setEnvironment("ZENTAK_FILE_PASSWORD", "secret");
    outputOf("import --pkcs12 " + path + " --label mine");
    const TokenData token = load(serialNumber);
    ASSERT_EQ(token.keyPairs.size(), 1U);
    EXPECT_EQ(token.keyPairs[0].keyType, 2);
    EXPECT_EQ(token.keyPairs[0].alias, "mine");
    ASSERT_EQ(token.certificates.size(), 2U);
    EXPECT_EQ(publicKeyOf(token.certificates[0].der), token.keyPairs[0].publicKey);
    EXPECT_EQ(token.certificates[0].label, "mine");
    EXPECT_EQ(token.certificates[0].objectId, token.keyPairs[0].objectId);
    EXPECT_EQ(publicKeyOf(token.certificates[1].der), publicKeyBytes(testKey(6).get()));
    EXPECT_EQ(token.certificates[1].label, "");
}

TEST_F(ToolImportTest, Pkcs12NamesItsKey) {
    const std::string serialNumber = create();
    setEnvironment("ZENTAK_FILE_PASSWORD", "secret");
    outputOf("import --pkcs12 " + file("container.p12", pkcs12(0, 0)));
    EXPECT_EQ(load(serialNumber).keyPairs.at(0).alias, "their name");
    EXPECT_EQ(load(serialNumber).certificates.at(0).label, "their name");
}

TEST_F(ToolImportTest, Pkcs12OfOlderPrograms) {
    create();
    setEnvironment("ZENTAK_FILE_PASSWORD", "secret");
    const std::string tripleDes =
        file("3des.p12", pkcs12(NID_pbe_WithSHA1And3_Key_TripleDES_CBC, NID_pbe_WithSHA1And3_Key_TripleDES_CBC));
    outputOf("import --pkcs12 " + tripleDes);
}

#ifndef _WIN32
TEST_F(ToolImportTest, Pkcs12WithOldCiphers) {
    create();
    setEnvironment("ZENTAK_FILE_PASSWORD", "secret");
    OSSL_PROVIDER* const provider = OSSL_PROVIDER_try_load(nullptr, "legacy", 1);
    ASSERT_NE(provider, nullptr);
    const std::string rc2 =
        file("rc2.p12", pkcs12(NID_pbe_WithSHA1And3_Key_TripleDES_CBC, NID_pbe_WithSHA1And40BitRC2_CBC));
    OSSL_PROVIDER_unload(provider);
    outputOf("import --pkcs12 " + rc2);
}
#endif

}  // namespace

}  // namespace softtoken
