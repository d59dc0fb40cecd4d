// Reading certificates, storing them, and finding them in folders.

#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>

#include "keys/certificates.h"
#include "test_certificates.h"
#include "token_test.h"

namespace softtoken {

namespace {

namespace fs = std::filesystem;

CertificateDetails detailsOf(const Bytes& der) {
    CertificateDetails details;
    EXPECT_EQ(zentak_getCertificateDetails(der.data(), static_cast<int>(der.size()), &details, nullptr), 0);
    return details;
}

TEST(CertificateParsingTest, SerialNumberAndValidity) {
    const CertificateDetails details = detailsOf(makeCertificate(testKey(5)));
    EXPECT_EQ(details.text1, "1234");
    EXPECT_EQ(details.text4, "2026-01-02T03:04:05Z");
    EXPECT_EQ(details.text5, "2036-01-02T03:04:05Z");
    EXPECT_EQ(details.text8, "");
}

/// A chain is followed by these names: what one certificate calls its issuer, the other calls itself.
TEST(CertificateParsingTest, IssuerAndSubjectAreWrittenAlike) {
    struct Row {
        const char* what;
        NameParts name;
        std::string whole;
        std::string common;  ///< of a subject; an issuer without a common name has the whole one instead
    };
    const Row rows[] = {
        {"three parts", {{"C", "XX"}, {"O", "Org"}, {"CN", "Alice"}}, "CN=Alice,O=Org,C=XX", "Alice"},
        {"beyond ASCII", {{"CN", "\xC3\x85lice"}}, "CN=\xC3\x85lice", "\xC3\x85lice"},
        {"commas",
         {{"C", "XX"}, {"O", "B\xC3\xBCro, GmbH"}, {"CN", "Root, first"}},
         "CN=Root\\, first,O=B\xC3\xBCro\\, GmbH,C=XX",
         "Root, first"},
        {"no common name", {{"C", "XX"}, {"O", "Old Authority"}}, "O=Old Authority,C=XX", "O=Old Authority,C=XX"},
        {"nothing", {}, "", ""},
        {"the last common name counts", {{"CN", "Users"}, {"CN", "Alice"}}, "CN=Alice,CN=Users", "Alice"},
        {"a zero byte is no text", {{"CN", std::string("good\0evil", 9)}}, "CN=good\\00evil", "CN=good\\00evil"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        CertificateSettings settings;
        settings.subject = row.name;
        CertificateDetails details = detailsOf(makeCertificate(testKey(5), settings));
        EXPECT_EQ(details.subjectCommonName, row.common);
        EXPECT_EQ(details.subject, row.whole);
        EXPECT_EQ(details.issuer, "CN=Root,O=Org,C=XX");
        EXPECT_EQ(details.text6, "Root");
        settings = {};
        settings.issuer = row.name;
        details = detailsOf(makeCertificate(testKey(5), settings));
        EXPECT_EQ(details.text6, row.common);
        EXPECT_EQ(details.issuer, row.whole);
        EXPECT_EQ(details.subject, "CN=Alice,O=Org,C=XX");
        EXPECT_EQ(details.subjectCommonName, "Alice");
    }
}

TEST(CertificateParsingTest, PublicKeyIsInTheFormOfKeyPairs) {
    for (int keyType = 1; keyType <= 7; ++keyType) {
        const Key& key = testKey(keyType);
        const CertificateDetails details = detailsOf(makeCertificate(key));
        ASSERT_FALSE(details.publicKey.empty());
        if (keyType <= 4) {
            EXPECT_EQ(details.publicKey, numberOf(key, "n"));
            EXPECT_EQ(details.publicKey.size(), keyType == 1 ? 128U : 128U * static_cast<unsigned>(keyType));
        } else {
            unsigned char* point = nullptr;
            const std::size_t length = EVP_PKEY_get1_encoded_public_key(key.get(), &point);
            EXPECT_EQ(details.publicKey, Bytes(point, point + length));
            EXPECT_EQ(details.publicKey[0], 0x04);
            OPENSSL_free(point);
        }
    }
}

TEST(CertificateParsingTest, NamesAndSerialNumberInDerAreThoseOfTheCertificate) {
    CertificateSettings settings;
    settings.serialNumber = {0x80, 0x00, 0x01};
    const Bytes der = makeCertificate(testKey(5), settings);
    const int length = static_cast<int>(der.size());
    const Bytes subject = zentak_getCertificateSubject(der.data(), length, nullptr);
    const Bytes issuer = zentak_getCertificateIssuer(der.data(), length, nullptr);
    EXPECT_EQ(zentak_getCertificateSerialDER(der.data(), length, nullptr), (Bytes{0x02, 0x04, 0x00, 0x80, 0x00, 0x01}));
    ASSERT_FALSE(subject.empty());
    ASSERT_FALSE(issuer.empty());
    EXPECT_NE(subject, issuer);
    EXPECT_EQ(subject[0], 0x30);
    EXPECT_NE(std::search(der.begin(), der.end(), subject.begin(), subject.end()), der.end());
    EXPECT_NE(std::search(der.begin(), der.end(), issuer.begin(), issuer.end()), der.end());
    EXPECT_LT(std::search(der.begin(), der.end(), issuer.begin(), issuer.end()),
              std::search(der.begin(), der.end(), subject.begin(), subject.end()));
}

TEST(CertificateParsingTest, GarbageIsRefusedAndLeavesTheDetailsEmpty) {
    const Bytes good = makeCertificate(testKey(5));
    Bytes longer = good;
    longer.push_back(0);
    const Bytes cut(good.begin(), good.end() - 1);
    for (const Bytes& der :
         {Bytes{0x30, 0x03, 0x01, 0x01, 0x00}, Bytes(100, 0xFF), Bytes{0x30, 0x84, 0xFF, 0xFF, 0xFF}, longer, cut}) {
        CertificateDetails details;
        const int length = static_cast<int>(der.size());
        EXPECT_EQ(zentak_getCertificateDetails(der.data(), length, &details, nullptr),
                  number(Error::certificateInvalid));
        EXPECT_TRUE(details.subjectCommonName.empty() && details.subject.empty() && details.publicKey.empty());
        EXPECT_TRUE(zentak_getCertificateSubject(der.data(), length, nullptr).empty());
        EXPECT_TRUE(zentak_getCertificateIssuer(der.data(), length, nullptr).empty());
        EXPECT_TRUE(zentak_getCertificateSerialDER(der.data(), length, nullptr).empty());
    }
}

TEST(CertificateParsingTest, EveryFlippedByteIsReadOrRefused) {
    const Bytes good = makeCertificate(testKey(5));
    for (std::size_t position = 0; position < good.size(); ++position) {
        Bytes der = good;
        der[position] ^= 0x55;
        CertificateDetails details;
        const int result = zentak_getCertificateDetails(der.data(), static_cast<int>(der.size()), &details, nullptr);
        EXPECT_TRUE(result == 0 || result == number(Error::certificateInvalid)) << position;
    }
}

TEST(CertificateParsingTest, NoBytesOrNegativeLengths) {
    const Bytes good = makeCertificate(testKey(5));
    CertificateDetails details;
    for (const int length : {0, -1, INT_MIN}) {
        EXPECT_NE(zentak_getCertificateDetails(good.data(), length, &details, nullptr), 0);
        EXPECT_NE(zentak_getCertificateDetails(nullptr, length, &details, nullptr), 0);
        EXPECT_TRUE(zentak_getCertificateSubject(good.data(), length, nullptr).empty());
    }
    EXPECT_NE(zentak_getCertificateDetails(nullptr, 100, &details, nullptr), 0);
    EXPECT_NE(zentak_getCertificateDetails(good.data(), static_cast<int>(good.size()), nullptr, nullptr), 0);
}

class CertificateStorageTest : public TokenTest {
protected:
    int import(ZentakCertificate& record, const char* password = "") {
        return zentak_importCertificate(device(), password, &record, instance_);
    }
    const std::vector<ZentakCertificate>& list() { return zentak_getCertificateList(device(), instance_); }
};

TEST_F(CertificateStorageTest, ImportNeedsNoPin) {
    const Bytes der = makeCertificate(testKey(5));
    ZentakCertificate record = recordOf(der, "Alice", {0xAB, 0xCD});
    ASSERT_EQ(import(record), 0);
    ASSERT_EQ(list().size(), 1U);
    const ZentakCertificate& stored = list()[0];
    EXPECT_EQ(stored.id, 1U);
    EXPECT_EQ(std::memcmp(stored.certId, record.certId, 16), 0);
    EXPECT_EQ(Bytes(stored.der, stored.der + stored.derLength), der);
    EXPECT_EQ(Bytes(stored.objectId, stored.objectId + stored.objectIdLength), (Bytes{0xAB, 0xCD}));
    EXPECT_STREQ(stored.label, "Alice");
    EXPECT_TRUE(std::all_of(stored.der + stored.derLength, stored.der + sizeof stored.der,
                            [](unsigned char byte) { return byte == 0; }));
}

TEST_F(CertificateStorageTest, WrongPinIsIgnoredAndNotCounted) {
    ZentakCertificate record = recordOf(makeCertificate(testKey(5)));
    EXPECT_EQ(import(record, "000000"), 0);
    EXPECT_EQ(attemptsLeft(), 5);
}

TEST_F(CertificateStorageTest, SameCertificateAgainTakesOverLabelAndId) {
    const Bytes der = makeCertificate(testKey(5));
    ZentakCertificate first = recordOf(der);
    ASSERT_EQ(import(first), 0);
    const std::uint32_t handleNumber = list()[0].id;
    const auto expectAfterImport = [&](const std::string& label, const Bytes& id, const std::string& storedLabel,
                                       const Bytes& storedId) {
        ZentakCertificate record = recordOf(der, label, id);
        ASSERT_EQ(import(record), 0);
        EXPECT_EQ(std::memcmp(first.certId, record.certId, 16), 0);
        for (int look = 0; look < 2; ++look) {
            ASSERT_EQ(list().size(), 1U);
            const ZentakCertificate& stored = list()[0];
            EXPECT_EQ(stored.id, handleNumber);
            EXPECT_EQ(std::memcmp(stored.certId, first.certId, 16), 0);
            EXPECT_STREQ(stored.label, storedLabel.c_str());
            EXPECT_EQ(Bytes(stored.objectId, stored.objectId + stored.objectIdLength), storedId);
            reopen();
        }
    };
    expectAfterImport("Alice", {1}, "Alice", {1});
    expectAfterImport("Bob", {2, 3}, "Bob", {2, 3});
    expectAfterImport("", {}, "Bob", {2, 3});
    expectAfterImport("Carol", {}, "Carol", {2, 3});
    expectAfterImport("", {4}, "Carol", {4});
}

/// A CKA_ID that somebody chose is worth more than one that a program falls back to.
TEST_F(CertificateStorageTest, IdForWantOfAnotherReplacesNone) {
    const Bytes der = makeCertificate(testKey(5));
    TokenData token;
    token.capacity = 2;
    EXPECT_EQ(addCertificate(token, der, "", {}, Bytes{9}).objectId, Bytes{9});
    EXPECT_EQ(addCertificate(token, der, "", Bytes{1}, Bytes{8}).objectId, Bytes{1});
    EXPECT_EQ(addCertificate(token, der, "", {}, Bytes{8}).objectId, Bytes{1});
    token.certificates[0].objectId.clear();
    EXPECT_EQ(addCertificate(token, der, "", {}, Bytes{8}).objectId, Bytes{8});
    EXPECT_EQ(token.certificates.size(), 1U);
    EXPECT_THROW(addCertificate(token, der, "", {}, Bytes(129)), Failure);
}

TEST_F(CertificateStorageTest, LargestCertificateFits) {
    CertificateSettings settings;
    settings.paddingLength = 2000;
    const std::size_t base = makeCertificate(testKey(2), settings).size();
    settings.paddingLength += maximumCertificateLength - base;
    const Bytes der = makeCertificate(testKey(2), settings);
    ASSERT_EQ(der.size(), maximumCertificateLength);
    ZentakCertificate record = recordOf(der);
    EXPECT_EQ(import(record), 0);
    EXPECT_EQ(list()[0].derLength, static_cast<int>(maximumCertificateLength));
}

TEST_F(CertificateStorageTest, RecordsWithImpossibleFieldsAreRefused) {
    const Bytes der = makeCertificate(testKey(5));
    const auto expectRefused = [&](const std::function<void(ZentakCertificate&)>& spoil) {
        ZentakCertificate record = recordOf(der);
        spoil(record);
        EXPECT_NE(import(record), 0);
        EXPECT_TRUE(list().empty());
    };
    for (const int length : {-1, 0, 3073, INT_MAX, INT_MIN}) {
        expectRefused([&](ZentakCertificate& record) { record.derLength = length; });
    }
    for (const int length : {-1, 129, INT_MAX, INT_MIN}) {
        expectRefused([&](ZentakCertificate& record) { record.objectIdLength = length; });
    }
    expectRefused([](ZentakCertificate& record) { std::memset(record.label, 'a', sizeof record.label); });
    expectRefused([](ZentakCertificate& record) { record.der[0] = 0; });
}

TEST_F(CertificateStorageTest, FullTokenSaysSo) {
    store_.change(serialNumber_, [](TokenData& token) { token.capacity = 1; });
    ZentakCertificate first = recordOf(makeCertificate(testKey(5)));
    ZentakCertificate second = recordOf(makeCertificate(testKey(6)));
    EXPECT_EQ(import(first), 0);
    EXPECT_EQ(import(second), 242);
    // The one that is there already needs no room.
    EXPECT_EQ(import(first), 0);
}

class FolderScanTest : public testing::Test {
protected:
    using Found = std::vector<std::pair<std::string, Bytes>>;

    Found scan(const std::string& folder,
               const std::vector<std::string>& extensions = {".cer", ".der", ".pem", ".crt"}) {
        return zentak_getFilesWithExtensionsAndConvertDER(folder.c_str(), extensions, nullptr);
    }
    void write(const std::string& name, const std::string& content) { writeFile(folder_.path() / name, content); }

    TemporaryFolder folder_;
    const Bytes der_ = makeCertificate(testKey(5));
    const std::string derText_{der_.begin(), der_.end()};
};

TEST_F(FolderScanTest, FindsWantedFilesInOrderAndConvertsPem) {
    write("b.der", derText_);
    write("a.PEM", "some text\n" + pemCertificate(der_));
    write("c.txt", derText_);
    write("d.crt", "");
    fs::create_directories(folder_.path() / "e.cer");
    EXPECT_EQ(scan(folder_.path().string()), (Found{{"a.PEM", der_}, {"b.der", der_}}));
    EXPECT_EQ(scan(folder_.path().string(), {".der"}), (Found{{"b.der", der_}}));
    EXPECT_TRUE(scan(folder_.path().string(), {}).empty());
}

TEST_F(FolderScanTest, BundleGivesEachOfItsCertificates) {
    const Bytes other = makeCertificate(testKey(6));
    write("bundle.pem", pemCertificate(der_) + pemPrivateKey(testKey(5)) + pemCertificate(other));
    EXPECT_EQ(scan(folder_.path().string()), (Found{{"bundle.pem", der_}, {"bundle.pem", other}}));
}

TEST_F(FolderScanTest, BothKindsOfSlashSeparate) {
    fs::create_directories(folder_.path() / "ZentakDSC" / "Certificates");
    writeFile(folder_.path() / "ZentakDSC" / "Certificates" / "a.cer", derText_);
    EXPECT_EQ(scan(folder_.path().string() + "\\ZentakDSC\\Certificates").size(), 1U);
    EXPECT_EQ(scan(folder_.path().string() + "/ZentakDSC/Certificates").size(), 1U);
}

TEST_F(FolderScanTest, MissingFolderHoldsNothing) {
    EXPECT_TRUE(scan((folder_.path() / "none").string()).empty());
    EXPECT_TRUE(scan("").empty());
    EXPECT_TRUE(zentak_getFilesWithExtensionsAndConvertDER(nullptr, {".cer"}, nullptr).empty());
}

TEST_F(FolderScanTest, OrderIsThatOfTheNames) {
    std::vector<std::string> names;
    for (int i = 0; i < 60; ++i) names.push_back(std::to_string(100 + i * 37 % 60) + ".cer");
    for (const std::string& name : names) write(name, derText_);
    std::sort(names.begin(), names.end());
    Found expected;
    for (const std::string& name : names) expected.emplace_back(name, der_);
    EXPECT_EQ(scan(folder_.path().string()), expected);
}

TEST_F(FolderScanTest, OneMebibyteIsNotTooLarge) {
    std::string content = pemCertificate(der_);
    content.insert(0, std::string((1 << 20) - content.size() - 1, 'x') + "\n");
    ASSERT_EQ(content.size(), 1U << 20);
    write("a.pem", content);
    write("b.pem", "x" + content);
    EXPECT_EQ(scan(folder_.path().string()), (Found{{"a.pem", der_}}));
}

TEST_F(FolderScanTest, HugeAndBrokenFilesDoNotHarm) {
    write("huge.cer", std::string((1 << 20) + 1, 'x'));
    write("broken.pem", "-----BEGIN CERTIFICATE-----\n!!!\n-----END CERTIFICATE-----\n");
    write("good.cer", derText_);
    EXPECT_EQ(scan(folder_.path().string()), (Found{{"good.cer", der_}}));
}

}  // namespace

}  // namespace softtoken
