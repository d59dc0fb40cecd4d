// Bringing keys and certificates into a token by the tool.

#include <openssl/pem.h>
#include <openssl/pkcs12.h>

#include "certificates.h"
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

TEST_F(ToolImportTest, ImportedKeyAndCertificateBelongTogether) {
    const std::string serialNumber = create();
    const std::string key = file("key.pem", pemPrivateKey(testKey(2)));
    const std::string certificate = file("certificate.pem", pemCertificate(makeCertificate(testKey(2))));
    const Answer answer = run("import --key " + key + " --certificate " + certificate + " --label mine --usage sign");
    EXPECT_EQ(answer.exitCode, 0) << answer.errors;
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
    EXPECT_EQ(run("import Demo --key " + key + " --certificate " + other + " --certificate " + own +
                  " --id 00aaFF --label mine")
                  .exitCode,
              0);
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
    EXPECT_EQ(run("import --certificate " + certificate).exitCode, 0);
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
    EXPECT_EQ(run("import --key " + key).exitCode, 0);
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
    expectError("import --key " + key, "no private key can be read");
    setEnvironment("ZENTAK_FILE_PASSWORD", "wrong");
    expectError("import --key " + key, "no private key can be read");
    setEnvironment("ZENTAK_FILE_PASSWORD", "");
    EXPECT_EQ(run("import --key " + key + " --file-password-file " + file("password", "secret")).exitCode, 0);
    EXPECT_EQ(load(serialNumber).keyPairs.at(0).keyType, 5);
}

TEST_F(ToolImportTest, Pkcs12BringsEverythingInIt) {
    const std::string serialNumber = create();
    const Bytes own = makeCertificate(testKey(2));
    const Bytes authority = makeCertificate(testKey(6));
    const Certificate ownCertificate = parseCertificate(own);
    const Certificate authorityCertificate = parseCertificate(authority);
    STACK_OF(X509)* const others = sk_X509_new_null();
    sk_X509_push(others, authorityCertificate.get());
    PKCS12* const container =
        PKCS12_create("secret", "name", testKey(2).get(), ownCertificate.get(), others, 0, 0, 0, 0, 0);
    sk_X509_free(others);
    ASSERT_NE(container, nullptr);
    unsigned char* der = nullptr;
    const int length = i2d_PKCS12(container, &der);
    PKCS12_free(container);
    const std::string path = file("container.p12", {reinterpret_cast<char*>(der), static_cast<std::size_t>(length)});
    OPENSSL_free(der);
    setEnvironment("ZENTAK_FILE_PASSWORD", "wrong");
    expectError("import --pkcs12 " + path, "password");
    setEnvironment("ZENTAK_FILE_PASSWORD", "secret");
    const Answer answer = run("import --pkcs12 " + path + " --label mine");
    EXPECT_EQ(answer.exitCode, 0) << answer.errors;
    const TokenData token = load(serialNumber);
    ASSERT_EQ(token.keyPairs.size(), 1U);
    EXPECT_EQ(token.keyPairs[0].keyType, 2);
    ASSERT_EQ(token.certificates.size(), 2U);
    EXPECT_EQ(token.certificates[0].der, own);
    EXPECT_EQ(token.certificates[0].label, "mine");
    EXPECT_EQ(token.certificates[0].objectId, token.keyPairs[0].objectId);
    EXPECT_EQ(token.certificates[1].der, authority);
    EXPECT_EQ(token.certificates[1].label, "");
}

}  // namespace

}  // namespace softtoken
