// Instances that are none, devices that are none, null pointers everywhere.

#include <climits>

#include "test_certificates.h"
#include "token_test.h"

namespace softtoken {

namespace {

/// Every operation that needs a device and an instance, with fitting other arguments; each answers whether it refused.
class HostileInputTest : public TokenTest {
protected:
    void expectAllRefused(const char* device, void* instance, int error) {
        const Reference keyId{};
        unsigned char area[1024] = {};
        int length = sizeof area;
        unsigned char* output = area;
        ZentakKeyPair keyPair{};
        keyPair.keyType = 5;
        ZentakCertificate certificate{};
        ImportPFXDetails details;
        void* context = area;
        EXPECT_EQ(zentak_getTokenInfo(device, instance).serialNumber, "");
        EXPECT_EQ(zentak_initDevice(device, true, instance), error);
        EXPECT_EQ(zentak_validatePassword(device, userPin, 1, &length, instance), error);
        EXPECT_EQ(zentak_validatePassword(device, userPin, 2, nullptr, instance), error);
        EXPECT_FALSE(zentak_changeUserPassword(device, userPin, "1234", &length, false, false, instance));
        EXPECT_TRUE(zentak_getKeyPairList(device, instance).empty());
        EXPECT_TRUE(zentak_getCertificateList(device, instance).empty());
        EXPECT_EQ(zentak_updateKeyPairDetails(device, keyId.data(), userPin, "x", nullptr, 0, instance), error);
        EXPECT_EQ(zentak_deleteKeyPair(device, keyId.data(), userPin, false, instance), error);
        EXPECT_EQ(zentak_importCertificate(device, userPin, &certificate, instance), error);
        EXPECT_EQ(zentak_importPfx(device, userPin, &details, instance), error);
        EXPECT_EQ(zentak_generateKeyPair(device, userPin, &keyPair, instance), error);
        EXPECT_EQ(zentak_initHash(device, 3, &context, instance), error);
        EXPECT_EQ(context, nullptr);
        EXPECT_EQ(zentak_signHash(device, keyId.data(), userPin, area, 32, area, &length, false, instance, false),
                  error);
        EXPECT_EQ(zentak_decrypt(device, keyId.data(), userPin, area, 256, &output, &length, false, instance), error);
        EXPECT_EQ(output, nullptr);
        EXPECT_EQ(zentak_ecdhDerive(device, keyId.data(), userPin, area, 65, &output, &length, instance), error);
        EXPECT_EQ(output, nullptr);
    }
};

TEST_F(HostileInputTest, InstancesThatAreNone) {
    int local = 0;
    void* released = nullptr;
    zentak_createInstance(&released);
    ASSERT_NE(released, nullptr);
    zentak_releaseInstance(released);
    for (void* const instance : {static_cast<void*>(nullptr), static_cast<void*>(&local), released}) {
        expectAllRefused(device(), instance, number(Error::unknownInstance));
        EXPECT_TRUE(zentak_getConnectedDeviceList(false, instance).empty());
        zentak_releaseInstance(instance);
    }
    zentak_createInstance(nullptr);
    EXPECT_EQ(validate(userPin), 0);
}

TEST_F(HostileInputTest, DevicesThatAreNone) {
    const std::string climbing = "../plugged/" + serialNumber_;
    const std::string dotted = "./" + serialNumber_;
    const std::string lower = "abc";
    const std::string huge(100000, 'A');
    for (const char* const device :
         {static_cast<const char*>(nullptr), "", ".", "..", "00", climbing.c_str(), dotted.c_str(), lower.c_str(),
          huge.c_str(), "/", "\\", "CON", "NUL", "a\nb", "\xFF\xFE"}) {
        expectAllRefused(device, instance_, number(Error::deviceNotPresent));
    }
    EXPECT_EQ(attemptsLeft(), 5);
}

TEST_F(HostileInputTest, NullPointersWithAPresentToken) {
    const KeyPairEntry key = addKey(5);
    unsigned char area[1024] = {};
    int length = sizeof area;
    unsigned char* output = nullptr;
    const unsigned char* const keyId = key.keyId.data();
    EXPECT_NE(zentak_validatePassword(device(), nullptr, 1, nullptr, instance_), 0);
    EXPECT_EQ(zentak_validatePassword(device(), userPin, 1, nullptr, instance_), 0);
    EXPECT_FALSE(zentak_changeUserPassword(device(), nullptr, "1234", nullptr, false, false, instance_));
    EXPECT_NE(zentak_updateKeyPairDetails(device(), nullptr, userPin, "x", nullptr, 0, instance_), 0);
    EXPECT_NE(zentak_importCertificate(device(), userPin, nullptr, instance_), 0);
    EXPECT_NE(zentak_importPfx(device(), userPin, nullptr, instance_), 0);
    EXPECT_NE(zentak_signHash(device(), nullptr, userPin, area, 32, area, &length, false, instance_, false), 0);
    EXPECT_NE(zentak_signHash(device(), keyId, userPin, nullptr, 32, area, &length, false, instance_, false), 0);
    EXPECT_NE(zentak_signHash(device(), keyId, userPin, area, -1, area, &length, false, instance_, false), 0);
    EXPECT_NE(zentak_signHash(device(), keyId, userPin, area, INT_MIN, area, &length, false, instance_, false), 0);
    EXPECT_NE(zentak_signHash(device(), keyId, userPin, area, 32, nullptr, &length, false, instance_, false), 0);
    EXPECT_NE(zentak_signHash(device(), keyId, userPin, area, 32, area, nullptr, false, instance_, false), 0);
    EXPECT_NE(zentak_decrypt(device(), keyId, userPin, area, 32, nullptr, &length, false, instance_), 0);
    EXPECT_NE(zentak_decrypt(device(), keyId, userPin, area, 32, &output, nullptr, false, instance_), 0);
    EXPECT_NE(zentak_decrypt(device(), keyId, userPin, nullptr, 32, &output, &length, false, instance_), 0);
    EXPECT_NE(zentak_decrypt(device(), keyId, userPin, area, -32, &output, &length, false, instance_), 0);
    EXPECT_NE(zentak_ecdhDerive(device(), keyId, userPin, nullptr, 65, &output, &length, instance_), 0);
    EXPECT_NE(zentak_ecdhDerive(device(), keyId, userPin, area, -65, &output, &length, instance_), 0);
    EXPECT_NE(zentak_ecdhDerive(device(), keyId, userPin, area, 65, nullptr, nullptr, instance_), 0);
    EXPECT_EQ(output, nullptr);
    const auto verify = [&](const unsigned char* hash, int hashLength, const unsigned char* publicKey,
                            int publicKeyLength, const unsigned char* signature, int signatureLength) {
        return zentak_verifySignatureHash(5, nullptr, hash, hashLength, publicKey, publicKeyLength, signature,
                                          signatureLength, instance_, false);
    };
    EXPECT_NE(verify(nullptr, 32, area, 65, area, 64), 0);
    EXPECT_NE(verify(area, 32, nullptr, 65, area, 64), 0);
    EXPECT_NE(verify(area, 32, area, 65, nullptr, 64), 0);
    EXPECT_NE(verify(area, -1, area, 65, area, 64), 0);
    EXPECT_NE(verify(area, 32, area, -1, area, 64), 0);
    EXPECT_NE(verify(area, 32, area, 65, area, -1), 0);
    const auto encrypt = [&](const unsigned char* data, int dataLength, unsigned char* out, int* outLength,
                             const unsigned char* der, int derLength) {
        return zentak_encrypt(EncryptionType::rsa2048, PaddingMode::pkcs1, data, dataLength, out, outLength, der,
                              derLength, instance_);
    };
    EXPECT_NE(encrypt(nullptr, 1, area, &length, area, 10), 0);
    EXPECT_NE(encrypt(area, -1, area, &length, area, 10), 0);
    EXPECT_NE(encrypt(area, 1, nullptr, &length, area, 10), 0);
    EXPECT_NE(encrypt(area, 1, area, nullptr, area, 10), 0);
    EXPECT_NE(encrypt(area, 1, area, &length, nullptr, 10), 0);
    EXPECT_NE(encrypt(area, 1, area, &length, area, -10), 0);
}

TEST_F(HostileInputTest, NoErrorIsLeftInTheQueueOfTheHost) {
    ERR_clear_error();
    const Bytes garbage(100, 0x30);
    CertificateDetails details;
    EXPECT_NE(zentak_getCertificateDetails(garbage.data(), 100, &details, nullptr), 0);
    EXPECT_NE(zentak_verifySignatureHash(2, device(), garbage.data(), 32, garbage.data(), 100, garbage.data(), 100,
                                         instance_, false),
              0);
    EXPECT_EQ(ERR_peek_error(), 0U);
}

/// A host may look at its errors after it has called the module. On Windows this library's OpenSSL is a copy of its
/// own.
TEST_F(HostileInputTest, ErrorsOfTheHostStayInItsQueue) {
    const KeyPairEntry rsa = addKey(2);
    const KeyPairEntry ec = addKey(5);
    const std::vector<int> reasons = {ERR_R_MALLOC_FAILURE, ERR_R_PASSED_NULL_PARAMETER, ERR_R_INTERNAL_ERROR};
    ERR_clear_error();
    for (const int reason : reasons) ERR_raise(ERR_LIB_USER, reason);
    const Bytes garbage(256, 0x30);
    unsigned char* output = nullptr;
    unsigned char area[1024];
    int length = sizeof area;
    CertificateDetails details;
    EXPECT_NE(zentak_getCertificateDetails(garbage.data(), 256, &details, nullptr), 0);
    EXPECT_TRUE(zentak_getCertificateSubject(garbage.data(), 256, nullptr).empty());
    writeFile(folder_.path() / "broken.pem", "-----BEGIN CERTIFICATE-----\n!!!\n-----END CERTIFICATE-----\n");
    writeFile(folder_.path() / "good.pem", pemCertificate(makeCertificate(testKey(5))));
    EXPECT_EQ(zentak_getFilesWithExtensionsAndConvertDER(folder_.path().string().c_str(), {".pem"}, nullptr).size(),
              1U);
    EXPECT_NE(zentak_verifySignatureHash(2, device(), garbage.data(), 32, garbage.data(), 256, garbage.data(), 256,
                                         instance_, false),
              0);
    EXPECT_NE(
        zentak_decrypt(device(), rsa.keyId.data(), userPin, garbage.data(), 256, &output, &length, false, instance_),
        0);
    EXPECT_NE(zentak_decrypt(device(), rsa.keyId.data(), userPin, Bytes(256, 0xFF).data(), 256, &output, &length, false,
                             instance_),
              0);
    Bytes offCurve = ec.publicKey;
    offCurve.back() ^= 1;
    EXPECT_NE(zentak_ecdhDerive(device(), ec.keyId.data(), userPin, offCurve.data(), static_cast<int>(offCurve.size()),
                                &output, &length, instance_),
              0);
    EXPECT_NE(validate("000000"), 0);
    EXPECT_EQ(validate(userPin), 0);
    length = sizeof area;
    EXPECT_EQ(zentak_signHash(device(), rsa.keyId.data(), userPin, garbage.data(), 32, area, &length, false, instance_,
                              false),
              0);
    for (const int reason : reasons) {
        const unsigned long error = ERR_get_error();
        EXPECT_EQ(ERR_GET_LIB(error), ERR_LIB_USER);
        EXPECT_EQ(ERR_GET_REASON(error), reason);
    }
    EXPECT_EQ(ERR_get_error(), 0U);
}

TEST_F(HostileInputTest, StoreThatIsMissingOrNoFolder) {
    for (const std::filesystem::path& store : {folder_.path() / "none", tokenFile()}) {
        setEnvironment("ZENTAK_TOKENS", store.string());
        reopen();
        ASSERT_NE(instance_, nullptr);
        EXPECT_TRUE(zentak_getConnectedDeviceList(false, instance_).empty());
        expectAllRefused(device(), instance_, number(Error::deviceNotPresent));
        EXPECT_EQ(zentak_generateRamdomNumber(device(), 1, std::array<unsigned char, 1>{}.data(), true, nullptr), 48);
    }
    EXPECT_FALSE(std::filesystem::exists(folder_.path() / "none"));
}

TEST_F(HostileInputTest, StrangeThingsInTheStoreAreNoTokens) {
    const std::filesystem::path plugged = folder_.path() / "plugged";
    std::filesystem::create_directories(plugged / "lower");
    std::filesystem::create_directories(plugged / "TOOLONGFORASERIALNUMBER");
    writeFile(plugged / "FILE", "x");
    EXPECT_EQ(zentak_getConnectedDeviceList(false, instance_), std::vector<std::string>{serialNumber_});
}

}  // namespace

}  // namespace softtoken
